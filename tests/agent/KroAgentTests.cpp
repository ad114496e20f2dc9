#include "agent/KroAgent.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>

#include "agent/KroVersion.h"
#include "common/KroStatus.h"
#include "common/WinHelper.h"
#include "hlp/TcpClient.h"
#include "nvthreads/nvthreads.h"
#include "tests/agent/AgentTestSupport.h"
#include "tests/support/TestSupport.h"

namespace KroAgent {

TEST_F(KroAgentTests, GetRoleVerAnswersTheVersionWithATerminatedBuffer) {
  KroAgent agent;
  const char* response = nullptr;
  size_t length = 0;
  ASSERT_EQ(agent.SendRoleVer(nullptr, 0, &response, &length), 0);
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(length, 9u);
  EXPECT_EQ(std::string(response, length), "7.0.222.0");
  EXPECT_EQ(response[length], '\0');
  agent.ReleaseResponse(const_cast<char*>(response));
  agent.ReleaseResponse(nullptr);  // ignored
}

TEST_F(KroAgentTests, RoutineNamesIgnoreCaseAndTheFirstRegistrationWins) {
  KroAgent agent;
  ASSERT_EQ(agent.Init(), 0);
  // A later registration of the same name in another case is accepted and ignored.
  const long status = agent.RegisterHandler(
      "getrolever", [](const char*, size_t, const char**, size_t*) -> long { return 42; });
  EXPECT_EQ(status, 0);

  for (const char* name : {"GetRoleVer", "GETROLEVER", "getRoleVer"}) {
    SCOPED_TRACE(name);
    std::string answer;
    EXPECT_EQ(Call(agent, name, answer), 0);
    EXPECT_EQ(answer, kVersionText);
  }
  EXPECT_EQ(agent.RegisterHandler(nullptr, {}), kro::status::NotAvailable);
  EXPECT_EQ(agent.Exit(), 0);
}

TEST_F(KroAgentTests, RegistrationWhileRoutinesAreLookedUpIsSafe) {
  RoutineTable table;
  table.Register("Fixed", [](const char*, size_t, const char**, size_t*) -> long { return 7; });
  std::atomic<bool> done{false};
  std::thread reader([&] {
    std::function<RoutineFn> routine;
    while (!done) {
      ASSERT_TRUE(table.Find("fixed", routine));
      EXPECT_EQ(routine(nullptr, 0, nullptr, nullptr), 7);
    }
  });
  for (int i = 0; i < 2000; ++i) {
    table.Register(("Routine" + std::to_string(i)).c_str(),
                   [](const char*, size_t, const char**, size_t*) -> long { return 0; });
  }
  done = true;
  reader.join();
  EXPECT_EQ(table.Size(), 2001u);
}

TEST_F(KroAgentTests, UIPortComesFromTheRegistryWithItsFallback) {
  kro::test::ScopedRegistry empty;  // without the fixture's port
  struct Case {
    const char* value;  // null: no value at all
    unsigned short port;
  };
  const Case cases[] = {
      {nullptr, 13569},          {"0", 13569},     {"-5", 13569}, {"abc", 13569}, {"8443", 8443},
      {"70000", 70000 & 0xFFFF}, {"13568", 13568},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.value != nullptr ? c.value : "(none)");
    if (c.value != nullptr) {
      std::wstring text;
      kro::Utf8ToWide(std::string(c.value), text);
      kro::WriteRegistryString(text, kArbaloKey, L"AgentUIPort");
    }
    KroAgent agent;
    unsigned short port = 0;
    EXPECT_EQ(UIPort(agent, port), 0);
    EXPECT_EQ(port, c.port);
  }
}

TEST_F(KroAgentTests, GettersReadTheSettingsLoadedByInit) {
  KroAgent agent;
  EXPECT_EQ(agent.GetAgentPort(), 13568);  // the defaults until Init reads the file
  EXPECT_TRUE(agent.GetAgentSSL());
  ASSERT_EQ(agent.Init(), 0);
  EXPECT_EQ(agent.GetAgentPort(), agentPort_);
  EXPECT_FALSE(agent.GetAgentSSL());
  EXPECT_EQ(agent.GetStartupMode(), Paused);
  const unsigned int phases[] = {0, 24, 48, 12};
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(agent.GetBAPhaseLen(static_cast<BAPhaseType>(i)), phases[i]);
  }
  EXPECT_EQ(agent.GetBAPhaseLen(static_cast<BAPhaseType>(4)), 0u);
  EXPECT_EQ(agent.GetBAPhaseLen(static_cast<BAPhaseType>(-1)), 0u);
  // The machine was looked at: on real hardware or a hypervisor, never "undetected".
  EXPECT_NE(agent.GetSystemType(), Undetected);
  EXPECT_EQ(agent.Exit(), 0);
}

