// Path syntax: segments, escapes, the canonical text and prefixes.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Kiln/Json.h"
#include "Ledger/Path.h"
#include "LedgerFixture.h"

namespace {

using Ledger::Path;
using LedgerTest::errorOf;

TEST(Path, keysWithSlashOrPercentAreEscapedAndReadBack) {
  EXPECT_EQ(Ledger::escapeSegment("10.0.0.0/24"), "10.0.0.0%2F24");
  EXPECT_EQ(Ledger::escapeSegment("50%/x"), "50%25%2Fx");
  for (std::string text : {"Ethernet1/1", "%", "a%2Fb", "plain", "//%%"})
    EXPECT_EQ(Ledger::unescapeSegment(Ledger::escapeSegment(text)), text);
  EXPECT_EQ(Ledger::unescapeSegment("Ethernet1%2f1"), "Ethernet1/1");

  const Path p = Path::parse("vgw/config/ports/Ethernet1%2f1/speed");
  EXPECT_EQ(p.segments(), (std::vector<std::string>{"vgw", "config", "ports", "Ethernet1/1", "speed"}));
  EXPECT_EQ(p.text(), "vgw/config/ports/Ethernet1%2F1/speed");
  EXPECT_EQ(p.prefix(0), "");
  EXPECT_EQ(p.prefix(4), "vgw/config/ports/Ethernet1%2F1");
  EXPECT_EQ(Path::parse("a%25b").segments(), std::vector<std::string>{"a%b"});
}

TEST(Path, malformedPathsAreRefusedWithTheReason) {
  EXPECT_TRUE(Path::parse("").empty());
  const std::string empty = "empty segment; a path has no leading, trailing or doubled '/'";
  EXPECT_EQ(errorOf([] { Path::parse("/vgw"); }), "/vgw: " + empty);
  EXPECT_EQ(errorOf([] { Path::parse("vgw/"); }), "vgw/: " + empty);
  EXPECT_EQ(errorOf([] { Path::parse("vgw//config"); }), "vgw//config: " + empty);
  EXPECT_EQ(errorOf([] { Path::parse("a/b%2"); }),
            "a/b%2: bad escape \"%2\" in segment \"b%2\"; only %2F ('/') and %25 ('%') are escapes");
  EXPECT_EQ(errorOf([] { Path::parse("a/%41"); }),
            "a/%41: bad escape \"%41\" in segment \"%41\"; only %2F ('/') and %25 ('%') are escapes");
}

}  // namespace
