// Helpers every vgw test shares: row uuids and addresses from short text,
// the hardware_vtep schema, the server's rows as libopenvswitch JSON
// compared column by column, and a capture of the trace stream.
#pragma once

#include <gtest/gtest.h>
#include <openvswitch/json.h>
#include <openvswitch/shash.h>

#include <cstdlib>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "Ipkit/EthAddr.h"
#include "Ipkit/IpGenAddr.h"
#include "Ovs/OvsHandles.h"
#include "OvsdbServer.h"
#include "RingTape/RingTape.h"
#include "model/Uuid.h"

namespace Vgw::Test {

// A uuid as the server makes them; `n` orders them.
inline Uuid rowId(std::uint32_t n) { return Uuid(0, 0, 0x80000000u, n); }
inline Ipkit::EthAddr mac(std::string_view text) { return Ipkit::EthAddr::parse(text); }
inline Ipkit::IpGenAddr ip(std::string_view text) { return Ipkit::IpGenAddr::parse(text); }

template <class Map>
std::set<typename Map::key_type> keysOf(const Map& map) {
  std::set<typename Map::key_type> out;
  for (const auto& [key, value] : map) out.insert(key);
  return out;
}

inline Ovs::JsonPtr parseJson(const std::string& text) { return Ovs::JsonPtr(json_from_string(text.c_str())); }

inline std::string toText(const json* j) {
  const Ovs::CString text(json_to_string(j, JSSF_SORT));
  return text.get();
}

// The hardware_vtep schema as installed, for tests that need no server.
inline Ovs::SchemaPtr schemaFromFile() {
  const Ovs::JsonPtr j(json_from_file("/usr/share/openvswitch/vtep.ovsschema"));
  ovsdb_schema* schema = nullptr;
  const Ovs::CString problem(ovsc_ovsdb_schema_from_json(j.get(), &schema));
  EXPECT_EQ(problem, nullptr) << problem.get();
  return Ovs::SchemaPtr(schema);
}

inline const ovsdb_table_schema& tableOf(const Ovs::SchemaPtr& schema, const char* name) {
  return *ovsc_ovsdb_schema_table(schema.get(), name);
}

// The rows of a table as the server holds them, "_uuid" included.
inline std::vector<Ovs::JsonPtr> serverRows(OvsdbServer& server, std::string_view table) {
  const Ovs::JsonPtr rows = parseJson(server.dump(table));
  std::vector<Ovs::JsonPtr> out;
  const struct json_array* array = json_array(rows.get());
  for (std::size_t i = 0; i < array->n; ++i) out.emplace_back(json_clone(array->elems[i]));
  return out;
}

inline const json* column(const json* row, const char* name) {
  return static_cast<const json*>(shash_find_data(json_object(row), name));
}

inline Uuid rowUuid(const json* row) { return Uuid::parse(json_string(json_array(column(row, "_uuid"))->elems[1])); }

// A column value as OVSDB prints it, so that the bare form of a set of one
// and its ["set", [...]] form read the same.
inline std::string canonical(const ovsdb_table_schema& table, const char* name, const json* value) {
  const ovsc_column* c = ovsc_ovsdb_table_schema_get_column(&table, name);
  if (!c) return "<no column " + std::string(name) + ">";
  if (!value) return "<absent>";
  ovsc_datum* parsed = nullptr;
  const Ovs::CString problem(ovsc_ovsdb_datum_from_json(c, value, &parsed));
  if (problem) return std::string("<") + problem.get() + ">";
  const Ovs::DatumPtr datum(parsed);
  const Ovs::CString text(ovsc_ovsdb_datum_to_string(datum.get()));
  return text.get();
}

// Expects each column of `written`, a row object the agent would send, to
// hold the same value in `stored`, the server's row.
inline void expectColumnsMatch(const ovsdb_table_schema& table, const json* written, const json* stored) {
  const shash_node** nodes = shash_sort(json_object(written));
  const std::size_t n = shash_count(json_object(written));
  for (std::size_t i = 0; i < n; ++i) {
    const char* name = nodes[i]->name;
    EXPECT_EQ(canonical(table, name, static_cast<const json*>(nodes[i]->data)),
              canonical(table, name, column(stored, name)))
        << "column " << name << " of " << toText(stored);
  }
  std::free(nodes);
}

// Collects what the given handles trace at the given levels while it lives.
class TraceCapture {
 public:
  explicit TraceCapture(const char* levels) {
    setenv("VGW_TRACE", levels, 1);
    RingTape::reloadLevels();
    RingTape::streamIs(&stream_);
  }
  ~TraceCapture() {
    RingTape::streamIs(nullptr);
    unsetenv("VGW_TRACE");
    RingTape::reloadLevels();
  }
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  std::string text() const { return stream_.str(); }
  bool contains(std::string_view part) const { return count(part) > 0; }
  std::size_t count(std::string_view part) const {
    const std::string text = stream_.str();
    std::size_t n = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
    return n;
  }

 private:
  std::ostringstream stream_;
};

// A regular expression matching `text` literally, for EXPECT_DEATH with
// an assertion's exact text.
inline std::string literally(std::string_view text) {
  std::string out;
  for (char c : text) {
    if (std::string_view("\\^$.|?*+()[]{}").find(c) != std::string_view::npos) out += '\\';
    out += c;
  }
  return out;
}

}  // namespace Vgw::Test
