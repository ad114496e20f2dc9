#include "dialhome/EndNodeDialHome.h"

#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "common/WinHelper.h"
#include "core/KroStatus.h"
#include "dialhome/DialHomeFrame.h"
#include "dialhome/SystemInventory.h"
#include "hlp/Json.h"
#include "hlp/SSLContext.h"
#include "nvthreads/nvthreads.h"
#include "tests/dialhome/HomeStandIn.h"
#include "tests/support/TestSupport.h"

namespace kro {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using test::Le32;
using test::Reply;
using test::StandIn;

const std::wstring kSetupKey = L"SOFTWARE\\Norvane Technologies\\Arbalo\\Setup";

TEST(DialHomeFrameTests, RequestRecordLayoutIsExact) {
  std::string record;
  ASSERT_EQ(BuildRequestRecord("{}", record), status::Ok);
  EXPECT_EQ(record,
            Le32(32) + Le32(0) + Le32(9) + Le32(0) + Le32(3) + std::string("DialHome\0{}\0", 12));
  ASSERT_EQ(BuildRequestRecord("", record), status::Ok);
  EXPECT_EQ(record, Le32(29) + Le32(0) + Le32(9) + Le32(0) + Le32(0) + std::string("DialHome", 9));
}

TEST(DialHomeFrameTests, ReplyRecordRules) {
  const std::string json = R"({"result":"success"})";
  const uint32_t n = static_cast<uint32_t>(json.size() + 1);  // the payload with its zero
  const auto frame = [&json](uint32_t total, uint32_t nameSize, uint32_t third, uint32_t size,
                             const char* name = "DialHome", std::string payload = "") {
    return Le32(total) + Le32(nameSize) + Le32(third) + Le32(size) + std::string(name, 9) +
           (payload.empty() ? json + std::string(1, '\0') : payload);
  };
  const std::string good = frame(25 + n, 9, 0, n);
  // json: "" for a malformed record
  const std::tuple<const char*, std::string, std::string> cases[] = {
      {"well formed", good, json},
      {"name in another case", frame(25 + n, 9, 0, n, "dIALhOME"), json},
      {"payload stops at its first zero",
       good.substr(0, 25) + "{}" + std::string(1, '\0') + good.substr(28), "{}"},
      {"missing zero stays inside the payload", frame(29, 9, 0, 4, "DIALHOME", "{}}}garbage"),
       "{}}}"},
      {"total above bytes received", frame(26 + n, 9, 0, n), ""},
      {"name size not 9", frame(25 + n, 8, 0, n), ""},
      {"third field not 0", frame(25 + n, 9, 1, n), ""},
      {"negative payload size", frame(25 + n, 9, 0, 0x80000000u), ""},
      {"payload beyond the record", frame(25 + n, 9, 0, n + 1) + "x", ""},
      {"total below header, name and payload", frame(24 + n, 9, 0, n), ""},
      {"wrong name", frame(25 + n, 9, 0, n, "DialHoma"), ""},
      {"shorter than the header", good.substr(0, 15), ""},
      {"huge payload size", frame(25 + n, 9, 0, 0x7FFFFFFFu), ""},
  };
  for (const auto& [wantName, wantBytes, wantJson] : cases) {
    SCOPED_TRACE(wantName);
    // A copy of exactly the received size, so that reading past it is caught by the sanitizer.
    const std::vector<char> received(wantBytes.begin(), wantBytes.end());
    std::string out;
    EXPECT_EQ(ParseReplyRecord(received.data(), received.size(), out),
              wantJson.empty() ? status::MalformedData : status::Ok);
    EXPECT_EQ(out, wantJson);
  }
}

TEST(DialHomeFrameTests, RetryLadderStopsAtInterval) {
  // ladder: delays after successive failures, from none pending
  const std::pair<DialHomeSchedule, std::vector<uint32_t>> cases[] = {
      {{}, {15, 60, 240, 0, 15}}, {{60, 15, 60, 240}, {15, 0, 15}}, {{10, 15, 60, 240}, {0, 0}}};
  for (const auto& [schedule, ladder] : cases) {
    SCOPED_TRACE(schedule.interval);
    uint32_t delay = 0;
    for (const uint32_t expected : ladder) {
      delay = NextRetryDelay(delay, schedule);
      EXPECT_EQ(delay, expected);
    }
  }
}

class DialHomeTests : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(nvthreads_init(), NVTHREADS_OK);
    Install();
    dialHome_.SetHostDirectory(install_.Path());
    ASSERT_EQ(dialHome_.Create(), status::Ok);
    dialHome_.SetConnectionWaits({300, 100, 2000, 2000});
    dialHome_.SetAlertDelivered([this](const std::string& id) { delivered_.push_back(id); });
  }
  void TearDown() override {
    nvthreads_pool_cleanup(DialHome::kPool);
    nvthreads_cleanup();
  }

  void Install() {
    WriteRegistryString(install_.Path().wstring(), kSetupKey, L"InstallDir");
    WriteRegistryString(L"7.0.222.0", kSetupKey, L"ProductVersion");
  }
  void Enrol(uint16_t port, const char* ssl = "N") {
    install_.Write("DialHomeInfo.txt", "HomeName:127.0.0.1,HomePort:" + std::to_string(port) +
                                           ",HomeSSL:" + ssl + "\n");
  }
  static std::wstring RegisteredName() {
    std::wstring name;
    RegistryReadSz(kDialHomeKey, L"SystemName", 4096, name);
    return name;
  }
  /** @brief Whether a work item of that name was pending (it is cancelled by asking). */
  static bool Pending(const char* item) {
    return nvthreads_workitem_cancel(DialHome::kPool, DialHome::kThread, item) == NVTHREADS_OK;
  }

  test::ScopedRegistry registry_;
  test::TempDir install_;
  StandIn standIn_;
  std::vector<std::string> delivered_;  // written on the reporting thread: the test's here
  DialHome dialHome_;
};

