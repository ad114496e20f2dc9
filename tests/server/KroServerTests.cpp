#include "server/KroServer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>

#include "common/KroStatus.h"
#include "common/WinHelper.h"
#include "nvthreads/nvthreads.h"
#include "server/UpperTierRoutines.h"
#include "tests/support/TestSupport.h"

namespace kro {
namespace {

namespace status = kro::status;

class KroServerTests : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(nvthreads_init(), NVTHREADS_OK); }
  void TearDown() override {
    server_.reset();
    nvthreads_cleanup();
  }

  // Calls a routine the server registered, as the dispatcher would.
  long Call(const char* name, const char* request, const char** answer, size_t* length) {
    std::function<RoutineFn> routine;
    EXPECT_TRUE(routines_.Find(name, routine)) << name;
    return routine ? routine(request, request != nullptr ? std::strlen(request) : 0, answer, length)
                   : status::NotFound;
  }

  kro::test::ScopedRegistry registry_;
  KroAgent::RoutineTable routines_;
  std::unique_ptr<KroServer> server_ = std::make_unique<KroServer>();
};

TEST_F(KroServerTests, PortStringKeepsLastDuplicateInItsPlace) {
  struct Case {
    const char* name;
    std::vector<ServerEndpoint> endpoints;
    long result;
    const char* ports;
    bool hasTls;
  };
  const Case cases[] = {
      {"agent and UI", {{4800, true}, {4801, false}}, status::Ok, "4800s,4801", true},
      {"duplicate", {{4800, false}, {4801, true}, {4800, true}}, status::Ok, "4801s,4800s", true},
      {"same port twice", {{5, true}, {5, false}}, status::Ok, "5", false},
      {"tls on port 0", {{0, true}}, status::Ok, "0", false},
      {"empty", {}, status::NotAvailable, "", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(server_->BuildListeningPorts(c.endpoints), c.result);
    EXPECT_EQ(server_->ListeningPorts(), c.ports);
    EXPECT_EQ(server_->HasTlsPort(), c.hasTls);
  }
}

TEST_F(KroServerTests, InitNamesPoolThreadAndCertificateBesideTheHost) {
  ASSERT_EQ(server_->Init(4800, true, &routines_, L"ssl_cert.pem", "KroAgent", 0), status::Ok);
  EXPECT_STREQ(server_->PoolName(), "ServerPoolKroAgent");
  EXPECT_STREQ(server_->ThreadName(), "ServerThreadKroAgent");
  std::wstring folder;
  ASSERT_EQ(GetHostDirectory(folder), status::Ok);
  EXPECT_EQ(server_->CertificatePath(), folder + kPathSeparator + L"ssl_cert.pem");
  EXPECT_EQ(server_->GetState(), kServerInitialised);

  KroServer other;
  EXPECT_EQ(other.Init({}, &routines_, L"", "KroMaster", 30), status::NotAvailable);
  EXPECT_TRUE(other.CertificatePath().empty());
}

TEST_F(KroServerTests, PortChangeWhileNotRunningFailsAtOnce) {
  ASSERT_EQ(server_->Init(4800, false, &routines_, L"", "KroAgent", 0), status::Ok);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(server_->ChangePorts(4900, false), status::WinNotRunning);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
  EXPECT_EQ(server_->ListeningPorts(), "4800");
}

TEST_F(KroServerTests, HeartbeatRecordsTimeAndAnswersStatusPage) {
  ASSERT_EQ(server_->Init({{4800, true}, {4801, false}}, &routines_, L"", "KroAgent", 0),
            status::Ok);
  int received = 0;
  routines_.Register("HeartBeatReceived",
                     [&](const char* request, size_t, const char** answer, size_t*) {
                       received += (request == nullptr && answer == nullptr) ? 1 : 100;
                       return 0L;
                     });
  // The heartbeat only opens the key; it exists once anything was written under it.
  WriteRegistryString(L"x", kDefaultRegistryKey, L"Other");

  const char* answer = nullptr;
  size_t length = 0;
  const int64_t before = static_cast<int64_t>(std::time(nullptr));
  EXPECT_EQ(Call("CHECKHEARTBEAT", nullptr, &answer, &length), status::WinNotRunning);
  std::unique_ptr<const char[]> owned(answer);
  EXPECT_EQ(std::string(answer, length),
            "<html><body>Server Thread [ServerThreadKroAgent] Port[4800s,4801]</body></html>\n");
  EXPECT_EQ(received, 1);
  std::wstring recorded;
  ASSERT_EQ(RegistryReadSz(kDefaultRegistryKey, kLastHeartBeatValue, 64, recorded), status::Ok);
  EXPECT_GE(std::stoll(recorded), before);
  EXPECT_LE(std::stoll(recorded), before + 5);

  // Without a place for the answer nothing at all happens.
  EXPECT_EQ(Call("checkHeartBeat", nullptr, nullptr, nullptr), status::Ok);
  EXPECT_EQ(received, 1);
}

TEST_F(KroServerTests, HeartbeatDefersToUpdateCommunicationTime) {
  ASSERT_EQ(server_->Init(4800, false, &routines_, L"", "KroAgent", 0), status::Ok);
  WriteRegistryString(L"x", kDefaultRegistryKey, L"Other");
  int received = 0;
  std::string forwarded;
  routines_.Register("HeartBeatReceived", [&](const char*, size_t, const char**, size_t*) {
    ++received;
    return 0L;
  });
  routines_.Register("UpdateCommunicationTime",
                     [&](const char* request, size_t length, const char** answer, size_t*) {
                       forwarded.assign(request, length);
                       *answer = new char[4]{'o', 'l', 'd', '\0'};  // replaced by the page
                       return 0L;
                     });
  const char* answer = nullptr;
  size_t length = 0;
  EXPECT_EQ(Call("checkHeartBeat", "tick", &answer, &length), status::WinNotRunning);
  std::unique_ptr<const char[]> owned(answer);
  EXPECT_EQ(forwarded, "tick");
  EXPECT_EQ(received, 0);
  EXPECT_NE(std::string(answer, length).find("Port[4800]"), std::string::npos);
  std::wstring recorded;
  EXPECT_EQ(RegistryReadSz(kDefaultRegistryKey, kLastHeartBeatValue, 64, recorded),
            status::RegistryValueMissing);
}

TEST_F(KroServerTests, HeartbeatWithoutKeyWritesNothing) {
  ASSERT_EQ(server_->Init(4800, false, &routines_, L"", "KroAgent", 0), status::Ok);
  const char* answer = nullptr;
  size_t length = 0;
  Call("checkHeartBeat", nullptr, &answer, &length);
  delete[] answer;
  std::wstring recorded;
  EXPECT_EQ(RegistryReadSz(kDefaultRegistryKey, kLastHeartBeatValue, 64, recorded),
            status::RegistryOpenFailed);
}

TEST_F(KroServerTests, AuthenticationAndRelaysFollowServerState) {
  ASSERT_EQ(server_->Init(4800, false, &routines_, L"", "KroMaster", 0), status::Ok);
  const char* answer = nullptr;
  size_t length = 0;
  ASSERT_EQ(Call("Authentication", nullptr, &answer, &length), status::Ok);
  std::unique_ptr<const char[]> owned(answer);
  EXPECT_EQ(std::string(answer, length), "KroMaster/1.2");
  EXPECT_EQ(answer[length], '\0');

  const char* text = "payload";
  EXPECT_EQ(Call("AddResponseToSendUpperTier", "Message", &text, &length), status::WinNotRunning);
  EXPECT_EQ(Call("AddJobResponseToSendUpperTier", "job-1", &text, &length), status::WinNotRunning);
  EXPECT_STREQ(text, "payload");
}

}  // namespace
}  // namespace kro
