#include "server/BrowserRouter.h"

#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>

#include "common/KroStatus.h"
#include "common/WinHelper.h"
#include "tests/support/TestSupport.h"

namespace kro {
namespace {

namespace status = kro::status;

TEST(BrowserRouterTests, NormalisingRemovesDotsAndBackslashesAndLeadingSlashRuns) {
  struct Case {
    const char* uri;
    const char* normalised;
  };
  const Case cases[] = {
      {"/arbalo/../../x", "/arbalo///x"},
      {"/arbalo/a\\b\\c.html", "/arbalo/abc.html"},
      {"///arbalo//x", "/arbalo//x"},
      {"/../../etc/passwd", "/etc/passwd"},
      {"/arbalo/...", "/arbalo/."},
      // The removals run in order, so dots split by a backslash come together again.
      {"/arbalo/.\\./x", "/arbalo/../x"},
      {"/", "/"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.uri);
    EXPECT_EQ(NormaliseUri(c.uri), c.normalised);
  }
}

TEST(BrowserRouterTests, ContentTypeComesFromTheExactLowerCaseExtension) {
  struct Case {
    const char* path;
    const char* type;
  };
  const Case cases[] = {
      {"a.html", "text/html"},
      {"a.htm", "text/html"},
      {"b.css", "text/css"},
      {"c.js", "application/x-javascript"},
      {"c.javascript", "application/x-javascript"},
      {"c.JS", ""},
      {"d.txt", "text/plain"},
      {"e.pdf", "application/pdf"},
      {"f.gif", "image/gif"},
      {"g.jpg", "image/jpeg"},
      {"g.jpeg", "image/jpeg"},
      {"h.png", "image/png"},
      {"i.tiff", "image/tiff"},
      {"j.xml", "application/xml"},
      {"k.json", ""},
      {"archive.tar.gz", ""},
      {"no_extension", ""},
  };

  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    EXPECT_EQ(ContentTypeFor(c.path), c.type);
  }
}

TEST(BrowserRouterTests, HeaderLettersAndCacheLineAreExact) {
  struct Case {
    const char* type;
    const char* answer;
  };
  const Case cases[] = {
      {"application/json",
       "HTTP/1.1 200 OK\r\nCache-Control: No-store, No-cache, must-revalidate\r\n"
       "content-Type: application/json\r\ncontent-Length: 4\r\n\r\nbody"},
      {"text/html", "HTTP/1.1 200 OK\r\ncontent-Type: text/html\r\ncontent-Length: 4\r\n\r\nbody"},
      {"", "HTTP/1.1 200 OK\r\ncontent-Type: \r\ncontent-Length: 4\r\n\r\nbody"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.type);
    AnswerBuffer answer;
    ASSERT_EQ(answer.Allocate(4 + kAnswerHeaderRoom), status::Ok);
    std::memcpy(answer.data.get(), "body", 4);
    answer.length = 4;
    ASSERT_EQ(PrependAnswerHeader(answer, c.type), status::Ok);
    EXPECT_EQ(answer.View(), c.answer);
  }

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
      {"/arbalo/any/where/last.json", true, true, "application/json", "{\"last\":1}"},
      {"/kro/x/last.json", false, true, "application/json", "{\"last\":1}"},
      {"/kro/x/last.json", true, false, "", ""},
      {"/arbalo/throws.json", true, false, "", ""},
      {"/arbalo/missing.html", true, false, "", ""},
      {"/arbalo/../secret.txt", true, false, "", ""},
      {"/arbalo/.\\./secret.txt", true, false, "", ""},
      // Escapes are decoded before the normalising, so they cannot smuggle a climb past it.
      {"/arbalo/%69ndex.html", true, true, "content-Type: text/html\r\n", "<p>home</p>"},
      {"/arbalo/%2e%2e/secret.txt", true, false, "", ""},
      {"/arbalo/%2E%2E%5Csecret.txt", true, false, "", ""},
      {"/arbalo/index.html%00.txt", true, false, "", ""},
      // Another spelling of a page on Windows (a file stream, a short name) is not a UI file.
      {"/arbalo/index.html::$DATA", true, false, "", ""},
      {"/arbalo/INDEX~1.HTM", true, false, "", ""},
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

TEST_F(BrowserRouterServeTests, ChangedFilesAreServedAnew) {
  namespace fs = std::filesystem;
  using namespace std::chrono_literals;
  const fs::path file = install_.Path() / "User Interface" / "page.txt";
  const auto longAgo = fs::file_time_type::clock::now() - 1h;
  const auto rewrite = [this](const char* text) {
    install_.Write("User Interface/page.txt", text);
  };
  struct Case {
    const char* name;
    bool settled;  // last written long before the first request, so that its answer may be kept
    std::function<void()> change;
    const char* body;  // what the second request gets; null: it is not served
  };
  const Case cases[] = {
      {"unchanged", true, [] {}, "one"},
      {"rewritten longer", true, [&] { rewrite("three"); }, "three"},
      {"rewritten as long, later", true,
       [&] {
         rewrite("two");
         fs::last_write_time(file, longAgo + 1s);
       },
       "two"},
      // A file read while fresh is read again: a second change within the time stamp's
      // granularity would leave the stamp as it was.
      {"fresh, rewritten under the same stamp", false,
       [&] {
         const auto stamp = fs::last_write_time(file);
         rewrite("two");
         fs::last_write_time(file, stamp);
       },
       "two"},
      {"removed", true, [&] { fs::remove(file); }, nullptr},
      {"replaced by a folder", true,
       [&] {
         fs::remove(file);
         fs::create_directory(file);
       },
       nullptr},
  };
  const std::wstring folder =
      install_.Path().wstring() + kPathSeparator + L"User Interface" + kPathSeparator;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::error_code ignored;
    fs::remove_all(file, ignored);
    rewrite("one");
    if (c.settled) {
      fs::last_write_time(file, longAgo);
    }
    const BrowserRouter router(&routines_, folder, 0);
    const auto serve = [&router](long expected) {
      AnswerBuffer answer;
      EXPECT_EQ(router.ServeBrowserRequest("/arbalo/page.txt", "", 0, true, answer), expected);
      return std::string(answer.View());
    };
    const std::string first = serve(status::Ok);
    EXPECT_EQ(first.substr(first.find("\r\n\r\n") + 4), "one");
    c.change();
    const std::string second = serve(c.body != nullptr ? status::Ok : status::NotFound);
    if (c.body == nullptr) {
      continue;
    }
    EXPECT_NE(second.find("content-Type: text/plain\r\n"), std::string::npos) << second;
    EXPECT_EQ(second.substr(second.find("\r\n\r\n") + 4), c.body);
  }
}

}  // namespace
}  // namespace kro