TEST_F(DialHomeTests, ReportCarriesInventoryAndAlertsAndWritesBackTheName) {
  Enrol(standIn_.Port());
  const std::string alerts[] = {R"({"id":"a1","text":"disk"})", "", R"({"id":7})", R"({"x":1})"};
  for (const std::string& alert : alerts) {
    ASSERT_EQ(dialHome_.AddAlert(alert), status::Ok);
  }
  const uint64_t before = CurrentFileTime();
  ASSERT_EQ(dialHome_.Run(request), status::Ok);

  const auto seen = standIn_.Requests();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].method + " " + seen[0].uri + " " + seen[0].userAgent,
            "POST /KRO/Server/DialHome KroAgent/1.2");
  hlp::JsonParser parser;
  const auto root = parser.Parse(test::UnframeRequest(seen[0].body));
  ASSERT_NE(root, nullptr) << parser.ErrorText();
  const hlp::JsonValue* general = root->FindMember("General");
  ASSERT_TRUE(general && general->FindMember("Time") && root->FindMember("System") &&
              root->FindMember("Agent") && root->FindMember("Alerts"));
  EXPECT_EQ(general->FindMember("Type")->GetInt64(), 3);
  EXPECT_EQ(general->FindMember("Code")->GetInt64(), 0);
  const uint64_t time = std::stoull(general->FindMember("Time")->GetString());
  EXPECT_GE(time, before);
  EXPECT_LE(time, CurrentFileTime());
  const hlp::JsonValue* data = root->FindMember("Alerts")->FindMember("Data");
  ASSERT_NE(data, nullptr);
  ASSERT_EQ(data->Size(), 3u);  // the empty text is left out
  EXPECT_EQ(data->At(0)->GetString(), alerts[0]);
  EXPECT_EQ(data->At(2)->GetString(), alerts[3]);

  EXPECT_EQ(dialHome_.AlertQueueSize(), 0u);
  EXPECT_EQ(delivered_, (std::vector<std::string>{"a1", "7"}));
  std::string sentName;
  ASSERT_EQ(WideToUtf8(RegisteredName(), sentName), status::Ok);
  EXPECT_EQ(sentName, root->FindMember("System")->FindMember("SystemName")->GetString());
}

TEST_F(DialHomeTests, NotEnrolledSendsNothingAndSchedulesNoRetry) {
  for (const char* content : {"", "HomePort:1234,HomeSSL:N\n", "HomeName:,HomePort:1\n"}) {
    SCOPED_TRACE(content);
    install_.Write("DialHomeInfo.txt", content);
    dialHome_.AddAlert(R"({"id":"kept"})");
    EXPECT_EQ(DialHome::StartupEntry(&dialHome_), status::Ok);
    EXPECT_EQ(dialHome_.RetryDelay(), 0u);
    EXPECT_FALSE(Pending(DialHome::kRetryItem));
  }
  EXPECT_TRUE(standIn_.Requests().empty());
  EXPECT_EQ(dialHome_.AlertQueueSize(), 3u);
  EXPECT_TRUE(delivered_.empty());
}

