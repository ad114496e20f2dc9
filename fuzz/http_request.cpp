// The HTTP request path from raw bytes to the handler's answer: the agent's own server (plain
// HTTP on a loopback port, the agent's component name, its UI folder and routines) gets the
// input as one client's whole traffic, then the end of it. Through the platform's request
// reading (header scan, limits, bodies, pipelining) and the handler's checks (client class,
// URL space, lengths, session gate, routing), whatever arrives must come back as well-formed
// HTTP answers, nothing after one that announced the close, and the connection must end.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>

#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>

#include "common/WinHelper.h"
#include "core/KroStatus.h"
#include "core/RoutineTable.h"
#include "fuzz/FuzzSupport.h"
#include "nvthreads/nvthreads.h"
#include "server/KroServer.h"
#include "server/RequestChecks.h"
#include "server/ServerRequestHandler.h"

namespace {

namespace http = boost::beast::http;
using kro::fuzz::Check;
using kro::fuzz::Fail;

constexpr auto kAnswerTime = std::chrono::seconds(5);

uint16_t g_port = 0;

char* Copy(std::string_view text) {
  char* out = new char[text.size() + 1];
  std::memcpy(out, text.data(), text.size());
  out[text.size()] = '\0';
  return out;
}

uint16_t FreeLoopbackPort() {
  const int s = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  ::bind(s, reinterpret_cast<sockaddr*>(&address), sizeof(address));
  ::getsockname(s, reinterpret_cast<sockaddr*>(&address), &length);
  ::close(s);
  return ntohs(address.sin_port);
}

/** @brief An installation with a UI folder and the agent's server listening on loopback. */
void StartServer() {
  const auto install = kro::fuzz::ScratchDir() / "install";
  std::filesystem::create_directories(install / "User Interface" / "css");
  kro::fuzz::WriteFile(install / "User Interface" / "index.html", "<p>home</p>");
  kro::fuzz::WriteFile(install / "User Interface" / "fullreports.html", "<p>reports</p>");
  kro::fuzz::WriteFile(install / "User Interface" / "css" / "app.css", "p{}");
  kro::fuzz::UseScratchRegistry();
  kro::WriteRegistryString(install.wstring() + L"/", kro::kSetupKey, kro::kInstallDirValue);

  static KroAgent::RoutineTable routines;
  routines.Register("/arbalo/Requests/info.json", [](const char* request, size_t length,
                                                     const char** answer, size_t* answerLength) {
    *answer = Copy("{\"got\":" + std::to_string(length) + "}");
    *answerLength = std::strlen(*answer);
    (void)request;
    return 0L;
  });
  routines.Register("GetRoleVer",
                    [](const char*, size_t, const char** answer, size_t* answerLength) {
                      *answer = Copy("7.0.222.0");
                      *answerLength = 9;
                      return 0L;
                    });

  Check(nvthreads_init() == NVTHREADS_OK, "the thread library does not start");
  static kro::KroServer* server = new kro::KroServer();
  // Stopped before the statics it uses are destroyed: handlers registered later run earlier.
  std::atexit([] {
    server->Shutdown();
    delete server;
    nvthreads_cleanup();
  });
  server->SetLogger(&kro::fuzz::QuietLogger());
  g_port = FreeLoopbackPort();
  Check(server->Init({{g_port, false}}, &routines, L"", "KroAgent", 0) == kro::status::Ok &&
            server->Start() == kro::status::Ok && server->WaitForStart(std::chrono::seconds(10)) &&
            server->GetState() == kro::kServerRunning,
        "the server does not start");
}

/** @brief Sends `request`, then ends the sending side, and collects the answer to the close. */
std::string Exchange(std::string_view request) {
  const int s = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(g_port);
  if (::connect(s, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 &&
      errno != EINPROGRESS) {
    Fail("no connection to the server", std::strerror(errno));
  }
  std::string answer;
  size_t sent = 0;
  bool sendingDone = false;
  const auto deadline = std::chrono::steady_clock::now() + kAnswerTime;
  for (;;) {
    if (!sendingDone && sent == request.size()) {
      ::shutdown(s, SHUT_WR);
      sendingDone = true;
    }
    pollfd wait{s, static_cast<short>(POLLIN | (sendingDone ? 0 : POLLOUT)), 0};
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      Fail("the connection did not end within 5 s of the client's end",
           std::string(request) + " | " + answer);
    }
    ::poll(&wait, 1, static_cast<int>(left.count()));
    if ((wait.revents & POLLOUT) != 0 && !sendingDone) {
      const ssize_t n = ::send(s, request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
      if (n > 0) {
        sent += static_cast<size_t>(n);
      } else if (n < 0 && errno != EAGAIN) {
        sendingDone = true;  // the server closed early; its answer is still to be read
      }
    }
    if ((wait.revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
      char chunk[16384];
      const ssize_t n = ::recv(s, chunk, sizeof(chunk), 0);
      if (n > 0) {
        answer.append(chunk, static_cast<size_t>(n));
      } else if (n == 0 || errno != EAGAIN) {
        break;
      }
    }
  }
  // No TIME_WAIT left behind: a run opens far more connections than the ports it has.
  const linger reset{1, 0};
  ::setsockopt(s, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
  ::close(s);
  return answer;
}

/** @brief The answers, one after another, as a client reads them. */
void CheckAnswers(std::string_view request, std::string_view answers) {
  const std::string oldBrowserPage = kro::OldBrowserPage(true);
  const std::string shown = std::string(request) + " | " + std::string(answers);
  while (!answers.empty()) {
    if (answers == oldBrowserPage) {
      return;
    }
    http::response_parser<http::string_body> parser;
    parser.body_limit(boost::none);
    parser.header_limit(64 * 1024);
    parser.eager(true);
    boost::beast::error_code ec;
    while (!ec && !parser.is_done() && !answers.empty()) {
      const size_t used = parser.put(boost::asio::buffer(answers.data(), answers.size()), ec);
      answers.remove_prefix(used);
      if (used == 0 && !ec) {
        break;
      }
    }
    if (!ec && !parser.is_done()) {
      parser.put_eof(ec);
    }
    Check(!ec && parser.is_done(), "an answer is no well-formed HTTP", shown);
    const auto& message = parser.get();
    Check(message.result_int() >= 100 && message.result_int() <= 599,
          "an answer has no valid status", shown);
    Check(message.keep_alive() || message.result_int() < 200 || answers.empty(),
          "something follows an answer that announced the close", shown);
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  kro::fuzz::QuietLogger();
  StartServer();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view request = kro::fuzz::Text(data, size);
  CheckAnswers(request, Exchange(request));
  return 0;
}
