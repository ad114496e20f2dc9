#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "common/WinHelper.h"
#include "host/HostPlatform.h"
#include "tests/support/HttpTestSupport.h"
#include "tests/support/TestSupport.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using kro::test::ReadFile;

// An installation in a temporary folder: host and module in bin/, settings in install/, and a
// registry file of its own that the host is pointed at.
class Installation {
 public:
  Installation() {
    const fs::path built = kro::host::ExecutableFolder().parent_path() / "bin";
    fs::create_directories(Bin());
    for (const std::string name : {"kroagent", kro::host::kModuleFileName}) {
      fs::copy_file(built / name, Bin() / name);
    }
    Write("install/Kesta/Policy/AgentConfig.cfg", R"({"LoggingLevel":0})");
    Write("install/DialHomeInfo.txt", "AgentPort:" + std::to_string(agentPort) + ",AgentSSL:N\n");
    // The host inherits the private registry's file through the environment.
    const std::wstring setup = L"SOFTWARE\\Norvane Technologies\\Arbalo";
    kro::WriteRegistryString((temp_.Path() / "install/").wstring(), setup + L"\\Setup",
                             L"InstallDir");
    kro::WriteRegistryString(std::to_wstring(uiPort), setup, L"AgentUIPort");
  }
  ~Installation() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  Installation(const Installation&) = delete;
  Installation& operator=(const Installation&) = delete;

  void Write(const std::string& name, const std::string& content) { temp_.Write(name, content); }
  fs::path Bin() const { return temp_.Path() / "bin"; }
  fs::path Output() const { return temp_.Path() / "output.txt"; }
  const fs::path& Registry() const { return registry_.File(); }