TEST_F(DialHomeTests, FailuresClimbTheRetryLadderAndSuccessResetsIt) {
  const test::RefusingPort refusing;
  Enrol(refusing.Port());
  dialHome_.AddAlert(R"({"id":"a1"})");
  for (const uint32_t expected : {15u, 60u, 240u, 0u}) {
    SCOPED_TRACE(expected);
    EXPECT_EQ(DialHome::RetryEntry(&dialHome_), status::ConnectExhausted);
    EXPECT_EQ(dialHome_.RetryDelay(), expected);
    // Cancelling proves the retry was scheduled; the next failure must not need it.
    EXPECT_EQ(Pending(DialHome::kRetryItem), expected != 0);
  }
  EXPECT_EQ(DialHome::PeriodicEntry(&dialHome_), status::ConnectExhausted);
  EXPECT_EQ(dialHome_.RetryDelay(), 15u);
  EXPECT_EQ(dialHome_.AlertQueueSize(), 1u);
  Enrol(standIn_.Port());
  EXPECT_EQ(DialHome::RequestEntry(&dialHome_), status::Ok);
  EXPECT_EQ(dialHome_.RetryDelay(), 0u);
  EXPECT_FALSE(Pending(DialHome::kRetryItem));
  EXPECT_EQ(dialHome_.AlertQueueSize(), 0u);
}

TEST_F(DialHomeTests, ServerVerdicts) {
  struct Case {
    const char* name;
    unsigned status;
    std::string body;
    long expected;
    bool alertsDropped;
    bool nameWritten;
  };
  const Case cases[] = {
      {"failed result: done, nothing written", 200, Reply(R"({"result":"failed"})"), status::Ok,
       true, false},
      {"status 500", 500, Reply(R"({"result":"success"})"), status::MalformedData, false, false},
      {"success", 200, Reply(R"({"result":"success"})"), status::Ok, true, true},
  };
  Enrol(standIn_.Port());
  for (const Case& row : cases) {
    SCOPED_TRACE(row.name);
    test::ScopedRegistry registry;
    Install();
    delivered_.clear();
    dialHome_.AddAlert(R"({"id":"a1"})");
    standIn_.Answer(row.status, row.body);
    EXPECT_EQ(DialHome::RequestEntry(&dialHome_), row.expected);
    EXPECT_EQ(dialHome_.RetryDelay(), row.expected == status::Ok ? 0u : 15u);
    EXPECT_EQ(Pending(DialHome::kRetryItem), row.expected != status::Ok);
    EXPECT_EQ(dialHome_.AlertQueueSize() == 0, row.alertsDropped);
    EXPECT_EQ(delivered_.size(), row.alertsDropped ? 1u : 0u);
    EXPECT_EQ(!RegisteredName().empty(), row.nameWritten);
    // Leaves the queue and the ladder clean for the next row.
    standIn_.Answer(200, Reply(R"({"result":"success"})"));
    EXPECT_EQ(DialHome::RequestEntry(&dialHome_), status::Ok);
  }
}

TEST_F(DialHomeTests, AlertQueuedDuringReportStays) {
  Enrol(standIn_.Port());
  dialHome_.AddAlert(R"({"id":"early"})");
  standIn_.During([this] { dialHome_.AddAlert(R"({"id":"late"})"); });
  ASSERT_EQ(dialHome_.Run(periodic), status::Ok);
  EXPECT_EQ(dialHome_.AlertQueueSize(), 1u);
  EXPECT_EQ(delivered_, std::vector<std::string>{"early"});
  standIn_.During(nullptr);
  ASSERT_EQ(dialHome_.Run(periodic), status::Ok);
  EXPECT_EQ(delivered_, (std::vector<std::string>{"early", "late"}));

  // Without the agent's version there is no report at all.
  WriteRegistryString(L"", kSetupKey, L"ProductVersion");
  EXPECT_NE(dialHome_.Run(startup), status::Ok);
  EXPECT_EQ(standIn_.Requests().size(), 2u);
}

TEST_F(DialHomeTests, AQueueTooLargeForOneReportGoesInSeveralAndLosesNothing) {
  Enrol(standIn_.Port());
  std::mutex mutex;
  std::vector<std::string> delivered;
  dialHome_.SetAlertDelivered([&](const std::string& id) {
    std::lock_guard<std::mutex> lock(mutex);
    delivered.push_back(id);
  });
  // Each \" doubles on the way into the report: 600 alerts come to about 1.2 MB of JSON,
  // more than one message holds.
  std::string filler;
  for (int i = 0; i < 500; ++i) {
    filler += "\\\"";
  }
  std::vector<std::string> ids;
  for (int i = 0; i < 600; ++i) {
    ids.emplace_back("a");  // not "a" + ...: GCC 12 takes that for an overlapping copy at -O3
    ids.back() += std::to_string(i);
    ASSERT_EQ(dialHome_.AddAlert(R"({"id":")" + ids.back() + R"(","text":")" + filler + "\"}"),
              status::Ok);
  }
  ASSERT_EQ(dialHome_.Run(request), status::Ok);
  // The rest follows at once on the client's thread.
  const Clock::time_point deadline = Clock::now() + 30s;
  const auto deliveredCount = [&] {
    std::lock_guard<std::mutex> lock(mutex);
    return delivered.size();
  };
  while (deliveredCount() < ids.size() && Clock::now() < deadline) {
    std::this_thread::sleep_for(10ms);
  }
  dialHome_.SetAlertDelivered(nullptr);

  std::vector<std::string> reported;
  const auto seen = standIn_.Requests();
  for (const auto& report : seen) {
    EXPECT_LE(report.body.size(), kMessageBufferSize);
    const auto root = hlp::JsonParser().Parse(test::UnframeRequest(report.body));
    ASSERT_NE(root, nullptr);
    const hlp::JsonValue* data = root->FindMember("Alerts")->FindMember("Data");
    for (size_t i = 0; i < data->Size(); ++i) {
      AlertIdOf(data->At(i)->GetString(), reported.emplace_back());
    }
  }
  EXPECT_GE(seen.size(), 2u);
  EXPECT_EQ(reported, ids);
  EXPECT_EQ(delivered, ids);
  EXPECT_EQ(dialHome_.AlertQueueSize(), 0u);
}

