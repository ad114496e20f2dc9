#include "config/KroConfiguration.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <string>

#include "agent/RoutineTable.h"
#include "common/KroStatus.h"
#include "common/WinHelper.h"
#include "config/KroAgentConfiguration.h"
#include "config/KroConfigurationManager.h"
#include "config/KroMasterConfiguration.h"
#include "tests/support/TestSupport.h"

namespace kro {
namespace {

/** @brief A routine's status and answer as one comparable text. */
std::string Answer(long status, const std::string& body = "(no answer)") {
  return std::to_string(status) + " " + body;
}

/** @brief Calls a registered routine as the request handler does and frees its buffer. */
std::string CallRoutine(const KroAgent::RoutineTable& table, const std::string& name,
                        const std::string& request = "") {
  std::function<RoutineFn> routine;
  if (!table.Find(name, routine)) {
    return "no routine " + name;
  }
  const char* response = nullptr;
  size_t length = 0;
  const long result = routine(request.c_str(), request.size(), &response, &length);
  if (response == nullptr) {
    return Answer(result);
  }
  EXPECT_EQ(response[length], '\0');
  const std::string body(response, length);
  delete[] response;
  return Answer(result, body);
}

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
            Answer(status::Ok, kDefaults));
  EXPECT_EQ(CallRoutine(table, "/KRO/Configure/saveAgentConfigure"), Answer(status::NotAvailable));
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
  struct Case {
    std::string file;
    std::string expected;
  };
  const Case cases[] = {
      {"{}", kDefaults},
      {everyMember, everyMember},
      {R"({"MaxConnections":7.99})", DefaultsWith("MaxConnections", "7")},
      {R"({"ConnRetryTimeout":-12.9})", DefaultsWith("ConnRetryTimeout", "4294967284")},
      {R"({"ConnRetryInterval":4294967296})", DefaultsWith("ConnRetryInterval", "0")},
      // Beyond 64 bits or beyond the double range: left alone, as a member of another type.
      {R"({"DialHomeThirdRetry":1e300,"DialHomeInterval":2e308,"ConnTimeout":-1e19})", kDefaults},
      {R"({"MaxConnections":0e-66})", DefaultsWith("MaxConnections", "0")},
      {R"({"ConnRetryTimeout":1.0000000000000000001e-330})", DefaultsWith("ConnRetryTimeout", "0")},
      {R"({"LoggingLevel":5})", DefaultsWith("LoggingLevel", "5")},
      {R"({"LoggingLevel":6})", kDefaults},
      {R"({"LoggingLevel":"2","AlertsCleanupInterval":true,"DialHomeSecondRetry":null})",
       kDefaults},
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
      {R"({"DialHomeInterval":1)", status::NotAvailable},
      {R"([{"DialHomeInterval":1}])", status::NotAvailable},
  };
  const auto path = dir_.Path() / "AgentConfig.cfg";
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file != nullptr ? c.file : "(missing)");
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

TEST_F(MasterConfigurationTests, GetAnswersEveryMemberButReportsCleanup) {
  ASSERT_EQ(config_.Load(dir_.Write("MasterConfig.cfg", kFullFile).string()), status::Ok);
  EXPECT_EQ(config_.ReportsCleanupInterval(), 7u);
  EXPECT_EQ(CallRoutine(table_, "/KRO/Configure/getMasterConfigure"),
            Answer(status::Ok, kFullAnswer));
  EXPECT_EQ(CallRoutine(table_, "/KRO/Configure/saveMasterConfigure"),
            Answer(status::NotAvailable));
}

TEST_F(MasterConfigurationTests, FlagsSavedAsNumbersDoNotLoadBack) {
  ASSERT_EQ(config_.FromJson(kFullFile), status::Ok);
  const auto file = dir_.Path() / "MasterConfig.cfg";
  ASSERT_EQ(config_.Save(file.string()), status::Ok);
  EXPECT_EQ(test::ReadFile(file), kFullAnswer);

  KroMasterConfiguration fresh;
  const bool agentSSL = fresh.AgentSSL();
  ASSERT_EQ(fresh.Load(file.string()), status::Ok);
  EXPECT_EQ(fresh.AgentPort(), 4445);
  EXPECT_EQ(fresh.SSDCaching(), 25);
  EXPECT_FALSE(fresh.MasterServerSSL());
  EXPECT_FALSE(fresh.DialHomeSSL());
  EXPECT_EQ(fresh.AgentSSL(), agentSSL);
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

TEST_F(MasterConfigurationTests, SmallRoutinesAnswerOneMember) {
  ASSERT_EQ(config_.FromJson(R"({"SSDCaching":3,"UISessionTimeOutIntervalMins":45})"), status::Ok);
  struct Case {
    const char* name;
    const char* body;
  };
  const Case cases[] = {
      {"/KRO/Master/Requests/getCacheSetting.json", R"({"setting":3})"},
      {"/kro/master/requests/getbrowsertimeout.json", R"({"timeout":45})"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(CallRoutine(table_, c.name), Answer(status::Ok, c.body));
    std::function<RoutineFn> routine;
    ASSERT_TRUE(table_.Find(c.name, routine));
    const char* response = nullptr;
    size_t length = 0;
    EXPECT_EQ(routine(nullptr, 0, nullptr, &length), status::NotAvailable);
    EXPECT_EQ(routine(nullptr, 0, &response, nullptr), status::NotAvailable);
    EXPECT_EQ(response, nullptr);
  }
}

TEST(ConfigurationManagerTests, DataDirectoryGetsOneFinalSeparator) {
  const std::string sep(1, kPathSeparatorA);
  struct Case {
    std::string given;
    std::string stored;
  };
  const Case cases[] = {
      {"C:\\Arbalo\\Kesta\\Policy", "C:\\Arbalo\\Kesta\\Policy" + sep},
      {"C:\\Policy\\", "C:\\Policy\\"},
      {"/policy/", "/policy/"},
      {"C:", "C:"},
      {"", ""},
  };
  KroConfigurationManager& manager = KroConfigurationManager::Instance();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.given);
    manager.SetDataDirectory(c.given);
    EXPECT_EQ(manager.DataDirectory(), c.stored);
  }
}

TEST(ConfigurationManagerTests, AgentSettingsAreCreatedOnceWithDefaultsThenFile) {
  test::TempDir dir;
  dir.Write("AgentConfig.cfg", R"({"DialHomeInterval":60,"LoggingLevel":9})");
  KroConfigurationManager& manager = KroConfigurationManager::Instance();
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
