#include "hlp/HttpServerConnection.h"

#include <cstdarg>
#include <cstring>
#include <string_view>

#include "core/KroStatus.h"
#include "core/StringCompare.h"
#include "hlp/AcceptedSocket.h"
#include "hlp/HttpAnswer.h"
#include "hlp/HttpStatus.h"
#include "hlp/RequestInfo.h"
#include "hlp/ServerSession.h"

namespace hlp {
namespace detail {

namespace asio = boost::asio;

namespace {

long ConnectionLost() {
  return kro::status::FromWin32(static_cast<uint32_t>(asio::error::connection_reset));
}

bool HasConnectionField(std::string_view head) {
  static constexpr std::string_view kName = "connection:";
  for (size_t at = head.find("\r\n"); at != std::string_view::npos;
       at = head.find("\r\n", at + 2)) {
    const std::string_view name = head.substr(at + 2, kName.size());
    if (kro::EqualsIgnoringCase(name, kName)) {
      return true;
    }
  }
  return false;
}

}  // namespace

/** @brief The worker's side of one hand-over of a connection. */
struct ConnectionState {
  std::shared_ptr<AcceptedSocket> handOver;
  Session* session = nullptr;
  size_t bodyRead = 0;         // of the current request's body
  bool answerStarted = false;  // the current request's answer has begun
  bool next = false;           // the last ReadRequest asked for the next request
  bool failed = false;

  bool Usable() const { return !failed && !session->peerDone && !session->closing.load(); }

  long Fail(long status) {
    failed = true;
    next = false;
    handOver->Release(false);
    return status;
  }

  long Send(std::string_view answer) {
    if (!Usable()) {
      return Fail(ConnectionLost());
    }
    const bool first = !answerStarted;
    answerStarted = true;
    const std::string_view connection = ConnectionToken();
    const size_t statusEnd = answer.find("\r\n");
    if (first && !connection.empty() && answer.substr(0, 7) == "HTTP/1." &&
        statusEnd != std::string_view::npos &&
        !HasConnectionField(answer.substr(0, answer.find("\r\n\r\n")))) {
      // A caller's own answer says nothing of the connection: a client must hear that it
      // closes (or, on HTTP/1.0, that it stays), or it takes the close for a failure.
      // One piece, so that it leaves in one write as the caller's answer would have.
      std::string patched;
      patched.reserve(answer.size() + 32);
      patched.append(answer.substr(0, statusEnd + 2))
          .append("Connection: ")
          .append(connection)
          .append("\r\n")
          .append(answer.substr(statusEnd + 2));
      session->Send(patched.data(), patched.size());
    } else {
      session->Send(answer.data(), answer.size());
    }
    return session->peerDone ? Fail(ConnectionLost()) : kro::status::Ok;
  }

  std::string_view ConnectionToken() const {
    return !session->keepAlive ? "close" : session->version < 11 ? "keep-alive" : "";
  }

  std::string Answer(unsigned status, std::string_view reason, std::string_view type,
                     std::string_view extraHeaders, std::string_view body) const {
    return BuildAnswer(status, reason, type, extraHeaders, ConnectionToken(), body);
  }
};

}  // namespace detail

namespace {

// What Read and Write check before they move a byte; Pending means the transfer may go on.
long AdmitTransfer(const detail::ConnectionState* state, const void* bytes, size_t length) {
  if (state == nullptr || state->failed) {
    return kro::status::NotAvailable;
  }
  if (length == 0) {
    return kro::status::Ok;
  }
  return bytes == nullptr ? kro::status::WinInvalidParameter : kro::status::Pending;
}

}  // namespace

HttpServerConnection::HttpServerConnection(HttpServer* server) : server_(server) {}

HttpServerConnection::~HttpServerConnection() {
  CloseConnection();
}

long HttpServerConnection::SetClient(const Socket& socket) {
  try {
    const auto& handOver = socket.Accepted();
    if (state_ || !handOver || !handOver->Take()) {
      return kro::status::NotAvailable;
    }
    auto state = std::make_shared<detail::ConnectionState>();
    state->handOver = handOver;
    state->session = handOver->session.get();
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
  detail::Session& session = *state.session;
  try {
    request = RequestInfo();
    if (session.requestReady) {
      // What the loop read and handed over.
      session.requestReady = false;
      state.bodyRead = 0;
      state.answerStarted = false;
      request = std::move(session.request);
      return kro::status::Ok;
    }
    if (!session.keepAlive || !state.Usable()) {
      return state.Fail(kro::status::NotAvailable);
    }
    session.DropBody();
    // A request that arrived whole behind this one is served on, unless the answer is still
    // on its way out: then the connection goes back to the loop, which sends it first.
    if (session.out.size() == session.outSent && session.TakeBufferedRequest()) {
      state.bodyRead = 0;
      state.answerStarted = false;
      request = std::move(session.request);
      return kro::status::Ok;
    }
    state.next = true;
    return kro::status::Pending;
  } catch (...) {
    return state.Fail(kro::status::Failure);
  }
}

long HttpServerConnection::Read(char* buffer, size_t length) {
  if (const long st = AdmitTransfer(state_.get(), buffer, length); st != kro::status::Pending) {
    return st;
  }
  detail::ConnectionState& state = *state_;
  const std::string& body = state.session->body;
  // The whole body arrived before the request was handed over; asking for more than the
  // client announced would wait for bytes that never come.
  if (length > body.size() - state.bodyRead) {
    return state.Fail(kro::status::NotAvailable);
  }
  std::memcpy(buffer, body.data() + state.bodyRead, length);
  state.bodyRead += length;
  return kro::status::Ok;
}

long HttpServerConnection::Write(const char* data, size_t length) {
  if (const long st = AdmitTransfer(state_.get(), data, length); st != kro::status::Pending) {
    return st;
  }
  try {
    return state_->Send(std::string_view(data, length));
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
    return state_->Send(answer);
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
    return state_->Send(answer);
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
    return state_->Send(answer);
  } catch (...) {
    return state_->Fail(kro::status::Failure);
  }
}

void HttpServerConnection::CloseConnection() {
  if (!state_) {
    return;
  }
  try {
    state_->handOver->Release(state_->next && !state_->failed);
  } catch (...) {
    // Releasing is best effort; the connection goes back with the last handle anyway.
  }
}

std::string HttpServerConnection::GetRemoteIpAddress() const {
  try {
    return state_ ? state_->session->remoteIp : std::string();
  } catch (...) {
    return std::string();
  }
}

}  // namespace hlp
