#include "core/StringCompare.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

namespace {

TEST(StringCompareTests, OrdersFoldedBytesAsUnsigned) {
  const std::tuple<const char*, const char*, bool> cases[] = {
      {"a", "B", true},
      {"B", "a", false},
      {"abc", "ABCD", true},  // a prefix first
      {"ABCD", "abc", false},
      {"_", "A", true},  // letters fold before comparing: 'A' counts as 'a'
                         // (0x61) > '_'
      {"Z", "[", false},
      {"z", "\x80", true},     // bytes above 0x7F are large, not negative
      {"\xC4", "\xE4", true},  // only ASCII letters fold
      {"", "", false},
      {"Same", "sAME", false},
  };
  const kro::case_insensitive_less less;
  for (const auto& [wantA, b, wantLess] : cases) {
    SCOPED_TRACE(std::string(wantA) + " < " + b);
    EXPECT_EQ(less(wantA, b), wantLess);
  }
}

}  // namespace
