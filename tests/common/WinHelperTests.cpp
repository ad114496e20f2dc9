#include "common/WinHelper.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "core/KroStatus.h"
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
  std::string longUtf8;
  for (int i = 0; i < 300; ++i) {
    longUtf8 += "\xC3\xA9";
  }
  const std::pair<std::wstring, std::string> cases[] = {
      {L"plain ASCII", "plain ASCII"},
      {L"\u00ff\u0800\uffef\U00010000\U0010FFFF",
       "\xC3\xBF\xE0\xA0\x80\xEF\xBF\xAF\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"},
      // Past the 256-unit stack buffers both ways, with more bytes than characters: the sized
      // second pass must size by the output, not the input.
      {std::wstring(300, L'\u00e9'), longUtf8}};
  for (const auto& [wide, utf8] : cases) {
    SCOPED_TRACE(utf8.substr(0, 16));
    std::string narrow = "old";
    EXPECT_EQ(WideToUtf8(wide, narrow), status::Ok);
    EXPECT_EQ(narrow, utf8);
    std::wstring back = L"old";
    EXPECT_EQ(Utf8ToWide(utf8, back), status::Ok);
    EXPECT_EQ(back, wide);
  }
}

TEST(Utf8ConversionTests, EmptyOversizedAndInvalidWideInputs) {
  std::string narrow = "old";
  std::wstring wide = L"old";
  // Too long is refused before the text is looked at, and leaves the output alone.
  EXPECT_EQ(WideToUtf8(L"x", size_t{0x80000000}, narrow), status::Failure);
  EXPECT_EQ(Utf8ToWide("x", size_t{0x80000000}, wide), status::Failure);
  EXPECT_EQ(narrow + "|" + std::string(wide.begin(), wide.end()), "old|old");
  // Empty input empties the output, but only towards UTF-8 is it a failure.
  EXPECT_EQ(WideToUtf8(L"", 0, narrow), status::Failure);
  EXPECT_EQ(Utf8ToWide("", 0, wide), status::Ok);
  EXPECT_EQ(narrow + "|" + std::string(wide.begin(), wide.end()), "|");

  const wchar_t loneSurrogates[] = {L'a', static_cast<wchar_t>(0xD800), L'b',
                                    static_cast<wchar_t>(0xDC00)};
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
  // posixOnly: system decoders differ here (Wine folds a bad sequence into fewer)
  const std::wstring r(1, static_cast<wchar_t>(0xFFFD));
  const std::tuple<std::string, std::wstring, bool> cases[] = {
      {"a\200b", L"a" + r + L"b", false},
      {"\xC3", r, false},
      {"\342\202x", r + L"x", false},
      {"\xF0\x9F\x98", r, false},
      {"\xC0\xAF", r + r, false},
      {"\xFF\xFE", r + r, false},
      {"\xE0\x80\x80", r + r + r, true},
      {"\xED\xA0\x80", r + r + r, true},
      {"\xF4\x90\x80\x80", r + r + r + r, true}};
  for (const auto& [utf8, wantWide, posixOnly] : cases) {
    SCOPED_TRACE(testing::PrintToString(utf8));
#ifdef _WIN32
    if (posixOnly) {
      continue;
    }
#endif
    std::wstring wide;
    EXPECT_EQ(Utf8ToWide(utf8, wide), status::Ok);
    EXPECT_EQ(wide, wantWide);
  }
}

TEST(FileTimeFormatTests, PatternsFormatUtcWithTwelveHourClock) {
  const int64_t afternoon = FileTimeOf(2024, 3, 5, 14, 7, 9);
  const std::tuple<int64_t, const char*, const char*> cases[] = {
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
      {-1, "MM/DD/YYYY", ""}};
  for (const auto& [time, pattern, expected] : cases) {
    SCOPED_TRACE(std::string(pattern) + " at " + std::to_string(time));
    EXPECT_EQ(FormatFileTime(time, pattern), expected);
  }
}

TEST(HostTests, HostDirectoryIsTheTestExecutablesFolder) {
#ifdef _WIN32
  const std::wstring kTestExecutable = L"common_tests.exe";
#else
  const std::wstring kTestExecutable = L"common_tests";
#endif
  std::wstring executable;
  std::wstring folder = L"stale";
  ASSERT_EQ(GetHostExecutablePath(executable), status::Ok);
  ASSERT_EQ(GetHostDirectory(folder), status::Ok);
  // One separator between folder and name: the folder has no trailing one.
  EXPECT_EQ(executable, folder + kPathSeparator + kTestExecutable);
  EXPECT_TRUE(std::filesystem::exists(std::filesystem::path(executable)));
}

TEST(HostTests, ComputerNameIsOneCleanName) {
  std::string name;
  ASSERT_EQ(GetComputerNameDns(name), status::Ok);
  // No terminator or buffer tail counted into the name.
  EXPECT_EQ(name.find_first_of(std::string(" \t\r\n\0", 5)), std::string::npos) << name;
  EXPECT_FALSE(name.empty());
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
