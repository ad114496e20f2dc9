#include "hlp/HttpServerConnection.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdarg>
#include <cstring>
#include <limits>
#include <optional>
#include <string_view>

#include <boost/beast/core/error.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/parser.hpp>

#include "common/KroStatus.h"
#include "hlp/AcceptedSocket.h"
#include "hlp/HttpAnswer.h"
#include "hlp/HttpStatus.h"
#include "hlp/PeerStream.h"
#include "hlp/PlainSocketIo.h"
#include "hlp/RequestInfo.h"
#include "hlp/StringCompare.h"

namespace hlp {
namespace detail {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using boost::system::error_code;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

namespace {

// A "Content-Length" that Beast refuses is parsed again under this name, so that the caller
// still gets every field and the raw value.
constexpr std::string_view kInvalidLengthField = "X-Kro-Invalid-Length";
// Reads and writes are cut into pieces of this size, each with the full time-out: a large body
// may take longer than one time-out, a stalled peer may not.
constexpr size_t kTransferPiece = 1 << 20;
// Body bytes a caller left unread are skipped up to this much before the next request; beyond
// it the connection is closed instead.
constexpr uint64_t kMaxSkippedBody = 1 << 20;
// A TLS peer gets this long to answer our close_notify.
constexpr milliseconds kTlsShutdownTime(1000);
// After refusing a request the rest of what the peer sends is read and dropped for a moment:
// closing with unread data would reset the connection and could destroy the answer in flight.
constexpr milliseconds kLingerTime(500);
constexpr size_t kLingerBytes = 1 << 20;

bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
  const case_insensitive_less less;
  return !less(a, b) && !less(b, a);
}

long StatusOf(const error_code& ec) {
  if (ec == beast::error::timeout) {
    return kro::status::FromWin32(static_cast<uint32_t>(asio::error::timed_out));
  }
  if (ec == asio::error::eof || ec == asio::ssl::error::stream_truncated) {
    return kro::status::FromWin32(static_cast<uint32_t>(asio::error::connection_reset));
  }
  if (ec.category() == boost::system::system_category()) {
    return kro::status::FromWin32(static_cast<uint32_t>(ec.value()));
  }
  return kro::status::Failure;
}

std::string_view Std(beast::string_view text) {
  return std::string_view(text.data(), text.size());
}

// Every "Content-Length" line of a header block renamed to kInvalidLengthField.
std::string RenameContentLength(std::string_view header) {
  std::string copy(header);
  size_t lineEnd = copy.find("\r\n");  // the request line keeps its text
  while (lineEnd != std::string::npos && lineEnd + 2 < copy.size()) {
    const size_t start = lineEnd + 2;
    const size_t end = copy.find("\r\n", start);
    const size_t colon = copy.find(':', start);
    if (colon < end &&
        EqualsIgnoringCase(std::string_view(copy).substr(start, colon - start), "Content-Length")) {
      copy.replace(start, colon - start, kInvalidLengthField);
    }
    lineEnd = copy.find("\r\n", start);
  }
  return copy;
}

using Parser = http::request_parser<http::empty_body>;

error_code ParseHeader(std::string_view bytes, std::optional<Parser>& parser) {
  parser.emplace();
  parser->header_limit(static_cast<uint32_t>(kMaxHeaderBytes));
  // The body is never parsed here; its size is checked against kMaxContentLength by the caller.
  parser->body_limit(std::numeric_limits<uint64_t>::max());
  parser->eager(false);
  error_code ec;
  parser->put(asio::buffer(bytes.data(), bytes.size()), ec);
  if (!ec && !parser->is_header_done()) {
    ec = http::error::partial_message;
  }
  return ec;
}

struct OpResult {
  bool done = false;
  error_code ec;
  size_t bytes = 0;
};

}  // namespace

/** @brief The worker's side of one connection. */
struct ConnectionState {
  std::shared_ptr<AcceptedSocket> accepted;
  milliseconds timeout{kConnectionTimeoutSeconds * 1000};
  std::string buffer;  // read past the last request's header block: the start of what follows
  uint64_t bodyRemaining = 0;
  unsigned version = 11;
  bool handshakeDone = false;
  bool keepAlive = true;
  bool expectContinue = false;  // the client waits for "100 Continue" before sending its body
  bool peerDone = false;        // the peer closed or failed: nothing more to read
  bool failed = false;

