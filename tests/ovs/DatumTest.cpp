// Schemas and datums through the C layer: the column types the agent relies
// on, column values in their wire forms parsed against them, read atom by
// atom and printed, and schemas and values refused when malformed.
#include <gtest/gtest.h>
#include <openvswitch/json.h>
#include <openvswitch/uuid.h>

#include <algorithm>
#include <climits>
#include <string>
#include <vector>

#include "OvscSupport.h"

namespace Vgw::Test {
namespace {

class OvsDatum : public ::testing::Test {
 protected:
  void SetUp() override {
    schema_ = schemaFromFile();
    ASSERT_TRUE(schema_);
  }

  const ovsc_column* col(const char* table, const char* name) {
    const ovsc_column* c = column(schema_.get(), table, name);
    EXPECT_NE(c, nullptr) << table << "." << name;
    return c;
  }

  // Parses 'text' as a value of the column; a parse error fails the test.
  DatumPtr parse(const char* table, const char* name, const std::string& text) {
    ovsc_datum* datum = nullptr;
    CString error(ovsc_ovsdb_datum_from_json(col(table, name), parseJson(text).get(), &datum));
    EXPECT_EQ(error, nullptr) << table << "." << name << " " << text << ": " << error.get();
    return DatumPtr(datum);
  }

  SchemaPtr schema_;
};

using OvsSchema = OvsDatum;

TEST_F(OvsSchema, ColumnsCarryTheirTypes) {
  const ovsc_column* bindings = col("Physical_Port", "vlan_bindings");
  const ovsc_column* tunnelKey = col("Logical_Switch", "tunnel_key");
  const ovsc_column* connected = col("Manager", "is_connected");
  ASSERT_TRUE(bindings && tunnelKey && connected);
  EXPECT_STREQ(ovsc_column_name(bindings), "vlan_bindings");
  EXPECT_EQ(ovsc_column_key_type(bindings), OVSC_TYPE_INTEGER);
  EXPECT_EQ(ovsc_column_value_type(bindings), OVSC_TYPE_UUID);
  EXPECT_EQ(ovsc_column_n_max(bindings), UINT_MAX);
  EXPECT_TRUE(ovsc_column_is_map(bindings));
  EXPECT_FALSE(ovsc_column_is_set(bindings));
  // Optional values are sets of at most one.
  EXPECT_EQ(ovsc_column_value_type(tunnelKey), OVSC_TYPE_VOID);
  EXPECT_EQ(ovsc_column_n_max(tunnelKey), 1u);
  EXPECT_TRUE(ovsc_column_is_set(tunnelKey));
  EXPECT_FALSE(ovsc_column_is_scalar(tunnelKey));
  EXPECT_EQ(ovsc_column_key_type(connected), OVSC_TYPE_BOOLEAN);
  EXPECT_TRUE(ovsc_column_is_scalar(connected));
  EXPECT_EQ(ovsc_ovsdb_schema_table(schema_.get(), "physical_switch"), nullptr);
  EXPECT_EQ(column(schema_.get(), "Physical_Switch", "no_such_column"), nullptr);

  // Columns come sorted by name, "_uuid" and "_version" among them; a short
  // buffer receives the first ones and learns the count.
  const ovsdb_table_schema* sw = ovsc_ovsdb_schema_table(schema_.get(), "Physical_Switch");
  ASSERT_NE(sw, nullptr);
  std::vector<const ovsc_column*> all(ovsc_ovsdb_table_schema_columns(sw, nullptr, 0));
  ASSERT_EQ(ovsc_ovsdb_table_schema_columns(sw, all.data(), all.size()), 10u);
  std::vector<std::string> names;
  for (const auto* c : all) names.emplace_back(ovsc_column_name(c));
  EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
  EXPECT_EQ(names[0], "_uuid");
  EXPECT_EQ(names[1], "_version");
  const ovsc_column* first[2] = {nullptr, nullptr};
  EXPECT_EQ(ovsc_ovsdb_table_schema_columns(sw, first, 2), 10u);
  EXPECT_EQ(first[1], all[1]);
}

TEST(OvsSchemaParse, MalformedSchemasGiveErrors) {
  for (const char* text : {
           R"({"name": "x", "version": "1.0.0"})",                                   // no tables
           R"({"name": "x", "tables": {"T": {"columns": {"c": {"type": "nope"}}}}})",  // bad type
           R"(["not", "an", "object"])",
       }) {
    SCOPED_TRACE(text);
    char sentinel = 0;  // The output must be overwritten, not left alone.
    ovsdb_schema* schema = reinterpret_cast<ovsdb_schema*>(&sentinel);
    CString error(ovsc_ovsdb_schema_from_json(parseJson(text).get(), &schema));
    ASSERT_NE(error, nullptr);
    EXPECT_STRNE(error.get(), "");
    EXPECT_EQ(schema, nullptr);
  }
}

// Elements are kept in OVSDB's sorted order and read by position and role.
// What the agent reads of every table is shown by the marshalling tests.
TEST_F(OvsDatum, AtomsAreReadByPositionAndRole) {
  DatumPtr config = parse("Physical_Switch", "other_config", R"(["map", [["b", "two words"], ["a", "1"]]])");
  DatumPtr bindings = parse("Physical_Port", "vlan_bindings",
                            R"(["map", [[300, ["uuid", "00000000-0000-0000-0000-00000000002a"]],
                                        [10, ["uuid", "deadbeef-0001-0002-0003-000400050006"]]]])");
  DatumPtr port = parse("Physical_Switch", "ports", R"(["uuid", "0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0"])");
  ASSERT_TRUE(config && bindings && port);
  EXPECT_EQ(ovsc_datum_count(port.get()), 1u);  // The bare form of a one-element set.
  EXPECT_STREQ(CString(ovsc_ovsdb_datum_to_string(config.get())).get(), R"({a="1", b="two words"})");
  const char* s = nullptr;
  ASSERT_TRUE(ovsc_datum_string(config.get(), OVSC_VALUE, 1, &s));
  EXPECT_STREQ(s, "two words");

