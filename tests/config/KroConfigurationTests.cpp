#include "config/KroConfiguration.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "common/WinHelper.h"
#include "config/KroAgentConfiguration.h"
#include "config/KroConfigurationManager.h"
#include "config/KroMasterConfiguration.h"
#include "core/KroStatus.h"
#include "core/RoutineTable.h"
#include "tests/support/Routines.h"
#include "tests/support/TestSupport.h"

namespace kro {
namespace {

using test::Answered;
using test::CallRoutine;

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
  // Names are looked up without regard to case; the request text plays no part.
  EXPECT_EQ(CallRoutine(table, "/kro/configure/GETAGENTCONFIGURE", R"({"LoggingLevel":0})"),
            Answered(status::Ok, kDefaults));
  EXPECT_EQ(CallRoutine(table, "/KRO/Configure/saveAgentConfigure"),
            Answered(status::NotAvailable));
  const char* response = nullptr;
  size_t length = 0;
  EXPECT_EQ(config_.GetConfigure(nullptr, 0, nullptr, &length), status::NotAvailable);
  EXPECT_EQ(config_.GetConfigure(nullptr, 0, &response, nullptr), status::NotAvailable);
  EXPECT_EQ(response, nullptr);
}

TEST_F(AgentConfigurationTests, LoadAppliesNumbersTruncatedAndUnchecked) {
  // Every member set, each to its own value: no member may land in another's field.
  const std::string everyMember =
      R"({"LoggingLevel":1,"MaxConnections":2,"ConnTimeout":3,"ConnRetryTimeout":4,)"
      R"("ConnRetryInterval":5,"AlertsCleanupInterval":6,"DialHomeInterval":7,)"
      R"("DialHomeFirstRetry":8,"DialHomeSecondRetry":9,"DialHomeThirdRetry":11})";
  const std::pair<std::string, std::string> cases[] = {
      {"{}", kDefaults},
      {everyMember, everyMember},
      {R"({"MaxConnections":7.99})", DefaultsWith("MaxConnections", "7")},
      {R"({"ConnRetryTimeout":-12.9})", DefaultsWith("ConnRetryTimeout", "4294967284")},
      {R"({"ConnRetryInterval":4294967296})", DefaultsWith("ConnRetryInterval", "0")},
      // Beyond 64 bits or beyond the double range: left alone, as a member of another type.
      {R"({"DialHomeThirdRetry":1e300,"DialHomeInterval":2e308,"ConnTimeout":-1e19})", kDefaults},
      {R"({"LoggingLevel":5})", DefaultsWith("LoggingLevel", "5")},
      {R"({"LoggingLevel":6})", kDefaults},
      {R"({"LoggingLevel":"2","AlertsCleanupInterval":true,"Nested":{"DialHomeInterval":1}})",
       kDefaults},
  };
  for (const auto& [file, expected] : cases) {
    SCOPED_TRACE(file);
    config_.SetDefaults();
    EXPECT_EQ(config_.Load(dir_.Write("AgentConfig.cfg", file).string()), status::Ok);
    EXPECT_EQ(Json(), expected);
  }
}

TEST_F(AgentConfigurationTests, FailuresKeepEarlierValuesAndSaveWritesToTheLoadedPath) {
  ASSERT_EQ(config_.FromJson(R"({"DialHomeInterval":5,"LoggingLevel":2})"), status::Ok);
  const std::string before = Json();
  const auto path = dir_.Path() / "AgentConfig.cfg";
  // file: null: no file at all
  const std::pair<const char*, long> cases[] = {
      {nullptr, status::FileOpenFailed},
      {R"({"DialHomeInterval":1)", status::NotAvailable},
      {R"([{"DialHomeInterval":1}])", status::NotAvailable}};
  for (const auto& [file, wantStatus] : cases) {
    SCOPED_TRACE(file != nullptr ? file : "(missing)");
    std::filesystem::remove(path);
    if (file != nullptr) {
      dir_.Write("AgentConfig.cfg", file);
    }
    EXPECT_EQ(config_.Load(path.string()), wantStatus);
    EXPECT_EQ(config_.FilePath(), path.string());
    EXPECT_EQ(Json(), before);
  }
  EXPECT_EQ(config_.Load(""), status::NotAvailable);
  EXPECT_EQ(config_.FromJson(nullptr), status::NotAvailable);
  EXPECT_EQ(Json(), before);

  // Save without a path goes where Load looked; an explicit path does not replace that one.
  EXPECT_EQ(KroAgentConfiguration().Save(""), status::NotAvailable);
  ASSERT_EQ(config_.Save(""), status::Ok);
  EXPECT_EQ(test::ReadFile(path), before);
  const auto other = dir_.Path() / "Other.cfg";
  ASSERT_EQ(config_.Save(other.string()), status::Ok);
  EXPECT_EQ(test::ReadFile(other), before);
  EXPECT_EQ(config_.FilePath(), path.string());
  // A folder that does not exist is not reported: only ToJson's status is.
  EXPECT_EQ(config_.Save((dir_.Path() / "missing" / "x.cfg").string()), status::Ok);
}

// Every member with a distinct value; the flags as booleans, the only form read back.
const char* const kFullFile =
    R"({"LoggingLevel":3,"MaxConnections":11,"ConnTimeout":12,"ConnRetryTimeout":13,)"
    R"("ConnRetryInterval":14,"MasterServerPort":4443,"MasterServerSSL":true,)"
    R"("DialHomePort":4444,"DialHomeSSL":true,"AgentPort":4445,"AgentSSL":false,)"
    R"("HeartBeatInterval":15,"AlertsCleanupInterval":16,"ReportsCleanupInterval":7,)"
    R"("SummaryCollectionRefresh":17,"SummaryCollectionUpdate":18,)"
    R"("SummaryCollectionTimeout":19,"MasterJobTimeoutMs":20,"BaseJobTimeoutMs":21,)"
    R"("SubJobTimeoutMs":22,"JobsCleanupInterval":23,"UISessionTimeOutIntervalMins":24,)"
    R"("SSDCaching":25})";

// Agent before dial-home, flags as numbers, no "ReportsCleanupInterval".
const char* const kFullAnswer =
    R"({"LoggingLevel":3,"MaxConnections":11,"ConnTimeout":12,"ConnRetryTimeout":13,)"
    R"("ConnRetryInterval":14,"MasterServerPort":4443,"MasterServerSSL":1,"AgentPort":4445,)"
    R"("AgentSSL":0,"DialHomePort":4444,"DialHomeSSL":1,"HeartBeatInterval":15,)"
    R"("AlertsCleanupInterval":16,"SummaryCollectionRefresh":17,)"
    R"("SummaryCollectionUpdate":18,"SummaryCollectionTimeout":19,"MasterJobTimeoutMs":20,)"
    R"("BaseJobTimeoutMs":21,"SubJobTimeoutMs":22,"JobsCleanupInterval":23,)"
    R"("UISessionTimeOutIntervalMins":24,"SSDCaching":25})";

class MasterConfigurationTests : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(config_.RegisterRoutines(table_), status::Ok); }

  KroMasterConfiguration config_;
  KroAgent::RoutineTable table_;
  test::TempDir dir_;
};

