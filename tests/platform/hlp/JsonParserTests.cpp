#include "hlp/Json.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

namespace {

class JsonParserTests : public testing::Test {
 protected:
  hlp::JsonParser parser_;
};

TEST_F(JsonParserTests, KindsAndNumbers) {
  struct Case {
    const char* text;
    int kind;
    bool integer;
    int64_t i64;
    uint64_t u64;
    double d;
    const char* asText;
  };
  const Case cases[] = {
      {"null", 0, false, 0, 0, 0, ""},
      {"true", 1, false, 0, 0, 0, ""},
      {"{}", 2, false, 0, 0, 0, ""},
      {"[]", 3, false, 0, 0, 0, ""},
      {R"("a\u0000b")", 4, false, 0, 0, 0, nullptr},
      {"8443", 5, true, 8443, 8443, 8443, "8443"},
      {"-12", 5, true, -12, 0, -12, "-12"},
      {"18446744073709551615", 5, true, 0, UINT64_MAX, 18446744073709551615.0,
       "18446744073709551615"},
      {"18446744073709551616", 5, false, 0, 0, 18446744073709551616.0, "18446744073709551616"},
      {"8443.0", 5, false, 0, 0, 8443, "8443"},
      {"1e2", 5, false, 0, 0, 100, "100"},
      {"0.1", 5, false, 0, 0, 0.1, "0.1"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    const auto value = parser_.Parse(c.text);
    ASSERT_NE(value, nullptr) << parser_.ErrorText();
    EXPECT_EQ(value->GetKind(), c.kind);
    EXPECT_EQ(value->IsInteger(), c.integer);
    EXPECT_EQ(value->GetInt64(), c.i64);
    EXPECT_EQ(value->GetUint64(), c.u64);
    EXPECT_EQ(value->GetDouble(), c.d);
    EXPECT_EQ(value->GetBool(), c.kind == hlp::JsonValue::kBool);
    EXPECT_EQ(value->AsText(), c.asText ? c.asText : std::string("a\0b", 3));
    EXPECT_EQ(value->GetString(), c.kind == hlp::JsonValue::kString ? value->AsText() : "");
  }
}

// Numbers whose exponent or length pushes a decimal conversion outside its tables (fuzzing
// found a read far outside them, and undefined shifts); every one must give the exact double.
TEST_F(JsonParserTests, AnyNumberTextConvertsSafelyAndExactly) {
  const double inf = std::numeric_limits<double>::infinity();
  struct Case {
    const char* text;
    double value;  // what GetDouble gives; an infinity only beyond the double range
  };
  const Case cases[] = {
      {"1.0000000000000000001e-330", 0},
      {"0e-66", 0},
      {"0.0000000000e-2147483639", 0},
      {"1e-99999999999999999999", 0},
      {"-1e-400", -0.0},
      {"4.9e-324", 4.9e-324},
      {"2.2250738585072011e-308", 2.2250738585072011e-308},
      {"0.30000000000000004", 0.30000000000000004},
      {"123456789012345678901234567890", 123456789012345678901234567890.0},
      {"1.7976931348623157e308", 1.7976931348623157e308},
      {"2e308", inf},
      {"-2e308", -inf},
      {"0.00000000000000000001e328", 1e308},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    const auto value = parser_.Parse(c.text);
    ASSERT_NE(value, nullptr) << parser_.ErrorText();
    EXPECT_EQ(value->GetDouble(), c.value);
    EXPECT_EQ(std::signbit(value->GetDouble()), std::signbit(c.value));
    const bool finite = std::isfinite(c.value);
    double got = 7;
    EXPECT_EQ(value->TryGetDouble(got), finite);
    EXPECT_EQ(got, finite ? c.value : 7);
    EXPECT_EQ(value->AsText().empty(), !finite);

    hlp::JsonReader reader(c.text);
    ASSERT_EQ(reader.Next(), hlp::JsonToken::Number);
    got = 7;
    EXPECT_EQ(reader.TryGetDouble(got), finite);
    EXPECT_EQ(got, finite ? c.value : 7);
  }
  // A number beyond what RapidJSON scans is malformed, not a crash; what the parser cannot
  // write as a number it writes as null, so the text stays JSON.
  EXPECT_EQ(parser_.Parse("1e309"), nullptr);
  const auto list = parser_.Parse("[108,2e308,-2e308,1]");
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(list->ToString(), "[108,null,null,1]");
}

TEST_F(JsonParserTests, LookupIsExactAndBoundsAreChecked) {
  const auto root =
      parser_.Parse(R"({"port":8443,"Port":"x","list":[1,"two",{"k":null}],"port":1,"":true})");
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(root->Size(), 5u);
  EXPECT_EQ(root->FindMember("port")->GetInt64(), 8443);  // the first of a duplicate
  EXPECT_EQ(root->FindMember("Port")->GetString(), "x");
  EXPECT_TRUE(root->FindMember("")->GetBool());
  EXPECT_EQ(root->FindMember("PORT"), nullptr);
  EXPECT_EQ(root->FindMember("por"), nullptr);
  EXPECT_EQ(root->At(0), nullptr);  // an object has no elements

  std::string name;
  ASSERT_NE(root->MemberAt(2, &name), nullptr);
  EXPECT_EQ(name, "list");
  EXPECT_EQ(root->MemberAt(5, &name), nullptr);
  EXPECT_EQ(root->MemberAt(1, nullptr), root->FindMember("Port"));

  const hlp::JsonValue* list = root->FindMember("list");
  ASSERT_EQ(list->Size(), 3u);
  EXPECT_EQ(list->At(1)->GetString(), "two");
  EXPECT_TRUE(list->At(2)->FindMember("k")->IsNull());
  EXPECT_EQ(list->At(3), nullptr);
  EXPECT_EQ(list->FindMember("two"), nullptr);
  EXPECT_EQ(list->MemberAt(0, &name), nullptr);
  EXPECT_EQ(list->At(0)->Size(), 0u);
}

TEST_F(JsonParserTests, ToStringGivesCompactJson) {
  const char* text = R"({"a":[1,-2,2.5,"x\n\"",null,true],"b":{},"c":"\u00e9","d":"\ud83d\ude00"})";
  const auto root = parser_.Parse(text);
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(root->ToString(), R"({"a":[1,-2,2.5,"x\n\"",null,true],"b":{},"c":"é","d":"😀"})");
  EXPECT_EQ(root->FindMember("a")->ToString(), R"([1,-2,2.5,"x\n\"",null,true])");
}

