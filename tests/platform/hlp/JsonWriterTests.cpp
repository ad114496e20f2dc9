#include "hlp/Json.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <sstream>

namespace {

TEST(JsonWriterTests, SeparatorsNestingAndNumbersAreCompact) {
  std::ostringstream out;
  hlp::JsonWriter w(out);
  EXPECT_TRUE(w.Object() && w.Name("a") && w.Array() &&
              w.Int(std::numeric_limits<int32_t>::min()) &&
              w.Uint(std::numeric_limits<uint32_t>::max()) &&
              w.Int64(std::numeric_limits<int64_t>::min()) &&
              w.Uint64(std::numeric_limits<uint64_t>::max()) && w.Double(0.5) && w.Bool(false) &&
              w.Null() && w.Array() && w.EndArray() && w.Object() && w.EndObject());
  // No JSON form: null keeps the text valid, where a refusal would cut it short.
  EXPECT_TRUE(w.Double(std::nan("")) && w.Double(-HUGE_VAL) && w.EndArray() && w.Name("b"));
  EXPECT_FALSE(w.IsComplete());
  // The caller may stream a value of its own between ValueCheck and ValuePost.
  EXPECT_TRUE(w.ValueCheck());
  w.Stream() << "\"s\"";
  EXPECT_TRUE(w.ValuePost() && w.EndObject() && w.IsGood() && w.IsComplete());
  EXPECT_EQ(out.str(),
            R"({"a":[-2147483648,4294967295,-9223372036854775808,18446744073709551615,0.5,false,)"
            R"(null,[],{},null,null],"b":"s"})");
}

TEST(JsonWriterTests, StringsAreEscapedAndRepairedToValidUtf8) {
  const std::string fffd = "\xEF\xBF\xBD";
  const std::pair<std::string, std::string> cases[] = {
      {"a\"b\\c\n\t\x01\x1F/", R"("a\"b\\c\n\t\u0001\u001F/")"},
      {std::string("n\0l", 3), R"("n\u0000l")"},
      {"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", "\"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\""},
      {"a\xFF!", "\"a" + fffd + "!\""},
      {"end\xC3", "\"end" + fffd + "\""},
      // A truncated sequence is one replacement, and the byte that cut it short survives.
      {"\xE2\x82x", "\"" + fffd + "x\""},
      // Overlong forms, surrogates and code points beyond U+10FFFF: every byte is replaced.
      {"\xC0\xAF", "\"" + fffd + fffd + "\""},
      {"\xED\xA0\x80", "\"" + fffd + fffd + fffd + "\""},
      {"\xF4\x90\x80\x80", "\"" + fffd + fffd + fffd + fffd + "\""},
  };
  for (const auto& [in, json] : cases) {
    SCOPED_TRACE(testing::PrintToString(in));
    std::ostringstream out;
    hlp::JsonWriter w(out);
    EXPECT_TRUE(w.Object() && w.Name(in) && w.String(in) && w.EndObject());
    EXPECT_EQ(out.str(), "{" + json + ":" + json + "}");
    EXPECT_NE(hlp::JsonParser().Parse(out.str()), nullptr);
  }
}

}  // namespace
