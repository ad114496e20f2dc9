#include "hlp/SSLContext.h"

#include <fstream>
#include <iterator>
#include <mutex>
#include <optional>

#include <boost/asio/ssl/context.hpp>

#include <openssl/ssl.h>

#include "common/KroStatus.h"

namespace hlp {

namespace ssl = boost::asio::ssl;

struct SSLContext::Impl {
  std::optional<ssl::context> context;
  std::mutex mutex;
  bool hasCertificate = false;
};

namespace {

// A server context as every TLS port uses it: TLS 1.2 or newer, OpenSSL's default ciphers.
std::optional<ssl::context> NewServerContext() {
  std::optional<ssl::context> context;
  context.emplace(ssl::context::tls_server);
  context->set_options(ssl::context::default_workarounds | ssl::context::no_compression |
                       ssl::context::single_dh_use);
  if (SSL_CTX_set_min_proto_version(context->native_handle(), TLS1_2_VERSION) != 1) {
    context.reset();
  }
  return context;
}

// Whether `pem` yields a certificate chain and its private key in `context`.
bool LoadChainAndKey(ssl::context& context, const std::string& pem) {
  boost::system::error_code ec;
  const auto buffer = boost::asio::buffer(pem.data(), pem.size());
  context.use_certificate_chain(buffer, ec);
  if (!ec) {
    context.use_private_key(buffer, ssl::context::pem, ec);
  }
  return !ec && SSL_CTX_check_private_key(context.native_handle()) == 1;
}

}  // namespace

// The OpenSSL context is made by the first certificate: a server without a TLS port never
// pays for it (OpenSSL's cipher and provider tables take hundreds of kilobytes).
SSLContext::SSLContext() : impl_(std::make_unique<Impl>()) {}

SSLContext::~SSLContext() = default;

SSLContext* SSLContext::SharedServerContext() {
  // Never destroyed: connections of servers that outlive static destruction may still use it.
  static SSLContext* const shared = new SSLContext();
  return shared;
}

long SSLContext::UseCertificate(const std::string& pemFile) {
  try {
    std::ifstream file(pemFile, std::ios::binary);
    if (!file) {
      return kro::status::FileOpenFailed;
    }
    const std::string pem((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    if (file.bad()) {
      return kro::status::FileOpenFailed;
    }
    std::lock_guard<std::mutex> lock(impl_->mutex);
    if (!impl_->context) {
      impl_->context = NewServerContext();
    }
    if (!impl_->context) {
      // Without a context HasCertificate stays false and no TLS port is served.
      return kro::status::Failure;
    }
    // Tried on a scratch context first, so that a bad file leaves the current certificate.
    std::optional<ssl::context> trial = NewServerContext();
    if (!trial || !LoadChainAndKey(*trial, pem)) {
      return kro::status::MalformedData;
    }
    if (!LoadChainAndKey(*impl_->context, pem)) {
      return kro::status::MalformedData;
    }
    impl_->hasCertificate = true;
    return kro::status::Ok;
  } catch (...) {
    return kro::status::Failure;
  }
}

bool SSLContext::HasCertificate() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->hasCertificate;
}

ssl::context& SSLContext::Native() {
  // Only reached once HasCertificate() is true, which implies the context exists.
  return *impl_->context;
}

}  // namespace hlp
