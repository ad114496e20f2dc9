#include "hlp/HttpStatus.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(HttpStatusTests, EveryCodeTheAgentSendsHasItsRegisteredPhrase) {
  struct Case {
    unsigned status;
    const char* phrase;
  };
  // Answers, the configurable redirects (300 to 308), the handler's and the server's refusals,
  // and the management server's failure that the dial-home client logs.
  const Case cases[] = {
      {200, "OK"},
      {300, "Multiple Choices"},
      {301, "Moved Permanently"},
      {302, "Found"},
      {303, "See Other"},
      {304, "Not Modified"},
      {305, "Use Proxy"},
      {306, "(Unused)"},
      {307, "Temporary Redirect"},
      {308, "Permanent Redirect"},
      {400, "Bad Request"},
      {403, "Forbidden"},
      {404, "Not Found"},
      {406, "Not Acceptable"},
      {411, "Length Required"},
      {413, "Payload Too Large"},
      {431, "Request Header Fields Too Large"},
      {500, "Internal Server Error"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.status);
    EXPECT_STREQ(hlp::HttpStatusToString(c.status), c.phrase);
  }
  for (unsigned status : {0u, 299u, 999u, 4294967295u}) {
    SCOPED_TRACE(status);
    const char* phrase = hlp::HttpStatusToString(status);
    ASSERT_NE(phrase, nullptr);
    EXPECT_NE(std::string(phrase), "");
    EXPECT_STRNE(phrase, "OK");
  }
}

}  // namespace
