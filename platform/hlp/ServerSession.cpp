#include "hlp/ServerSession.h"

#include <algorithm>
#include <limits>
#include <string_view>
#include <utility>

#include <boost/asio/write.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/parser.hpp>

#include "core/StringCompare.h"
#include "hlp/AcceptedSocket.h"
#include "hlp/HttpAnswer.h"
#include "hlp/HttpServerConnection.h"
#include "hlp/HttpStatus.h"
#include "hlp/IRequestHandler.h"
#include "hlp/SSLContext.h"
#include "hlp/ServerCore.h"
#include "hlp/Socket.h"

namespace hlp::detail {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using boost::system::error_code;
using std::chrono::milliseconds;

namespace {

// A "Content-Length" that Beast refuses is parsed again under this name, so that the caller
// still gets every field and the raw value.
constexpr std::string_view kInvalidLengthField = "X-Kro-Invalid-Length";
// Bodies and answers move in pieces of this size, each within the time-out: a large body may
// take longer than one time-out, a stalled peer may not.
constexpr size_t kTransferPiece = 1 << 20;
// A TLS peer gets this long to answer our close_notify.
constexpr milliseconds kTlsShutdownTime(1000);
// After the last answer the rest of what the peer sends is read and dropped for a moment:
// closing with unread data would reset the connection and could destroy the answer in flight.
constexpr milliseconds kLingerTime(500);
constexpr size_t kLingerBytes = 1 << 20;
// A TLS read's target; plain reads land in the loop's shared scratch area instead, so an idle
// plain connection holds no buffer at all.
constexpr size_t kTlsReadArea = 16 * 1024;
constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";
// An idle connection keeps buffers up to this size for its next request; a larger one that a
// big request or answer left behind goes back to the allocator.
constexpr size_t kKeptBufferBytes = 16 * 1024;

void Trim(std::string& buffer) {
  if (buffer.empty() && buffer.capacity() > kKeptBufferBytes) {
    std::string().swap(buffer);
  }
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
    if (colon < end && kro::EqualsIgnoringCase(std::string_view(copy).substr(start, colon - start),
                                               "Content-Length")) {
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
  // The body is never parsed here; its size is checked against kMaxContentLength below.
  parser->body_limit(std::numeric_limits<uint64_t>::max());
  parser->eager(false);
  error_code ec;
  parser->put(asio::buffer(bytes.data(), bytes.size()), ec);
  if (!ec && !parser->is_header_done()) {
    ec = http::error::partial_message;
  }
  return ec;
}

}  // namespace

// ---- LoopLink ---------------------------------------------------------------------------------

bool LoopLink::Post(std::function<void(ServerCore&)> work) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (core_ == nullptr) {
    return false;
  }
  ServerCore* core = core_;
  asio::post(core->Io(), [core, work = std::move(work)] { work(*core); });
  return true;
}

void LoopLink::Exclusive(const std::function<void()>& change) {
  std::lock_guard<std::mutex> lock(mutex_);
  change();
}

void LoopLink::Cut() {
  std::lock_guard<std::mutex> lock(mutex_);
  core_ = nullptr;
}

// ---- Session ----------------------------------------------------------------------------------

Session::Session(ServerCore& owner, asio::ip::tcp::socket accepted, bool secureStream,
                 uint32_t timeoutMs)
    : context(owner.context),
      core(owner),
      link(owner.link),
      budget(owner.budget),
      timer(owner.Io()),
      tls(secureStream),
      timeout(timeoutMs) {
  error_code ignored;
  const asio::ip::tcp::endpoint remote = accepted.remote_endpoint(ignored);
  if (!ignored) {
    remoteIp = remote.address().to_string();
  }
  // Small answers would otherwise wait for the peer's delayed acknowledgement (~40 ms).
  accepted.set_option(asio::ip::tcp::no_delay(true), ignored);
  // Reads and a worker's writes never block: they take what is there and the loop waits.
  accepted.non_blocking(true, ignored);
  if (secureStream) {
    secure = std::make_unique<TlsStream>(std::move(accepted), owner.tls->Native());
  } else {
    plain.emplace(std::move(accepted));
  }
}

Session::~Session() {
  if (bodyCharged != 0) {
    DropBody();
  }
}

HeadScan Session::ScanHead(size_t& headSize) {
  static constexpr std::string_view kEnd = "\r\n\r\n";
  const size_t end = std::string_view(in).find(kEnd, searched);
  if (end == std::string_view::npos || end + kEnd.size() > kMaxHeaderBytes) {
    if (in.size() >= kMaxHeaderBytes) {
      return HeadScan::kTooLarge;
    }
    searched = in.size() < kEnd.size() ? 0 : in.size() - (kEnd.size() - 1);
    return HeadScan::kIncomplete;
  }
  headSize = end + kEnd.size();
  const std::string_view header(in.data(), headSize);
  std::optional<Parser> parser;
  error_code ec = ParseHeader(header, parser);
  // Beast stops at a "Content-Length" that is not a number; the caller answers that itself
  // and needs the request with all its fields for it.
  const bool invalidLength = ec == http::error::bad_content_length;
  if (invalidLength) {
    ec = ParseHeader(RenameContentLength(header), parser);
  }
  if (ec) {
    return HeadScan::kMalformed;
  }
  const auto& message = parser->get();
  // No transfer coding of request bodies is supported; only a length makes a body.
  if (message.count(http::field::transfer_encoding) != 0) {
    return HeadScan::kChunked;
  }
  const auto contentLength = parser->content_length();
  if (!invalidLength && contentLength && *contentLength > kMaxContentLength) {
    return HeadScan::kBodyTooLarge;
  }
  request = RequestInfo();
  request.method.assign(Std(message.method_string()));
  request.uri.assign(Std(message.target()));
  request.version = message.version();
  for (const auto& field : message) {
    const std::string_view name = Std(field.name_string());
    request.headers.emplace(invalidLength && kro::EqualsIgnoringCase(name, kInvalidLengthField)
                                ? "Content-Length"
                                : name,
                            Std(field.value()));
  }
  version = message.version();
  // Without a valid length the body cannot be told from a next request.
  keepAlive = message.keep_alive() && !invalidLength;
  peerCloses = !message.keep_alive();
  bodyLength = invalidLength ? 0 : contentLength.value_or(0);
  expectContinue =
      bodyLength > 0 && kro::EqualsIgnoringCase(Std(message[http::field::expect]), "100-continue");
  return HeadScan::kReady;
}

void Session::Start() {
  EnterHead();
  if (!secure) {
    Process();
    return;
  }
  phase = Phase::kHandshake;
  secure->async_handshake(asio::ssl::stream_base::server,
                          [self = shared_from_this()](const error_code& ec) {
                            if (self->phase != Phase::kHandshake) {
                              return;
                            }
                            if (ec) {
                              // A failed handshake leaves nothing to shut down politely.
                              self->peerDone = true;
                              self->CloseNow();
                              return;
                            }
                            self->handshakeDone = true;
                            self->phase = Phase::kHead;
                            self->Process();
                          });
}

void Session::EnterHead() {
  phase = Phase::kHead;
  Trim(in);
  if (!waitingForHead) {
    waitingEntry = core.waitingForHead.insert(core.waitingForHead.end(), this);
    waitingForHead = true;
  }
  // One deadline for the whole header block (and a handshake before it): a peer that sends a
  // byte now and then gains nothing.
  ArmDeadline(Clock::now() + timeout);
}

void Session::LeaveHead() {
  if (waitingForHead) {
    core.waitingForHead.erase(waitingEntry);
    waitingForHead = false;
  }
}

void Session::ArmDeadline(Clock::time_point when) {
  deadline = when;
  // A wait already armed for no later than this stays: when it fires early it waits again
  // for the deadline then in force. Most requests so cost no timer operation at all.
  if (timerArmed && timer.expiry() <= when) {
    return;
  }
  timer.expires_at(when);
  timerArmed = true;
  timer.async_wait([weak = weak_from_this()](const error_code& ec) {
    auto self = weak.lock();
    if (ec == asio::error::operation_aborted || !self) {
      return;  // re-armed for an earlier deadline, or closed
    }
    self->timerArmed = false;
    const Phase phase = self->phase;
    if (phase == Phase::kClosed || phase == Phase::kServed || phase == Phase::kBudget) {
      return;  // nothing to wait for now; the next wait arms the timer again
    }
    if (self->deadline > Clock::now()) {
      self->ArmDeadline(self->deadline);
      return;
    }
    self->CloseNow();
  });
}

void Session::Process() {
  if (phase == Phase::kHead) {
    size_t headSize = 0;
    switch (ScanHead(headSize)) {
      case HeadScan::kIncomplete:
        ReadMore();
        return;
      case HeadScan::kTooLarge:
        Refuse(431, "The request headers are too large.");
        return;
      case HeadScan::kMalformed:
        Refuse(400, "The request is malformed.");
        return;
      case HeadScan::kChunked:
        Refuse(411, "A request body needs a Content-Length.");
        return;
      case HeadScan::kBodyTooLarge:
        Refuse(413, "The request body is too large.");
        return;
      case HeadScan::kReady:
        break;
    }
    LeaveHead();
    in.erase(0, headSize);
    searched = 0;
    body.clear();
    phase = Phase::kBody;
    if (bodyLength != 0) {
      bodyEntry = core.bodies.insert(core.bodies.end(), this);
      readingBody = true;
    }
    pieceBytes = 0;
    ArmDeadline(Clock::now() + timeout);
    if (expectContinue && in.empty()) {
      // The client waits for this before it sends the body.
      out.append(kContinue);
      Flush([self = shared_from_this()] {
        self->phase = Phase::kBody;
        self->ArmDeadline(Clock::now() + self->timeout);
        self->Process();
      });
      return;
    }
  }
  if (phase == Phase::kBody) {
    const size_t missing = static_cast<size_t>(bodyLength - body.size());
    const size_t take = std::min(missing, in.size());
    if (take != 0) {
      body.append(in, 0, take);
      in.erase(0, take);
      budget->used.fetch_add(static_cast<int64_t>(take));
      bodyCharged += take;
    }
    if (body.size() < bodyLength) {
      ReadMore();
      return;
    }
    Dispatch();
  }
}

void Session::ReadMore() {
  if (closing.load()) {
    CloseNow();
    return;
  }
  if (phase == Phase::kBody && budget->used.load() >= budget->limit.load() &&
      core.bodies.front() != this) {
    // Paused, not refused: the body is read as soon as other bodies are done with. The body
    // that has been read longest never pauses, so one of them always gets to the end.
    phase = Phase::kBudget;
    core.budgetQueue.push_back(weak_from_this());
    budget->waiters.store(true);
    return;
  }
  if (secure) {
    if (!tlsArea) {
      tlsArea = std::make_unique<char[]>(kTlsReadArea);
    }
    secure->async_read_some(asio::buffer(tlsArea.get(), kTlsReadArea),
                            [self = shared_from_this()](const error_code& ec, size_t read) {
                              if (self->phase != Phase::kHead && self->phase != Phase::kBody) {
                                return;
                              }
                              if (ec) {
                                self->peerDone = true;
                                self->CloseNow();
                                return;
                              }
                              self->Received(self->tlsArea.get(), read);
                            });
    return;
  }
  plain->async_wait(asio::socket_base::wait_read,
                    [self = shared_from_this()](const error_code& ec) { self->OnReadable(ec); });
}

void Session::OnReadable(const error_code& ec) {
  if (phase != Phase::kHead && phase != Phase::kBody) {
    return;
  }
  if (ec) {
    peerDone = true;
    CloseNow();
    return;
  }
  error_code readError;
  const size_t read = plain->read_some(asio::buffer(core.scratch), readError);
  if (readError == asio::error::would_block || readError == asio::error::try_again) {
    ReadMore();
    return;
  }
  if (readError) {
    peerDone = true;
    CloseNow();
    return;
  }
  Received(core.scratch.data(), read);
}

void Session::Received(const char* data, size_t size) {
  in.append(data, size);
  pieceBytes += size;
  if (phase == Phase::kBody && pieceBytes >= kTransferPiece) {
    // Another piece of the body is in: the next one gets the whole time-out again.
    pieceBytes = 0;
    ArmDeadline(Clock::now() + timeout);
  }
  Process();
}

void Session::LeaveBody() {
  if (!readingBody) {
    return;
  }
  readingBody = false;
  const bool wasFront = core.bodies.front() == this;
  core.bodies.erase(bodyEntry);
  if (wasFront && !core.bodies.empty() && core.bodies.front()->phase == Phase::kBudget) {
    core.bodies.front()->ResumeBody();
  }
}

void Session::Dispatch() {
  LeaveBody();
  if (closing.load() || core.handler == nullptr) {
    CloseNow();
    return;
  }
  phase = Phase::kServed;
  requestReady = true;
  try {
    const hlp::Socket handle(std::make_shared<AcceptedSocket>(shared_from_this()));
    core.handler->HandleRequest(&handle);
  } catch (...) {
    // The hand-over, if it was made, gives the connection back when it goes.
  }
}

void Session::Resume(bool next) {
  if (phase == Phase::kClosed) {
    Release();  // closed while a worker had it
    return;
  }
  phase = Phase::kWriting;
  if (closing.load() || peerDone) {
    CloseNow();
    return;
  }
  Flush([self = shared_from_this(), next] {
    if (next) {
      self->EnterHead();
      self->Process();
    } else {
      self->FinishClose();
    }
  });
}

void Session::Flush(std::function<void()> then) {
  if (outSent >= out.size()) {
    out.clear();
    outSent = 0;
    Trim(out);
    then();
    return;
  }
  phase = Phase::kWriting;
  const size_t piece = std::min(out.size() - outSent, kTransferPiece);
  ArmDeadline(Clock::now() + timeout);
  auto done = [self = shared_from_this(), then = std::move(then)](const error_code& ec,
                                                                  size_t written) mutable {
    if (self->phase != Phase::kWriting) {
      return;
    }
    if (ec) {
      self->peerDone = true;
      self->CloseNow();
      return;
    }
    self->outSent += written;
    self->Flush(std::move(then));
  };
  const auto buffer = asio::buffer(out.data() + outSent, piece);
  if (secure) {
    asio::async_write(*secure, buffer, std::move(done));
  } else {
    asio::async_write(*plain, buffer, std::move(done));
  }
}

void Session::Refuse(unsigned status, const char* text) {
  LeaveHead();
  keepAlive = false;
  const std::string_view phrase = HttpStatusToString(status);
  out += BuildAnswer(status, phrase, "text/html", "", "close",
                     HtmlPage(status, phrase, "<p>" + EscapeHtml(text) + "</p>"));
  Flush([self = shared_from_this()] { self->FinishClose(); });
}

void Session::FinishClose() {
  LeaveHead();
  if (phase == Phase::kClosed || peerDone || closing.load()) {
    CloseNow();
    return;
  }
  phase = Phase::kClosing;
  if (secure) {
    if (!handshakeDone) {
      CloseNow();
      return;
    }
    ArmDeadline(Clock::now() + std::min(timeout, kTlsShutdownTime));
    secure->async_shutdown([self = shared_from_this()](const error_code&) { self->CloseNow(); });
    return;
  }
  error_code ignored;
  plain->shutdown(asio::socket_base::shutdown_send, ignored);
  // A peer that announced the close sends nothing more: with nothing of it left unread, the
  // close cannot reset the answer on its way, and there is nothing to wait for.
  error_code unread;
  if (peerCloses && in.empty() && plain->available(unread) == 0 && !unread) {
    CloseNow();
    return;
  }
  const Clock::time_point until = Clock::now() + kLingerTime;
  ArmDeadline(until);
  Linger(until, 0);
}

void Session::Linger(Clock::time_point until, size_t drained) {
  plain->async_wait(asio::socket_base::wait_read, [self = shared_from_this(), until,
                                                   drained](const error_code& ec) {
    if (self->phase != Phase::kClosing) {
      return;
    }
    error_code readError;
    const size_t read =
        ec ? 0 : self->plain->read_some(asio::buffer(self->core.scratch), readError);
    const bool again = readError == asio::error::would_block || readError == asio::error::try_again;
    if (ec || (readError && !again) || (!again && read == 0) || drained + read >= kLingerBytes ||
        Clock::now() >= until) {
      self->CloseNow();
      return;
    }
    self->Linger(until, drained + read);
  });
}

void Session::CloseNow() {
  if (phase == Phase::kClosed) {
    return;
  }
  const bool served = phase == Phase::kServed;
  phase = Phase::kClosed;
  LeaveHead();
  LeaveBody();
  error_code ignored;
  timer.cancel();
  Socket().shutdown(asio::socket_base::shutdown_both, ignored);
  if (!served) {
    // A worker that still uses the socket sees the traffic end; its release closes it.
    Release();
  }
}

void Session::Release() {
  if (forgotten_) {
    return;
  }
  forgotten_ = true;
  error_code ignored;
  Socket().close(ignored);
  tlsArea.reset();
  core.Forget(this);
}

void Session::ResumeBody() {
  if (phase != Phase::kBudget) {
    return;
  }
  phase = Phase::kBody;
  ArmDeadline(Clock::now() + timeout);
  Process();
}

// ---- Worker side ------------------------------------------------------------------------------

bool Session::TakeBufferedRequest() {
  size_t headSize = 0;
  // Only a whole request is taken; a partial or bad one is scanned again by the loop, which
  // answers or waits for it.
  if (ScanHead(headSize) != HeadScan::kReady || in.size() - headSize < bodyLength ||
      expectContinue) {
    searched = 0;
    return false;
  }
  body.assign(in, headSize, static_cast<size_t>(bodyLength));
  in.erase(0, headSize + static_cast<size_t>(bodyLength));
  searched = 0;
  return true;
}

void Session::Send(const char* data, size_t length) {
  if (length == 0 || peerDone || closing.load()) {
    return;
  }
  if (plain && out.size() == outSent) {
    out.clear();
    outSent = 0;
    error_code ec;
    const size_t written = plain->write_some(asio::buffer(data, length), ec);
    if (ec && ec != asio::error::would_block && ec != asio::error::try_again) {
      peerDone = true;
      return;
    }
    data += written;
    length -= written;
  }
  out.append(data, length);
}

void Session::DropBody() {
  const size_t charged = bodyCharged;
  bodyCharged = 0;
  std::string().swap(body);
  if (charged == 0) {
    return;
  }
  budget->used.fetch_sub(static_cast<int64_t>(charged));
  if (budget->waiters.exchange(false)) {
    link->Post([](ServerCore& owner) { owner.WakeBudgetQueue(); });
  }
}

}  // namespace hlp::detail