TEST_F(DialHomeTests, DroppedConnectionsGetEveryAttemptTheSettingsAllow) {
  // Each attempt waits out its whole time-out (no TLS handshake ever answers); only the
  // pauses between attempts count against the budget: budget / interval + 1 attempts.
  struct Case {
    uint32_t budgetMs;
    uint32_t intervalMs;
    int attempts;
  };
  const Case cases[] = {{600, 100, 7}, {250, 100, 4}, {0, 100, 1}, {600, 0, 1}};
  for (const Case& row : cases) {
    SCOPED_TRACE(std::to_string(row.budgetMs) + " / " + std::to_string(row.intervalMs));
    test::SilentHome home;
    Enrol(home.Port(), "Y");
    dialHome_.SetConnectionWaits({row.budgetMs, row.intervalMs, 100, 2000});
    EXPECT_EQ(dialHome_.Run(startup), status::ConnectExhausted);
    EXPECT_EQ(home.Connections(), row.attempts);
  }
}

TEST_F(DialHomeTests, OnlyUppercaseYMeansTls) {
  const test::TestCertificate server =
      test::IssueCertificate("localhost", "DNS:localhost,IP:127.0.0.1");
  ASSERT_FALSE(server.key.empty());
  hlp::SSLContext tls;
  ASSERT_EQ(tls.UseCertificate(install_.Write("server.pem", server.Pem()).string()), status::Ok);
  StandIn secure(&tls);
  // One attempt each: a refused handshake is not retried into the next row's time.
  dialHome_.SetConnectionWaits({0, 100, 2000, 2000});
  struct Case {
    const char* ssl;
    uint16_t port;
    bool trusted;
    long expected;
  };
  const Case cases[] = {{"y", standIn_.Port(), false, status::Ok},
                        {"Y", standIn_.Port(), true, status::ConnectExhausted},
                        {"Y", secure.Port(), false, status::ConnectExhausted},
                        {"Y", secure.Port(), true, status::Ok}};
  for (const auto& [ssl, port, trusted, expected] : cases) {
    SCOPED_TRACE(std::string(ssl) + std::to_string(port) + (trusted ? " trusted" : ""));
    std::filesystem::remove(install_.Path() / DialHome::kTrustFileName);
    if (trusted) {
      install_.Write(DialHome::kTrustFileName, server.certificate);
    }
    Enrol(port, ssl);
    EXPECT_EQ(dialHome_.Run(startup), expected);
  }
}

TEST_F(DialHomeTests, StartSchedulesAndStopCancels) {
  DialHomeInfo settings;
  ASSERT_EQ(dialHome_.Start(settings), status::Ok);
  EXPECT_TRUE(Pending(DialHome::kStartupItem));
  EXPECT_TRUE(Pending(DialHome::kPeriodicItem));
  ASSERT_EQ(dialHome_.Start(settings), status::Ok);
  ASSERT_EQ(dialHome_.RequestDialHome(), status::Ok);
  dialHome_.Stop();
  for (const char* item : {DialHome::kRetryItem, DialHome::kRequestItem, DialHome::kPeriodicItem,
                           DialHome::kStartupItem}) {
    SCOPED_TRACE(item);
    EXPECT_FALSE(Pending(item));
  }
  EXPECT_TRUE(standIn_.Requests().empty());
  // A cancelled request does not swallow the next one: that one reaches the server. (A request
  // a worker took before the stop may still run and reach it too.)
  Enrol(standIn_.Port());
  ASSERT_EQ(dialHome_.RequestDialHome(), status::Ok);
  for (int i = 0; i < 500 && standIn_.Requests().empty(); ++i) {
    std::this_thread::sleep_for(20ms);
  }
  EXPECT_FALSE(standIn_.Requests().empty());
}

}  // namespace
}  // namespace kro
