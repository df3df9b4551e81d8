// The texts the agent leaves in its ring trace for a burst of the
// controller's rows: a first snapshot, remote hosts inserted, moved, changed
// and deleted, hosts on a loopback, an IPv6 and the placeholder switch, and
// a conflict that drops the session. Every record of every level is read
// back and compared with tests/vgw/traces/burst.txt, the texts the agent
// wrote before its records were kept in binary: how a trace is stored may
// change, what an operator reads in ringtape-dump may not. The texts are
// compared message by message as collections, since the order in which a
// message's rows and a table's entries are visited follows hash maps. The
// trace stream must carry the same texts.
//
// VGW_WRITE_TRACE_TEXTS=1 rewrites the file from what the agent writes now,
// for a change of the texts themselves.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "SessionSupport.h"

RINGTAPE_HANDLE("VgwTraceTextTest");

namespace Vgw::Test {
namespace {

using Kiln::Json;
using Texts = std::vector<std::string>;

// The texts between one "----" line and the next, each collection sorted.
std::vector<Texts> messages(const Texts& texts) {
  std::vector<Texts> out(1);
  for (const std::string& text : texts) {
    if (text.find(" ----") != std::string::npos) {
      out.push_back({text});
    } else {
      out.back().push_back(text);
    }
  }
  for (Texts& message : out) std::sort(message.begin(), message.end());
  return out;
}

std::string S(unsigned n) { return rowId(n).stringValue().stringValue(); }
Json ref(unsigned n) { return Json::array({"uuid", S(n)}); }
Json ucast(const char* m, unsigned ls, unsigned locator, const char* ipaddr) {
  return {{"MAC", m}, {"logical_switch", ref(ls)}, {"locator", ref(locator)}, {"ipaddr", ipaddr}};
}

class RemoteHostRoot : public RootSmInterface {
 public:
  RemoteHostSm* remoteHostSm() const override { return remoteHost.get(); }
  LrSmInterface* lrSm() const override { return &dependents; }
  TunnelSmInterface* tunnelSm() const override { return &dependents; }
  Kiln::Ptr<RemoteHostSm> remoteHost;
  mutable Dependents dependents;
};

class VgwTraceTexts : public ::testing::Test {
 protected:
  void SetUp() override {
    freshLocalData();
    // Handlers timed on a clock that stands still take 0.000 ms.
    Kiln::System::timeSourceIs(&clock);
    request->ovsdbSchemaIs(schemaFromFile());
    char dirTemplate[] = "/tmp/vgw-trace-texts-XXXXXX";
    ASSERT_NE(mkdtemp(dirTemplate), nullptr);
    dir = dirTemplate;
    setenv("RINGTAPEDIR", dir.c_str(), 1);
    setenv("VGW_RINGTAPE_LEVELS", "*", 1);
    setenv("VGW_TRACE", "Vgw*", 1);
    RingTape::reloadLevels();
    RingTape::streamIs(&stream);
    ASSERT_TRUE(RingTape::initialize("Texts-%d.tape", {32, 32, 32, 32, 32, 512, 512, 512, 128, 128}, nullptr, 0, 24,
                                     RingTape::ThreadingMode::singleThreaded, false, 512));
  }
  void TearDown() override {
    RingTape::close();
    RingTape::streamIs(nullptr);
    for (const char* variable : {"RINGTAPEDIR", "VGW_RINGTAPE_LEVELS", "VGW_TRACE"}) unsetenv(variable);
    RingTape::reloadLevels();
    std::filesystem::remove_all(dir);
    freshLocalData();
    Kiln::System::timeSourceIs(nullptr);
  }

  bool apply(const char* name, const Json& message) {
    VGW_TRACE(6, "---- " << name);
    const Ovs::JsonPtr j = parseJson(message.dump());
    return handler->handleMonitorNotification(j.get(), request.get());
  }

  // Each record as "<level> <handle> <message>", " [truncated]" marking a
  // cut one as ringtape-dump does.
  Texts ringTexts() const {
    std::string error;
    const auto contents = RingTape::readRingFile(RingTape::ringPath(), &error);
    EXPECT_TRUE(contents) << error;
    Texts texts;
    for (const RingTape::Record& r : contents ? contents->records : std::vector<RingTape::Record>{}) {
      texts.push_back(std::to_string(r.level) + " " + r.handle + " " + r.message + (r.truncated ? " [truncated]" : ""));
    }
    return texts;
  }
  // The stream's lines as the same "<level> <handle> <message>", without
  // the time and place.
  Texts streamTexts() const {
    Texts texts;
    std::istringstream lines(stream.str());
    for (std::string line; std::getline(lines, line);) {
      // "<time> <handle> <level> <file>:<line> <message>"
      std::istringstream fields(line);
      std::string time, handle, level, place;
      fields >> time >> handle >> level >> place;
      const std::size_t at = line.find(place) + place.size() + 1;
      texts.push_back(level + " " + handle + " " + (at <= line.size() ? line.substr(at) : std::string()));
    }
    return texts;
  }