  PeerStream& Peer() { return *accepted->peer; }

  /**
   * @brief Starts one asynchronous operation of the TLS stream through `start` and runs the
   * connection's io_context until it completes. The stream's expiry ends it by `deadline`; the
   * loop's own limit is a backstop should it not.
   */
  template <class Start>
  error_code Run(Clock::time_point deadline, size_t* bytes, Start&& start) {
    PeerStream& peer = Peer();
    if (peer.closing.load()) {
      return asio::error::operation_aborted;
    }
    // Shared with the handler: it must stay valid even if the operation outlives this call.
    auto result = std::make_shared<OpResult>();
    peer.Lowest().expires_at(deadline);
    start([result](const error_code& ec, auto... transferred) {
      result->done = true;
      result->ec = ec;
      ((result->bytes = static_cast<size_t>(transferred)), ...);
    });
    peer.io.restart();
    const auto backstop = deadline + std::chrono::seconds(2);
    while (!result->done && peer.io.run_one_until(backstop) != 0) {
    }
    if (!result->done) {
      peer.CloseSocket();
      peer.io.restart();
      while (!result->done && peer.io.run_one_for(std::chrono::seconds(1)) != 0) {
      }
      if (!result->done) {
        return asio::error::timed_out;
      }
    }
    if (bytes != nullptr) {
      *bytes = result->bytes;
    }
    NoteFailure(result->ec);
    return result->ec;
  }

  void NoteFailure(const error_code& ec) {
    if (ec && ec != asio::error::operation_aborted) {
      peerDone = true;
    }
  }

  // A plain socket is read and written directly (PlainSocketIo.h): one system call per
  // transfer, where an asynchronous operation would also turn the event loop and arm a timer.
  error_code ReadSome(char* data, size_t size, Clock::time_point deadline, size_t& read) {
    read = 0;
    PeerStream& peer = Peer();
    error_code ec;
    if (peer.secure) {
      ec = Run(deadline, &read, [&](auto handler) {
        peer.secure->async_read_some(asio::buffer(data, size), std::move(handler));
      });
    } else {
      ec = ReceiveSome(peer, data, size, deadline, read);
    }
    NoteFailure(ec);
    return ec;
  }

  error_code WriteSome(const char* data, size_t size, Clock::time_point deadline, size_t& written) {
    written = 0;
    PeerStream& peer = Peer();
    error_code ec;
    if (peer.secure) {
      ec = Run(deadline, &written, [&](auto handler) {
        peer.secure->async_write_some(asio::buffer(data, size), std::move(handler));
      });
    } else {
      ec = SendSome(peer, data, size, deadline, written);
    }
    NoteFailure(ec);
    return ec;
  }

  long Fail(long status) {
    Close();
    return status;
  }

  // Reads and writes go in pieces of at most kTransferPiece, each within the time-out.
  long WriteAll(const char* data, size_t length) {
    while (length > 0) {
      const size_t piece = std::min(length, kTransferPiece);
      const auto deadline = Clock::now() + timeout;
      for (size_t done = 0; done < piece;) {
        size_t written = 0;
        if (const error_code ec = WriteSome(data + done, piece - done, deadline, written)) {
          return Fail(StatusOf(ec));
        }
        done += written;
      }
      data += piece;
      length -= piece;
    }
    return kro::status::Ok;
  }

  long ReadAll(char* data, size_t length) {
    const size_t buffered = std::min(length, buffer.size());
    std::memcpy(data, buffer.data(), buffered);
    buffer.erase(0, buffered);
    data += buffered;
    length -= buffered;
    while (length > 0) {
      const size_t piece = std::min(length, kTransferPiece);
      const auto deadline = Clock::now() + timeout;
      for (size_t done = 0; done < piece;) {
        size_t read = 0;
        if (const error_code ec = ReadSome(data + done, piece - done, deadline, read)) {
          return Fail(StatusOf(ec));
        }
        done += read;
      }
      data += piece;
      length -= piece;
    }
    return kro::status::Ok;
  }

