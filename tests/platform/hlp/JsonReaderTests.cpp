#include "hlp/Json.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using hlp::JsonToken;

// Every token up to End or Error, one letter each, in the order of JsonToken: { } [ ] for
// objects and arrays, "n:<name> " for names, s(tring) #(number) b(ool) 0(null) E(nd) !(error).
std::string Tokens(std::string_view text) {
  hlp::JsonReader reader(text);
  std::string tokens;
  for (JsonToken token = reader.Next();; token = reader.Next()) {
    tokens += token == JsonToken::Name ? "n:" + reader.GetName() + " "
                                       : std::string(1, "-{}[]-s#b0E!"[static_cast<int>(token)]);
    if (token == JsonToken::End || token == JsonToken::Error) {
      return tokens;
    }
  }
}

TEST(JsonReaderTests, IntegerGettersAcceptOnlyIntegersThatFit) {
  struct Case {
    const char* text;
    bool isInt, isInt64, isUint64;
    double asDouble;
  };
  const Case cases[] = {
      {"-1", true, true, false, -1},
      {"2147483647", true, true, true, 2147483647.0},
      {"2147483648", false, true, true, 2147483648.0},
      {"-2147483648", true, true, false, -2147483648.0},
      {"-2147483649", false, true, false, -2147483649.0},
      {"9223372036854775807", false, true, true, 9223372036854775807.0},
      {"9223372036854775808", false, false, true, 9223372036854775808.0},
      {"18446744073709551616", false, false, false, 18446744073709551616.0},
      {"1.0", false, false, false, 1.0},
      {"1e2", false, false, false, 100.0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    hlp::JsonReader reader(c.text);
    ASSERT_EQ(reader.Next(), JsonToken::Number);
    int32_t i = 7;
    int64_t i64 = 7;
    uint64_t u64 = 7;
    double d = 7;
    EXPECT_EQ(reader.TryGetInt(i), c.isInt);
    EXPECT_EQ(reader.TryGetInt64(i64), c.isInt64);
    EXPECT_EQ(reader.TryGetUint64(u64), c.isUint64);
    EXPECT_TRUE(reader.TryGetDouble(d));
    EXPECT_EQ(d, c.asDouble);
    // A refused getter leaves its output alone; an accepted one agrees with the double.
    EXPECT_EQ(i, c.isInt ? c.asDouble : 7);
    EXPECT_EQ(i64, c.isInt64 ? c.asDouble : 7);
    EXPECT_EQ(u64, c.isUint64 ? c.asDouble : 7);
  }
  hlp::JsonReader reader(R"("12")");
  reader.Next();
  int32_t i = 0;
  double d = 0;
  EXPECT_FALSE(reader.TryGetInt(i) || reader.TryGetDouble(d));
}

TEST(JsonReaderTests, MalformedTextEndsInStickyError) {
  const std::pair<std::string, const char*> cases[] = {
      {"", "!"},
      {"[1,]", "[#!"},
      {R"({"a" 1})", "{n:a !"},
      {R"({"a":1,})", "{n:a #!"},
      {"[1] x", "[#]!"},
      {"[1][2]", "[#]!"},
      {std::string("[1]\0", 4), "[#]!"},
      {std::string("[\"a\0\"]", 6), "[!"},
      {"[\"\xFF\"]", "[!"},
      {"[nul]", "[!"},
      {"// c\n1", "!"},
      {"[01]", "[#!"},
      {"{", "{!"},
      // Half a surrogate pair decodes to no UTF-8; a whole pair is one character.
      {R"(["a","\ude00"])", "[s!"},
      {R"({"\udbff\udfff":1,"\udc00":2})", "{n:\xF4\x8F\xBF\xBF #!"},
  };
  for (const auto& [text, tokens] : cases) {
    SCOPED_TRACE(testing::PrintToString(text));
    EXPECT_EQ(Tokens(text), tokens);
    hlp::JsonReader reader(text);
    EXPECT_EQ(reader.ErrorText(), "");
    while (reader.Next() != JsonToken::Error && reader.Token() != JsonToken::End) {
    }
    EXPECT_EQ(reader.Next(), JsonToken::Error);
    EXPECT_NE(reader.ErrorText().find("byte"), std::string::npos) << reader.ErrorText();
  }
}

}  // namespace
