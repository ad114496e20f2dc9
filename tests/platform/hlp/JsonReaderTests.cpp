#include "hlp/Json.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using hlp::JsonToken;

class JsonReaderTests : public testing::Test {
 protected:
  // Every token up to End or Error; names are recorded as "name:<text>".
  static std::vector<std::string> Tokens(std::string_view text) {
    hlp::JsonReader reader(text);
    std::vector<std::string> tokens;
    for (;;) {
      const JsonToken token = reader.Next();
      switch (token) {
        case JsonToken::Name:
          tokens.push_back("name:" + reader.GetName());
          break;
        case JsonToken::End:
        case JsonToken::Error:
          tokens.push_back(token == JsonToken::End ? "end" : "error");
          return tokens;
        default:
          tokens.push_back(std::to_string(static_cast<int>(token)));
      }
    }
  }
  static std::string T(JsonToken token) { return std::to_string(static_cast<int>(token)); }
};

TEST_F(JsonReaderTests, DeliversTokensInOrder) {
  const std::vector<std::string> expected = {T(JsonToken::StartObject),
                                             "name:a",
                                             T(JsonToken::StartArray),
                                             T(JsonToken::Number),
                                             T(JsonToken::String),
                                             T(JsonToken::Bool),
                                             T(JsonToken::Null),
                                             T(JsonToken::EndArray),
                                             "name:b",
                                             T(JsonToken::StartObject),
                                             T(JsonToken::EndObject),
                                             T(JsonToken::EndObject),
                                             "end"};
  EXPECT_EQ(Tokens(R"( {"a": [1, "s", true, null], "b": {}} )"), expected);

  hlp::JsonReader reader(R"(["x\u00e9\n", false])");
  std::string text;
  bool flag = true;
  EXPECT_EQ(reader.Token(), JsonToken::None);
  reader.Next();
  EXPECT_FALSE(reader.GetString(text));
  reader.Next();
  EXPECT_FALSE(reader.GetBool(flag));
  EXPECT_TRUE(reader.GetString(text));
  EXPECT_EQ(text, "x\xC3\xA9\n");
  reader.Next();
  EXPECT_FALSE(reader.GetString(text));
  EXPECT_TRUE(reader.GetBool(flag));
  EXPECT_FALSE(flag);
  EXPECT_EQ(reader.Next(), JsonToken::EndArray);
  EXPECT_EQ(reader.Next(), JsonToken::End);
  EXPECT_EQ(reader.Next(), JsonToken::End);
}

