#include "common/WinHelper.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <regex>
#include <string>

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

class FileTimeFormatTests : public testing::Test {
 protected:
  void SetUp() override {
    if (const char* tz = std::getenv("TZ"); tz != nullptr) {
      savedTz_ = tz;
      hadTz_ = true;
    }
  }
  void TearDown() override { SetTimeZone(hadTz_ ? savedTz_.c_str() : nullptr); }

  static void SetTimeZone(const char* tz) {
    test::SetEnv("TZ", tz);
#ifdef _WIN32
    _tzset();
#else
    tzset();
#endif
  }

 private:
  std::string savedTz_;
  bool hadTz_ = false;
};

TEST_F(FileTimeFormatTests, PatternsFormatUtcWithTwelveHourClock) {
  struct Case {
    int64_t time;
    const char* pattern;
    const char* expected;
  };
  const Case cases[] = {
      {FileTimeOf(2024, 3, 5, 0, 30, 0), "HH:MM AMPM", "12:30 AM"},
      {FileTimeOf(2024, 3, 5, 11, 59, 59), "HH:MM AMPM", "11:59 AM"},
      {FileTimeOf(2024, 3, 5, 12, 5, 0), "HH:MM AMPM", "12:05 PM"},
      {FileTimeOf(2024, 3, 5, 13, 5, 0), "HH:MM AMPM", "01:05 PM"},
      {FileTimeOf(2024, 3, 5, 23, 59, 0), "HH:MM AMPM", "11:59 PM"},
      {FileTimeOf(2024, 3, 5, 14, 7, 9), "MM/DD/YYYY HH:MM AMPM", "03/05/2024 02:07 PM"},
      {FileTimeOf(1999, 12, 31, 0, 0, 0), "MM/DD/YYYY HH:MM AMPM", "12/31/1999 12:00 AM"},
      {FileTimeOf(2024, 2, 29, 23, 0, 0), "MM/DD/YYYY", "02/29/2024"},
      {0, "MM/DD/YYYY", "01/01/1601"},
      {FileTimeOf(2024, 3, 5, 14, 7, 9) + kTicksPerSecond - 1, "HH:MM AMPM", "02:07 PM"},
      {FileTimeOf(2024, 3, 5, 14, 7, 9), "mm/dd/yyyy", ""},
      {FileTimeOf(2024, 3, 5, 14, 7, 9), "HH:MM", ""},
      {FileTimeOf(2024, 3, 5, 14, 7, 9), "", ""},
      {-1, "MM/DD/YYYY", ""},
      {INT64_MIN, "HH:MM AMPM", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.pattern) + " at " + std::to_string(c.time));
    EXPECT_EQ(FormatFileTime(c.time, c.pattern), c.expected);
  }
}

TEST_F(FileTimeFormatTests, LocalTextFollowsTheTimeZone) {
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
    SetTimeZone(c.tz);
    EXPECT_EQ(FileTimeToLocalText(static_cast<uint64_t>(c.time)), c.expected);
  }
#endif
  EXPECT_EQ(FileTimeToLocalText(0x8000000000000000ull), "");
}

TEST_F(FileTimeFormatTests, CurrentFileTimeIsNow) {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const int64_t expected =
      (std::chrono::duration_cast<std::chrono::seconds>(now).count() + kEpochDifference) *
      kTicksPerSecond;
  EXPECT_NEAR(static_cast<double>(CurrentFileTime()), static_cast<double>(expected),
              5.0 * kTicksPerSecond);
}

TEST_F(FileTimeFormatTests, JobNameCarriesPrefixAndLocalTime) {
  struct Case {
    const char* prefix;
    const char* start;
  };
  const Case cases[] = {{"Nightly", "Job_Nightly_"}, {nullptr, "Job_"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.start);
    const std::string before = FileTimeToLocalText(CurrentFileTime());
    const std::string name = MakeJobName(c.prefix);
    const std::string after = FileTimeToLocalText(CurrentFileTime());
    const std::string start = c.start;
    ASSERT_EQ(name.substr(0, start.size()), start);
    std::string stamp = name.substr(start.size());
    ASSERT_TRUE(std::regex_match(stamp, std::regex(R"(\d{4}-\d\d-\d\d_\d\d:\d\d:\d\d)"))) << name;
    stamp[10] = ' ';  // the local text separates date and time by a blank
    EXPECT_TRUE(stamp == before || stamp == after) << stamp << " vs " << before;
  }
}

TEST_F(FileTimeFormatTests, AutomaticJobNameFallsBackToJob) {
  EXPECT_EQ(MakeAutomaticJobName(""), "Automatic Job");
  EXPECT_EQ(MakeAutomaticJobName("Backup"), "Automatic Backup");
}

}  // namespace
}  // namespace kro