  // What the caller did not read of the last body stands between us and the next request.
  long SkipUnreadBody() {
    if (bodyRemaining == 0) {
      return kro::status::Ok;
    }
    // A client still waiting for "100 Continue" will not send the body we would wait for.
    if (expectContinue || bodyRemaining > kMaxSkippedBody) {
      return Fail(kro::status::NotAvailable);
    }
    std::array<char, 16 * 1024> scratch;
    while (bodyRemaining > 0) {
      const size_t piece = static_cast<size_t>(std::min<uint64_t>(bodyRemaining, scratch.size()));
      if (const long status = ReadAll(scratch.data(), piece); status != kro::status::Ok) {
        return status;
      }
      bodyRemaining -= piece;
    }
    return kro::status::Ok;
  }

  void Linger() {
    error_code ignored;
    Peer().Lowest().socket().shutdown(asio::socket_base::shutdown_send, ignored);
    std::array<char, 16 * 1024> scratch;
    const auto end = Clock::now() + kLingerTime;
    size_t drained = 0;
    while (drained < kLingerBytes && Clock::now() < end) {
      size_t read = 0;
      if (ReadSome(scratch.data(), scratch.size(), end, read) || read == 0) {
        break;
      }
      drained += read;
    }
  }

  void Close() {
    if (failed) {
      return;
    }
    failed = true;
    PeerStream& peer = Peer();
    if (!peer.closing.load() && !peerDone && peer.Lowest().socket().is_open()) {
      if (peer.secure && handshakeDone) {
        Run(Clock::now() + std::min(timeout, kTlsShutdownTime), nullptr,
            [&](auto handler) { peer.secure->async_shutdown(std::move(handler)); });
      } else if (!peer.secure) {
        Linger();
      }
    }
    error_code ignored;
    peer.Lowest().socket().shutdown(asio::socket_base::shutdown_both, ignored);
    peer.CloseSocket();
  }

  std::string Answer(unsigned status, std::string_view reason, std::string_view type,
                     std::string_view extraHeaders, std::string_view body) const {
    const std::string_view connection = !keepAlive ? "close" : version < 11 ? "keep-alive" : "";
    return BuildAnswer(status, reason, type, extraHeaders, connection, body);
  }

  // Answers a request refused here and ends the connection.
  long Refuse(unsigned status, const char* text, long result) {
    keepAlive = false;
    const std::string answer =
        Answer(status, HttpStatusToString(status), "text/html", "",
               HtmlPage(status, HttpStatusToString(status), "<p>" + EscapeHtml(text) + "</p>"));
    WriteAll(answer.data(), answer.size());
    return Fail(result);
  }

  // The request line and headers, up to and with the empty line, are left at the start of
  // `buffer`; their size goes to `headerSize`.
  long ReadHeaderBlock(size_t& headerSize) {
    static constexpr std::string_view kEnd = "\r\n\r\n";
    const auto deadline = Clock::now() + timeout;
    // Read here rather than into `buffer`, which would zero-fill its room first; most header
    // blocks fit in one read.
    std::array<char, 4096> readArea;
    size_t searched = 0;  // no block end starts before this
    for (;;) {
      if (const size_t end = std::string_view(buffer).find(kEnd, searched);
          end != std::string_view::npos) {
        headerSize = end + kEnd.size();
        return kro::status::Ok;
      }
      if (buffer.size() >= kMaxHeaderBytes) {
        return Refuse(431, "The request headers are too large.", kro::status::BufferTooSmall);
      }
      searched = buffer.size() < kEnd.size() ? 0 : buffer.size() - (kEnd.size() - 1);
      size_t read = 0;
      const size_t room = std::min(readArea.size(), kMaxHeaderBytes - buffer.size());
      if (const error_code ec = ReadSome(readArea.data(), room, deadline, read)) {
        return Fail(StatusOf(ec));
      }
      buffer.append(readArea.data(), read);
    }
  }