TEST_F(MasterConfigurationTests, RoutinesAnswerEveryMemberButReportsCleanup) {
  ASSERT_EQ(config_.Load(dir_.Write("MasterConfig.cfg", kFullFile).string()), status::Ok);
  EXPECT_EQ(config_.ReportsCleanupInterval(), 7u);
  const std::pair<const char*, std::string> routines[] = {
      {"/KRO/Configure/getMasterConfigure", Answered(status::Ok, kFullAnswer)},
      {"/KRO/Configure/saveMasterConfigure", Answered(status::NotAvailable)},
      {"/KRO/Master/Requests/getCacheSetting.json", Answered(status::Ok, R"({"setting":25})")},
      {"/kro/master/requests/getbrowsertimeout.json", Answered(status::Ok, R"({"timeout":24})")}};
  for (const auto& [name, answer] : routines) {
    SCOPED_TRACE(name);
    EXPECT_EQ(CallRoutine(table_, name), answer);
    std::function<RoutineFn> routine;
    ASSERT_TRUE(table_.Find(name, routine));
    const char* response = nullptr;
    size_t length = 0;
    EXPECT_EQ(routine(nullptr, 0, &response, nullptr), status::NotAvailable);
    EXPECT_EQ(routine(nullptr, 0, nullptr, &length), status::NotAvailable);
    EXPECT_EQ(response, nullptr);
  }
}

TEST_F(MasterConfigurationTests, MembersNarrowToTheirFieldWidth) {
  struct Case {
    const char* json;
    uint16_t agentPort;
    uint16_t ssdCaching;
    uint32_t loggingLevel;
    bool masterServerSSL;
  };
  const Case cases[] = {
      {R"({"AgentPort":70000,"SSDCaching":65537.9})", 4464, 1, 2, false},
      {R"({"AgentPort":-1,"LoggingLevel":6})", 65535, 9, 4, false},
      {R"({"AgentPort":443.7,"LoggingLevel":5,"MasterServerSSL":true})", 443, 9, 5, true},
      {R"({"MasterServerSSL":1,"AgentPort":"80","SSDCaching":null})", 1234, 9, 2, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.json);
    KroMasterConfiguration config;
    ASSERT_EQ(config.FromJson(R"({"AgentPort":1234,"SSDCaching":9,"LoggingLevel":2})"), status::Ok);
    ASSERT_EQ(config.FromJson(c.json), status::Ok);
    EXPECT_EQ(config.AgentPort(), c.agentPort);
    EXPECT_EQ(config.SSDCaching(), c.ssdCaching);
    EXPECT_EQ(config.LoggingLevel(), c.loggingLevel);
    EXPECT_EQ(config.MasterServerSSL(), c.masterServerSSL);
  }
}

TEST(ConfigurationManagerTests, AgentSettingsComeOnceFromTheDataDirectory) {
  KroConfigurationManager& manager = KroConfigurationManager::Instance();
  // One final separator, where the folder has none of either kind.
  for (const std::string given : {"C:\\Policy\\", "/policy/", "C:", ""}) {
    manager.SetDataDirectory(given);
    EXPECT_EQ(manager.DataDirectory(), given);
  }

  test::TempDir dir;
  dir.Write("AgentConfig.cfg", R"({"DialHomeInterval":60,"LoggingLevel":9})");
  manager.SetDataDirectory(dir.Path().string());
  KroAgentConfiguration* settings = manager.GetAgentConfiguration();
  ASSERT_NE(settings, nullptr);
  EXPECT_EQ(settings->FilePath(), dir.Path().string() + kPathSeparatorA + "AgentConfig.cfg");
  EXPECT_EQ(settings->DialHomeInterval(), 60u);
  EXPECT_EQ(settings->LoggingLevel(), 4u);
  EXPECT_EQ(settings->DialHomeThirdRetry(), 240u);
  manager.SetDataDirectory("");
  EXPECT_EQ(manager.GetAgentConfiguration(), settings);
  EXPECT_EQ(manager.GetMasterConfiguration(), nullptr);
}

}  // namespace
}  // namespace kro
