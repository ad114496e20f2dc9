#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "agent/KroAgent.h"
#include "alerts/AlertsManager.h"
#include "common/WinHelper.h"
#include "core/KroStatus.h"
#include "tests/support/Routines.h"
#include "tests/support/TestSupport.h"

namespace KroAgent {

// Each test runs against an installation of its own: a registry naming a temporary folder
// that holds the settings files.
class KroAgentTests : public testing::Test {
 protected:
  void SetUp() override {
    std::wstring install;
    kro::Utf8ToWide(install_.Path().string() + kro::kPathSeparatorA, install);
    kro::WriteRegistryString(install, kSetupKey, L"InstallDir");
    kro::WriteRegistryString(std::to_wstring(kro::test::FreeTcpPort()), kArbaloKey, L"AgentUIPort");
    agentPort_ = kro::test::FreeTcpPort();
    // The management server of the file is down: reports fail at once and are retried later.
    WriteSettings("HomeName:127.0.0.1,HomePort:" + std::to_string(homeDown_.Port()) +
                  ",HomeSSL:N,AgentPort:" + std::to_string(agentPort_) +
                  ",AgentSSL:N,StartupMode:Paused,BAPhase1:0,BAPhase2:24,BAPhase3:48,"
                  "BAPhase4:12\n");
  }
  void WriteSettings(const std::string& line) { install_.Write("DialHomeInfo.txt", line); }
  std::string Settings() const { return kro::test::ReadFile(install_.Path() / "DialHomeInfo.txt"); }

  static unsigned short UIPort(KroAgent& agent) {
    unsigned short port = 0;
    EXPECT_EQ(agent.GetAgentUIPort(port), 0);
    return port;
  }
  // Calls a routine through the map, as the server's dispatcher does: "<status> <answer>".
  static std::string Call(KroAgent& agent, const char* name, const std::string& request = "") {
    return kro::test::CallRoutine(agent.Routines(), name, request);
  }

  static bool WaitFor(const std::function<bool()>& condition, std::chrono::seconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition() && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return condition();
  }

  // The agent's private parts the alerts tests look at.
  static KroAlerts::AlertsManager* Alerts(KroAgent& agent) { return agent.alertsManager_.load(); }
  static kro::DialHome& DialHomeOf(KroAgent& agent) { return agent.dialHome_; }
  static bool Schema(const char* name, KroAlerts::DataSchema& schema) {
    return KroAgent::GetAlertDataSchema(name, schema);
  }

  kro::test::ScopedRegistry registry_;
  kro::test::TempDir install_;
  const kro::test::RefusingPort homeDown_;
  uint16_t agentPort_ = 0;
};

}  // namespace KroAgent
