#include "hlp/StringCompare.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

namespace {

class StringCompareTests : public testing::Test {};

TEST_F(StringCompareTests, MapKeysFoldAsciiCase) {
  std::map<std::string, int, hlp::case_insensitive_less> handlers;
  handlers["GetRoleVer"] = 1;
  handlers["getrolever"] = 2;
  handlers["GetRole"] = 3;
  EXPECT_EQ(handlers.size(), 2u);
  EXPECT_EQ(handlers.begin()->first, "GetRole");
  const auto it = handlers.find(std::string_view("GETROLEVER"));
  ASSERT_NE(it, handlers.end());
  EXPECT_EQ(it->first, "GetRoleVer");  // the first spelling stays
  EXPECT_EQ(it->second, 2);
  EXPECT_EQ(handlers.count("GetRoleVe"), 0u);
}

TEST_F(StringCompareTests, OrdersFoldedBytesAsUnsigned) {
  struct Case {
    const char* a;
    const char* b;
    bool less;
  };
  const Case cases[] = {
      {"a", "B", true},
      {"B", "a", false},
      {"abc", "ABCD", true},  // a prefix comes first
      {"ABCD", "abc", false},
      {"_", "A", true},  // letters fold before comparing: 'A' counts as 'a' (0x61) > '_'
      {"[", "z", true},
      {"Z", "[", false},
      {"z", "\x80", true},     // bytes above 0x7F are large, not negative
      {"\xC4", "\xE4", true},  // only ASCII letters fold
      {"", "", false},
      {"Same", "sAME", false},
  };
  const hlp::case_insensitive_less less;
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.a) + " < " + c.b);
    EXPECT_EQ(less(c.a, c.b), c.less);
  }
}

}  // namespace
