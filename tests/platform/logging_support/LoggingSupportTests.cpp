#include "logging_support/logging_support.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <thread>

#include "tests/support/TestSupport.h"

namespace {

class LoggingSupportTests : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(logging_support::create_logger_for_product(logger_, "LogTest", File()));
    logging_support::set_logger_for_thread(logger_);
  }
  void TearDown() override {
    logging_support::change_severity_cutoff(0);
    logging_support::remove_product_sink("LogTest");
  }
  std::filesystem::path File() const { return dir_.Path() / "product.log"; }
  std::string Log() const { return kro::test::ReadFile(File()); }

  kro::test::TempDir dir_;
  logging_support::logger_type logger_;
};

void LogSomething() {
  KRO_LOG_ERROR << "disk " << 42 << " full";
}

TEST_F(LoggingSupportTests, RecordCarriesTimeSeverityThreadPlaceFunctionAndMessage) {
  LogSomething();
  const std::regex line(
      R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} \[error\] \[[^\]]+\] )"
      R"(LoggingSupportTests\.cpp:\d+ void \{anonymous\}::LogSomething\(\) - disk 42 full\r?\n$)");
  EXPECT_TRUE(std::regex_match(Log(), line)) << Log();
}

TEST_F(LoggingSupportTests, CutoffDropsLowerSeverities) {
  logging_support::change_severity_cutoff(4);
  KRO_LOG_INFO << "dropped";
  KRO_LOG_WARNING << "dropped too";
  KRO_LOG_ERROR << "kept";
  logging_support::change_severity_cutoff(9);  // above fatal clamps to fatal
  KRO_LOG_ERROR << "dropped at fatal";
  KRO_LOG_FATAL << "fatal kept";
  const std::string log = Log();
  EXPECT_EQ(log.find("dropped"), std::string::npos) << log;
  EXPECT_NE(log.find("- kept"), std::string::npos);
  EXPECT_NE(log.find("- fatal kept"), std::string::npos);
}

TEST_F(LoggingSupportTests, OnlyThreadsThatInstalledTheLoggerWriteToItsFile) {
  std::thread([] { KRO_LOG_ERROR << "from a thread without a logger"; }).join();
  std::thread([this] {
    logging_support::set_logger_for_thread(logger_);
    KRO_LOG_ERROR << "from a thread with the logger";
  }).join();
  const std::string log = Log();
  EXPECT_EQ(log.find("without"), std::string::npos);
  EXPECT_NE(log.find("from a thread with the logger"), std::string::npos);
}

TEST_F(LoggingSupportTests, ANewFileForTheProductReplacesTheOldSink) {
  const auto second = dir_.Path() / "second.log";
  ASSERT_TRUE(logging_support::create_logger_for_product(logger_, "LogTest", second));
  KRO_LOG_ERROR << "where";
  EXPECT_EQ(Log().find("where"), std::string::npos);
  EXPECT_NE(kro::test::ReadFile(second).find("where"), std::string::npos);
  EXPECT_FALSE(logging_support::create_logger_for_product(logger_, "LogTest",
                                                          dir_.Path() / "no" / "such" / "x.log"));
}

}  // namespace
