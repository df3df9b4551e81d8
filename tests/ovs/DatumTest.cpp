// Datums through the C layer: column values in their wire forms parsed
// against hardware_vtep column types, read atom by atom, printed, and
// refused when malformed.
#include <gtest/gtest.h>
#include <openvswitch/json.h>
#include <openvswitch/uuid.h>

#include <string>

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

  // The error text of parsing 'text', which must fail.
  std::string refuse(const char* table, const char* name, const std::string& text) {
    char sentinel = 0;  // The output must be overwritten, not left alone.
    ovsc_datum* datum = reinterpret_cast<ovsc_datum*>(&sentinel);
    CString error(ovsc_ovsdb_datum_from_json(col(table, name), parseJson(text).get(), &datum));
    EXPECT_EQ(datum, nullptr) << text;
    EXPECT_NE(error, nullptr) << text << " was accepted";
    return error ? error.get() : "";
  }

  static std::string printed(const ovsc_datum* d) {
    CString text(ovsc_ovsdb_datum_to_string(d));
    return text.get();
  }

  static std::string stringAt(const ovsc_datum* d, ovsc_atom_role role, unsigned i) {
    const char* s = nullptr;
    EXPECT_TRUE(ovsc_datum_string(d, role, i, &s));
    return s ? s : "";
  }

  SchemaPtr schema_;
};

TEST_F(OvsDatum, SetOfStringsIsSorted) {
  DatumPtr d = parse("Physical_Switch", "tunnel_ips", R"(["set", ["10.0.0.2", "10.0.0.1"]])");
  ASSERT_TRUE(d);
  ASSERT_EQ(ovsc_datum_count(d.get()), 2u);
  EXPECT_EQ(stringAt(d.get(), OVSC_KEY, 0), "10.0.0.1");
  EXPECT_EQ(stringAt(d.get(), OVSC_KEY, 1), "10.0.0.2");
  EXPECT_EQ(printed(d.get()), R"(["10.0.0.1", "10.0.0.2"])");

  DatumPtr empty = parse("Physical_Switch", "tunnel_ips", R"(["set", []])");
  ASSERT_TRUE(empty);
  EXPECT_EQ(ovsc_datum_count(empty.get()), 0u);
  EXPECT_EQ(printed(empty.get()), "[]");
}

TEST_F(OvsDatum, BareSingleElementSet) {
  DatumPtr d = parse("Physical_Switch", "management_ips", R"("192.0.2.7")");
  ASSERT_TRUE(d);
  ASSERT_EQ(ovsc_datum_count(d.get()), 1u);
  EXPECT_EQ(stringAt(d.get(), OVSC_KEY, 0), "192.0.2.7");

  DatumPtr ref = parse("Physical_Switch", "ports", R"(["uuid", "0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0"])");
  ASSERT_TRUE(ref);
  ASSERT_EQ(ovsc_datum_count(ref.get()), 1u);
  char text[OVSC_UUID_TEXT_SIZE];
  ASSERT_TRUE(ovsc_datum_uuid_text(ref.get(), OVSC_KEY, 0, text));
  EXPECT_STREQ(text, "0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0");
}

TEST_F(OvsDatum, MapOfIntegerToUuid) {
  DatumPtr d = parse("Physical_Port", "vlan_bindings",
                     R"(["map", [[300, ["uuid", "00000000-0000-0000-0000-00000000002a"]],
                                 [10, ["uuid", "deadbeef-0001-0002-0003-000400050006"]]]])");
  ASSERT_TRUE(d);
  ASSERT_EQ(ovsc_datum_count(d.get()), 2u);

  int64_t vlan = -1;
  ASSERT_TRUE(ovsc_datum_integer(d.get(), OVSC_KEY, 0, &vlan));
  EXPECT_EQ(vlan, 10);
  ASSERT_TRUE(ovsc_datum_integer(d.get(), OVSC_KEY, 1, &vlan));
  EXPECT_EQ(vlan, 300);

  uuid u{};
  ASSERT_TRUE(ovsc_datum_uuid(d.get(), OVSC_VALUE, 0, &u));
  EXPECT_EQ(u.parts[0], 0xdeadbeefu);
  EXPECT_EQ(u.parts[1], 0x00010002u);
  EXPECT_EQ(u.parts[2], 0x00030004u);
  EXPECT_EQ(u.parts[3], 0x00050006u);
  char text[OVSC_UUID_TEXT_SIZE];
  ASSERT_TRUE(ovsc_datum_uuid_text(d.get(), OVSC_VALUE, 1, text));
  EXPECT_STREQ(text, "00000000-0000-0000-0000-00000000002a");

  EXPECT_EQ(printed(d.get()),
            "{10=deadbeef-0001-0002-0003-000400050006, 300=00000000-0000-0000-0000-00000000002a}");
}

