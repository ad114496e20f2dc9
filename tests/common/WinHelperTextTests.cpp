#include "common/WinHelper.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "common/KroStatus.h"
#include "logging_support/logging_support.h"
#include "tests/support/TestSupport.h"

namespace kro {
namespace {

template <typename S>
S Repeat(const S& unit, size_t times) {
  S out;
  for (size_t i = 0; i < times; ++i) {
    out += unit;
  }
  return out;
}

class Utf8ConversionTests : public testing::Test {};

TEST_F(Utf8ConversionTests, SameBytesForTheSameTextOnEveryPlatform) {
  // The wide literals are UTF-16 on Windows and UTF-32 elsewhere; the bytes must not differ.
  struct Case {
    std::wstring wide;
    std::string utf8;
  };
  const Case cases[] = {
      {L"plain ASCII", "plain ASCII"},
      {L"\u00e9t\u20ac\U0001F600", "\xC3\xA9t\xE2\x82\xAC\xF0\x9F\x98\x80"},
      {L"\u00ff\u0800\uffef\U00010000\U0010FFFF",
       "\xC3\xBF\xE0\xA0\x80\xEF\xBF\xAF\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"},
      // Beyond the 256-unit stack buffer: the sized second pass.
      {Repeat<std::wstring>(L"x", 300), Repeat<std::string>("x", 300)},
      {Repeat<std::wstring>(L"\u00e9", 200), Repeat<std::string>("\xC3\xA9", 200)},
      {Repeat<std::wstring>(L"\U0001F600", 100), Repeat<std::string>("\xF0\x9F\x98\x80", 100)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.utf8.substr(0, 16));
    std::string narrow = "old";
    EXPECT_EQ(WideToUtf8(c.wide, narrow), status::Ok);
    EXPECT_EQ(narrow, c.utf8);
    std::wstring wide = L"old";
    EXPECT_EQ(Utf8ToWide(c.utf8, wide), status::Ok);
    EXPECT_EQ(wide, c.wide);
  }
}

TEST_F(Utf8ConversionTests, EmptyAndOversizedInputs) {
  std::string narrow = "old";
  std::wstring wide = L"old";
  // Too long is refused before the text is looked at, and leaves the output alone.
  EXPECT_EQ(WideToUtf8(L"x", size_t{0x80000000}, narrow), status::Failure);
  EXPECT_EQ(Utf8ToWide("x", size_t{0x80000000}, wide), status::Failure);
  EXPECT_EQ(narrow, "old");
  EXPECT_EQ(wide, L"old");
  // Empty input empties the output, but only towards UTF-8 is it a failure.
  EXPECT_EQ(WideToUtf8(L"", 0, narrow), status::Failure);
  EXPECT_EQ(Utf8ToWide("", 0, wide), status::Ok);
  EXPECT_EQ(narrow, "");
  EXPECT_EQ(wide, L"");
}

TEST_F(Utf8ConversionTests, InvalidWideTextBecomesReplacementCharacters) {
  const std::vector<wchar_t> loneSurrogates = {L'a', static_cast<wchar_t>(0xD800), L'b',
                                               static_cast<wchar_t>(0xDC00)};
  std::string narrow;
  ASSERT_EQ(WideToUtf8(loneSurrogates.data(), loneSurrogates.size(), narrow), status::Ok);
  EXPECT_EQ(narrow,
            "a\xEF\xBF\xBD"
            "b\xEF\xBF\xBD");
#ifndef _WIN32
  // Only a 32-bit wchar_t can hold values beyond Unicode.
  const wchar_t beyond[] = {static_cast<wchar_t>(0x110000), static_cast<wchar_t>(-1)};
  ASSERT_EQ(WideToUtf8(beyond, 2, narrow), status::Ok);
  EXPECT_EQ(narrow, "\xEF\xBF\xBD\xEF\xBF\xBD");
#endif
}

TEST_F(Utf8ConversionTests, InvalidUtf8BecomesOneReplacementPerMaximalSubpart) {
  struct Case {
    const char* name;
    std::string utf8;
    std::wstring wide;
    bool posixOnly;  // system decoders differ here (Wine folds a bad sequence into fewer)
  };
  const std::wstring r(1, static_cast<wchar_t>(0xFFFD));
  const Case cases[] = {
      {"stray continuation", "a\200b", L"a" + r + L"b", false},
      {"truncated two-byte", "\xC3", r, false},
      {"truncated three-byte", "\342\202x", r + L"x", false},
      {"truncated four-byte", "\xF0\x9F\x98", r, false},
      {"overlong", "\xC0\xAF", r + r, false},
      {"invalid bytes", "\xFF\xFE", r + r, false},
      {"overlong three-byte", "\xE0\x80\x80", r + r + r, true},
      {"encoded surrogate", "\xED\xA0\x80", r + r + r, true},
      {"beyond U+10FFFF", "\xF4\x90\x80\x80", r + r + r + r, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
#ifdef _WIN32
    if (c.posixOnly) {
      continue;
    }
#endif
    std::wstring wide;
    EXPECT_EQ(Utf8ToWide(c.utf8, wide), status::Ok);
    EXPECT_EQ(wide, c.wide);
  }
}

TEST_F(Utf8ConversionTests, ReadWholeStreamAddsATerminator) {
  for (const std::string& content : {std::string("line one\nline\0two", 17), std::string()}) {
    SCOPED_TRACE(content.size());
    std::istringstream in(content);
    char* buffer = nullptr;
    size_t length = 99;
    ASSERT_EQ(ReadWholeStream(in, buffer, length), status::Ok);
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(std::string(buffer, length + 1), content + '\0');
    delete[] buffer;
  }
}

class ConvertFailureLogTests : public testing::Test {
 protected:
  void SetUp() override {
    file_ = dir_.Path() / "convert.log";
    logging_support::create_logger_for_product(Logger(), "KroTest", file_);
    logging_support::set_logger_for_thread(Logger());
  }
  void TearDown() override { logging_support::remove_product_sink("KroTest"); }

  // Outlives every test: the thread keeps pointing at it.
  static logging_support::logger_type& Logger() {
    static auto* logger = new logging_support::logger_type;
    return *logger;
  }

  std::vector<std::string> Lines() const {
    std::vector<std::string> lines;
    std::istringstream in(test::ReadFile(file_));
    for (std::string line; std::getline(in, line);) {
      if (!line.empty() && line.back() == '\r') {
        line.pop_back();  // Windows writes the log in text mode
      }
      lines.push_back(line);
    }
    return lines;
  }

  test::TempDir dir_;
  std::filesystem::path file_;
};

TEST_F(ConvertFailureLogTests, LogsCodeAndCappedInputExactly) {
  const std::vector<uint8_t> zeros(1200, 0);
  struct Case {
    bool wideToMultibyte;
    const void* input;
    size_t bytes;
    uint32_t error;
    std::string message;
  };
  const Case cases[] = {
      {true, "Man", 3, 0x7A, "Failure to convert wide to multibyte string. [7A]: [TWFu]"},
      {false, "Man", 3, 1113, "Failure to convert multibyte to wide string. [459]: [TWFu]"},
      // 1024 zero bytes: 341 full groups and one byte left over.
      {true, zeros.data(), zeros.size(), 0x80070057,
       "Failure to convert wide to multibyte string. [80070057]: [" + std::string(1364, 'A') +
           "AA==]"},
      {false, nullptr, 5, 0, "Failure to convert multibyte to wide string. [0]: []"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.message.substr(0, 60));
    const size_t before = Lines().size();
    LogConvertFailure(c.wideToMultibyte, c.input, c.bytes, c.error);
    const std::vector<std::string> lines = Lines();
    ASSERT_EQ(lines.size(), before + 1);
    EXPECT_NE(lines.back().find("[error]"), std::string::npos) << lines.back();
    EXPECT_TRUE(lines.back().ends_with(" - " + c.message)) << lines.back();
  }
}

TEST_F(ConvertFailureLogTests, OnlyFailedConversionsAreLogged) {
  std::string narrow = "old";
  std::wstring wide = L"old";
  // Replaced characters and empty input are no API failure.
  const wchar_t lone[] = {static_cast<wchar_t>(0xDC00)};
  WideToUtf8(lone, 1, narrow);
  Utf8ToWide("\xFF", 1, wide);
  WideToUtf8(L"", 0, narrow);
  EXPECT_TRUE(Lines().empty());

  // A null text with a length is the one failure both backends share.
  narrow = "old";
  wide = L"old";
  EXPECT_EQ(WideToUtf8(nullptr, 4, narrow), status::FromWin32(87));
  EXPECT_EQ(Utf8ToWide(nullptr, 4, wide), status::FromWin32(87));
  EXPECT_EQ(narrow, "old");
  EXPECT_EQ(wide, L"old");
  const std::vector<std::string> lines = Lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_TRUE(lines[0].ends_with(" - Failure to convert wide to multibyte string. [57]: []"));
  EXPECT_TRUE(lines[1].ends_with(" - Failure to convert multibyte to wide string. [57]: []"));
}

}  // namespace
}  // namespace kro
