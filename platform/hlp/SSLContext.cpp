#include "hlp/SSLContext.h"

#include <fstream>
#include <iterator>
#include <mutex>
#include <optional>

#include <boost/asio/ssl/context.hpp>

#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include "core/KroStatus.h"

namespace hlp {

namespace ssl = boost::asio::ssl;

struct SSLContext::Impl {
  std::optional<ssl::context> context;
  std::mutex mutex;
  bool hasCertificate = false;
  bool clientCertificates = false;
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

// Reads the whole of `path`; false when it cannot be read.
bool ReadFile(const std::string& path, std::string& text) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    return false;
  }
  text.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  return !file.bad();
}

// Makes `context` demand a client certificate that chains to one of `authorities` (PEM
// certificates; none admits nobody). The number of certificates taken.
int DemandClientCertificates(SSL_CTX* context, const std::string& authorities) {
  X509_STORE* store = X509_STORE_new();
  STACK_OF(X509_NAME)* names = sk_X509_NAME_new_null();
  int taken = 0;
  BIO* in = BIO_new_mem_buf(authorities.data(), static_cast<int>(authorities.size()));
  while (in != nullptr && store != nullptr && names != nullptr) {
    X509* certificate = PEM_read_bio_X509(in, nullptr, nullptr, nullptr);
    if (certificate == nullptr) {
      break;
    }
    if (X509_STORE_add_cert(store, certificate) == 1) {
      ++taken;
      if (X509_NAME* name = X509_NAME_dup(X509_get_subject_name(certificate)); name != nullptr) {
        sk_X509_NAME_push(names, name);
      }
    }
    X509_free(certificate);
  }
  BIO_free(in);
  if (store == nullptr) {
    store = X509_STORE_new();  // once more: without a store OpenSSL would use no roots either
  }
  // The context takes both over; the previous trust goes with them.
  SSL_CTX_set_cert_store(context, store);
  SSL_CTX_set_client_CA_list(context, names);
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
  return taken;
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
    std::string pem;
    if (!ReadFile(pemFile, pem)) {
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

long SSLContext::RequireClientCertificates(const std::string& caPemFile) {
  try {
    std::string authorities;
    const bool read = ReadFile(caPemFile, authorities);
    std::lock_guard<std::mutex> lock(impl_->mutex);
    if (!impl_->context) {
      impl_->context = NewServerContext();
    }
    if (!impl_->context) {
      return kro::status::Failure;  // no context, no TLS port served at all
    }
    impl_->clientCertificates = true;
    const int taken = DemandClientCertificates(impl_->context->native_handle(),
                                               read ? authorities : std::string());
    return !read        ? kro::status::FileOpenFailed
           : taken == 0 ? kro::status::MalformedData
                        : kro::status::Ok;
  } catch (...) {
    return kro::status::Failure;
  }
}

void SSLContext::AdmitAnyClient() {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  if (impl_->context && impl_->clientCertificates) {
    SSL_CTX_set_verify(impl_->context->native_handle(), SSL_VERIFY_NONE, nullptr);
    SSL_CTX_set_client_CA_list(impl_->context->native_handle(), nullptr);
  }
  impl_->clientCertificates = false;
}

bool SSLContext::RequiresClientCertificates() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->clientCertificates;
}

ssl::context& SSLContext::Native() {
  // Only reached once HasCertificate() is true, which implies the context exists.
  return *impl_->context;
}

}  // namespace hlp