TEST_F(JsonReaderTests, IntegerGettersAcceptOnlyIntegersThatFit) {
  struct Case {
    const char* text;
    bool isInt, isInt64, isUint64;
    double asDouble;
  };
  const Case cases[] = {
      {"0", true, true, true, 0},
      {"-1", true, true, false, -1},
      {"2147483647", true, true, true, 2147483647.0},
      {"2147483648", false, true, true, 2147483648.0},
      {"-2147483648", true, true, false, -2147483648.0},
      {"-2147483649", false, true, false, -2147483649.0},
      {"9223372036854775807", false, true, true, 9223372036854775807.0},
      {"9223372036854775808", false, false, true, 9223372036854775808.0},
      {"-9223372036854775808", false, true, false, -9223372036854775808.0},
      {"18446744073709551615", false, false, true, 18446744073709551615.0},
      {"18446744073709551616", false, false, false, 18446744073709551616.0},
      {"1.0", false, false, false, 1.0},
      {"1e2", false, false, false, 100.0},
      {"-0.25", false, false, false, -0.25},
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
  EXPECT_FALSE(reader.TryGetInt(i));
  EXPECT_FALSE(reader.TryGetDouble(d));
}

TEST_F(JsonReaderTests, SkipValueSkipsWholeMembersAndKeepsTheName) {
  hlp::JsonReader reader(R"({"skip":{"x":[1,{"y":[]}],"z":3},"keep":7,"s":"v","arr":[[1],[2]]})");
  ASSERT_EQ(reader.Next(), JsonToken::StartObject);
  ASSERT_EQ(reader.Next(), JsonToken::Name);
  EXPECT_TRUE(reader.SkipValue());
  EXPECT_EQ(reader.Token(), JsonToken::EndObject);
  EXPECT_EQ(reader.GetName(), "skip");
  ASSERT_EQ(reader.Next(), JsonToken::Name);
  EXPECT_EQ(reader.GetName(), "keep");
  ASSERT_EQ(reader.Next(), JsonToken::Number);
  EXPECT_TRUE(reader.SkipValue());  // a scalar is already skipped
  ASSERT_EQ(reader.Next(), JsonToken::Name);
  EXPECT_TRUE(reader.SkipValue());
  EXPECT_EQ(reader.Token(), JsonToken::String);
  ASSERT_EQ(reader.Next(), JsonToken::Name);
  ASSERT_EQ(reader.Next(), JsonToken::StartArray);
  ASSERT_EQ(reader.Next(), JsonToken::StartArray);
  EXPECT_TRUE(reader.SkipValue());
  ASSERT_EQ(reader.Next(), JsonToken::StartArray);
  EXPECT_TRUE(reader.SkipValue());
  EXPECT_EQ(reader.Next(), JsonToken::EndArray);
  EXPECT_FALSE(reader.SkipValue());  // nothing begins here
  EXPECT_EQ(reader.Next(), JsonToken::EndObject);
  EXPECT_EQ(reader.Next(), JsonToken::End);

  hlp::JsonReader broken(R"({"a":[1,{"b":2]})");
  broken.Next();
  broken.Next();
  EXPECT_FALSE(broken.SkipValue());
  EXPECT_EQ(broken.Token(), JsonToken::Error);
}

TEST_F(JsonReaderTests, MalformedTextEndsInStickyError) {
  struct Case {
    std::string text;
    size_t tokensBefore;
  };
  const Case cases[] = {
      {"", 0},
      {"   ", 0},
      {"[1,]", 2},
      {R"({"a" 1})", 2},
      {R"({"a":1,})", 3},
      {"[1] x", 3},
      {"[1][2]", 3},
      {std::string("[1]\0", 4), 3},
      {std::string("[\"a\0\"]", 6), 1},
      {"[\"\xFF\"]", 1},
      {R"(["a","\ude00"])", 2},
      {R"({"\udbff\udfff":1,"\udc00":2})", 3},
      {"[nul]", 1},
      {"// c\n1", 0},
      {"[01]", 2},
      {"{", 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.text));
    const std::vector<std::string> tokens = Tokens(c.text);
    EXPECT_EQ(tokens.size(), c.tokensBefore + 1);
    EXPECT_EQ(tokens.back(), "error");
    hlp::JsonReader reader(c.text);
    EXPECT_EQ(reader.ErrorText(), "");
    while (reader.Next() != JsonToken::Error && reader.Token() != JsonToken::End) {
    }
    EXPECT_EQ(reader.Next(), JsonToken::Error);
    EXPECT_NE(reader.ErrorText().find("byte"), std::string::npos) << reader.ErrorText();
  }
}

TEST_F(JsonReaderTests, NestingBeyondTheLimitIsMalformed) {
  const auto nested = [](size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
  };
  std::vector<std::string> tokens = Tokens(nested(hlp::kJsonMaxDepth));
  EXPECT_EQ(tokens.back(), "end");
  tokens = Tokens(nested(hlp::kJsonMaxDepth + 1));
  EXPECT_EQ(tokens.size(), hlp::kJsonMaxDepth + 1);
  EXPECT_EQ(tokens.back(), "error");

  hlp::JsonReader hostile(std::string(1000000, '['));
  size_t count = 0;
  while (hostile.Next() == JsonToken::StartArray) {
    ++count;
  }
  EXPECT_EQ(count, hlp::kJsonMaxDepth);
  EXPECT_EQ(hostile.Token(), JsonToken::Error);
  EXPECT_NE(hostile.ErrorText().find("256"), std::string::npos) << hostile.ErrorText();
}

}  // namespace