  long ParseRequest(std::string_view header, RequestInfo& request) {
    std::optional<Parser> parser;
    error_code ec = ParseHeader(header, parser);
    // Beast stops at a "Content-Length" that is not a number; the caller answers that itself
    // and needs the request with all its fields for it.
    const bool invalidLength = ec == http::error::bad_content_length;
    if (invalidLength) {
      ec = ParseHeader(RenameContentLength(header), parser);
    }
    if (ec) {
      return Refuse(400, "The request is malformed.", kro::status::MalformedData);
    }
    const auto& message = parser->get();
    // No transfer coding of request bodies is supported; only a length makes a body.
    if (message.count(http::field::transfer_encoding) != 0) {
      return Refuse(411, "A request body needs a Content-Length.", kro::status::NotAvailable);
    }
    const auto contentLength = parser->content_length();
    if (!invalidLength && contentLength && *contentLength > kMaxContentLength) {
      return Refuse(413, "The request body is too large.", kro::status::OutOfRange);
    }

    request.method.assign(Std(message.method_string()));
    request.uri.assign(Std(message.target()));
    request.version = message.version();
    for (const auto& field : message) {
      const std::string_view name = Std(field.name_string());
      request.headers.emplace(
          invalidLength && EqualsIgnoringCase(name, kInvalidLengthField) ? "Content-Length" : name,
          Std(field.value()));
    }
    version = message.version();
    // Without a valid length the body cannot be told from a next request.
    keepAlive = message.keep_alive() && !invalidLength;
    bodyRemaining = invalidLength ? 0 : contentLength.value_or(0);
    expectContinue =
        bodyRemaining > 0 && EqualsIgnoringCase(Std(message[http::field::expect]), "100-continue");
    return kro::status::Ok;
  }
};

}  // namespace detail

HttpServerConnection::HttpServerConnection(HttpServer* server) : server_(server) {}

HttpServerConnection::~HttpServerConnection() {
  CloseConnection();
}

long HttpServerConnection::SetClient(const Socket& socket) {
  try {
    const auto& accepted = socket.Accepted();
    if (state_ || !accepted || !accepted->peer || !accepted->peer->HasStream() ||
        !accepted->Take()) {
      return kro::status::NotAvailable;
    }
    auto state = std::make_shared<detail::ConnectionState>();
    state->accepted = accepted;
    if (accepted->timeoutMs != 0) {
      state->timeout = std::chrono::milliseconds(accepted->timeoutMs);
    }
    state_ = std::move(state);
    return kro::status::Ok;
  } catch (...) {
    return kro::status::Failure;
  }
}

long HttpServerConnection::ReadRequest(RequestInfo& request) {
  if (!state_ || state_->failed) {
    return kro::status::NotAvailable;
  }
  detail::ConnectionState& state = *state_;
  try {
    request = RequestInfo();
    if (!state.keepAlive) {
      return state.Fail(kro::status::NotAvailable);
    }
    if (const long status = state.SkipUnreadBody(); status != kro::status::Ok) {
      return status;
    }
    if (state.accepted->tls && !state.handshakeDone) {
      const auto deadline = detail::Clock::now() + state.timeout;
      const boost::system::error_code ec = state.Run(deadline, nullptr, [&](auto handler) {
        state.Peer().secure->async_handshake(boost::asio::ssl::stream_base::server,
                                             std::move(handler));
      });
      if (ec) {
        // A failed handshake leaves nothing to shut down politely.
        state.peerDone = true;
        return state.Fail(detail::StatusOf(ec));
      }
      state.handshakeDone = true;
    }
    size_t headerSize = 0;
    if (const long status = state.ReadHeaderBlock(headerSize); status != kro::status::Ok) {
      return status;
    }
    const long status =
        state.ParseRequest(std::string_view(state.buffer.data(), headerSize), request);
    if (!state.failed) {
      state.buffer.erase(0, headerSize);
    }
    return status;
  } catch (...) {
    return state.Fail(kro::status::Failure);
  }
}