TEST_F(KroAgentTests, InitFailsWithoutTheSettingsFile) {
  std::filesystem::remove(install_.Path() / "DialHomeInfo.txt");
  KroAgent agent;
  EXPECT_EQ(agent.Init(), kro::status::FileOpenFailed);
}

TEST_F(KroAgentTests, UpdateDialHomeInfoWritesOnlySettingsWhoseServerAnswers) {
  KroAgent agent;
  ASSERT_EQ(agent.Init(), 0);
  ASSERT_EQ(agent.MainThreadInit(&agent), 0);  // the dial-home client and the server

  const auto target = install_.Path() / "updated.txt";
  {
    kro::test::LoopbackListener home;
    const std::string json = R"({"HomeName":"127.0.0.1","HomePort":)" +
                             std::to_string(home.Port()) + R"(,"AgentPort":9500})";
    EXPECT_EQ(agent.UpdateDialHomeInfo(target.wstring().c_str(), json.c_str()), 0);
  }
  EXPECT_EQ(agent.GetAgentPort(), 9500);
  const std::string written = kro::test::ReadFile(target);
  EXPECT_EQ(written.rfind("HomeName:127.0.0.1,HomePort:", 0), 0u) << written;
  EXPECT_NE(written.find("AgentPort:9500,AgentSSL:N"), std::string::npos) << written;
  EXPECT_EQ(written.back(), '\n');

  // A server that does not answer: the settings are refused and nothing is written.
  const auto refused = install_.Path() / "refused.txt";
  const std::string down = R"({"HomePort":)" + std::to_string(kro::test::FreeTcpPort()) + "}";
  EXPECT_LT(agent.UpdateDialHomeInfo(refused.wstring().c_str(), down.c_str()), 0);
  EXPECT_FALSE(std::filesystem::exists(refused));

  // A member of the wrong type stops the merge; nothing is written.
  const auto untouched = install_.Path() / "untouched.txt";
  EXPECT_EQ(agent.UpdateDialHomeInfo(untouched.wstring().c_str(), R"({"AgentPort":"x"})"),
            kro::status::Failure);
  EXPECT_FALSE(std::filesystem::exists(untouched));

  EXPECT_EQ(agent.MainThreadCleanup(&agent), 0);
  EXPECT_EQ(agent.Exit(), 0);
}

TEST_F(KroAgentTests, UpdateDialHomeInfoWithoutAHomeServerWritesNothing) {
  WriteSettings("AgentPort:9443\n");
  KroAgent agent;
  ASSERT_EQ(agent.Init(), 0);
  const auto target = install_.Path() / "updated.txt";
  EXPECT_EQ(agent.UpdateDialHomeInfo(target.wstring().c_str(), R"({"AgentPort":9500})"),
            kro::status::NotAvailable);
  EXPECT_FALSE(std::filesystem::exists(target));
  EXPECT_EQ(agent.Exit(), 0);
}

TEST_F(KroAgentTests, InstalledProductsAnswerThroughTheRoutineMapInAnyCase) {
  KroAgent agent;
  ASSERT_EQ(agent.Init(), 0);
  for (const char* name : {"/Arbalo/Requests/getInstalledProducts.json",
                           "/arbalo/requests/GETINSTALLEDPRODUCTS.JSON"}) {
    SCOPED_TRACE(name);
    std::string answer;
    ASSERT_EQ(Call(agent, name, answer), 0);
    EXPECT_EQ(answer.rfind(R"({"kro_version":"7.0.222.0","root_path":)", 0), 0u) << answer;
  }
  std::string config;
  ASSERT_EQ(Call(agent, "/KRO/Configure/getAgentConfigure", config), 0);
  EXPECT_EQ(config.rfind(R"({"LoggingLevel":)", 0), 0u) << config;
  EXPECT_EQ(agent.Exit(), 0);
}

