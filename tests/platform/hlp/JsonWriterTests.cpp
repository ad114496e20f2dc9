#include "hlp/Json.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <map>
#include <sstream>
#include <streambuf>

namespace {

class JsonWriterTests : public testing::Test {
 protected:
  /**
   * @brief Runs space-separated calls on `w` and gives the result of the last one:
   * { } [ ] objects and arrays, Nx name x, Sx string x, I5 Int(5), T true, 0 null,
   * Dnan / Dinf doubles, ? ValueCheck, ! ValuePost.
   */
  static bool Run(hlp::JsonWriter& w, const std::string& script) {
    using Call = std::function<bool(hlp::JsonWriter&, const std::string&)>;
    static const std::map<char, Call> calls = {
        {'{', [](auto& w, auto&) { return w.Object(); }},
        {'}', [](auto& w, auto&) { return w.EndObject(); }},
        {'[', [](auto& w, auto&) { return w.Array(); }},
        {']', [](auto& w, auto&) { return w.EndArray(); }},
        {'N', [](auto& w, auto& arg) { return w.Name(arg); }},
        {'S', [](auto& w, auto& arg) { return w.String(arg); }},
        {'I', [](auto& w, auto& arg) { return w.Int(std::stoi(arg)); }},
        {'T', [](auto& w, auto&) { return w.Bool(true); }},
        {'0', [](auto& w, auto&) { return w.Null(); }},
        {'D', [](auto& w, auto& arg) { return w.Double(std::stod(arg)); }},
        {'?', [](auto& w, auto&) { return w.ValueCheck(); }},
        {'!', [](auto& w, auto&) { return w.ValuePost(); }},
    };
    std::istringstream words(script);
    bool result = true;
    for (std::string word; words >> word;) {
      result = calls.at(word[0])(w, word.substr(1));
    }
    return result;
  }

  std::ostringstream out_;
  hlp::JsonWriter writer_{out_};
};

TEST_F(JsonWriterTests, SeparatorsAndNestingAreCompact) {
  struct Case {
    const char* script;
    const char* json;
  };
  const Case cases[] = {
      {"{ Na [ I1 Sx 0 [ ] ] Nb { } Nc T }", R"({"a":[1,"x",null,[]],"b":{},"c":true})"},
      {"[ [ [ ] { } ] { Na [ ] } ]", R"([[[],{}],{"a":[]}])"},
      {"Sx", R"("x")"},
      // No JSON form: null keeps the text valid, where a refusal would cut it short.
      {"[ I108 Dnan Dinf D-inf ]", "[108,null,null,null]"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.script);
    std::ostringstream out;
    hlp::JsonWriter w(out);
    EXPECT_FALSE(w.IsComplete());
    EXPECT_TRUE(Run(w, c.script));
    EXPECT_EQ(out.str(), c.json);
    EXPECT_TRUE(w.IsGood());
    EXPECT_TRUE(w.IsComplete());
  }

  EXPECT_TRUE(writer_.Array());
  writer_.Int(std::numeric_limits<int32_t>::min());
  writer_.Uint(std::numeric_limits<uint32_t>::max());
  writer_.Int64(std::numeric_limits<int64_t>::min());
  writer_.Uint64(std::numeric_limits<uint64_t>::max());
  writer_.Double(0.5);
  writer_.Bool(false);
  EXPECT_TRUE(writer_.EndArray());
  EXPECT_EQ(out_.str(),
            "[-2147483648,4294967295,-9223372036854775808,18446744073709551615,0.5,false]");
}

TEST_F(JsonWriterTests, CallerStreamedValuesGetTheirSeparators) {
  EXPECT_TRUE(writer_.Object());
  for (const char* name : {"LoggingLevel", "Port"}) {
    EXPECT_TRUE(writer_.Name(name));
    EXPECT_TRUE(writer_.ValueCheck());
    writer_.Stream() << 4u;
    EXPECT_TRUE(writer_.ValuePost());
  }
  EXPECT_TRUE(writer_.Name("List"));
  EXPECT_TRUE(writer_.Array());
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(writer_.ValueCheck());
    writer_.Stream() << "\"s\"";
    EXPECT_TRUE(writer_.ValuePost());
  }
  EXPECT_FALSE(writer_.IsComplete());
  EXPECT_TRUE(Run(writer_, "] }"));
  EXPECT_EQ(out_.str(), R"({"LoggingLevel":4,"Port":4,"List":["s","s"]})");
  EXPECT_TRUE(writer_.IsComplete());
}

