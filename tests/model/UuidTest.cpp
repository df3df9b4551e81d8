// Vgw::Uuid: text forms the database accepts, named placeholders, order and
// the hash.
#include <gtest/gtest.h>

#include <cstdint>
#include <set>
#include <string>
#include <string_view>

#include "Kiln/Exception.h"
#include "model/Uuid.h"

namespace {

using Vgw::Uuid;

// Jenkins' one-at-a-time hash, written out from its definition.
std::uint32_t oneAtATime(const unsigned char* bytes, std::size_t size) {
  std::uint32_t h = 0;
  for (std::size_t i = 0; i < size; ++i) {
    h += bytes[i];
    h += h << 10;
    h ^= h >> 6;
  }
  h += h << 3;
  h ^= h >> 11;
  h += h << 15;
  return h;
}

std::uint32_t oneAtATime(std::string_view text) {
  return oneAtATime(reinterpret_cast<const unsigned char*>(text.data()), text.size());
}

std::string text(const Uuid& u) { return u.stringValue().stringValue(); }

// What the server takes as a "uuid-name": a letter or underscore, then
// letters, digits and underscores.
bool isIdentifier(std::string_view s) {
  auto letter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_'; };
  if (s.empty() || !letter(s[0])) return false;
  for (char c : s) {
    if (!letter(c) && !(c >= '0' && c <= '9')) return false;
  }
  return true;
}

TEST(Uuid, aRealUuidPrintsInTheDashedFormAndParsesBack) {
  const Uuid u(0x0123abcd, 0x4567cdef, 0x89ab0123, 0xfedc4567);
  EXPECT_EQ(text(u), "0123abcd-4567-cdef-89ab-0123fedc4567");
  EXPECT_FALSE(u.isNamed());
  EXPECT_EQ(Uuid::parse("0123abcd-4567-cdef-89ab-0123fedc4567"), u);
  EXPECT_EQ(Uuid::parse("0123ABCD-4567-CDEF-89AB-0123FEDC4567"), u);
  EXPECT_EQ(text(Uuid(1, 2, 0x80000003, 4)), "00000001-0000-0002-8000-000300000004");

  EXPECT_EQ(text(Uuid::nullUuid()), "00000000-0000-0000-0000-000000000000");
  EXPECT_EQ(Uuid::parse("00000000-0000-0000-0000-000000000000"), Uuid());
  EXPECT_TRUE(Uuid().isNull());
  EXPECT_FALSE(Uuid(0, 0, 0, 1).isNull());
}

TEST(Uuid, malformedTextIsRefused) {
  for (const char* bad : {"", "0123abcd-4567-cdef-89ab-0123fedc456", "0123abcd-4567-cdef-89ab-0123fedc45678",
                          "0123abcd_4567-cdef-89ab-0123fedc4567", "0123abcd-4567-cdef-89ab-0123fedc456g",
                          "0123abcd4567-cdef-89ab-0123fedc45678", " 0123abcd-4567-cdef-89ab-0123fedc4567",
                          // The identifier form belongs to placeholders; this one has the top bit of word 2.
                          "row0123abcd4567cdef89ab0123fedc4567"}) {
    EXPECT_FALSE(Uuid::tryParse(bad)) << bad;
  }
  Uuid kept(1, 2, 0x80000003, 4);
  EXPECT_THROW(kept.stringValueIs("not-a-uuid"), Kiln::RangeException);
  EXPECT_EQ(kept, Uuid(1, 2, 0x80000003, 4));
}

TEST(Uuid, aNamedUuidPrintsAsAnIdentifierTheServerAcceptsAndParsesBack) {
  const Uuid fixed(0xdeadbeef, 0x01234567, 0x7fffffff, 0x00000001);
  ASSERT_TRUE(fixed.isNamed());
  ASSERT_FALSE(isIdentifier(text(Uuid(0xdeadbeef, 0x01234567, 0xffffffff, 0x00000001))));
  EXPECT_TRUE(isIdentifier(text(fixed))) << text(fixed);
  EXPECT_EQ(Uuid::parse(text(fixed)), fixed);
  // The dashed form of a placeholder still reads back.
  EXPECT_EQ(Uuid::parse(fixed.hexText().stringValue()), fixed);

  for (int i = 0; i < 200; ++i) {
    const Uuid named = Vgw::genNamedUuid();
    ASSERT_TRUE(isIdentifier(text(named))) << text(named);
    ASSERT_EQ(Uuid::parse(text(named)), named);
  }
}

TEST(Uuid, placeholdersNeverCarryTheTopBitOfWordTwoAndRealUuidsAlwaysDo) {
  std::set<Uuid> named;
  for (int i = 0; i < 2000; ++i) {
    const Uuid n = Vgw::genNamedUuid();
    ASSERT_EQ(n.word(2) & 0x80000000u, 0u) << text(n);
    ASSERT_TRUE(n.isNamed());
    named.insert(n);
    const Uuid r = Vgw::genUuid();
    ASSERT_NE(r.word(2) & 0x80000000u, 0u) << text(r);
    ASSERT_FALSE(r.isNamed());
  }
  EXPECT_EQ(named.size(), 2000u);
}

TEST(Uuid, orderIsStrictOverTheFourWordsInTurn) {
  const Uuid a(1, 0, 0, 0);
  const Uuid b(0, 0xffffffff, 0xffffffff, 0xffffffff);
  const Uuid c(1, 0, 0, 1);
  const Uuid d(1, 0, 1, 0);
  EXPECT_LT(b, a);
  EXPECT_LT(a, c);
  EXPECT_LT(c, d);
  EXPECT_FALSE(a < a);
  EXPECT_FALSE(a < b);
  EXPECT_EQ(a, Uuid(1, 0, 0, 0));
  EXPECT_NE(a, c);
  EXPECT_NE(Uuid(0, 0, 0, 1), Uuid(1, 0, 0, 0));
}

TEST(Uuid, hashIsOneAtATimeOverTheSixteenBytesWordByWord) {
  // The reference itself against published values.
  ASSERT_EQ(oneAtATime("a"), 0xca2e9442u);
  ASSERT_EQ(oneAtATime("The quick brown fox jumps over the lazy dog"), 0x519e91f5u);

  for (const Uuid& u : {Uuid(), Uuid(0x01234567, 0x89abcdef, 0xfedcba98, 0x76543210), Uuid(1, 0, 0, 0),
                        Uuid(0, 0, 0, 1), Vgw::genUuid()}) {
    const std::uint32_t words[4] = {u.word(0), u.word(1), u.word(2), u.word(3)};
    unsigned char bytes[16];
    for (int w = 0; w < 4; ++w) {
      for (int b = 0; b < 4; ++b) bytes[4 * w + b] = static_cast<unsigned char>(words[w] >> (8 * b));
    }
    EXPECT_EQ(u.hash(), oneAtATime(bytes, sizeof bytes)) << text(u);
    EXPECT_EQ(std::hash<Uuid>{}(u), u.hash());
  }
  EXPECT_NE(Uuid(1, 0, 0, 0).hash(), Uuid(0, 0, 0, 1).hash());
}

}  // namespace