  int64_t vlan = -1;
  ASSERT_TRUE(ovsc_datum_integer(bindings.get(), OVSC_KEY, 1, &vlan));
  EXPECT_EQ(vlan, 300);
  uuid u{};
  ASSERT_TRUE(ovsc_datum_uuid(bindings.get(), OVSC_VALUE, 0, &u));
  EXPECT_EQ(u.parts[0], 0xdeadbeefu);
  EXPECT_EQ(u.parts[3], 0x00050006u);
  char text[OVSC_UUID_TEXT_SIZE];
  ASSERT_TRUE(ovsc_datum_uuid_text(port.get(), OVSC_KEY, 0, text));
  EXPECT_STREQ(text, "0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0");
}

TEST_F(OvsDatum, DefaultAtoms) {
  DatumPtr emptyName = parse("Physical_Switch", "name", R"("")");
  DatumPtr name = parse("Physical_Switch", "name", R"("sw0")");
  DatumPtr zeroUuid = parse("Ucast_Macs_Remote", "locator", R"(["uuid", "00000000-0000-0000-0000-000000000000"])");
  DatumPtr vlanZero = parse("Physical_Port", "vlan_bindings",
                            R"(["map", [[0, ["uuid", "00000000-0000-0000-0000-000000000001"]]]])");
  DatumPtr disconnected = parse("Manager", "is_connected", "false");
  ASSERT_TRUE(emptyName && name && zeroUuid && vlanZero && disconnected);
  EXPECT_TRUE(ovsc_ovsdb_atom_is_default(emptyName.get(), OVSC_KEY, 0));
  EXPECT_FALSE(ovsc_ovsdb_atom_is_default(name.get(), OVSC_KEY, 0));
  EXPECT_TRUE(ovsc_ovsdb_atom_is_default(zeroUuid.get(), OVSC_KEY, 0));
  EXPECT_TRUE(ovsc_ovsdb_atom_is_default(vlanZero.get(), OVSC_KEY, 0));
  EXPECT_FALSE(ovsc_ovsdb_atom_is_default(vlanZero.get(), OVSC_VALUE, 0));
  EXPECT_TRUE(ovsc_ovsdb_atom_is_default(disconnected.get(), OVSC_KEY, 0));
}