long HttpServerConnection::Read(char* buffer, size_t length) {
  if (!state_ || state_->failed) {
    return kro::status::NotAvailable;
  }
  if (length == 0) {
    return kro::status::Ok;
  }
  if (buffer == nullptr) {
    return kro::status::WinInvalidParameter;
  }
  detail::ConnectionState& state = *state_;
  try {
    if (state.expectContinue) {
      state.expectContinue = false;
      if (state.buffer.empty()) {
        static constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";
        if (const long status = state.WriteAll(kContinue.data(), kContinue.size());
            status != kro::status::Ok) {
          return status;
        }
      }
    }
    const long status = state.ReadAll(buffer, length);
    state.bodyRemaining -= std::min<uint64_t>(state.bodyRemaining, length);
    return status;
  } catch (...) {
    return state.Fail(kro::status::Failure);
  }
}

long HttpServerConnection::Write(const char* data, size_t length) {
  if (!state_ || state_->failed) {
    return kro::status::NotAvailable;
  }
  if (length == 0) {
    return kro::status::Ok;
  }
  if (data == nullptr) {
    return kro::status::WinInvalidParameter;
  }
  try {
    return state_->WriteAll(data, length);
  } catch (...) {
    return state_->Fail(kro::status::Failure);
  }
}

long HttpServerConnection::SendHttpError(unsigned int status, const char* reason,
                                         const char* format, ...) {
  if (!state_ || state_->failed) {
    return kro::status::NotAvailable;
  }
  if (status < 100 || status > 999) {
    return kro::status::WinInvalidParameter;
  }
  try {
    va_list args;
    va_start(args, format);
    const std::string text = detail::FormatV(format, args);
    va_end(args);
    const std::string_view phrase = reason != nullptr ? reason : HttpStatusToString(status);
    const std::string answer =
        state_->Answer(status, phrase, "text/html", "",
                       detail::HtmlPage(status, phrase, "<p>" + detail::EscapeHtml(text) + "</p>"));
    return state_->WriteAll(answer.data(), answer.size());
  } catch (...) {
    return state_->Fail(kro::status::Failure);
  }
}

long HttpServerConnection::SendHttpRedirect(unsigned int status, const char* reason,
                                            const char* location, const char* format, ...) {
  if (!state_ || state_->failed) {
    return kro::status::NotAvailable;
  }
  if (status < 100 || status > 999 || location == nullptr) {
    return kro::status::WinInvalidParameter;
  }
  try {
    va_list args;
    va_start(args, format);
    const std::string text = detail::FormatV(format, args);
    va_end(args);
    const std::string_view phrase = reason != nullptr ? reason : HttpStatusToString(status);
    const std::string target = detail::HeaderSafe(location);
    const std::string link = detail::EscapeHtml(target);
    const std::string answer =
        state_->Answer(status, phrase, "text/html", "Location: " + target + "\r\n",
                       detail::HtmlPage(status, phrase,
                                        "<p>" + detail::EscapeHtml(text) + "</p><p><a href=\"" +
                                            link + "\">" + link + "</a></p>"));
    return state_->WriteAll(answer.data(), answer.size());
  } catch (...) {
    return state_->Fail(kro::status::Failure);
  }
}

long HttpServerConnection::PrintFormattedWithHeaders(const char* format, ...) {
  if (!state_ || state_->failed) {
    return kro::status::NotAvailable;
  }
  try {
    va_list args;
    va_start(args, format);
    const std::string text = detail::FormatV(format, args);
    va_end(args);
    const std::string answer = state_->Answer(200, "OK", "text/plain", "", text);
    return state_->WriteAll(answer.data(), answer.size());
  } catch (...) {
    return state_->Fail(kro::status::Failure);
  }
}

void HttpServerConnection::CloseConnection() {
  if (!state_) {
    return;
  }
  try {
    state_->Close();
  } catch (...) {
    // Closing is best effort; the socket goes with the last handle anyway.
  }
}

std::string HttpServerConnection::GetRemoteIpAddress() const {
  try {
    return state_ ? state_->accepted->remoteIp : std::string();
  } catch (...) {
    return std::string();
  }
}

}  // namespace hlp
