#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "common/WinHelper.h"
#include "host/HostPlatform.h"
#include "tests/support/TestSupport.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using kro::test::ReadFile;

// An installation in a temporary folder: host and module in bin/, settings in install/, and a
// registry file of its own that the host is pointed at.
class HostTests : public testing::Test {
 protected:
  void SetUp() override {
    const fs::path built = kro::host::ExecutableFolder().parent_path() / "bin";
    fs::create_directories(bin_);
    for (const std::string name : {"kroagent", kro::host::kModuleFileName}) {
      fs::copy_file(built / name, bin_ / name);
    }
    temp_.Write("install/Kesta/Policy/AgentConfig.cfg", R"({"LoggingLevel":0})");
    temp_.Write("install/DialHomeInfo.txt",
                "AgentPort:" + std::to_string(kro::test::FreeTcpPort()) + ",AgentSSL:N\n");
    // The host inherits the private registry's file through the environment.
    const std::wstring setup = L"SOFTWARE\\Norvane Technologies\\Arbalo";
    kro::WriteRegistryString((temp_.Path() / "install/").wstring(), setup + L"\\Setup",
                             L"InstallDir");
    kro::WriteRegistryString(std::to_wstring(kro::test::FreeTcpPort()), setup, L"AgentUIPort");
  }
  void TearDown() override {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }

  /** @brief Starts the host; what it prints goes to Output(). */
  void Start() {
    std::string host = (bin_ / "kroagent").string();
    char* argv[] = {host.data(), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, Output().c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    const int spawned = posix_spawn(&pid_, argv[0], &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    ASSERT_EQ(spawned, 0);
  }
  /** @brief The host's exit code, or -1 when it did not end within `limit` (or was killed). */
  int ExitCode(std::chrono::seconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (int status = 0; std::chrono::steady_clock::now() < deadline;
         std::this_thread::sleep_for(std::chrono::milliseconds(20))) {
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
      }
    }
    return -1;
  }
  fs::path Output() const { return temp_.Path() / "output.txt"; }

  kro::test::TempDir temp_;
  fs::path bin_ = temp_.Path() / "bin";
  kro::test::ScopedRegistry registry_;
  pid_t pid_ = -1;
};

TEST_F(HostTests, RunsUntilSigtermThenStopsCleanly) {
  ASSERT_NO_FATAL_FAILURE(Start());
  // The main thread's set-up publishes the agent port: the agent is up.
  for (int i = 0;
       i < 500 && ReadFile(registry_.File()).find("\"AgentPort\"=dword:") == std::string::npos;
       ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  ASSERT_NE(ReadFile(registry_.File()).find("\"AgentPort\"=dword:"), std::string::npos)
      << ReadFile(Output());

  kill(pid_, SIGTERM);
  EXPECT_EQ(ExitCode(std::chrono::seconds(20)), 0) << ReadFile(Output());
  EXPECT_NE(ReadFile(Output()).find("stopped"), std::string::npos);
  const std::string log = ReadFile(bin_ / "KroAgent.log");
  // Records carry severity, file:line and the function's signature.
  for (const char* text :
       {"Inited KRO Agent Main Thread Status 0", "Cleanup of KRO Agent Main Thread", "[info]",
        "KroAgent.cpp:", "KroAgent::KroAgent::MainThreadCleanup(void*)"}) {
    EXPECT_NE(log.find(text), std::string::npos) << text << " in:\n" << log;
  }
}

}  // namespace
