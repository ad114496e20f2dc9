#include "server/BrowserRouter.h"

#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>

#include "common/WinHelper.h"
#include "core/KroStatus.h"
#include "tests/support/TestSupport.h"

namespace kro {
namespace {

namespace status = kro::status;

TEST(BrowserRouterTests, ContentTypeComesFromTheExactLowerCaseExtension) {
  const char* const js = "application/x-javascript";
  const std::pair<const char*, const char*> cases[] = {
      {"a.html", "text/html"},  {"a.htm", "text/html"},
      {"b.css", "text/css"},    {"c.js", js},
      {"c.javascript", js},     {"c.JS", ""},
      {"d.txt", "text/plain"},  {"e.pdf", "application/pdf"},
      {"f.gif", "image/gif"},   {"g.jpg", "image/jpeg"},
      {"g.jpeg", "image/jpeg"}, {"h.png", "image/png"},
      {"i.tiff", "image/tiff"}, {"j.xml", "application/xml"},
      {"k.json", ""},           {"archive.tar.gz", ""},
      {"no_extension", ""}};

  for (const auto& [path, type] : cases) {
    SCOPED_TRACE(path);
    EXPECT_EQ(ContentTypeFor(path), type);
  }
}

// The header letters and the cache line are checked over a socket by the server's tests.
TEST(BrowserRouterTests, HeaderGoesInFrontOnlyWhereThereIsRoom) {
  AnswerBuffer tight;
  ASSERT_EQ(tight.Allocate(40), status::Ok);
  tight.length = 4;
  EXPECT_EQ(PrependAnswerHeader(tight, "text/html"), status::BufferTooSmall);
  EXPECT_EQ(tight.length, 4u);
  AnswerBuffer none;
  EXPECT_EQ(PrependAnswerHeader(none, "text/html"), status::WinInvalidParameter);
}

class BrowserRouterServeTests : public testing::Test {
 protected:
  void SetUp() override {
    install_.Write("secret.txt", "outside");
    install_.Write("User Interface/index.html", "<p>home</p>");
    install_.Write("User Interface/app.JS", "js");
    install_.Write("User Interface/fullreports.html", "full");
    install_.Write("User Interface/common/site.css", "css");
    install_.Write("User Interface/master/index.html", "master");
    install_.Write("User Interface/caf\xc3\xa9.html", "accent");
    routines_.Register("/arbalo/Requests/status.json", Answering("{\"whole\":1}"));
    routines_.Register("last.json", Answering("{\"last\":1}"));
    routines_.Register("throws.json", [](const char*, size_t, const char**, size_t*) -> long {
      throw std::runtime_error("routine failed");
    });
  }

  static std::function<RoutineFn> Answering(std::string text) {
    return [text](const char*, size_t, const char** answer, size_t* length) {
      char* out = new char[text.size()];
      std::memcpy(out, text.data(), text.size());
      *answer = out;
      *length = text.size();
      return 0L;
    };
  }

  std::string Serve(const std::string& uri, bool agent, long expected = status::Ok) {
    std::wstring folder = install_.Path().wstring() + kPathSeparator + L"User Interface";
    BrowserRouter router(&routines_, folder + kPathSeparator, 0);
    AnswerBuffer answer;
    EXPECT_EQ(router.ServeBrowserRequest(uri, "", 0, agent, answer) == status::Ok,
              expected == status::Ok);
    return std::string(answer.View());
  }

  kro::test::TempDir install_;
  KroAgent::RoutineTable routines_;
};

TEST_F(BrowserRouterServeTests, FilesAndRoutinesAnswerWithTheirHeaders) {
  struct Case {
    const char* uri;
    bool agent;
    bool served;
    const char* typeLine;
    const char* body;
  };
  const Case cases[] = {
      {"/", true, true, "content-Type: text/html\r\n", "<p>home</p>"},
      // The addresses a person types: the start page, whatever follows the folder's name.
      {"/?lang=en", true, true, "content-Type: text/html\r\n", "<p>home</p>"},
      {"/arbalo/", true, true, "content-Type: text/html\r\n", "<p>home</p>"},
      {"/kro/master/", false, true, "content-Type: text/html\r\n", "master"},
      {"/arbalo/index.html?v=3", true, true, "content-Type: text/html\r\n", "<p>home</p>"},
      {"/arbalo/app.JS", true, true, "content-Type: \r\n", "js"},
      {"/arbalo/reports.html", true, true, "content-Type: text/html\r\n", "full"},
      {"/kro/common/site.css", false, true, "content-Type: text/css\r\n", "css"},
      {"/", false, true, "content-Type: text/html\r\n", "master"},
      {"/arbalo/index.html", false, false, "", ""},
      {"/arbalo/Requests/status.json", true, true, "application/json", "{\"whole\":1}"},
      {"/kro/x/last.json", false, true, "application/json", "{\"last\":1}"},
      {"/kro/x/last.json", true, false, "", ""},
      {"/arbalo/throws.json", true, false, "", ""},
      {"/arbalo/../secret.txt", true, false, "", ""},
      // Escapes are decoded before the normalising, so they cannot smuggle a climb past it.
      {"/arbalo/%69ndex.html", true, true, "content-Type: text/html\r\n", "<p>home</p>"},
      {"/arbalo/%2E%2E%5Csecret.txt", true, false, "", ""},
      {"/arbalo/index.html%00.txt", true, false, "", ""},
      // File names are UTF-8, as they come or percent-encoded.
      {"/arbalo/caf\xc3\xa9.html", true, true, "content-Type: text/html\r\n", "accent"},
      {"/arbalo/caf%C3%A9.html?v=2", true, true, "content-Type: text/html\r\n", "accent"},
      // Another spelling of a page on Windows (a file stream, a short name) is not a UI file.
      {"/arbalo/index.html::$DATA", true, false, "", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.uri);
    const std::string answer = Serve(c.uri, c.agent, c.served ? status::Ok : status::NotFound);
    if (!c.served) {
      continue;
    }
    const bool json = std::strcmp(c.typeLine, "application/json") == 0;
    EXPECT_EQ(
        answer.find("Cache-Control: No-store, No-cache, must-revalidate\r\n") != std::string::npos,
        json);
    EXPECT_NE(answer.find(json ? "content-Type: application/json\r\n" : c.typeLine),
              std::string::npos);
    EXPECT_EQ(answer.substr(answer.find("\r\n\r\n") + 4), c.body);
  }
}

}  // namespace
}  // namespace kro
