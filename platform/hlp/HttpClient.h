#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "hlp/HttpRequest.h"

namespace hlp {

namespace detail {
struct ClientState;
}

/**
 * @brief An HTTP/HTTPS client for one server, on Boost.Beast and OpenSSL.
 *
 * With TLS the server's certificate is verified: against the system's trust store, plus the
 * certificates of an optional trust file (a private CA, or the server's own certificate,
 * which then pins it), and its name against the host name given to Init. Every call ends
 * within its time-out. Calls return 0 or a non-zero status; LastError says why in one line.
 * One thread at a time; no exception leaves it.
 */
class HttpClient {
 public:
  HttpClient();
  ~HttpClient();
  HttpClient(const HttpClient&) = delete;
  HttpClient& operator=(const HttpClient&) = delete;

  /** @brief The server to talk to. kro::status::NotAvailable for an empty host or port 0. */
  long Init(const std::string& host, uint16_t port, bool tls);

  /**
   * @brief Extra trusted certificates (PEM; other blocks such as a key are skipped), read at
   * each Connect. A missing file is no error; one without any certificate fails Connect.
   */
  void SetTrustFile(const std::filesystem::path& pemFile);

  /**
   * @brief Time-outs: connect (resolve + TCP + TLS handshake together, default 10 s) and one
   * request (write + read together, default 30 s). 0 keeps the default.
   */
  void SetTimeouts(uint32_t connectMs, uint32_t requestMs);

  /**
   * @brief Asked about every 100 ms while a connection or a request waits; true abandons the
   * wait (the call then fails as a time-out would). For callers that may be told to stop.
   */
  void SetCancelCheck(std::function<bool()> cancelled);

  /**
   * @brief Resolves, connects and (with TLS) handshakes and verifies. A refused or silent
   * server, or one that fails verification, gives a non-zero status.
   */
  long Connect();

  /**
   * @brief Sends the request and reads the whole answer (any status; the body up to 16 MiB)
   * within the request time-out. Host is set from Init; a POST's Content-Type defaults to
   * application/octet-stream. The connection stays open for the caller to Disconnect; a
   * failed request closes it.
   */
  long ExecuteRequest(const HttpRequest& request, HttpResponse& response);

  /** @brief Closes the connection (TLS shut down first, bounded). Idempotent. */
  void Disconnect();

  /** @brief The last failure in one line ("certificate verify failed: ..."), or "". */
  std::string LastError() const;

 private:
  std::unique_ptr<detail::ClientState> state_;
};

}  // namespace hlp
