#include "server/BrowserSessions.h"

#include <gtest/gtest.h>

#include "core/KroStatus.h"

namespace kro {
namespace {

namespace status = kro::status;

constexpr uint64_t kMinute = 60ull * 10'000'000;

TEST(BrowserSessionsTests, EndNodeAdmitsLoopbackOnlyUnlessRemoteUiIsOn) {
  struct Case {
    const char* address;
    uint32_t timeout;
    bool agent;
    bool remoteUI;
    long result;
  };
  const Case cases[] = {{"", 0, true, true, status::WinInvalidParameter},
                        {"10.0.0.5", 0, true, false, status::WinAccessDenied},
                        {"127.0.0.1", 0, true, false, status::Ok},
                        {"127.5.5.5", 0, true, false, status::Ok},
                        {"1270.0.0.1", 0, true, false, status::WinAccessDenied},
                        {"10.0.0.5", 0, true, true, status::Ok},
                        {"10.0.0.5", 0, false, true, status::WinAccessDenied},
                        {"10.0.0.5", 30, true, false, status::Ok}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.address);
    BrowserSessions sessions;
    std::string uri = "/arbalo/index.html";
    EXPECT_EQ(sessions.CheckBrowserAccess(c.address, c.timeout, c.agent, c.remoteUI, uri),
              c.result);
    EXPECT_EQ(uri, "/arbalo/index.html");
  }
}

class ConsoleSessionTests : public testing::Test {
 protected:
  void SetUp() override {
    sessions_.SetClock([this] { return now_; });
  }

  // The URI the console would serve to `address` for a request of `uri`.
  std::string Served(const std::string& address, std::string uri) {
    EXPECT_EQ(sessions_.CheckBrowserAccess(address, 30, false, false, uri), status::Ok);
    return uri;
  }

  static std::string Answer(const char* result) {
    return std::string("HTTP/1.1 200 OK\r\ncontent-Length: 20\r\n\r\n{\"result\":\"") + result +
           "\"}";
  }

  BrowserSessions sessions_;
  uint64_t now_ = 1'000'000 * kMinute;
};

TEST_F(ConsoleSessionTests, HtmlNeedsALiveSessionThatLogoutOrAPauseEnds) {
  EXPECT_EQ(Served("10.0.0.5", "/KRO/Master/index.html"), kLoginPageUri);
  EXPECT_EQ(Served("10.0.0.5", "/KRO/Master/app.js"), "/KRO/Master/app.js");
  EXPECT_EQ(Served("10.0.0.5", "/KRO/Master/style.css"), "/KRO/Master/style.css");
  EXPECT_EQ(Served("10.0.0.5", std::string(kLoginUri)), kLoginUri);

  sessions_.UpdateSession("10.0.0.5", kLoginUri, Answer("failure"));
  EXPECT_EQ(Served("10.0.0.5", "/KRO/Master/index.html"), kLoginPageUri);

  sessions_.UpdateSession("10.0.0.5", kLoginUri, Answer("success"));
  EXPECT_EQ(Served("10.0.0.5", "/KRO/Master/index.html"), "/KRO/Master/index.html");
  EXPECT_EQ(Served("10.0.0.6", "/KRO/Master/index.html"), kLoginPageUri);

  // Each admitted page renews the session; a pause longer than the time-out ends it.
  now_ += 29 * kMinute;
  EXPECT_EQ(Served("10.0.0.5", "/KRO/Master/a.html"), "/KRO/Master/a.html");
  now_ += 29 * kMinute;
  EXPECT_EQ(Served("10.0.0.5", "/KRO/Master/a.html"), "/KRO/Master/a.html");
  now_ += 30 * kMinute;
  EXPECT_EQ(Served("10.0.0.5", "/KRO/Master/a.html"), kLoginPageUri);

  // Only a successful logout ends it; other routines' answers do not.
  sessions_.UpdateSession("10.0.0.5", kLoginUri, Answer("success"));
  sessions_.UpdateSession("10.0.0.5", "/KRO/Master/Requests/other.json", Answer("success"));
  EXPECT_EQ(Served("10.0.0.5", "/KRO/Master/index.html"), "/KRO/Master/index.html");
  sessions_.UpdateSession("10.0.0.5", kLogoutUri, Answer("failure"));
  EXPECT_EQ(Served("10.0.0.5", "/KRO/Master/index.html"), "/KRO/Master/index.html");
  sessions_.UpdateSession("10.0.0.5", kLogoutUri, Answer("success"));
  EXPECT_EQ(Served("10.0.0.5", "/KRO/Master/index.html"), kLoginPageUri);
}

}  // namespace
}  // namespace kro
