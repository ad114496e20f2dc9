#pragma once

#include <memory>
#include <string>

namespace boost::asio::ssl {
class context;
}

namespace hlp {

/**
 * @brief A TLS server context: TLS 1.2 or newer only, the certificate chain and private key
 * from one PEM file.
 */
class SSLContext {
 public:
  SSLContext();
  ~SSLContext();
  SSLContext(const SSLContext&) = delete;
  SSLContext& operator=(const SSLContext&) = delete;

  /** @brief The process-wide server context every server shares. Never null. */
  static SSLContext* SharedServerContext();

  /**
   * @brief Loads the certificate chain and the private key from `pemFile`. 0 on success;
   * kro::status::FileOpenFailed when the file cannot be read, MalformedData when it holds no
   * usable certificate and matching key. The previous certificate stays on failure.
   */
  long UseCertificate(const std::string& pemFile);
  bool HasCertificate() const;

  /**
   * @brief From now on a client must present a certificate that chains to one of the CA
   * certificates in `caPemFile`, or its handshake fails (mutual TLS). 0 on success;
   * FileOpenFailed when the file cannot be read, MalformedData when it holds no certificate.
   * Either way the demand stands: a file meant to close the ports never leaves them open, and
   * on failure no client is admitted until a good file is given.
   */
  long RequireClientCertificates(const std::string& caPemFile);
  /** @brief Takes a demand for client certificates back: any client may connect again. */
  void AdmitAnyClient();
  bool RequiresClientCertificates() const;

  /** @brief The underlying context; to be used only once HasCertificate() is true. */
  boost::asio::ssl::context& Native();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace hlp
