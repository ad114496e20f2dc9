#include "hlp/OpenSSL.h"

#include <gtest/gtest.h>

#include <openssl/ssl.h>

namespace {

class OpenSSLTests : public testing::Test {};

TEST_F(OpenSSLTests, InitCanBeRepeatedAfterEveryDeinit) {
  // A module unloaded and loaded again does Init after the last Deinit: it must still work.
  for (int round = 0; round < 2; ++round) {
    SCOPED_TRACE(round);
    ASSERT_EQ(hlp::OpenSSL::Init(), 0);
    ASSERT_EQ(hlp::OpenSSL::Init(), 0);
    hlp::OpenSSL::Deinit();
    hlp::OpenSSL::Deinit();
    hlp::OpenSSL::Deinit();  // unbalanced: harmless
  }
  ASSERT_EQ(hlp::OpenSSL::Init(), 0);
  SSL_CTX* context = SSL_CTX_new(TLS_client_method());
  EXPECT_NE(context, nullptr);
  SSL_CTX_free(context);
  hlp::OpenSSL::Deinit();
}

}  // namespace
