#include "core/StringCompare.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
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

TEST(StringCompareTests, EqualityAndPrefixFoldOnlyAsciiLetters) {
  // text, other, equal, text starts with other
  const std::tuple<std::string_view, std::string_view, bool, bool> cases[] = {
      {"Content-Length", "content-length", true, true},
      {"Redirect", "REDIRECT ", false, false},
      {"dword:0000", "DWORD:", false, true},
      {"[", "{", false, false},  // 0x5B and 0x7B: not a letter pair
      {"\xC4", "\xE4", false, false},
      {std::string_view("a\0b", 3), std::string_view("A\0B", 3), true, true},
      {"", "", true, true},
      {"x", "", false, true},
  };
  for (const auto& [text, other, equal, startsWith] : cases) {
    SCOPED_TRACE(std::string(text) + " ~ " + std::string(other));
    EXPECT_EQ(kro::EqualsIgnoringCase(text, other), equal);
    EXPECT_EQ(kro::StartsWithIgnoringCase(text, other), startsWith);
  }
}

}  // namespace