TEST_F(KroAgentTests, StartRunsTheMainThreadAndExitRunsItsCleanup) {
  KroAgent agent;
  ASSERT_EQ(agent.Init(), 0);
  ASSERT_EQ(agent.Start(), 0);

  // The main thread's set-up publishes the agent's port and TLS flag, then takes the port as
  // the one a port change is compared with.
  std::vector<uint8_t> data;
  kro::RegType type = kro::RegType::None;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while ((kro::RegistryQueryValue(kArbaloKey, L"AgentSSL", type, data) != 0 ||
          agent.PendingPort() == 0) &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_EQ(kro::RegistryQueryValue(kArbaloKey, L"AgentPort", type, data), 0);
  EXPECT_EQ(type, kro::RegType::Dword);
  ASSERT_EQ(data.size(), 4u);
  EXPECT_EQ(data[0] | (data[1] << 8), agentPort_);
  EXPECT_EQ(agent.PendingPort(), agentPort_);
  // The maintenance items wait on the same thread (cancelling proves they were added).
  for (const char* item : {"WorkItemAlertsRetrieve", "WorkItemAlertsCleanup"}) {
    EXPECT_EQ(nvthreads_workitem_cancel(kMainPool, kMainThread, item), NVTHREADS_OK) << item;
  }

  EXPECT_EQ(agent.Exit(), 0);
  // The pool is gone with the main thread: adding to it now fails.
  EXPECT_NE(agent.Start(), 0);
}

TEST_F(KroAgentTests, MainWorkItemWithoutAPortChangeWritesNothing) {
  KroAgent agent;
  ASSERT_EQ(agent.MainThreadInit(&agent), 0);
  kro::WriteRegistryDword(1, kArbaloKey, L"AgentPort");  // would be overwritten by a change
  EXPECT_EQ(agent.MainThreadProcess(&agent), 0);
  std::vector<uint8_t> data;
  kro::RegType type = kro::RegType::None;
  ASSERT_EQ(kro::RegistryQueryValue(kArbaloKey, L"AgentPort", type, data), 0);
  EXPECT_EQ(data[0], 1);
  EXPECT_EQ(agent.GetAgentPort(), 13568);
  EXPECT_EQ(Settings().find("AgentPort:13568"), std::string::npos);
}

TEST_F(KroAgentTests, APortChangeMovesTheServerAndRewritesTheSettings) {
  KroAgent agent;
  ASSERT_EQ(agent.Init(), 0);
  ASSERT_EQ(agent.Start(), 0);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (agent.Server().GetState() != kro::kServerRunning &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_EQ(agent.Server().GetState(), kro::kServerRunning);
  const uint16_t oldPort = agent.GetAgentPort();

  const uint16_t newPort = kro::test::FreeTcpPort();
  std::string answer;
  ASSERT_EQ(Call(agent, "modifycommunicationport", answer,
                 R"({"systemId":"42","port":")" + std::to_string(newPort) + R"("})"),
            0);
  EXPECT_EQ(answer, R"({"result":"success","systemId":"42"})");
  EXPECT_EQ(agent.PendingPort(), newPort);

  // The main work item applies it (every minute; driven here directly).
  ASSERT_EQ(agent.MainThreadProcess(&agent), 0);
  EXPECT_EQ(agent.GetAgentPort(), newPort);
  EXPECT_EQ(agent.Server().ListeningPorts(), std::to_string(newPort));
  EXPECT_TRUE(hlp::TcpClient("127.0.0.1", newPort, 2).Connect());
  EXPECT_FALSE(hlp::TcpClient("127.0.0.1", oldPort, 2).Connect());

  std::vector<uint8_t> data;
  kro::RegType type = kro::RegType::None;
  ASSERT_EQ(kro::RegistryQueryValue(kArbaloKey, L"AgentPort", type, data), 0);
  EXPECT_EQ(data[0] | (data[1] << 8), newPort);
  EXPECT_NE(Settings().find("AgentPort:" + std::to_string(newPort) + ","), std::string::npos)
      << Settings();
  EXPECT_EQ(agent.Exit(), 0);
}

}  // namespace KroAgent