TEST_F(OvsDatum, MapOfStrings) {
  DatumPtr d = parse("Physical_Switch", "other_config",
                     R"(["map", [["b key", "two words"], ["a", "1"]]])");
  ASSERT_TRUE(d);
  ASSERT_EQ(ovsc_datum_count(d.get()), 2u);
  EXPECT_EQ(stringAt(d.get(), OVSC_KEY, 0), "a");
  EXPECT_EQ(stringAt(d.get(), OVSC_VALUE, 0), "1");
  EXPECT_EQ(stringAt(d.get(), OVSC_KEY, 1), "b key");
  EXPECT_EQ(stringAt(d.get(), OVSC_VALUE, 1), "two words");
  EXPECT_EQ(printed(d.get()), R"({a="1", "b key"="two words"})");
}

TEST_F(OvsDatum, OptionalInteger) {
  DatumPtr none = parse("Logical_Switch", "tunnel_key", R"(["set", []])");
  ASSERT_TRUE(none);
  EXPECT_EQ(ovsc_datum_count(none.get()), 0u);

  DatumPtr key = parse("Logical_Switch", "tunnel_key", "5001");
  ASSERT_TRUE(key);
  ASSERT_EQ(ovsc_datum_count(key.get()), 1u);
  int64_t vni = 0;
  ASSERT_TRUE(ovsc_datum_integer(key.get(), OVSC_KEY, 0, &vni));
  EXPECT_EQ(vni, 5001);
  EXPECT_EQ(printed(key.get()), "5001");
}

TEST_F(OvsDatum, ScalarsPrintAsTheAgentReadsThem) {
  DatumPtr name = parse("Physical_Switch", "name", R"("sw 0")");
  ASSERT_TRUE(name);
  EXPECT_EQ(printed(name.get()), R"("sw 0")");

  DatumPtr connected = parse("Manager", "is_connected", "true");
  ASSERT_TRUE(connected);
  bool value = false;
  ASSERT_TRUE(ovsc_datum_boolean(connected.get(), OVSC_KEY, 0, &value));
  EXPECT_TRUE(value);
  EXPECT_EQ(printed(connected.get()), "true");
}

TEST_F(OvsDatum, DefaultAtoms) {
  DatumPtr emptyName = parse("Physical_Switch", "name", R"("")");
  DatumPtr name = parse("Physical_Switch", "name", R"("sw0")");
  DatumPtr zeroUuid = parse("Ucast_Macs_Remote", "locator",
                            R"(["uuid", "00000000-0000-0000-0000-000000000000"])");
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
  double r = 1.5;
  bool b = true;

  EXPECT_FALSE(ovsc_datum_string(set.get(), OVSC_KEY, 1, &s));    // Past the end.
  EXPECT_FALSE(ovsc_datum_string(set.get(), OVSC_VALUE, 0, &s));  // A set has no values.
  EXPECT_FALSE(ovsc_datum_integer(set.get(), OVSC_KEY, 0, &i));   // Wrong type.
  EXPECT_FALSE(ovsc_datum_uuid(set.get(), OVSC_KEY, 0, &u));
  EXPECT_FALSE(ovsc_datum_uuid_text(map.get(), OVSC_KEY, 0, text));
  EXPECT_FALSE(ovsc_datum_string(map.get(), OVSC_VALUE, 0, &s));
  EXPECT_FALSE(ovsc_datum_real(map.get(), OVSC_KEY, 0, &r));
  EXPECT_FALSE(ovsc_datum_boolean(map.get(), OVSC_KEY, 0, &b));
  EXPECT_FALSE(ovsc_ovsdb_atom_is_default(set.get(), OVSC_VALUE, 0));
  EXPECT_FALSE(ovsc_ovsdb_atom_is_default(map.get(), OVSC_KEY, 1));

  EXPECT_STREQ(s, "untouched");
  EXPECT_EQ(i, 42);
  EXPECT_EQ(u.parts[0], 1u);
  EXPECT_STREQ(text, "untouched");
  EXPECT_EQ(r, 1.5);
  EXPECT_TRUE(b);
}