// Reads that do not fit the datum report it and leave the output alone,
// where the libraries would read the wrong union member or abort.
TEST_F(OvsDatum, MismatchedReadsAreRefused) {
  DatumPtr set = parse("Physical_Switch", "tunnel_ips", R"(["set", ["10.0.0.1"]])");
  DatumPtr map = parse("Physical_Port", "vlan_bindings",
                       R"(["map", [[7, ["uuid", "00000000-0000-0000-0000-000000000001"]]]])");
  ASSERT_TRUE(set && map);

  const char* s = "untouched";
  int64_t i = 42;
  uuid u{{1, 2, 3, 4}};
  char text[OVSC_UUID_TEXT_SIZE] = "untouched";
  bool b = true;

  EXPECT_FALSE(ovsc_datum_string(set.get(), OVSC_KEY, 1, &s));    // Past the end.
  EXPECT_FALSE(ovsc_datum_string(set.get(), OVSC_VALUE, 0, &s));  // A set has no values.
  EXPECT_FALSE(ovsc_datum_integer(set.get(), OVSC_KEY, 0, &i));   // Wrong type.
  EXPECT_FALSE(ovsc_datum_uuid(set.get(), OVSC_KEY, 0, &u));
  EXPECT_FALSE(ovsc_datum_uuid_text(map.get(), OVSC_KEY, 0, text));
  EXPECT_FALSE(ovsc_datum_string(map.get(), OVSC_VALUE, 0, &s));
  EXPECT_FALSE(ovsc_datum_boolean(map.get(), OVSC_KEY, 0, &b));
  EXPECT_FALSE(ovsc_ovsdb_atom_is_default(set.get(), OVSC_VALUE, 0));
  EXPECT_FALSE(ovsc_ovsdb_atom_is_default(map.get(), OVSC_KEY, 1));

  EXPECT_STREQ(s, "untouched");
  EXPECT_EQ(i, 42);
  EXPECT_EQ(u.parts[0], 1u);
  EXPECT_STREQ(text, "untouched");
  EXPECT_TRUE(b);
}

TEST_F(OvsDatum, MalformedValuesGiveErrors) {
  struct Case {
    const char* table;
    const char* name;
    const char* text;  // Null: no JSON at all.
  };
  for (const Case& c : {
           Case{"Physical_Switch", "tunnel_ips", R"(["set", "10.0.0.1"])"},
           Case{"Physical_Switch", "name", R"(["set", ["a", "b"]])"},
           Case{"Physical_Switch", "name", nullptr},
           Case{"Logical_Switch", "tunnel_key", R"("5000")"},
           // Named uuids belong inside a transaction, never in the database's answers.
           Case{"Physical_Switch", "ports", R"(["named-uuid", "row1"])"},
           // Bounds the schema sets on a column are enforced.
           Case{"Logical_Switch", "replication_mode", R"("flooding")"},
           Case{"Physical_Port", "vlan_bindings",
                R"(["map", [[4096, ["uuid", "00000000-0000-0000-0000-000000000001"]]]])"},
       }) {
    SCOPED_TRACE(c.text ? c.text : "(no JSON)");
    char sentinel = 0;  // The output must be overwritten, not left alone.
    ovsc_datum* datum = reinterpret_cast<ovsc_datum*>(&sentinel);
    JsonPtr j = c.text ? parseJson(c.text) : nullptr;
    CString error(ovsc_ovsdb_datum_from_json(col(c.table, c.name), j.get(), &datum));
    EXPECT_EQ(datum, nullptr);
    ASSERT_NE(error, nullptr);
    EXPECT_STRNE(error.get(), "");
  }
}

}  // namespace
}  // namespace Vgw::Test
