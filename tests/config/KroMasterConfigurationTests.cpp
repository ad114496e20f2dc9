#include "config/KroMasterConfiguration.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "agent/RoutineTable.h"
#include "common/KroStatus.h"
#include "tests/config/RoutineCall.h"
#include "tests/support/TestSupport.h"

namespace kro {
namespace {

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
  EXPECT_EQ(table_.Size(), 4u);
  ASSERT_EQ(config_.Load(dir_.Write("MasterConfig.cfg", kFullFile).string()), status::Ok);
  EXPECT_EQ(config_.ReportsCleanupInterval(), 7u);

  const test::RoutineAnswer get = test::CallRoutine(table_, "/KRO/Configure/getMasterConfigure");
  EXPECT_EQ(get.status, status::Ok);
  EXPECT_EQ(get.body, kFullAnswer);

  const test::RoutineAnswer save = test::CallRoutine(table_, "/KRO/Configure/saveMasterConfigure");
  EXPECT_EQ(save.status, status::NotAvailable);
  EXPECT_FALSE(save.hasBody);
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
      {R"({"AgentPort":65536})", 0, 9, 2, false},
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
    const test::RoutineAnswer answer = test::CallRoutine(table_, c.name);
    EXPECT_EQ(answer.status, status::Ok);
    EXPECT_EQ(answer.body, c.body);

    std::function<RoutineFn> routine;
    ASSERT_TRUE(table_.Find(c.name, routine));
    const char* response = nullptr;
    size_t length = 0;
    EXPECT_EQ(routine(nullptr, 0, nullptr, &length), status::NotAvailable);
    EXPECT_EQ(routine(nullptr, 0, &response, nullptr), status::NotAvailable);
    EXPECT_EQ(response, nullptr);
  }
}

}  // namespace
}  // namespace kro
