#include "logging_support/logging_support.h"

#include <gtest/gtest.h>

#include <string>

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

}  // namespace
