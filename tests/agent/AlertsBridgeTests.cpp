#include "agent/AlertAgentCallbacks.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <future>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "config/KroAgentConfiguration.h"
#include "config/KroConfigurationManager.h"
#include "dialhome/DialHomeFrame.h"
#include "dialhome/EndNodeDialHome.h"
#include "dialhome/SystemInventory.h"
#include "hlp/Json.h"
#include "nvthreads/nvthreads.h"
#include "tests/agent/AgentTestSupport.h"
#include "tests/dialhome/HomeStandIn.h"

namespace KroAgent {

class AlertsBridgeTests : public KroAgentTests {
 protected:
  // The alerts as the browser UI reads them, newest first.
  std::unique_ptr<hlp::JsonValue> StoredAlerts(KroAgent& agent) {
    const std::string answer = Call(agent, "/arbalo/requests/getalerts.json");
    std::unique_ptr<hlp::JsonValue> root =
        answer.rfind("0 ", 0) == 0 ? hlp::JsonParser().Parse(answer.substr(2)) : nullptr;
    if (root == nullptr || root->FindMember("alerts") == nullptr) {
      ADD_FAILURE() << "not an alerts answer: " << answer;
      return nullptr;
    }
    return root;
  }
  static const hlp::JsonValue& First(const std::unique_ptr<hlp::JsonValue>& root) {
    return *root->FindMember("alerts")->At(0);
  }
  static std::vector<std::string> Parameters(const hlp::JsonValue& alert) {
    std::vector<std::string> values;
    const hlp::JsonValue* list = alert.FindMember("parameters");
    for (size_t i = 0; list != nullptr && i < list->Size(); ++i) {
      values.push_back(list->At(i)->GetString());
    }
    return values;
  }
  // The management server of the settings file from now on (reports re-read it); a report
  // also names the installed version.
  void EnrolAt(uint16_t port) {
    kro::WriteRegistryString(L"7.0.222.0", kSetupKey, L"ProductVersion");
    WriteSettings("HomeName:127.0.0.1,HomePort:" + std::to_string(port) +
                  ",HomeSSL:N,AgentPort:" + std::to_string(agentPort_) + ",AgentSSL:N\n");
  }
  // The ids of the alerts that the reports the stand-in saw carried, in order.
  static std::vector<std::string> ReportedIds(kro::test::StandIn& home) {
    std::vector<std::string> ids;
    for (const auto& seen : home.Requests()) {
      const auto root = hlp::JsonParser().Parse(kro::test::UnframeRequest(seen.body));
      const hlp::JsonValue* alerts = root ? root->FindMember("Alerts") : nullptr;
      const hlp::JsonValue* data = alerts ? alerts->FindMember("Data") : nullptr;
      for (size_t i = 0; data != nullptr && i < data->Size(); ++i) {
        kro::AlertIdOf(data->At(i)->GetString(), ids.emplace_back());
      }
    }
    return ids;
  }
};

TEST_F(AlertsBridgeTests, SchemaNamesIgnoreCaseAndUnknownNamesGiveZero) {
  const std::tuple<const char*, bool, KroAlerts::DataSchema> cases[] = {
      {"SYSTEM", true, KroAlerts::SYSTEM},    {"system", true, KroAlerts::SYSTEM},
      {"job", true, KroAlerts::JOB},          {"Net_Domain", true, KroAlerts::NET_DOMAIN},
      {"update", true, KroAlerts::UPDATE},    {"bios_guid", true, KroAlerts::BIOS_GUID},
      {"SYSTEMS", false, KroAlerts::UNKNOWN}, {"NET DOMAIN", false, KroAlerts::UNKNOWN},
      {nullptr, false, KroAlerts::UNKNOWN},
  };
  for (const auto& [name, known, wantSchema] : cases) {
    SCOPED_TRACE(name != nullptr ? name : "(null)");
    KroAlerts::DataSchema schema = KroAlerts::JOB;  // overwritten either way
    EXPECT_EQ(Schema(name, schema), known);
    EXPECT_EQ(schema, wantSchema);
  }
}

TEST_F(AlertsBridgeTests, GeneratedAlertsNameTheSystemFirstAndAreStoredWithoutAReportClient) {
  KroAgent agent;
  ASSERT_EQ(agent.Init(), 0);
  const std::tuple<const char*, const char*, std::vector<std::string>> cases[] = {
      {nullptr, nullptr, {"system"}},
      {"C:", nullptr, {"system", "C:"}},
      {nullptr, "95%", {"system", "95%"}},
      {"C:", "95%", {"system", "C:", "95%"}},
  };
  unsigned int code = 100;
  for (const auto& [param1, param2, parameters] : cases) {
    SCOPED_TRACE(code);
    // Without the main thread there is no dial-home pool to queue the report on; the alert is
    // kept all the same and waits for a retrieve.
    EXPECT_NE(agent.GenerateAlert("DiskFull", code, param1, param2), 0);
    const auto stored = StoredAlerts(agent);
    ASSERT_NE(stored, nullptr);
    const hlp::JsonValue& alert = First(stored);
    EXPECT_EQ(alert.FindMember("type")->GetString(), "DiskFull");
    EXPECT_EQ(alert.FindMember("code")->GetUint64(), code);
    EXPECT_FALSE(alert.FindMember("sent")->GetBool());
    EXPECT_EQ(Parameters(alert), parameters);
    ++code;
  }
  EXPECT_EQ(Alerts(agent)->getAlertCount(1), 4);
  EXPECT_EQ(agent.Exit(), 0);
}

TEST_F(AlertsBridgeTests, AlertsTravelWithTheNextGoodReportAcrossARestartAndAnOutage) {
  std::string restarted;
  {
    // Raised without the main thread: stored only, it waits for a retrieve after the restart.
    KroAgent before;
    ASSERT_EQ(before.Init(), 0);
    before.GenerateAlert("Reboot", 1, "pending", nullptr);
    const auto stored = StoredAlerts(before);
    ASSERT_NE(stored, nullptr);
    restarted = First(stored).FindMember("id")->GetString();
    EXPECT_EQ(before.Exit(), 0);
  }
  KroAgent agent;
  ASSERT_EQ(agent.Init(), 0);
  ASSERT_EQ(agent.MainThreadInit(&agent), 0);
  kro::DialHome& dialHome = DialHomeOf(agent);
  dialHome.SetConnectionWaits({300, 100, 2000, 2000});
  EXPECT_EQ(dialHome.AlertQueueSize(), 0u);
  EXPECT_EQ(agent.RetrieveAlerts(&agent), 0);
  EXPECT_EQ(dialHome.AlertQueueSize(), 1u);

  // The fixture's management server is down: the report a new alert queues fails and climbs
  // the retry ladder, and both alerts stay queued.
  ASSERT_EQ(agent.GenerateAlert("DiskFull", 3, "D:", nullptr), 0);
  ASSERT_TRUE(WaitFor([&] { return dialHome.RetryDelay() != 0; }, std::chrono::seconds(20)));
  EXPECT_EQ(dialHome.AlertQueueSize(), 2u);
  EXPECT_EQ(Alerts(agent)->getAlertCount(1), 2);

  kro::test::StandIn home;
  EnrolAt(home.Port());
  ASSERT_EQ(kro::DialHome::RequestEntry(&dialHome), 0);
  const auto stored = StoredAlerts(agent);
  ASSERT_NE(stored, nullptr);
  EXPECT_EQ(ReportedIds(home),
            (std::vector<std::string>{restarted, First(stored).FindMember("id")->GetString()}));
  EXPECT_TRUE(First(stored).FindMember("sent")->GetBool());
  EXPECT_EQ(dialHome.AlertQueueSize(), 0u);
  EXPECT_EQ(Alerts(agent)->getAlertCount(1), 0);
  // Delivered: a retrieve has nothing left to hand on.
  EXPECT_EQ(agent.RetrieveAlerts(&agent), 0);
  EXPECT_EQ(dialHome.AlertQueueSize(), 0u);

  EXPECT_EQ(agent.MainThreadCleanup(&agent), 0);
  EXPECT_EQ(Alerts(agent), nullptr);
  // Released alerting refuses new alerts instead of reaching a freed manager.
  EXPECT_EQ(agent.GenerateAlert("DiskFull", 4, nullptr, nullptr), kro::status::NotAvailable);
  EXPECT_EQ(agent.Exit(), 0);
}

TEST_F(AlertsBridgeTests, ABurstOfAlertsTravelsInAFewReportsAndEachIsMarkedDelivered) {
  KroAgent agent;
  ASSERT_EQ(agent.Init(), 0);
  ASSERT_EQ(agent.MainThreadInit(&agent), 0);
  kro::DialHome& dialHome = DialHomeOf(agent);
  dialHome.Stop();  // no start-up report in the middle of the burst
  dialHome.SetConnectionWaits({300, 100, 2000, 60000});
  kro::test::StandIn home;
  EnrolAt(home.Port());
  // The server holds its first answer until the whole burst is raised, so the burst meets a
  // report under way and another waiting to start, however fast either side runs.
  std::promise<void> raised;
  home.During([burst = raised.get_future().share()] { burst.wait_for(std::chrono::seconds(60)); });

  constexpr size_t kBurst = 500;
  for (size_t i = 0; i < kBurst; ++i) {
    ASSERT_EQ(agent.GenerateAlert("Burst", static_cast<unsigned>(i), nullptr, nullptr), 0);
  }
  // The client's work items run in the order they were added: once this one has run, every
  // report the burst asked for has been made.
  auto* settled = new std::promise<void>;
  std::future<void> done = settled->get_future();
  ASSERT_EQ(nvthreads_workitem_add(
                kDialHomePool, kDialHomeThread, "settled", 1, 0, 0, nullptr,
                [](void* promise) -> long {
                  delete static_cast<std::promise<void>*>(promise);
                  return 0;
                },
                [](void* promise) -> long {
                  static_cast<std::promise<void>*>(promise)->set_value();
                  return 0;
                },
                settled),
            NVTHREADS_OK);
  raised.set_value();
  ASSERT_EQ(done.wait_for(std::chrono::seconds(60)), std::future_status::ready);
  EXPECT_EQ(Alerts(agent)->getAlertCount(1), 0);

  EXPECT_LE(home.Requests().size(), 2u);
  const std::vector<std::string> reported = ReportedIds(home);
  EXPECT_EQ(reported.size(), kBurst);
  std::string json;
  ASSERT_EQ(Alerts(agent)->listAlerts(json, 0), static_cast<long>(kBurst));
  const auto stored = hlp::JsonParser().Parse(json);
  ASSERT_NE(stored, nullptr);
  std::set<std::string> storedIds;
  for (size_t i = 0; i < stored->Size(); ++i) {
    storedIds.insert(stored->At(i)->FindMember("id")->GetString());
    EXPECT_TRUE(stored->At(i)->FindMember("sent")->GetBool());
  }
  EXPECT_EQ(std::set<std::string>(reported.begin(), reported.end()), storedIds);
  EXPECT_EQ(dialHome.AlertQueueSize(), 0u);
  EXPECT_EQ(agent.MainThreadCleanup(&agent), 0);
  EXPECT_EQ(agent.Exit(), 0);
}

TEST_F(AlertsBridgeTests, CleanupPurgesByTheIntervalReadAtEachRun) {
  kro::KroAgentConfiguration* config =
      kro::KroConfigurationManager::Instance().GetAgentConfiguration();
  ASSERT_NE(config, nullptr);
  KroAgent agent;
  ASSERT_EQ(agent.Init(), 0);
  agent.GenerateAlert("Old", 1, nullptr, nullptr);
  const int64_t now = static_cast<int64_t>(std::time(nullptr));
  Alerts(agent)->setClock([now] { return now + 45 * 86400; });

  ASSERT_EQ(config->FromJson(R"({"AlertsCleanupInterval":60})"), 0);
  EXPECT_EQ(agent.CleanupAlerts(&agent), 0);
  EXPECT_EQ(Alerts(agent)->getAlertCount(0), 1);
  ASSERT_EQ(config->FromJson(R"({"AlertsCleanupInterval":30})"), 0);  // the default again
  EXPECT_EQ(agent.CleanupAlerts(&agent), 0);
  EXPECT_EQ(Alerts(agent)->getAlertCount(0), 0);
  EXPECT_EQ(agent.Exit(), 0);
}

}  // namespace KroAgent
