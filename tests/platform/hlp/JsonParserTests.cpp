#include "hlp/Json.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

namespace {

TEST(JsonParserTests, KindsAndNumbers) {
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
      {"-12", 5, true, -12, 0, -12, "-12"},
      {"18446744073709551615", 5, true, 0, UINT64_MAX, 18446744073709551615.0,
       "18446744073709551615"},
      {"18446744073709551616", 5, false, 0, 0, 18446744073709551616.0, "18446744073709551616"},
      {"8443.0", 5, false, 0, 0, 8443, "8443"},
      {"0.1", 5, false, 0, 0, 0.1, "0.1"},
  };
  hlp::JsonParser parser;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    const auto value = parser.Parse(c.text);
    ASSERT_NE(value, nullptr) << parser.ErrorText();
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
TEST(JsonParserTests, AnyNumberTextConvertsSafelyAndExactly) {
  const double inf = std::numeric_limits<double>::infinity();
  // value: what GetDouble gives; an infinity only beyond the double range
  const std::pair<const char*, double> cases[] = {
      {"1.0000000000000000001e-330", 0},
      {"0.0000000000e-2147483639", 0},
      {"1e-99999999999999999999", 0},
      {"-1e-400", -0.0},
      {"4.9e-324", 4.9e-324},
      {"2.2250738585072011e-308", 2.2250738585072011e-308},
      {"0.30000000000000004", 0.30000000000000004},
      {"123456789012345678901234567890", 123456789012345678901234567890.0},
      {"1.7976931348623157e308", 1.7976931348623157e308},
      {"-2e308", -inf},
      {"0.00000000000000000001e328", 1e308},
  };
  hlp::JsonParser parser;
  for (const auto& [text, wantValue] : cases) {
    SCOPED_TRACE(text);
    const auto value = parser.Parse(text);
    ASSERT_NE(value, nullptr) << parser.ErrorText();
    EXPECT_EQ(value->GetDouble(), wantValue);
    EXPECT_EQ(std::signbit(value->GetDouble()), std::signbit(wantValue));
    const bool finite = std::isfinite(wantValue);
    double got = 7;
    EXPECT_EQ(value->TryGetDouble(got), finite);
    EXPECT_EQ(got, finite ? wantValue : 7);
    EXPECT_EQ(value->AsText().empty(), !finite);
  }
  // A number beyond what RapidJSON scans is malformed, not a crash; what the parser cannot
  // write as a number it writes as null, so the text stays JSON.
  EXPECT_EQ(parser.Parse("1e309"), nullptr);
  const auto list = parser.Parse("[108,2e308,-2e308,1]");
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(list->ToString(), "[108,null,null,1]");
}

TEST(JsonParserTests, LookupIsExactAndBoundsAreChecked) {
  hlp::JsonParser parser;
  const auto root = parser.Parse(R"({"port":8443,"Port":"x","list":[1,{"k":null}],"port":1})");
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(root->FindMember("port")->GetInt64(), 8443);  // the first of a duplicate
  EXPECT_EQ(root->FindMember("Port")->GetString(), "x");
  EXPECT_EQ(root->FindMember("PORT"), nullptr);
  std::string name;
  EXPECT_EQ(root->MemberAt(2, &name), root->FindMember("list"));
  EXPECT_EQ(name, "list");
  EXPECT_EQ(root->MemberAt(4, &name), nullptr);
  EXPECT_EQ(root->At(0), nullptr);  // an object has no elements
  const hlp::JsonValue* list = root->FindMember("list");
  EXPECT_TRUE(list->At(1)->FindMember("k")->IsNull());
  EXPECT_EQ(list->At(2), nullptr);
  // Compact JSON again, escapes and all.
  const auto text = parser.Parse(R"({"a":[1,-2,2.5,"x\n\"",null,true],"b":{},"c":"\u00e9"})");
  ASSERT_NE(text, nullptr);
  EXPECT_EQ(text->ToString(), R"({"a":[1,-2,2.5,"x\n\"",null,true],"b":{},"c":"é"})");
}

TEST(JsonParserTests, OnlyOneStrictValueIsAccepted) {
  // Half a surrogate pair decodes to no UTF-8: whatever read it next would see other text.
  for (const char* text : {"", "{}{}", R"({"a":1,})", "[1,]", "/* c */ 1", R"(["\ude00"])"}) {
    hlp::JsonParser parser;
    EXPECT_EQ(parser.Parse(text), nullptr) << text;
    EXPECT_NE(parser.ErrorText(), "") << text;
  }
}

TEST(JsonParserTests, DeepNestingIsRefusedWithoutCrashing) {
  const auto nested = [](size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
  };
  hlp::JsonParser parser;
  const auto deepest = parser.Parse(nested(hlp::kJsonMaxDepth));
  ASSERT_NE(deepest, nullptr);
  EXPECT_EQ(deepest->ToString(), nested(hlp::kJsonMaxDepth));
  EXPECT_EQ(parser.Parse(nested(hlp::kJsonMaxDepth + 1)), nullptr);
  EXPECT_NE(parser.ErrorText().find("256"), std::string::npos) << parser.ErrorText();
  std::string objects;
  for (int i = 0; i < 1000000; ++i) {
    objects += R"({"a":)";
  }
  EXPECT_EQ(parser.Parse(objects), nullptr);
  // A failed parse leaves the parser usable.
  EXPECT_NE(parser.Parse("{}"), nullptr);
  EXPECT_EQ(parser.ErrorText(), "");
}

}  // namespace