  /** @brief Starts the host; what it prints goes to Output(). */
  void Start() {
    std::string host = (Bin() / "kroagent").string();
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
  void Signal(int number) const { kill(pid_, number); }
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

  const uint16_t agentPort = kro::test::FreeTcpPort();
  const uint16_t uiPort = kro::test::FreeTcpPort();

 private:
  kro::test::TempDir temp_;
  kro::test::ScopedRegistry registry_;
  pid_t pid_ = -1;
};

class HostTests : public testing::Test {
 protected:
  Installation installation_;
};

TEST_F(HostTests, RunsUntilSigtermThenStopsCleanly) {
  Installation& host = installation_;
  ASSERT_NO_FATAL_FAILURE(host.Start());
  // The main thread's set-up publishes the agent port: the agent is up.
  for (int i = 0;
       i < 500 && ReadFile(host.Registry()).find("\"AgentPort\"=dword:") == std::string::npos;
       ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  ASSERT_NE(ReadFile(host.Registry()).find("\"AgentPort\"=dword:"), std::string::npos)
      << ReadFile(host.Output());

  host.Signal(SIGTERM);
  EXPECT_EQ(host.ExitCode(std::chrono::seconds(20)), 0) << ReadFile(host.Output());
  EXPECT_NE(ReadFile(host.Output()).find("stopped"), std::string::npos);
  const std::string log = ReadFile(host.Bin() / "KroAgent.log");
  // Records carry severity, file:line and the function's signature.
  for (const char* text :
       {"Inited KRO Agent Main Thread Status 0", "Cleanup of KRO Agent Main Thread", "[info]",
        "KroAgent.cpp:", "KroAgent::KroAgent::MainThreadCleanup(void*)"}) {
    EXPECT_NE(log.find(text), std::string::npos) << text << " in:\n" << log;
  }
}

// A stand-in for another machine: a network namespace joined to this one by a veth pair, with
// addresses of its own from the range set aside for such tests. Removed again at the end.
class OtherMachine {
 public:
  OtherMachine() {
    const int n = static_cast<int>(getpid() % 250) + 1;
    name_ = "kroe2e" + std::to_string(getpid());
    hostAddress_ = "198.18." + std::to_string(n) + ".1";
    ownAddress_ = "198.18." + std::to_string(n) + ".2";
    const std::string here = name_ + "a", there = name_ + "b";
    for (const std::string& command :
         {"ip netns add " + name_, "ip link add " + here + " type veth peer name " + there,
          "ip link set " + there + " netns " + name_,
          "ip addr add " + hostAddress_ + "/30 dev " + here, "ip link set " + here + " up",
          "ip -n " + name_ + " addr add " + ownAddress_ + "/30 dev " + there,
          "ip -n " + name_ + " link set " + there + " up"}) {
      if (std::system((command + " 2>/dev/null").c_str()) != 0) {
        failed_ = command;
        return;
      }
    }
  }
  ~OtherMachine() {
    std::system(
        ("ip link del " + name_ + "a 2>/dev/null; ip netns del " + name_ + " 2>/dev/null").c_str());
  }
  OtherMachine(const OtherMachine&) = delete;
  OtherMachine& operator=(const OtherMachine&) = delete;

  /** @brief The command that could not be run; empty when the namespace is up. */
  const std::string& Failed() const { return failed_; }
  /** @brief This machine's address as the other one reaches it. */
  const std::string& HostAddress() const { return hostAddress_; }

  /** @brief Sends `request` to this machine's `port` from inside the other machine. */
  std::string Exchange(uint16_t port, const std::string& request) const {
    std::string answer = "(could not enter the namespace)";
    // A thread of its own enters the namespace, so the test's other sockets stay where they are.
    std::thread([&] {
      const int fd = open(("/run/netns/" + name_).c_str(), O_RDONLY | O_CLOEXEC);
      if (fd >= 0 && setns(fd, CLONE_NEWNET) == 0) {
        answer = kro::test::Exchange(port, request, false, hostAddress_);
      }
      if (fd >= 0) {
        close(fd);
      }
    }).join();
    return answer;
  }

 private:
  std::string name_, hostAddress_, ownAddress_, failed_;
};

std::string Get(const std::string& uri, const std::string& userAgent) {
  return "GET " + uri + " HTTP/1.1\r\nHost: x\r\nUser-Agent: " + userAgent +
         "\r\nConnection: close\r\n\r\n";
}
std::string Post(const std::string& uri, const std::string& userAgent, const std::string& body) {
  return "POST " + uri + " HTTP/1.1\r\nHost: x\r\nUser-Agent: " + userAgent +
         "\r\nContent-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" +
         body;
}
std::string Body(const std::string& answer) {
  const size_t end = answer.find("\r\n\r\n");
  return end == std::string::npos ? "" : answer.substr(end + 4);
}

constexpr const char* kBrowser = "Mozilla/5.0 (X11; Linux x86_64)";
constexpr const char* kUpperTier = "KroMaster/1.2";

// The host and its module, started once in an installation of their own, spoken to over real
// sockets as browsers, the upper tier and other machines speak to it.
class EndToEndTests : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    host_ = new Installation();
    refusing_ = new kro::test::RefusingPort();
    const std::string live = "http://127.0.0.1:" + std::to_string(host_->uiPort);
    const std::string dead = "http://127.0.0.1:" + std::to_string(refusing_->Port());
    host_->Write("bin/WebServer.cfg",
                 "ReachableOptions 2 60 300\n"
                 "Redirect 301 /arbalo/moved.html " +
                     live +
                     "/arbalo/a.html\n"
                     "Redirect 302 /arbalo/up.html " +
                     live +
                     "/arbalo/a.html\n"
                     "Redirect 307 /arbalo/down.html " +
                     dead +
                     "/x\n"
                     "Redirect 306 /arbalo/never.html " +
                     dead +
                     "/x\n"
                     "Redirect 303 /arbalo/inside.html /arbalo/a.html\n");
    for (const char* page : {"index", "a", "down"}) {
      host_->Write(std::string("install/User Interface/") + page + ".html", page);
    }
    // The heartbeat is recorded only under a key that exists.
    kro::WriteRegistryString(L"1", kro::kDefaultRegistryKey, L"Installed");
    host_->Start();
    for (int i = 0;
         i < 500 && Body(kro::test::Exchange(host_->uiPort, Get("/", kBrowser))) != "index"; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }
  static void TearDownTestSuite() {
    delete refusing_;
    delete host_;
  }
  void SetUp() override {
    ASSERT_EQ(Body(kro::test::Exchange(host_->uiPort, Get("/", kBrowser))), "index")
        << kro::test::ReadFile(host_->Output());
  }

  static inline Installation* host_ = nullptr;
  static inline kro::test::RefusingPort* refusing_ = nullptr;
};

TEST_F(EndToEndTests, ABrowserOnAnotherMachineIsRefusedAComponentIsNot) {
  const OtherMachine other;
  if (!other.Failed().empty()) {
    GTEST_SKIP() << "no network namespace for another machine here (needs root and iproute2): "
                 << other.Failed();
  }
  EXPECT_EQ(other.Exchange(host_->uiPort, Get("/arbalo/a.html", kBrowser))
                .rfind("HTTP/1.1 403 Forbidden\r\n", 0),
            0u);
  const std::string component =
      other.Exchange(host_->agentPort, Post("/kro/x", kUpperTier, "Authentication"));
  EXPECT_EQ(component.rfind("HTTP/1.1 200 ", 0), 0u) << component;
  EXPECT_EQ(Body(component), "KroAgent/1.2");
}

TEST_F(EndToEndTests, EveryRedirectKindOfTheWebServerFile) {
  const std::string live = "http://127.0.0.1:" + std::to_string(host_->uiPort) + "/arbalo/a.html";
  const std::string dead = "http://127.0.0.1:" + std::to_string(refusing_->Port()) + "/x";
  // status line; the Location header, or the body served here instead
  const std::tuple<const char*, std::string, std::string> cases[] = {
      {"/arbalo/moved.html", "HTTP/1.1 301 Moved Permanently", "Location: " + live},
      {"/arbalo/up.html", "HTTP/1.1 302 Found", "Location: " + live},
      {"/arbalo/down.html", "HTTP/1.1 200 OK", "\r\n\r\ndown"},
      {"/arbalo/never.html", "HTTP/1.1 306 ", "Location: " + dead},
      {"/arbalo/inside.html", "HTTP/1.1 200 OK", "\r\n\r\na"},
  };
  for (const auto& [uri, statusLine, evidence] : cases) {
    SCOPED_TRACE(uri);
    const std::string answer = kro::test::Exchange(host_->uiPort, Get(uri, kBrowser));
    EXPECT_EQ(answer.rfind(statusLine, 0), 0u) << answer;
    EXPECT_NE(answer.find(evidence), std::string::npos) << answer;
  }
}

// Records as the upper tier sends them: five words, then the texts with their zeros.
std::string InboundRecord(const std::string& name, const std::string& first,
                          const std::string& second) {
  auto word = [](size_t v) {
    const auto value = static_cast<uint32_t>(v);
    return std::string(reinterpret_cast<const char*>(&value), 4);
  };
  return word(20 + name.size() + first.size() + second.size() + 3) + word(0) +
         word(name.size() + 1) + word(first.size() + 1) + word(second.size() + 1) + name + '\0' +
         first + '\0' + second + '\0';
}

TEST_F(EndToEndTests, TheUpperTierGetsJobResultsAndRelayedMessagesInItsExchange) {
  const std::string jobs =
      InboundRecord("AddResponseToSendUpperTier", "NodeMessage", "") +
      InboundRecord("/Arbalo/Requests/getAgentStatus.json", R"({"jobDetails":{}})", "job-7");
  const std::string answer =
      kro::test::Exchange(host_->agentPort, Post("/kro/x", kUpperTier, jobs));
  ASSERT_EQ(answer.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << answer;
  const std::string records = Body(answer);
  // Outbound records: four words, then name, first and second text.
  const size_t message = records.find("NodeMessage");
  const size_t done = records.find(std::string("ProcessJobDone\0{", 16));
  EXPECT_NE(message, std::string::npos);
  ASSERT_NE(done, std::string::npos) << records;
  // The job's answer (this agent's status), then the job's identifier.
  EXPECT_NE(records.find("\"agentPort\":" + std::to_string(host_->agentPort), done),
            std::string::npos)
      << testing::PrintToString(records);
  EXPECT_NE(records.find(std::string("}\0job-7\0", 8), done), std::string::npos);
  // What was handed over is gone from the queue.
  EXPECT_EQ(Body(kro::test::Exchange(host_->agentPort, Post("/kro/x", kUpperTier, ""))), "");
}

TEST_F(EndToEndTests, AHeartbeatIsRecordedAndAnswered) {
  const auto before = std::chrono::system_clock::now();
  const std::string answer =
      kro::test::Exchange(host_->agentPort, Post("/arbalo/Requests/checkHeartBeat", kBrowser, ""));
  EXPECT_EQ(answer.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << answer;
  EXPECT_EQ(Body(answer), "<html><body>Server Thread [ServerThreadKroAgent] Port[" +
                              std::to_string(host_->agentPort) + "," +
                              std::to_string(host_->uiPort) + "]</body></html>\n");
  const std::string registry = kro::test::ReadFile(host_->Registry());
  const size_t at = registry.find("\"LastHeartBeatTime\"=\"");
  ASSERT_NE(at, std::string::npos) << registry;
  const auto recorded = std::stoll(registry.substr(at + 21));
  EXPECT_GE(recorded,
            std::chrono::duration_cast<std::chrono::seconds>(before.time_since_epoch()).count());
  EXPECT_LE(recorded, std::time(nullptr));
}

TEST_F(EndToEndTests, AnOldBrowserGetsTheWholePageAndTheConnectionEnds) {
  EXPECT_EQ(kro::test::Exchange(host_->uiPort, Get("/arbalo/a.html", "Mozilla/4.0 (MSIE 7.0)")),
            "<html><head><title>Error - Arbalo</title></head>"
            "<body><h2>Arbalo requires Internet Explorer version 9 or greater.</h2><br>"
            "<h2>If you are using version 9 or greater, the Compatibility View Settings must be "
            "disabled.</h2></body></html>");
}

}  // namespace
