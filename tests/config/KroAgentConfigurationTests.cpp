#include "config/KroAgentConfiguration.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "agent/RoutineTable.h"
#include "common/KroStatus.h"
#include "tests/config/RoutineCall.h"
#include "tests/support/TestSupport.h"

namespace kro {
namespace {

const std::string kDefaults =
    R"({"LoggingLevel":4,"MaxConnections":10,"ConnTimeout":30,"ConnRetryTimeout":60,)"
    R"("ConnRetryInterval":10,"AlertsCleanupInterval":30,"DialHomeInterval":1440,)"
    R"("DialHomeFirstRetry":15,"DialHomeSecondRetry":60,"DialHomeThirdRetry":240})";

/** @brief The default text with one member's value replaced. */
std::string DefaultsWith(const std::string& key, const std::string& value) {
  std::string text = kDefaults;
  const size_t at = text.find("\"" + key + "\":") + key.size() + 3;
  text.replace(at, text.find_first_of(",}", at) - at, value);
  return text;
}

class AgentConfigurationTests : public testing::Test {
 protected:
  AgentConfigurationTests() { config_.SetDefaults(); }

  std::string Json() const {
    std::string text;
    EXPECT_EQ(config_.ToJson(text), status::Ok);
    return text;
  }

  KroAgentConfiguration config_;
  test::TempDir dir_;
};

TEST_F(AgentConfigurationTests, RoutinesAnswerSettingsAndRefuseSaving) {
  KroAgent::RoutineTable table;
  ASSERT_EQ(config_.RegisterRoutines(table), status::Ok);
  EXPECT_EQ(table.Size(), 2u);

  // Names are looked up without regard to case; the request text plays no part.
  const test::RoutineAnswer get =
      test::CallRoutine(table, "/kro/configure/GETAGENTCONFIGURE", R"({"LoggingLevel":0})");
  EXPECT_EQ(get.status, status::Ok);
  EXPECT_EQ(get.body, kDefaults);

  const test::RoutineAnswer save = test::CallRoutine(table, "/KRO/Configure/saveAgentConfigure");
  EXPECT_EQ(save.status, status::NotAvailable);
  EXPECT_FALSE(save.hasBody);
  EXPECT_EQ(Json(), kDefaults);

  EXPECT_EQ(config_.GetConfigure(nullptr, 0, nullptr, nullptr), status::NotAvailable);
}

TEST_F(AgentConfigurationTests, LoadAppliesNumbersTruncatedAndUnchecked) {
  struct Case {
    const char* file;
    std::string expected;
  };
  const Case cases[] = {
      {"{}", kDefaults},
      {R"({"DialHomeInterval":60})", DefaultsWith("DialHomeInterval", "60")},
      {R"({"MaxConnections":7.99})", DefaultsWith("MaxConnections", "7")},
      {R"({"ConnTimeout":-1})", DefaultsWith("ConnTimeout", "4294967295")},
      {R"({"ConnRetryTimeout":-12.9})", DefaultsWith("ConnRetryTimeout", "4294967284")},
      {R"({"DialHomeFirstRetry":-0.5})", DefaultsWith("DialHomeFirstRetry", "0")},
      {R"({"ConnRetryInterval":4294967296})", DefaultsWith("ConnRetryInterval", "0")},
      {R"({"DialHomeThirdRetry":1e300})", DefaultsWith("DialHomeThirdRetry", "4294967295")},
      {R"({"MaxConnections":0})", DefaultsWith("MaxConnections", "0")},
      {R"({"LoggingLevel":5})", DefaultsWith("LoggingLevel", "5")},
      {R"({"LoggingLevel":0.7})", DefaultsWith("LoggingLevel", "0")},
      {R"({"LoggingLevel":6})", kDefaults},
      {R"({"LoggingLevel":-1})", kDefaults},
      {R"({"LoggingLevel":"2"})", kDefaults},
      {R"({"AlertsCleanupInterval":true,"DialHomeSecondRetry":null})", kDefaults},
      {R"({"Unknown":5,"Nested":{"DialHomeInterval":1}})", kDefaults},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    config_.SetDefaults();
    EXPECT_EQ(config_.Load(dir_.Write("AgentConfig.cfg", c.file).string()), status::Ok);
    EXPECT_EQ(Json(), c.expected);
  }
}

TEST_F(AgentConfigurationTests, LoadFailuresKeepEarlierValues) {
  ASSERT_EQ(config_.FromJson(R"({"DialHomeInterval":5,"LoggingLevel":2})"), status::Ok);
  const std::string before = Json();

  struct Case {
    const char* file;  // null: no file at all
    long status;
  };
  const Case cases[] = {
      {nullptr, status::FileOpenFailed},
      {"", status::NotAvailable},
      {"not json", status::NotAvailable},
      {R"({"DialHomeInterval":1)", status::NotAvailable},
      {R"([{"DialHomeInterval":1}])", status::NotAvailable},
      {"17", status::NotAvailable},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file != nullptr ? c.file : "(missing)");
    const auto path = dir_.Path() / "AgentConfig.cfg";
    std::filesystem::remove(path);
    if (c.file != nullptr) {
      dir_.Write("AgentConfig.cfg", c.file);
    }
    EXPECT_EQ(config_.Load(path.string()), c.status);
    EXPECT_EQ(config_.FilePath(), path.string());
    EXPECT_EQ(Json(), before);
  }
  EXPECT_EQ(config_.Load(""), status::NotAvailable);
  EXPECT_EQ(config_.FromJson(nullptr), status::NotAvailable);
  EXPECT_EQ(Json(), before);
}

TEST_F(AgentConfigurationTests, SaveWritesTheGetTextToTheLoadedPath) {
  KroAgentConfiguration empty;
  EXPECT_EQ(empty.Save(""), status::NotAvailable);

  const auto loaded = dir_.Write("AgentConfig.cfg", R"({"DialHomeSecondRetry":90})");
  ASSERT_EQ(config_.Load(loaded.string()), status::Ok);
  ASSERT_EQ(config_.Save(""), status::Ok);
  EXPECT_EQ(test::ReadFile(loaded), DefaultsWith("DialHomeSecondRetry", "90"));

  // An explicit path wins and does not replace the loaded one.
  const auto other = dir_.Path() / "Other.cfg";
  ASSERT_EQ(config_.Save(other.string()), status::Ok);
  EXPECT_EQ(test::ReadFile(other), test::ReadFile(loaded));
  EXPECT_EQ(config_.FilePath(), loaded.string());

  // A folder that does not exist is not reported: only ToJson's status is.
  EXPECT_EQ(config_.Save((dir_.Path() / "missing" / "x.cfg").string()), status::Ok);
}

}  // namespace
}  // namespace kro
