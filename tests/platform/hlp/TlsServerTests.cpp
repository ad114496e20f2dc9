#include "hlp/SSLContext.h"

#include <gtest/gtest.h>

#include <boost/asio/ssl/context.hpp>
#include <tuple>

#include <openssl/ssl.h>

#include "core/KroStatus.h"
#include "tests/support/HttpTestSupport.h"
#include "tests/support/TestSupport.h"

namespace {

using kro::test::LiveServer;
using kro::test::TestClient;

class TlsServerTests : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(issued_.key.empty());
    pemFile_ = dir_.Write("ssl_cert.pem", issued_.Pem()).string();
  }

  // A client that verifies nothing and speaks at most `maxVersion`. Its own floor is lowered
  // as far as OpenSSL goes, so that any refusal of an old version is the server's.
  static boost::asio::ssl::context Client(int maxVersion) {
    boost::asio::ssl::context context(boost::asio::ssl::context::tls_client);
    context.set_verify_mode(boost::asio::ssl::verify_none);
    SSL_CTX_set_security_level(context.native_handle(), 0);
    SSL_CTX_set_cipher_list(context.native_handle(), "DEFAULT:@SECLEVEL=0");
    SSL_CTX_set_min_proto_version(context.native_handle(), TLS1_VERSION);
    SSL_CTX_set_max_proto_version(context.native_handle(), maxVersion);
    return context;
  }

  kro::test::TempDir dir_;
  const kro::test::TestCertificate issued_ = kro::test::IssueCertificate("localhost");
  std::string pemFile_;
};

TEST_F(TlsServerTests, ServesTls12AndNewerBesidePlainPorts) {
  const std::tuple<const char*, int, bool> cases[] = {{"TLS 1.1", TLS1_1_VERSION, false},
                                                      {"TLS 1.2", TLS1_2_VERSION, true},
                                                      {"TLS 1.3", TLS1_3_VERSION, true}};
  hlp::SSLContext tls;
  ASSERT_EQ(tls.UseCertificate(pemFile_), 0);
  // OpenSSL's security level alone would refuse TLS 1.1 here; lowered, the server's own
  // protocol floor is what must refuse it.
  SSL_CTX_set_security_level(tls.Native().native_handle(), 0);
  LiveServer live("0s,0", &tls);
  ASSERT_EQ(live.StartStatus(), 0);
  for (const auto& [name, maxVersion, served] : cases) {
    SCOPED_TRACE(name);
    auto context = Client(maxVersion);
    TestClient client(live.Port(0), &context);
    EXPECT_EQ(client.Connected(), served);
    if (served) {
      ASSERT_TRUE(client.Send("GET /secure HTTP/1.1\r\n\r\n"));
      const auto answer = client.ReadAnswer();
      ASSERT_TRUE(answer);
      EXPECT_EQ(answer->body(), "GET /secure ");
    }
  }

  TestClient plain(live.Port(1));
  ASSERT_TRUE(plain.Send("GET /plain HTTP/1.1\r\n\r\n"));
  const auto answer = plain.ReadAnswer();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->body(), "GET /plain ");

  // Plain HTTP on the TLS port fails the handshake and is closed, not left hanging.
  TestClient confused(live.Port(0));
  ASSERT_TRUE(confused.Send("GET / HTTP/1.1\r\n\r\n"));
  EXPECT_TRUE(confused.ClosedByServer());
}

TEST_F(TlsServerTests, ClientCertificatesAreDemandedOnlyWhenAskedAndMustChainToTheGivenCa) {
  using kro::test::IssueCertificate;
  const auto ca = IssueCertificate("Kro Manager CA", "", nullptr, true);
  const auto stranger = IssueCertificate("Other CA", "", nullptr, true);
  const auto member = IssueCertificate("component", "", &ca);
  const auto outsider = IssueCertificate("component", "", &stranger);
  ASSERT_FALSE(member.certificate.empty() || outsider.certificate.empty());
  const std::string caFile = dir_.Write("manager_ca.pem", ca.certificate).string();

  // One server closed to strangers, one whose CA file is unreadable (closed to everybody).
  hlp::SSLContext closed;
  hlp::SSLContext broken;
  for (hlp::SSLContext* tls : {&closed, &broken}) {
    ASSERT_EQ(tls->UseCertificate(pemFile_), 0);
    EXPECT_FALSE(tls->RequiresClientCertificates());
  }
  EXPECT_EQ(closed.RequireClientCertificates(caFile), 0);
  EXPECT_EQ(broken.RequireClientCertificates((dir_.Path() / "absent.pem").string()),
            kro::status::FileOpenFailed);
  EXPECT_TRUE(broken.RequiresClientCertificates());
  LiveServer live("0s,0", &closed);
  LiveServer shut("0s", &broken);
  ASSERT_EQ(live.StartStatus(), 0);
  ASSERT_EQ(shut.StartStatus(), 0);

  struct Case {
    const char* name;
    const kro::test::TestCertificate* presented;
    uint16_t port;
    bool secure;
    bool served;
  };
  const Case cases[] = {
      {"certificate from the CA", &member, live.Port(0), true, true},
      {"no certificate", nullptr, live.Port(0), true, false},
      {"certificate from another CA", &outsider, live.Port(0), true, false},
      {"plain port beside it", nullptr, live.Port(1), false, true},
      {"CA file unreadable", &member, shut.Port(0), true, false},
  };
  for (const Case& row : cases) {
    SCOPED_TRACE(row.name);
    auto context = Client(TLS1_3_VERSION);
    if (row.presented != nullptr) {
      const auto& pem = *row.presented;
      context.use_certificate(boost::asio::buffer(pem.certificate), boost::asio::ssl::context::pem);
      context.use_private_key(boost::asio::buffer(pem.key), boost::asio::ssl::context::pem);
    }
    TestClient client(row.port, row.secure ? &context : nullptr);
    // Under TLS 1.3 the client's side of the handshake ends before the server has judged its
    // certificate: a refusal shows as a request that is never answered.
    const bool answered = client.Send("GET /who HTTP/1.1\r\n\r\n") && client.ReadAnswer();
    EXPECT_EQ(answered, row.served);
  }
}

}  // namespace
