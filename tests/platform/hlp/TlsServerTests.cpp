#include "hlp/SSLContext.h"

#include <gtest/gtest.h>

#include <boost/asio/ssl/context.hpp>
#include <tuple>

#include <openssl/ssl.h>

#include "common/KroStatus.h"
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

}  // namespace
