// Checks that every Ipkit value type must pass, whatever its text: texts that
// survive a round trip, refusals with the standard message, and an order
// that agrees with equality and hashing.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <initializer_list>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "Kiln/Exception.h"

namespace ipkit_test {

// The message of the exception that f throws, or "" when none.
template <class F>
std::string rangeMessage(F&& f) {
  try {
    f();
  } catch (const Kiln::RangeException& e) {
    return e.what();
  }
  return "";
}

// Each text parses and prints back exactly, through every entry point but
// operator<<, which every type shares.
template <class T>
void expectRoundTrips(std::initializer_list<std::string_view> texts) {
  for (std::string_view text : texts) {
    SCOPED_TRACE(text);
    auto value = T::tryParse(text);
    ASSERT_TRUE(value);
    EXPECT_EQ(std::string(value->stringValue()), text);
    EXPECT_EQ(T::parse(text), *value);
    T assigned;
    assigned.stringValueIs(text);
    EXPECT_EQ(assigned, *value);
  }
}

// Each text parses and prints as its canonical form.
template <class T>
void expectPrintsAs(std::initializer_list<std::pair<std::string_view, std::string_view>> cases) {
  for (auto [text, canonical] : cases) {
    auto value = T::tryParse(text);
    ASSERT_TRUE(value) << text;
    EXPECT_EQ(std::string(value->stringValue()), canonical) << text;
  }
}

// Each text is refused by every entry point with 'invalid <type> "<text>"',
// and a refused stringValueIs leaves the value as it was.
template <class T>
void expectRefused(std::initializer_list<std::string_view> texts, const T& before = T()) {
  for (std::string_view text : texts) {
    SCOPED_TRACE(text);
    EXPECT_FALSE(T::tryParse(text));
    std::string expected = std::string("invalid ") + T::typeText + " \"" + std::string(text) + "\"";
    EXPECT_EQ(rangeMessage([&] { T::parse(text); }), expected);
    T value = before;
    EXPECT_EQ(rangeMessage([&] { value.stringValueIs(text); }), expected);
    EXPECT_EQ(value, before);
  }
}

// The texts parse to values in strictly increasing order; equal values hash
// alike and distinct ones land in distinct set entries.
template <class T>
void expectAscending(const std::vector<std::string>& texts) {
  std::vector<T> values;
  for (const auto& text : texts) values.push_back(T::parse(text));
  std::unordered_set<T> set(values.begin(), values.end());
  EXPECT_EQ(set.size(), values.size());
  for (std::size_t i = 0; i < values.size(); ++i) {
    EXPECT_EQ(std::hash<T>{}(values[i]), std::hash<T>{}(T::parse(texts[i])));
    EXPECT_TRUE(set.contains(T::parse(texts[i])));
    if (i == 0) continue;
    EXPECT_LT(values[i - 1], values[i]) << texts[i - 1] << " < " << texts[i];
    EXPECT_GT(values[i], values[i - 1]);
  }
}

// Values that differ in a few bits anywhere get distinct hashes that fill the
// 64 buckets of a small table about evenly: tables of MACs and addresses
// hold tens of thousands of entries that often differ in one byte only.
template <class T>
void expectHashSpread(const std::vector<T>& values) {
  std::unordered_set<std::size_t> hashes;
  std::array<std::size_t, 64> buckets{};
  for (const auto& value : values) {
    hashes.insert(value.hash());
    ++buckets[value.hash() % buckets.size()];
  }
  EXPECT_EQ(hashes.size(), values.size());
  const std::size_t even = values.size() / buckets.size();
  for (std::size_t count : buckets) {
    EXPECT_GT(count, even / 2);
    EXPECT_LT(count, even * 2);
  }
}

}  // namespace ipkit_test