TEST_F(OvsDatum, MalformedValuesGiveErrors) {
  refuse("Physical_Switch", "tunnel_ips", R"(["set", "10.0.0.1"])");
  refuse("Physical_Switch", "tunnel_ips", R"(["set", [1, 2]])");
  refuse("Physical_Switch", "other_config", R"(["map", [["only a key"]]])");
  refuse("Physical_Switch", "other_config", R"(["set", ["a"]])");
  refuse("Physical_Switch", "name", "17");
  refuse("Physical_Switch", "name", R"(["set", ["a", "b"]])");
  refuse("Logical_Switch", "tunnel_key", R"(["set", [1, 2]])");
  refuse("Logical_Switch", "tunnel_key", R"("5000")");
  refuse("Physical_Switch", "ports", R"(["uuid", "not-a-uuid"])");
  refuse("Logical_Switch", "replication_mode", R"("flooding")");  // Outside the enum.

  // Bounds the schema sets on a column are enforced.
  refuse("Physical_Port", "vlan_bindings",
         R"(["map", [[4096, ["uuid", "00000000-0000-0000-0000-000000000001"]]]])");

  // Named uuids belong inside a transaction, never in the database's answers.
  EXPECT_NE(refuse("Physical_Switch", "ports", R"(["named-uuid", "row1"])"), "");
}

TEST_F(OvsDatum, MissingJsonGivesError) {
  ovsc_datum* datum = nullptr;
  CString error(ovsc_ovsdb_datum_from_json(col("Physical_Switch", "name"), nullptr, &datum));
  EXPECT_NE(error, nullptr);
  EXPECT_EQ(datum, nullptr);
}

// The one atomic type hardware_vtep lacks, on a schema of its own.
TEST(OvsDatumReal, RealColumn) {
  JsonPtr j = parseJson(R"({"name": "t", "version": "1.0.0", "tables": {"T": {"columns": {
      "ratio": {"type": "real"}, "weights": {"type": {"key": "string", "value": "real",
                                                      "min": 0, "max": "unlimited"}}}}}})");
  ovsdb_schema* raw = nullptr;
  CString schemaError(ovsc_ovsdb_schema_from_json(j.get(), &raw));
  SchemaPtr schema(raw);
  ASSERT_EQ(schemaError, nullptr) << schemaError.get();

  const ovsc_column* ratio = column(schema.get(), "T", "ratio");
  ASSERT_NE(ratio, nullptr);
  EXPECT_EQ(ovsc_column_key_type(ratio), OVSC_TYPE_REAL);
  ovsc_datum* d = nullptr;
  CString error(ovsc_ovsdb_datum_from_json(ratio, parseJson("0.25").get(), &d));
  DatumPtr datum(d);
  ASSERT_EQ(error, nullptr) << error.get();
  double value = 0;
  ASSERT_TRUE(ovsc_datum_real(datum.get(), OVSC_KEY, 0, &value));
  EXPECT_EQ(value, 0.25);
  EXPECT_FALSE(ovsc_ovsdb_atom_is_default(datum.get(), OVSC_KEY, 0));

  const ovsc_column* weights = column(schema.get(), "T", "weights");
  ASSERT_NE(weights, nullptr);
  CString mapError(ovsc_ovsdb_datum_from_json(weights, parseJson(R"(["map", [["w", 0.0]]])").get(), &d));
  DatumPtr map(d);
  ASSERT_EQ(mapError, nullptr) << mapError.get();
  ASSERT_TRUE(ovsc_datum_real(map.get(), OVSC_VALUE, 0, &value));
  EXPECT_EQ(value, 0.0);
  EXPECT_TRUE(ovsc_ovsdb_atom_is_default(map.get(), OVSC_VALUE, 0));
}

}  // namespace
}  // namespace Vgw::Test