TEST_F(JsonParserTests, MalformedTextGivesNullAndAReasonWhateverTheFlags) {
  struct Case {
    std::string text;
    unsigned flags;
  };
  // The parse loop is the reader's (see its tests); here, that failures surface and each flag
  // relaxes only what it names.
  const Case cases[] = {
      {"", 0},
      {"{}{}", 0},
      {R"({"a":1,})", 0},
      {"[1,]", hlp::JsonParser::kAllowComments},
      {"/* c */ 1", hlp::JsonParser::kAllowTrailingCommas},
      // Half a surrogate pair decodes to no UTF-8: whatever read it next would see other text.
      {R"(["\ude00"])", 0},
      {R"({"\udfff":1})", hlp::JsonParser::kAllowComments},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.text));
    hlp::JsonParser parser(c.flags);
    EXPECT_EQ(parser.Parse(c.text), nullptr);
    EXPECT_NE(parser.ErrorText(), "");
  }
}

TEST_F(JsonParserTests, FlagsRelaxOnlyWhatTheyName) {
  const unsigned both = hlp::JsonParser::kAllowComments | hlp::JsonParser::kAllowTrailingCommas;
  hlp::JsonParser comments(hlp::JsonParser::kAllowComments);
  hlp::JsonParser commas(hlp::JsonParser::kAllowTrailingCommas);
  hlp::JsonParser relaxed(both);
  EXPECT_NE(comments.Parse("// port\n{\"p\":1 /* tls */}"), nullptr) << comments.ErrorText();
  EXPECT_NE(commas.Parse(R"({"p":[1,2,],})"), nullptr) << commas.ErrorText();
  const auto root = relaxed.Parse("[1, // one\n 2,]");
  ASSERT_NE(root, nullptr) << relaxed.ErrorText();
  EXPECT_EQ(root->ToString(), "[1,2]");
}

TEST_F(JsonParserTests, DeepNestingIsRefusedWithoutCrashing) {
  const auto nested = [](size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
  };
  const auto deepest = parser_.Parse(nested(hlp::kJsonMaxDepth));
  ASSERT_NE(deepest, nullptr);
  EXPECT_EQ(deepest->ToString(), nested(hlp::kJsonMaxDepth));
  EXPECT_EQ(parser_.Parse(nested(hlp::kJsonMaxDepth + 1)), nullptr);
  EXPECT_NE(parser_.ErrorText().find("256"), std::string::npos) << parser_.ErrorText();
  std::string objects;
  for (int i = 0; i < 1000000; ++i) {
    objects += R"({"a":)";
  }
  EXPECT_EQ(parser_.Parse(objects), nullptr);
  // A failed parse leaves the parser usable.
  EXPECT_NE(parser_.Parse("{}"), nullptr);
  EXPECT_EQ(parser_.ErrorText(), "");
}

}  // namespace
