#include "common/WinHelper.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "common/KroStatus.h"
#include "logging_support/logging_support.h"
#include "tests/support/TestSupport.h"

namespace kro {
namespace {

constexpr int64_t kTicksPerSecond = 10000000;
constexpr int64_t kEpochDifference = 11644473600;  // 1601-01-01 to 1970-01-01 in seconds

// Worked out from the civil calendar, independently of the code under test.
int64_t FileTimeOf(int y, unsigned m, unsigned d, int h, int mi, int s) {
  using namespace std::chrono;
  const int64_t days = sys_days{year{y} / month{m} / day{d}}.time_since_epoch().count();
  return ((days * 86400 + h * 3600 + mi * 60 + s) + kEpochDifference) * kTicksPerSecond;
}

TEST(Utf8ConversionTests, SameBytesForTheSameTextOnEveryPlatform) {
  // The wide literals are UTF-16 on Windows and UTF-32 elsewhere; the bytes must not differ.
  struct Case {
    std::wstring wide;
    std::string utf8;
  };
  std::string longUtf8;
  for (int i = 0; i < 300; ++i) {
    longUtf8 += "\xC3\xA9";
  }
  const Case cases[] = {
      {L"plain ASCII", "plain ASCII"},
      {L"\u00ff\u0800\uffef\U00010000\U0010FFFF",
       "\xC3\xBF\xE0\xA0\x80\xEF\xBF\xAF\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"},
      // Past the 256-unit stack buffers both ways, with more bytes than characters: the sized
      // second pass must size by the output, not the input.
      {std::wstring(300, L'\u00e9'), longUtf8},
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

TEST(Utf8ConversionTests, EmptyAndOversizedInputs) {
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

TEST(Utf8ConversionTests, InvalidWideTextBecomesReplacementCharacters) {
  const wchar_t loneSurrogates[] = {L'a', static_cast<wchar_t>(0xD800), L'b',
                                    static_cast<wchar_t>(0xDC00)};
  std::string narrow;
  ASSERT_EQ(WideToUtf8(loneSurrogates, 4, narrow), status::Ok);
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

TEST(Utf8ConversionTests, InvalidUtf8BecomesOneReplacementPerMaximalSubpart) {
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

TEST(Utf8ConversionTests, ReadWholeStreamAddsATerminator) {
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
    // Outlives every test: the thread keeps pointing at it.
    static auto* logger = new logging_support::logger_type;
    logging_support::create_logger_for_product(*logger, "KroTest", dir_.Path() / "convert.log");
    logging_support::set_logger_for_thread(*logger);
  }
  void TearDown() override { logging_support::remove_product_sink("KroTest"); }

  /** @brief What was logged since the last call, without the '\r' Windows' text mode adds. */
  std::string NewText() {
    std::string text = test::ReadFile(dir_.Path() / "convert.log");
    std::erase(text, '\r');
    std::string added = text.substr(seen_);
    seen_ = text.size();
    return added;
  }

  test::TempDir dir_;
  size_t seen_ = 0;
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
      // 1024 zero bytes: 341 full groups and one byte left over.
      {true, zeros.data(), zeros.size(), 0x80070057,
       "Failure to convert wide to multibyte string. [80070057]: [" + std::string(1364, 'A') +
           "AA==]"},
      {false, nullptr, 5, 0, "Failure to convert multibyte to wide string. [0]: []"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.message.substr(0, 60));
    LogConvertFailure(c.wideToMultibyte, c.input, c.bytes, c.error);
    const std::string line = NewText();
    EXPECT_EQ(std::count(line.begin(), line.end(), '\n'), 1) << line;
    EXPECT_NE(line.find("[error]"), std::string::npos) << line;
    EXPECT_TRUE(line.ends_with(" - " + c.message + "\n")) << line;
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
  EXPECT_EQ(NewText(), "");

  // A null text with a length is the one failure both backends share.
  narrow = "old";
  wide = L"old";
  EXPECT_EQ(WideToUtf8(nullptr, 4, narrow), status::FromWin32(87));
  EXPECT_EQ(Utf8ToWide(nullptr, 4, wide), status::FromWin32(87));
  EXPECT_EQ(narrow, "old");
  EXPECT_EQ(wide, L"old");
  const std::regex twoLines(R"(.* - Failure to convert wide to multibyte string\. \[57\]: \[\]\n)"
                            R"(.* - Failure to convert multibyte to wide string\. \[57\]: \[\]\n)");
  EXPECT_TRUE(std::regex_match(NewText(), twoLines));
}

TEST(FileTimeFormatTests, PatternsFormatUtcWithTwelveHourClock) {
  struct Case {
    int64_t time;
    const char* pattern;
    const char* expected;
  };
  const int64_t afternoon = FileTimeOf(2024, 3, 5, 14, 7, 9);
  const Case cases[] = {
      {FileTimeOf(2024, 3, 5, 0, 30, 0), "HH:MM AMPM", "12:30 AM"},
      {FileTimeOf(2024, 3, 5, 11, 59, 59), "HH:MM AMPM", "11:59 AM"},
      {FileTimeOf(2024, 3, 5, 12, 5, 0), "HH:MM AMPM", "12:05 PM"},
      {FileTimeOf(2024, 3, 5, 13, 5, 0), "HH:MM AMPM", "01:05 PM"},
      {afternoon, "MM/DD/YYYY HH:MM AMPM", "03/05/2024 02:07 PM"},
      {FileTimeOf(2024, 2, 29, 23, 0, 0), "MM/DD/YYYY", "02/29/2024"},
      {0, "MM/DD/YYYY", "01/01/1601"},
      {afternoon + kTicksPerSecond - 1, "HH:MM AMPM", "02:07 PM"},
      {afternoon, "mm/dd/yyyy", ""},
      {afternoon, "HH:MM", ""},
      {-1, "MM/DD/YYYY", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.pattern) + " at " + std::to_string(c.time));
    EXPECT_EQ(FormatFileTime(c.time, c.pattern), c.expected);
  }
}

TEST(FileTimeFormatTests, LocalTextFollowsTheTimeZone) {
#ifdef _WIN32
  // The zone comes from the system here; the C runtime's view of the same instant must agree.
  const int64_t time = FileTimeOf(2024, 7, 1, 10, 20, 30);
  const std::time_t seconds = time / kTicksPerSecond - kEpochDifference;
  std::tm local{};
  ASSERT_EQ(localtime_s(&local, &seconds), 0);
  char expected[32];
  std::strftime(expected, sizeof(expected), "%Y-%m-%d %H:%M:%S", &local);
  EXPECT_EQ(FileTimeToLocalText(static_cast<uint64_t>(time)), expected);
#else
  const char* saved = std::getenv("TZ");
  const std::string savedZone = saved != nullptr ? saved : "";
  struct Case {
    const char* tz;
    int64_t time;
    const char* expected;
  };
  const Case cases[] = {
      {"UTC0", FileTimeOf(2024, 3, 5, 14, 7, 9), "2024-03-05 14:07:09"},
      {"UTC0", 0, "1601-01-01 00:00:00"},
      {"IST-5:30", FileTimeOf(2024, 3, 5, 20, 0, 0), "2024-03-06 01:30:00"},
      {"EST5", FileTimeOf(2024, 1, 1, 3, 0, 0), "2023-12-31 22:00:00"},
      {"EST5", 0, ""},  // before 1601 in that zone
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.tz) + " " + c.expected);
    test::SetEnv("TZ", c.tz);
    tzset();
    EXPECT_EQ(FileTimeToLocalText(static_cast<uint64_t>(c.time)), c.expected);
  }
  test::SetEnv("TZ", saved != nullptr ? savedZone.c_str() : nullptr);
  tzset();
#endif
  EXPECT_EQ(FileTimeToLocalText(0x8000000000000000ull), "");
}

// The stamp comes from the C clock, so this also pins CurrentFileTime to the current second.
TEST(FileTimeFormatTests, JobNameCarriesPrefixAndLocalTime) {
  for (const char* prefix : {"Nightly", static_cast<const char*>(nullptr)}) {
    const std::string start = prefix != nullptr ? std::string("Job_") + prefix + "_" : "Job_";
    SCOPED_TRACE(start);
    // time() may trail the precise clock by a tick, and so show the second before.
    const std::string earliest = FileTimeToLocalText(CurrentFileTime() - kTicksPerSecond);
    const std::string name = MakeJobName(prefix);
    const std::string latest = FileTimeToLocalText(CurrentFileTime());
    ASSERT_EQ(name.substr(0, start.size()), start);
    std::string stamp = name.substr(start.size());
    ASSERT_TRUE(std::regex_match(stamp, std::regex(R"(\d{4}-\d\d-\d\d_\d\d:\d\d:\d\d)"))) << name;
    stamp[10] = ' ';  // the local text separates date and time by a blank
    EXPECT_GE(stamp, earliest);
    EXPECT_LE(stamp, latest);
  }
}

TEST(FileTimeFormatTests, AutomaticJobNameFallsBackToJob) {
  EXPECT_EQ(MakeAutomaticJobName(""), "Automatic Job");
  EXPECT_EQ(MakeAutomaticJobName("Backup"), "Automatic Backup");
}

TEST(HostTests, HostDirectoryIsTheTestExecutablesFolder) {
#ifdef _WIN32
  const std::wstring kTestExecutable = L"common_tests.exe";
#else
  const std::wstring kTestExecutable = L"common_tests";
#endif
  std::wstring executable;
  std::wstring folder = L"stale";
  std::wstring data;
  ASSERT_EQ(GetHostExecutablePath(executable), status::Ok);
  ASSERT_EQ(GetHostDirectory(folder), status::Ok);
  ASSERT_EQ(GetHostDataDirectory(data), status::Ok);
  // One separator between folder and name: the folder has no trailing one.
  EXPECT_EQ(executable, folder + kPathSeparator + kTestExecutable);
  EXPECT_TRUE(std::filesystem::exists(std::filesystem::path(executable)));
  EXPECT_EQ(data, folder + kPathSeparator + L"Data");
}

TEST(HostTests, ComputerNameIsOneCleanName) {
  std::string name;
  ASSERT_EQ(GetComputerNameDns(name), status::Ok);
  ASSERT_FALSE(name.empty());
  // No terminator or buffer tail counted into the name.
  EXPECT_EQ(std::strlen(name.c_str()), name.size());
  EXPECT_EQ(name.find_first_of(" \t\r\n"), std::string::npos) << name;
}

#ifndef _WIN32
TEST(HostTests, CanonicalNameLookupIsBounded) {
  std::string name = "unchanged";
  EXPECT_TRUE(detail::CanonicalHostName("localhost", std::chrono::seconds(2), name));
  EXPECT_EQ(name, "localhost");
  // No time at all: the answer is whatever the resolver had at once, and it comes at once.
  const auto start = std::chrono::steady_clock::now();
  detail::CanonicalHostName("localhost", std::chrono::milliseconds(0), name);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
}
#endif

#ifdef _WIN32
TEST(HostTests, DnsFlushAnswersWithoutCrashing) {
  const long result = FlushDnsCache();
  // dnsapi.dll and its entry point exist; whether the flush reports success is the system's.
  EXPECT_TRUE(result == status::Ok || result == status::Failure) << status::Bits(result);
}
#else
TEST(HostTests, DnsFlushRunsTheCachingServicesToolsFoundOnPath) {
  // Stand-ins for the tools on a PATH of their own: each records how it was called.
  struct Case {
    const char* name;
    int resolvectl;  // exit status; -1: not there
    int nscd;
    long result;
    const char* ran;
  };
  const Case cases[] = {
      {"neither", -1, -1, status::NotAvailable, ""},
      {"resolved flushes", 0, -1, status::Ok, "resolvectl flush-caches\n"},
      {"resolved fails", 1, -1, status::Failure, "resolvectl flush-caches\n"},
      {"nscd alone", -1, 0, status::Ok, "nscd -i hosts\n"},
      {"both, one fails", 1, 0, status::Ok, "resolvectl flush-caches\nnscd -i hosts\n"},
      {"both fail", 3, 1, status::Failure, "resolvectl flush-caches\nnscd -i hosts\n"},
  };
  const char* path = std::getenv("PATH");
  const std::string savedPath = path != nullptr ? path : "";
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    test::TempDir bin;
    const std::filesystem::path log = bin.Path() / "ran";
    for (const auto& [tool, exitStatus] :
         {std::pair{"resolvectl", c.resolvectl}, std::pair{"nscd", c.nscd}}) {
      const std::filesystem::path script =
          bin.Write(tool, "#!/bin/sh\necho \"${0##*/} $*\" >> '" + log.string() + "'\nexit " +
                              std::to_string(exitStatus) + "\n");
      // Not executable: not a tool, as the shell would see it.
      if (exitStatus >= 0) {
        std::filesystem::permissions(script, std::filesystem::perms::owner_all);
      }
    }
    test::SetEnv("PATH", ("::" + bin.Path().string()).c_str());
    EXPECT_EQ(FlushDnsCache(), c.result);
    test::SetEnv("PATH", path != nullptr ? savedPath.c_str() : nullptr);
    EXPECT_EQ(test::ReadFile(log), c.ran);
  }
}
#endif

}  // namespace
}  // namespace kro