TEST_F(JsonWriterTests, StringsAreEscapedAndRepairedToValidUtf8) {
  struct Case {
    std::string in;
    std::string json;
  };
  const std::string fffd = "\xEF\xBF\xBD";
  const Case cases[] = {
      {"a\"b\\c\n\t\x01\x1F/", R"("a\"b\\c\n\t\u0001\u001F/")"},
      {std::string("n\0l", 3), R"("n\u0000l")"},
      {"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", "\"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\""},
      {"a\xFF!", "\"a" + fffd + "!\""},
      {"end\xC3", "\"end" + fffd + "\""},
      // A truncated sequence is one replacement, and the byte that cut it short survives.
      {"\xE2\x82x", "\"" + fffd + "x\""},
      {"\xF0\x9F\x98!", "\"" + fffd + "!\""},
      // Overlong forms, surrogates and code points beyond U+10FFFF: every byte is replaced.
      {"\xC0\xAF", "\"" + fffd + fffd + "\""},
      {"\xE0\x80\xAF", "\"" + fffd + fffd + fffd + "\""},
      {"\xED\xA0\x80", "\"" + fffd + fffd + fffd + "\""},
      {"\xF4\x90\x80\x80", "\"" + fffd + fffd + fffd + fffd + "\""},
      {"\x80\xBF", "\"" + fffd + fffd + "\""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.in));
    std::ostringstream out;
    hlp::JsonWriter w(out);
    EXPECT_TRUE(w.Object());
    EXPECT_TRUE(w.Name(c.in));
    EXPECT_TRUE(w.String(c.in));
    EXPECT_TRUE(w.EndObject());
    EXPECT_EQ(out.str(), "{" + c.json + ":" + c.json + "}");
    EXPECT_NE(hlp::JsonParser().Parse(out.str()), nullptr);
  }
}

TEST_F(JsonWriterTests, MisuseIsRefusedWithoutOutputAndSticks) {
  struct Case {
    const char* before;
    const char* misuse;
    const char* written;
  };
  const Case cases[] = {
      {"{", "I1", "{"},           // value where a name is due
      {"{", "?", "{"},            // caller's value where a name is due
      {"{ Na", "Nb", R"({"a")"},  // name after a name
      {"{ Na", "}", R"({"a")"},   // object closed before the member's value
      {"[", "Na", "["},           // name in an array
      {"[", "}", "["},
      {"{", "]", "{"},
      {"", "Na", ""},  // name at top level
      {"", "]", ""},
      {"I1", "I2", "1"},   // second root
      {"[", "!", "["},     // post without check
      {"[ ?", "I1", "["},  // value inside the caller's value
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.before) + " | " + c.misuse);
    std::ostringstream out;
    hlp::JsonWriter w(out);
    ASSERT_TRUE(Run(w, c.before));
    EXPECT_FALSE(Run(w, c.misuse));
    EXPECT_EQ(out.str(), c.written);
    EXPECT_FALSE(w.IsGood());
    EXPECT_FALSE(w.IsComplete());
    EXPECT_FALSE(w.Null());  // a bad writer stays bad, even for calls that would fit
  }
}

// Accepts `room` bytes, then fails like a full disk.
class FullBuffer : public std::streambuf {
 public:
  explicit FullBuffer(size_t room) : room_(room) {}

 protected:
  int overflow(int c) override {
    if (room_ == 0) {
      return traits_type::eof();
    }
    --room_;
    return c;
  }

 private:
  size_t room_;
};

TEST_F(JsonWriterTests, StreamFailureMakesTheWriterBad) {
  // The call whose bytes do not fit is the first to fail; ["long enough" takes 14 bytes.
  struct Case {
    size_t room;
    bool array, string, end;
  };
  const Case cases[] = {{0, false, false, false},
                        {1, true, false, false},
                        {5, true, false, false},
                        {14, true, true, false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.room);
    FullBuffer buffer(c.room);
    std::ostream out(&buffer);
    hlp::JsonWriter w(out);
    EXPECT_EQ(w.Array(), c.array);
    EXPECT_EQ(w.String("long enough"), c.string);
    EXPECT_EQ(w.EndArray(), c.end);
    EXPECT_FALSE(w.IsGood());
  }

  // The caller's own bytes failing between ValueCheck and ValuePost count too.
  FullBuffer buffer(1);
  std::ostream out(&buffer);
  hlp::JsonWriter w(out);
  EXPECT_TRUE(w.ValueCheck());
  w.Stream() << 12345;
  EXPECT_FALSE(w.ValuePost());
  EXPECT_FALSE(w.IsComplete());
}

}  // namespace
