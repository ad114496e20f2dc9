#include "agent/KroAgent.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "agent/KroVersion.h"
#include "common/WinHelper.h"
#include "core/KroStatus.h"
#include "hlp/TcpClient.h"
#include "nvthreads/nvthreads.h"
#include "tests/agent/AgentTestSupport.h"
#include "tests/support/TestSupport.h"

namespace KroAgent {
namespace {

/** @brief The low 16 bits of a DWORD under the Arbalo key, or -1 when there is none. */
int ArbaloWord(const wchar_t* name) {
  std::vector<uint8_t> data;
  kro::RegType type = kro::RegType::None;
  if (kro::RegistryQueryValue(kArbaloKey, name, type, data) != 0 || type != kro::RegType::Dword ||
      data.size() != 4) {
    return -1;
  }
  return data[0] | (data[1] << 8);
}

}  // namespace

TEST_F(KroAgentTests, RoleVersionAnswersInAnyCaseAndTheFirstRegistrationWins) {
  KroAgent agent;
  const char* response = nullptr;
  size_t length = 0;
  ASSERT_EQ(agent.SendRoleVer(nullptr, 0, &response, &length), 0);
  // Nine characters and the terminating zero beyond them.
  EXPECT_EQ(std::string(response, length + 1), std::string("7.0.222.0", 10));
  agent.ReleaseResponse(const_cast<char*>(response));
  agent.ReleaseResponse(nullptr);  // ignored

  ASSERT_EQ(agent.Init(), 0);
  EXPECT_EQ(
      agent.RegisterHandler("getrolever",
                            [](const char*, size_t, const char**, size_t*) -> long { return 42; }),
      0);
  for (const char* name : {"GetRoleVer", "GETROLEVER", "getRoleVer"}) {
    EXPECT_EQ(Call(agent, name), "0 " + std::string(kVersionText)) << name;
  }
  EXPECT_EQ(agent.RegisterHandler(nullptr, {}), kro::status::NotAvailable);
  // Products and configuration answer from the start.
  EXPECT_EQ(Call(agent, "/arbalo/requests/GETINSTALLEDPRODUCTS.JSON")
                .rfind(R"(0 {"kro_version":"7.0.222.0","root_path":)", 0),
            0u);
  EXPECT_EQ(Call(agent, "/KRO/Configure/getAgentConfigure").rfind(R"(0 {"LoggingLevel":)", 0), 0u);
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
  KroAgent agent;
  EXPECT_EQ(UIPort(agent), 13569);  // no value at all
  const std::pair<const wchar_t*, unsigned short> cases[] = {
      {L"0", 13569}, {L"-5", 13569}, {L"abc", 13569}, {L"1", 1}, {L"70000", 70000 & 0xFFFF}};
  for (const auto& [value, port] : cases) {
    kro::WriteRegistryString(value, kArbaloKey, L"AgentUIPort");
    EXPECT_EQ(UIPort(agent), port) << testing::PrintToString(std::wstring(value));
  }
}

TEST_F(KroAgentTests, InitReadsTheSettingsFileAndFailsWithoutIt) {
  std::filesystem::rename(install_.Path() / "DialHomeInfo.txt", install_.Path() / "saved.txt");
  KroAgent agent;
  EXPECT_EQ(agent.Init(), kro::status::FileOpenFailed);
  std::filesystem::rename(install_.Path() / "saved.txt", install_.Path() / "DialHomeInfo.txt");

  EXPECT_EQ(agent.GetAgentPort(), 13568);  // the defaults until Init reads the file
  EXPECT_TRUE(agent.GetAgentSSL());
  ASSERT_EQ(agent.Init(), 0);
  EXPECT_EQ(agent.GetAgentPort(), agentPort_);
  EXPECT_FALSE(agent.GetAgentSSL());
  EXPECT_EQ(agent.GetStartupMode(), Paused);
  const unsigned int phases[] = {0, 24, 48, 12, 0};  // out of range: 0
  for (int i = -1; i < 5; ++i) {
    EXPECT_EQ(agent.GetBAPhaseLen(static_cast<BAPhaseType>(i)), i < 0 ? 0 : phases[i]) << i;
  }
  // The machine was looked at: physical exactly when no hypervisor shows.
  if (kro::test::HypervisorPresent()) {
    EXPECT_GE(agent.GetSystemType(), Virtual);
    EXPECT_LE(agent.GetSystemType(), KVM);
  } else {
    EXPECT_EQ(agent.GetSystemType(), Physical);
  }
  EXPECT_EQ(agent.Exit(), 0);
}

TEST_F(KroAgentTests, UpdateDialHomeInfoWritesOnlySettingsWhoseServerAnswers) {
  const auto target = install_.Path() / "updated.txt";
  const auto update = [&target](KroAgent& agent, const std::string& json) {
    return agent.UpdateDialHomeInfo(target.wstring().c_str(), json.c_str());
  };
  {
    KroAgent agent;
    ASSERT_EQ(agent.Init(), 0);
    ASSERT_EQ(agent.MainThreadInit(&agent), 0);  // the dial-home client and the server
    // Refused, nothing written: a server that does not answer, a member of the wrong type.
    const kro::test::RefusingPort refusing;
    EXPECT_LT(update(agent, R"({"HomePort":)" + std::to_string(refusing.Port()) + "}"), 0);
    EXPECT_LT(update(agent, R"({"AgentPort":"x"})"), 0);
    EXPECT_FALSE(std::filesystem::exists(target));
    {
      kro::test::LoopbackListener home;  // closed at once: the report it queues fails fast
      EXPECT_EQ(update(agent, R"({"HomeName":"127.0.0.1","HomePort":)" +
                                  std::to_string(home.Port()) + R"(,"AgentPort":9500})"),
                0);
    }
    EXPECT_EQ(agent.GetAgentPort(), 9500);
    const std::string written = kro::test::ReadFile(target);
    EXPECT_EQ(written.rfind("HomeName:127.0.0.1,HomePort:", 0), 0u) << written;
    EXPECT_NE(written.find("AgentPort:9500,AgentSSL:N"), std::string::npos) << written;
    EXPECT_EQ(written.back(), '\n');
    EXPECT_EQ(agent.MainThreadCleanup(&agent), 0);
    EXPECT_EQ(agent.Exit(), 0);
  }
  // Settings that name no management server are not kept either.
  std::filesystem::remove(target);
  WriteSettings("AgentPort:9443\n");
  KroAgent agent;
  ASSERT_EQ(agent.Init(), 0);
  EXPECT_EQ(update(agent, R"({"AgentPort":9500})"), kro::status::NotAvailable);
  EXPECT_FALSE(std::filesystem::exists(target));
  EXPECT_EQ(agent.Exit(), 0);
}

TEST_F(KroAgentTests, StartRunsTheMainThreadAndAPortChangeMovesTheServer) {
  KroAgent agent;
  ASSERT_EQ(agent.Init(), 0);
  ASSERT_EQ(agent.Start(), 0);
  // The main thread's set-up publishes the agent's port, starts the server, and takes the port
  // as the one a port change is compared with.
  ASSERT_TRUE(WaitFor(
      [&] { return agent.Server().GetState() == kro::kServerRunning && agent.PendingPort() != 0; },
      std::chrono::seconds(10)));
  EXPECT_EQ(ArbaloWord(L"AgentPort"), agentPort_);
  EXPECT_EQ(ArbaloWord(L"AgentSSL"), 0);
  EXPECT_EQ(agent.PendingPort(), agentPort_);
  // Without a port change the main work item writes nothing.
  const std::string settings = Settings();
  EXPECT_EQ(agent.MainThreadProcess(&agent), 0);
  EXPECT_EQ(Settings(), settings);
  // The maintenance items wait on the same thread (cancelling proves they were added).
  for (const char* item : {"WorkItemAlertsRetrieve", "WorkItemAlertsCleanup"}) {
    EXPECT_EQ(nvthreads_workitem_cancel(kMainPool, kMainThread, item), NVTHREADS_OK) << item;
  }

  const uint16_t newPort = kro::test::FreeTcpPort();
  EXPECT_EQ(Call(agent, "modifycommunicationport",
                 R"({"systemId":"42","port":")" + std::to_string(newPort) + R"("})"),
            R"(0 {"result":"success","systemId":"42"})");
  EXPECT_EQ(agent.PendingPort(), newPort);
  // The main work item applies it (every minute; driven here directly), waking the server's
  // loop, which otherwise sleeps long between connections.
  const auto begin = std::chrono::steady_clock::now();
  ASSERT_EQ(agent.MainThreadProcess(&agent), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
  EXPECT_EQ(agent.GetAgentPort(), newPort);
  EXPECT_EQ(agent.Server().ListeningPorts(), std::to_string(newPort));
  EXPECT_TRUE(hlp::TcpClient("127.0.0.1", newPort, 2).Connect());
  EXPECT_FALSE(hlp::TcpClient("127.0.0.1", agentPort_, 2).Connect());
  EXPECT_EQ(ArbaloWord(L"AgentPort"), newPort);
  EXPECT_NE(Settings().find("AgentPort:" + std::to_string(newPort) + ","), std::string::npos)
      << Settings();

  EXPECT_EQ(agent.Exit(), 0);
  // The pool is gone with the main thread: adding to it now fails.
  EXPECT_NE(agent.Start(), 0);
}

}  // namespace KroAgent
