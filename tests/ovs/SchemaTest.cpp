// Schemas through the C layer: the hardware_vtep schema fetched from a real
// server with "get_schema", the column types the agent relies on, and
// schemas that do not parse.
#include <gtest/gtest.h>
#include <openvswitch/json.h>

#include <algorithm>
#include <climits>
#include <string>
#include <vector>

#include "OvsdbServer.h"
#include "OvscSupport.h"

namespace Vgw::Test {
namespace {

// The schema as the agent obtains it: a blocking "get_schema" for the one
// database, parsed from the reply's result.
SchemaPtr fetchSchema(const OvsdbServer& server) {
  RpcPtr rpc = connect(server.target());
  if (!rpc) return nullptr;
  jsonrpc_msg* request = ovsc_jsonrpc_create_request(
      "get_schema", json_array_create_1(json_string_create("hardware_vtep")), nullptr);
  jsonrpc_msg* raw = nullptr;
  EXPECT_EQ(ovsc_jsonrpc_transact_block(rpc.get(), request, &raw), 0);
  MsgPtr reply(raw);
  if (!reply || !ovsc_jsonrpc_msg_result(reply.get())) {
    ADD_FAILURE() << "get_schema gave no result";
    return nullptr;
  }
  ovsdb_schema* schema = nullptr;
  CString error(ovsc_ovsdb_schema_from_json(ovsc_jsonrpc_msg_result(reply.get()), &schema));
  EXPECT_EQ(error, nullptr) << error.get();
  return SchemaPtr(schema);
}

std::vector<std::string> tableNames(const ovsdb_schema* schema) {
  std::vector<const ovsdb_table_schema*> tables(ovsc_ovsdb_schema_tables(schema, nullptr, 0));
  EXPECT_EQ(ovsc_ovsdb_schema_tables(schema, tables.data(), tables.size()), tables.size());
  std::vector<std::string> names;
  for (const auto* t : tables) names.emplace_back(ovsc_ovsdb_table_schema_name(t));
  return names;
}

std::vector<std::string> columnNames(const ovsdb_table_schema* table) {
  std::vector<const ovsc_column*> columns(ovsc_ovsdb_table_schema_columns(table, nullptr, 0));
  EXPECT_EQ(ovsc_ovsdb_table_schema_columns(table, columns.data(), columns.size()), columns.size());
  std::vector<std::string> names;
  for (const auto* c : columns) names.emplace_back(ovsc_column_name(c));
  return names;
}

TEST(OvsSchema, FetchedSchemaIsHardwareVtep) {
  OvsdbServer server;
  SchemaPtr schema = fetchSchema(server);
  ASSERT_TRUE(schema);

  EXPECT_STREQ(ovsc_ovsdb_schema_name(schema.get()), "hardware_vtep");
  EXPECT_STRNE(ovsc_ovsdb_schema_version(schema.get()), "");
  // The installed schema file, which the other tests parse, is the same.
  SchemaPtr file = schemaFromFile();
  ASSERT_TRUE(file);
  EXPECT_STREQ(ovsc_ovsdb_schema_version(file.get()), ovsc_ovsdb_schema_version(schema.get()));
  EXPECT_EQ(tableNames(file.get()), tableNames(schema.get()));
  EXPECT_EQ(tableNames(schema.get()),
            (std::vector<std::string>{
                "ACL", "ACL_entry", "Arp_Sources_Local", "Arp_Sources_Remote", "Global",
                "Logical_Binding_Stats", "Logical_Router", "Logical_Switch", "Manager",
                "Mcast_Macs_Local", "Mcast_Macs_Remote", "Physical_Locator",
                "Physical_Locator_Set", "Physical_Port", "Physical_Switch", "Tunnel",
                "Ucast_Macs_Local", "Ucast_Macs_Remote"}));

  const ovsdb_table_schema* sw = ovsc_ovsdb_schema_table(schema.get(), "Physical_Switch");
  ASSERT_NE(sw, nullptr);
  EXPECT_STREQ(ovsc_ovsdb_table_schema_name(sw), "Physical_Switch");
  EXPECT_EQ(columnNames(sw),
            (std::vector<std::string>{"_uuid", "_version", "description", "management_ips", "name",
                                      "other_config", "ports", "switch_fault_status", "tunnel_ips",
                                      "tunnels"}));
}

TEST(OvsSchema, ColumnTypes) {
  SchemaPtr schema = schemaFromFile();
  ASSERT_TRUE(schema);

  const ovsc_column* vlanBindings = column(schema.get(), "Physical_Port", "vlan_bindings");
  ASSERT_NE(vlanBindings, nullptr);
  EXPECT_STREQ(ovsc_column_name(vlanBindings), "vlan_bindings");
  EXPECT_TRUE(ovsc_column_is_map(vlanBindings));
  EXPECT_FALSE(ovsc_column_is_set(vlanBindings));
  EXPECT_FALSE(ovsc_column_is_scalar(vlanBindings));
  EXPECT_EQ(ovsc_column_key_type(vlanBindings), OVSC_TYPE_INTEGER);
  EXPECT_EQ(ovsc_column_value_type(vlanBindings), OVSC_TYPE_UUID);
  EXPECT_EQ(ovsc_column_n_min(vlanBindings), 0u);
  EXPECT_EQ(ovsc_column_n_max(vlanBindings), UINT_MAX);

  const ovsc_column* tunnelKey = column(schema.get(), "Logical_Switch", "tunnel_key");
  ASSERT_NE(tunnelKey, nullptr);
  EXPECT_EQ(ovsc_column_key_type(tunnelKey), OVSC_TYPE_INTEGER);
  EXPECT_EQ(ovsc_column_value_type(tunnelKey), OVSC_TYPE_VOID);
  EXPECT_EQ(ovsc_column_n_min(tunnelKey), 0u);
  EXPECT_EQ(ovsc_column_n_max(tunnelKey), 1u);
  EXPECT_TRUE(ovsc_column_is_set(tunnelKey));  // Optional values are sets of at most one.
  EXPECT_FALSE(ovsc_column_is_scalar(tunnelKey));
  EXPECT_FALSE(ovsc_column_is_map(tunnelKey));

  const ovsc_column* name = column(schema.get(), "Physical_Switch", "name");
  ASSERT_NE(name, nullptr);
  EXPECT_TRUE(ovsc_column_is_scalar(name));
  EXPECT_FALSE(ovsc_column_is_set(name));
  EXPECT_EQ(ovsc_column_key_type(name), OVSC_TYPE_STRING);

  const ovsc_column* ports = column(schema.get(), "Physical_Switch", "ports");
  ASSERT_NE(ports, nullptr);
  EXPECT_TRUE(ovsc_column_is_set(ports));
  EXPECT_EQ(ovsc_column_key_type(ports), OVSC_TYPE_UUID);

  const ovsc_column* connected = column(schema.get(), "Manager", "is_connected");
  ASSERT_NE(connected, nullptr);
  EXPECT_EQ(ovsc_column_key_type(connected), OVSC_TYPE_BOOLEAN);

  const ovsc_column* uuid = column(schema.get(), "Tunnel", "_uuid");
  ASSERT_NE(uuid, nullptr);
  EXPECT_EQ(ovsc_column_key_type(uuid), OVSC_TYPE_UUID);
}

TEST(OvsSchema, UnknownNamesAreNotFound) {
  SchemaPtr schema = schemaFromFile();
  ASSERT_TRUE(schema);
  EXPECT_EQ(ovsc_ovsdb_schema_table(schema.get(), "No_Such_Table"), nullptr);
  EXPECT_EQ(ovsc_ovsdb_schema_table(schema.get(), "physical_switch"), nullptr);
  EXPECT_EQ(column(schema.get(), "Physical_Switch", "no_such_column"), nullptr);
}

// A short buffer receives the first columns in order and learns the count.
TEST(OvsSchema, ColumnListFitsTheBuffer) {
  SchemaPtr schema = schemaFromFile();
  ASSERT_TRUE(schema);
  const ovsdb_table_schema* sw = ovsc_ovsdb_schema_table(schema.get(), "Physical_Switch");
  ASSERT_NE(sw, nullptr);
  const ovsc_column* first[2] = {nullptr, nullptr};
  EXPECT_EQ(ovsc_ovsdb_table_schema_columns(sw, first, 2), 10u);
  ASSERT_NE(first[1], nullptr);
  EXPECT_STREQ(ovsc_column_name(first[0]), "_uuid");
  EXPECT_STREQ(ovsc_column_name(first[1]), "_version");
}

TEST(OvsSchema, MalformedSchemasGiveErrors) {
  for (const char* text : {
           R"({"name": "x", "version": "1.0.0"})",                                   // no tables
           R"({"name": "x", "tables": {"T": {"columns": {"c": {"type": "nope"}}}}})",  // bad type
           R"({"name": "x", "version": "one", "tables": {}})",                       // bad version
           R"(["not", "an", "object"])",
       }) {
    SCOPED_TRACE(text);
    JsonPtr j = parseJson(text);
    char sentinel = 0;  // The output must be overwritten, not left alone.
    ovsdb_schema* schema = reinterpret_cast<ovsdb_schema*>(&sentinel);
    CString error(ovsc_ovsdb_schema_from_json(j.get(), &schema));
    ASSERT_NE(error, nullptr);
    EXPECT_STRNE(error.get(), "");
    EXPECT_EQ(schema, nullptr);
  }
}

}  // namespace
}  // namespace Vgw::Test