  Kiln::SimulatedTimeSource clock;
  std::string dir;
  std::ostringstream stream;
  RemoteHostRoot root;
  Kiln::Ptr<Config> config = Kiln::newPtr<Config>();
  Kiln::Ptr<Status> status = Kiln::newPtr<Status>();
  Kiln::Ptr<OvsdbSessionStatus> sessionStatus = status->ovsdbSessionStatusIs("sessionStatus");
  Kiln::Ptr<HwVtepOvsdb> ovsdb = status->ovsdbIs("ovsdb");
  Kiln::Ptr<OvsdbRequestQueue> queue = Kiln::newPtr<OvsdbRequestQueue>();
  Kiln::Ptr<OverlaySvc::VniStatusDirV2> vniStatusDir = Kiln::newPtr<OverlaySvc::VniStatusDirV2>();
  Kiln::Ptr<HwVtepRequestHandlerSm> handler = hwVtepRequestHandlerSmFactory(config, sessionStatus, ovsdb, queue, &root);
  Kiln::Ptr<OvsdbMonitorRequest> request = Kiln::newPtr<OvsdbMonitorRequest>();
};

TEST_F(VgwTraceTexts, ABurstLeavesTheTextsItAlwaysLeft) {
  // The first contents: two switches and the placeholder, four VTEPs (one
  // loopback, one IPv6), a flood set, an ARP source and a few hosts.
  sessionStatus->sessionStateIs(SessionState::stateConnecting);
  Json snapshot = {{"Logical_Switch",
                    {{S(1), {{"new", {{"name", "ls1"}, {"tunnel_key", 5000}}}}},
                     {S(2), {{"new", {{"name", "ls2"}, {"tunnel_key", 5001}, {"description", "second"}}}}},
                     {S(3), {{"new", {{"name", "_nvp_internal"}}}}}}}};
  const char* vteps[] = {"10.0.0.1", "10.0.0.2", "127.0.0.1", "2001:db8::1"};
  for (unsigned v = 0; v < 4; ++v) {
    snapshot["Physical_Locator"][S(10 + v)] = {
        {"new", {{"encapsulation_type", "vxlan_over_ipv4"}, {"dst_ip", vteps[v]}}}};
  }
  snapshot["Physical_Locator_Set"][S(20)] = {{"new", {{"locators", Json::array({"set", Json::array({ref(10), ref(11)})})}}}};
  snapshot["Mcast_Macs_Remote"][S(30)] = {
      {"new", {{"MAC", "unknown-dst"}, {"logical_switch", ref(1)}, {"locator_set", ref(20)}}}};
  snapshot["Arp_Sources_Remote"][S(40)] = {{"new", {{"src_mac", "00:00:00:00:aa:01"}, {"locator", ref(11)}}}};
  snapshot["Ucast_Macs_Remote"][S(100)] = {{"new", ucast("00:00:00:00:00:01", 1, 10, "192.168.0.1")}};
  snapshot["Ucast_Macs_Remote"][S(101)] = {{"new", ucast("00:00:00:00:00:02", 1, 11, "")}};
  snapshot["Ucast_Macs_Remote"][S(102)] = {{"new", ucast("00:00:00:00:00:03", 2, 10, "192.168.1.3")}};
  snapshot["Ucast_Macs_Remote"][S(103)] = {{"new", ucast("00:00:00:00:00:04", 3, 10, "192.168.9.9")}};
  ASSERT_TRUE(apply("snapshot", snapshot));
  sessionStatus->sessionStateIs(SessionState::stateConnected);
  VGW_TRACE(6, "---- connected");
  root.remoteHost = remoteHostSmFactory(status, vniStatusDir);

  // Inserts alone take the narrow way: a host behind each kind of VTEP.
  const Json inserts = {{"Ucast_Macs_Remote",
                         {{S(110), {{"new", ucast("00:00:00:00:00:11", 1, 11, "192.168.0.17")}}},
                          {S(111), {{"new", ucast("00:00:00:00:00:12", 1, 12, "192.168.0.18")}}},
                          {S(112), {{"new", ucast("00:00:00:00:00:13", 2, 13, "2001:db8:1::13")}}},
                          {S(113), {{"new", ucast("00:00:00:00:00:14", 1, 10, "")}}}}}};
  // A host moves by a delete and an insert in one message; another changes
  // its address, a third its VTEP, a fourth its switch.
  const Json moves = {
      {"Ucast_Macs_Remote",
       {{S(100), {{"old", ucast("00:00:00:00:00:01", 1, 10, "192.168.0.1")}}},
        {S(120), {{"new", ucast("00:00:00:00:00:01", 1, 11, "192.168.0.1")}}},
        {S(101), {{"new", ucast("00:00:00:00:00:02", 1, 11, "192.168.0.2")}, {"old", {{"ipaddr", ""}}}}},
        {S(110), {{"new", ucast("00:00:00:00:00:11", 1, 10, "192.168.0.17")}, {"old", {{"locator", ref(11)}}}}},
        {S(113), {{"new", ucast("00:00:00:00:00:14", 2, 10, "")}, {"old", {{"logical_switch", ref(1)}}}}}}}};
  // Rows of other tables in the message mean a full reconciliation; a
  // multicast row changes its set, the ARP source goes.
  const Json others = {
      {"Physical_Locator_Set", {{S(21), {{"new", {{"locators", Json::array({"set", Json::array({ref(10)})})}}}}}}},
      {"Mcast_Macs_Remote",
       {{S(30),
         {{"new", {{"MAC", "unknown-dst"}, {"logical_switch", ref(1)}, {"locator_set", ref(21)}}},
          {"old", {{"locator_set", ref(20)}}}}}}},
      {"Arp_Sources_Remote", {{S(40), {{"old", {{"src_mac", "00:00:00:00:aa:01"}, {"locator", ref(11)}}}}}}},
      {"Ucast_Macs_Remote",
       {{S(102), {{"old", ucast("00:00:00:00:00:03", 2, 10, "192.168.1.3")}}},
        {S(103), {{"old", ucast("00:00:00:00:00:04", 3, 10, "192.168.9.9")}}}}}};
  ASSERT_TRUE(apply("inserts", inserts));
  ASSERT_TRUE(apply("moves", moves));
  ASSERT_TRUE(apply("others", others));
  // The same MAC behind another VTEP without a delete: the session drops.
  const Json conflict = {{"Ucast_Macs_Remote", {{S(130), {{"new", ucast("00:00:00:00:00:11", 1, 11, "")}}}}}};
  EXPECT_FALSE(apply("conflict", conflict));
  // An address on a second MAC: the ring keeps this one in its own words.
  const Json ipConflict = {{"Ucast_Macs_Remote", {{S(131), {{"new", ucast("00:00:00:00:00:21", 1, 11, "192.168.0.2")}}}}}};
  EXPECT_FALSE(apply("address conflict", ipConflict));

  const Texts texts = ringTexts();
  const std::filesystem::path expected = std::filesystem::path(TRACE_TEXTS_DIR) / "burst.txt";
  if (getenv("VGW_WRITE_TRACE_TEXTS")) {
    std::ofstream out(expected);
    for (const std::string& text : texts) out << text << '\n';
  }
  Texts wanted;
  std::ifstream in(expected);
  for (std::string line; std::getline(in, line);) wanted.push_back(line);
  ASSERT_FALSE(wanted.empty()) << "no texts in " << expected;
  const std::vector<Texts> got = messages(texts);
  const std::vector<Texts> want = messages(wanted);
  ASSERT_EQ(got.size(), want.size());
  for (std::size_t m = 0; m < got.size(); ++m) {
    Texts missing;
    Texts extra;
    std::ranges::set_difference(want[m], got[m], std::back_inserter(missing));
    std::ranges::set_difference(got[m], want[m], std::back_inserter(extra));
    EXPECT_EQ(missing, Texts()) << "message " << m;
    EXPECT_EQ(extra, Texts()) << "message " << m;
  }

  // The stream carries the same traces, uncut, but for the one trace whose
  // words differ between the tapes.
  const std::string ringOnly = "0 VgwLocalTypes Inserting (192.168.0.2, 00:00:00:00:00:21) will conflicts with";
  const std::string streamOnly = "0 VgwLocalTypes Inserting (192.168.0.2, 00:00:00:00:00:21) conflicts with";
  Texts ringOfStream;
  for (const std::string& text : texts) {
    if (!text.ends_with(" [truncated]") && !text.starts_with(ringOnly)) ringOfStream.push_back(text);
  }
  Texts streamed;
  std::size_t streamOnlySeen = 0;
  for (const std::string& text : streamTexts()) {
    const std::size_t message = text.find(' ', text.find(' ') + 1) + 1;
    if (text.starts_with(streamOnly)) {
      ++streamOnlySeen;
    } else if (text.size() - message <= 512) {
      streamed.push_back(text);
    }
  }
  EXPECT_EQ(streamed, ringOfStream);
  EXPECT_EQ(streamOnlySeen, 1u);
}

}  // namespace
}  // namespace Vgw::Test
