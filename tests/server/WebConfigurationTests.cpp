#include "server/WebConfiguration.h"

#include <gtest/gtest.h>

#include <sstream>
#include <tuple>

#include "core/KroStatus.h"
#include "tests/support/TestSupport.h"

namespace kro {
namespace {

namespace status = kro::status;

constexpr uint64_t kSecond = 10'000'000;

class WebConfigurationTests : public testing::Test {
 protected:
  void SetUp() override {
    config_.SetClock([this] { return now_; });
    config_.SetConnector([this](const std::string& host, uint16_t port, uint32_t timeout) {
      ++connects_;
      lastTarget_ = host + ":" + std::to_string(port) + "/" + std::to_string(timeout);
      return reachable_;
    });
  }

  void Parse(const std::string& text) {
    std::istringstream in(text);
    ASSERT_EQ(config_.Parse(in), status::Ok);
  }

  WebConfiguration config_;
  uint64_t now_ = 1000 * kSecond;
  bool reachable_ = true;
  int connects_ = 0;
  std::string lastTarget_;
};

TEST_F(WebConfigurationTests, LinesWithMissingFieldsOrBadCodesAreSkipped) {
  Parse(
      "# comment\n"
      "\n"
      "   ReachableOptions 1 2\n"
      "Redirect 301 /a http://example.test/a\n"
      "  redirect 306 /b http://example.test/b\r\n"
      "Redirect 302 /c\n"
      "Redirect 299 /d /x\n"
      "Redirect 309 /e /x\n"
      "REDIRECT 307 /f /kro/f.html\n"
      "Unknown 1 2 3\n"
      "   # Redirect 301 /g /x\n");
  const ReachableOptions options = config_.Options();
  EXPECT_EQ(options.connectTimeout, 5u);
  EXPECT_EQ(options.recheckAfterSuccess, 60u);
  EXPECT_EQ(options.recheckAfterFailure, 300u);
  EXPECT_EQ(config_.RedirectCount(), 3u);

  const std::tuple<const char*, long, uint32_t, bool> cases[] = {
      {"/a", status::Ok, 301, false},     {"/b", status::Ok, 306, false},
      {"/f", status::Ok, 307, true},      {"/c", status::NotFound, 0, false},
      {"/d", status::NotFound, 0, false}, {"/e", status::NotFound, 0, false},
      {"/g", status::NotFound, 0, false}, {"/A", status::NotFound, 0, false}};
  for (const auto& [source, result, code, conditional] : cases) {
    SCOPED_TRACE(source);
    RedirectEntry entry;
    EXPECT_EQ(config_.FindRedirect(source, entry), result);
    EXPECT_EQ(entry.code, code);
    EXPECT_EQ(entry.conditional, conditional);
  }

  // A file read anew replaces what was there; a missing one leaves the defaults.
  kro::test::TempDir dir;
  Parse("ReachableOptions 7 8 9\n");
  EXPECT_EQ(config_.Options().recheckAfterFailure, 9u);
  EXPECT_EQ(config_.RedirectCount(), 0u);
  EXPECT_EQ(config_.ReadWebConfiguration(dir.Path() / "WebServer.cfg"), status::FileOpenFailed);
  EXPECT_EQ(config_.Options().connectTimeout, 5u);
  EXPECT_EQ(config_.RedirectCount(), 0u);

  const auto file = dir.Write("WebServer.cfg", "Redirect 303 /x https://h:444/y\n");
  EXPECT_EQ(config_.ReadWebConfiguration(file), status::Ok);
  EXPECT_EQ(config_.RedirectCount(), 1u);
}

TEST_F(WebConfigurationTests, RedirectsFollowTheirCodeAndTarget) {
  Parse(
      "Redirect 301 /moved http://example.test/new\n"
      "Redirect 302 /maybe http://example.test/maybe\n"
      "Redirect 306 /never https://example.test/never\n"
      "Redirect 307 /local /arbalo/other.html\n");
  struct Case {
    const char* uri;
    bool reachable;
    RedirectAction action;
    const char* uriAfter;
    uint32_t code;
    int connects;
  };
  const Case cases[] = {{"/moved", false, RedirectAction::Redirect, "/moved", 301, 0},
                        {"/never", false, RedirectAction::Redirect, "/never", 306, 0},
                        {"/maybe", false, RedirectAction::ServeLocally, "/maybe", 0, 1},
                        {"/local", true, RedirectAction::ServeLocally, "/arbalo/other.html", 0, 0},
                        {"/none", true, RedirectAction::ServeLocally, "/none", 0, 0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.uri);
    connects_ = 0;
    reachable_ = c.reachable;
    std::string uri = c.uri;
    std::string location;
    uint32_t code = 0;
    EXPECT_EQ(config_.ApplyRedirect(uri, location, code), c.action);
    EXPECT_EQ(uri, c.uriAfter);
    EXPECT_EQ(code, c.code);
    EXPECT_EQ(connects_, c.connects);
  }
  // Once the target answers (after the failure interval), the conditional redirect is sent.
  now_ += 300 * kSecond;
  reachable_ = true;
  std::string uri = "/maybe";
  std::string location;
  uint32_t code = 0;
  EXPECT_EQ(config_.ApplyRedirect(uri, location, code), RedirectAction::Redirect);
  EXPECT_EQ(location, "http://example.test/maybe");
  EXPECT_EQ(code, 302u);
  EXPECT_EQ(lastTarget_, "example.test:80/5");  // host, port and connect time-out (s)
}

}  // namespace
}  // namespace kro
