#include "server/KroServer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <utility>

#include "common/WinHelper.h"
#include "core/KroStatus.h"
#include "nvthreads/nvthreads.h"
#include "server/UpperTierRoutines.h"
#include "tests/support/Routines.h"
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

  // Calls a routine the server registered, as the dispatcher would: "<status> <answer>".
  std::string Call(const char* name, const char* request = "") {
    return test::CallRoutine(routines_, name, request);
  }
  static long Recorded() {
    std::wstring recorded;
    const long result = RegistryReadSz(kDefaultRegistryKey, kLastHeartBeatValue, 64, recorded);
    return result == status::Ok ? std::stol(recorded) : result;
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

// A host whose executable path cannot be read: too long, or gone.
class PathlessServer : public KroServer {
 public:
  explicit PathlessServer(long failure) : failure_(failure) {}

 protected:
  long HostExecutablePath(std::wstring&) const override { return failure_; }

 private:
  long failure_;
};

TEST_F(KroServerTests, WithoutACertificatePathTheServerStillStartsAndListens) {
  for (const long failure : {status::OutOfRange, status::FromWin32(2)}) {
    SCOPED_TRACE(status::Bits(failure));
    PathlessServer server(failure);
    EXPECT_EQ(server.SetCertificatePath(L"ssl_cert.pem"), failure);
    const uint16_t port = test::FreeTcpPort();
    ASSERT_EQ(server.Init({{port, false}}, &routines_, L"ssl_cert.pem", "KroAgent", 0), status::Ok);
    EXPECT_TRUE(server.CertificatePath().empty());
    EXPECT_STREQ(server.PoolName(), "ServerPoolKroAgent");
    EXPECT_EQ(server.ListeningPorts(), std::to_string(port));
    EXPECT_EQ(Call("Authentication"), "0 KroAgent/1.2");
    ASSERT_EQ(server.Start(), status::Ok);
    ASSERT_TRUE(server.WaitForStart(std::chrono::seconds(10)));
    EXPECT_EQ(server.GetState(), kServerRunning) << status::Bits(server.StartResult());
    server.Shutdown();
  }
}

TEST_F(KroServerTests, HeartbeatRecordsTimeWhereTheKeyExistsAndAnswersStatusPage) {
  ASSERT_EQ(server_->Init({{4800, true}, {4801, false}}, &routines_, L"", "KroAgent", 0),
            status::Ok);
  int received = 0;
  routines_.Register("HeartBeatReceived",
                     [&](const char* request, size_t, const char** answer, size_t*) {
                       received += (request == nullptr && answer == nullptr) ? 1 : 100;
                       return 0L;
                     });
  const std::string page = test::Answered(
      status::WinNotRunning,
      "<html><body>Server Thread [ServerThreadKroAgent] Port[4800s,4801]</body></html>\n");
  // The heartbeat only opens the key: before anything was written under it, nothing is recorded.
  EXPECT_EQ(Call("CHECKHEARTBEAT"), page);
  EXPECT_EQ(Recorded(), status::RegistryOpenFailed);
  EXPECT_EQ(received, 1);

  WriteRegistryString(L"x", kDefaultRegistryKey, L"Other");
  const long before = static_cast<long>(std::time(nullptr));
  EXPECT_EQ(Call("checkHeartBeat"), page);
  EXPECT_GE(Recorded(), before);
  EXPECT_LE(Recorded(), before + 5);
  EXPECT_EQ(received, 2);

  // Without a place for the answer nothing at all happens.
  std::function<RoutineFn> heartbeat;
  ASSERT_TRUE(routines_.Find("checkHeartBeat", heartbeat));
  EXPECT_EQ(heartbeat(nullptr, 0, nullptr, nullptr), status::Ok);
  EXPECT_EQ(received, 2);
}

TEST_F(KroServerTests, HeartbeatDefersToUpdateCommunicationTime) {
  ASSERT_EQ(server_->Init(4800, false, &routines_, L"", "KroAgent", 0), status::Ok);
  WriteRegistryString(L"x", kDefaultRegistryKey, L"Other");
  std::string forwarded = "<none>";
  routines_.Register("UpdateCommunicationTime",
                     [&](const char* request, size_t length, const char** answer, size_t*) {
                       forwarded.assign(request, length);
                       *answer = new char[4]{'o', 'l', 'd', '\0'};  // replaced by the page
                       return 0L;
                     });
  EXPECT_NE(Call("checkHeartBeat", "tick").find("Port[4800]"), std::string::npos);
  EXPECT_EQ(forwarded, "tick");
  EXPECT_EQ(Recorded(), status::RegistryValueMissing);
}

}  // namespace
}  // namespace kro
