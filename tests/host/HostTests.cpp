#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "host/HostPlatform.h"
#include "tests/support/TestSupport.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// One run of the host as a child process, its output captured in a file.
class HostProcess {
 public:
  HostProcess(const fs::path& exe, const std::vector<std::string>& args,
              const std::vector<std::string>& extraEnv, const fs::path& output) {
    std::vector<std::string> argv{exe.string()};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> argp;
    for (auto& a : argv)
      argp.push_back(a.data());
    argp.push_back(nullptr);

    std::vector<std::string> env(extraEnv);
    for (char** e = environ; *e != nullptr; ++e)
      env.emplace_back(*e);
    std::vector<char*> envp;
    for (auto& e : env)
      envp.push_back(e.data());
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    spawned_ = posix_spawn(&pid_, exe.c_str(), &actions, nullptr, argp.data(), envp.data()) == 0;
    posix_spawn_file_actions_destroy(&actions);
  }

  ~HostProcess() {
    if (spawned_ && !exited_) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }

  bool Spawned() const { return spawned_; }
  void Signal(int signal) const { kill(pid_, signal); }

  /** @brief The exit code, or -1 when the process did not end in time (or was killed). */
  int WaitForExit(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    int status = 0;
    while (std::chrono::steady_clock::now() < deadline) {
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        exited_ = true;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
      }
      std::this_thread::sleep_for(20ms);
    }
    return -1;
  }

 private:
  pid_t pid_ = -1;
  bool spawned_ = false;
  bool exited_ = false;
};

bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline)
      return false;
    std::this_thread::sleep_for(20ms);
  }
  return true;
}

// An installation in a temporary folder: host and module in bin/, settings in install/, and
// a registry file of its own.
class HostTests : public testing::Test {
 protected:
  void SetUp() override {
    const fs::path built = kro::host::ExecutableFolder().parent_path() / "bin";
    bin_ = temp_.Path() / "bin";
    fs::create_directories(bin_);
    fs::copy_file(built / "kroagent", bin_ / "kroagent");
    fs::copy_file(built / kro::host::kModuleFileName, bin_ / kro::host::kModuleFileName);

    const fs::path install = temp_.Path() / "install";
    temp_.Write("install/Kesta/Policy/AgentConfig.cfg", R"({"LoggingLevel":0})");
    temp_.Write("install/DialHomeInfo.txt",
                "AgentPort:" + std::to_string(kro::test::FreeTcpPort()) + ",AgentSSL:N\n");
    const std::string uiPort = std::to_string(kro::test::FreeTcpPort());
    registry_ = temp_.Write("registry.reg",
                            "Windows Registry Editor Version 5.00\n\n"
                            "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Norvane Technologies\\Arbalo\\Setup]\n"
                            "\"InstallDir\"=\"" +
                                install.string() +
                                "/\"\n\n"
                                "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Norvane Technologies\\Arbalo]\n"
                                "\"AgentUIPort\"=\"" +
                                uiPort + "\"\n\n");
  }

  HostProcess Run(const std::vector<std::string>& args) {
    return HostProcess(bin_ / "kroagent", args, {"KRO_REGISTRY_FILE=" + registry_.string()},
                       Output());
  }
  fs::path Output() const { return temp_.Path() / "output.txt"; }

  kro::test::TempDir temp_;
  fs::path bin_;
  fs::path registry_;
};

TEST_F(HostTests, RunsUntilSigtermThenStopsCleanly) {
  HostProcess host = Run({});
  ASSERT_TRUE(host.Spawned());

  // The main thread's set-up publishes the agent port: the agent is up.
  ASSERT_TRUE(WaitFor(
      [&] {
        return kro::test::ReadFile(registry_).find("\"AgentPort\"=dword:") != std::string::npos;
      },
      10s))
      << kro::test::ReadFile(Output());

  host.Signal(SIGTERM);
  EXPECT_EQ(host.WaitForExit(20s), 0) << kro::test::ReadFile(Output());

  const std::string log = kro::test::ReadFile(bin_ / "KroAgent.log");
  EXPECT_NE(log.find("Inited KRO Agent Main Thread Status 0"), std::string::npos) << log;
  EXPECT_NE(log.find("Cleanup of KRO Agent Main Thread"), std::string::npos) << log;
  // Records carry severity, file:line and the function's signature.
  EXPECT_NE(log.find("[info]"), std::string::npos);
  EXPECT_NE(log.find("KroAgent.cpp:"), std::string::npos);
  EXPECT_NE(log.find("KroAgent::KroAgent::MainThreadCleanup(void*)"), std::string::npos);
  EXPECT_NE(kro::test::ReadFile(Output()).find("stopped"), std::string::npos);
}

TEST_F(HostTests, CommandLine) {
  struct Case {
    std::vector<std::string> args;
    int exitCode;
    const char* output;
  };
  const Case cases[] = {
      {{"--version"}, 0, "7.0.222.0\n"},
      {{"--help"}, 0, "Usage: kroagent"},
      {{"--bogus"}, 2, "unknown argument '--bogus'"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args[0]);
    HostProcess host = Run(c.args);
    ASSERT_TRUE(host.Spawned());
    EXPECT_EQ(host.WaitForExit(10s), c.exitCode);
    EXPECT_NE(kro::test::ReadFile(Output()).find(c.output), std::string::npos)
        << kro::test::ReadFile(Output());
  }
}

TEST_F(HostTests, AFailingInitIsReportedWithItsStatus) {
  fs::remove(temp_.Path() / "install" / "DialHomeInfo.txt");
  HostProcess host = Run({});
  ASSERT_TRUE(host.Spawned());
  EXPECT_EQ(host.WaitForExit(10s), 1);
  EXPECT_NE(kro::test::ReadFile(Output()).find("kroagent: Init failed: 0x80000011"),
            std::string::npos)
      << kro::test::ReadFile(Output());
  EXPECT_NE(kro::test::ReadFile(bin_ / "KroAgent.log").find("Error fetching dial-home info"),
            std::string::npos);
}

TEST_F(HostTests, MissingModuleIsReportedAndFails) {
  fs::remove(bin_ / kro::host::kModuleFileName);
  HostProcess host = Run({});
  ASSERT_TRUE(host.Spawned());
  EXPECT_EQ(host.WaitForExit(10s), 1);
  EXPECT_NE(kro::test::ReadFile(Output()).find("cannot load"), std::string::npos);
}

}  // namespace
