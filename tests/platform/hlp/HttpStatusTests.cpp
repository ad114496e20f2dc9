#include "hlp/HttpStatus.h"

#include <gtest/gtest.h>

#include <string>

namespace {

class HttpStatusTests : public testing::Test {};

TEST_F(HttpStatusTests, KnownCodesHaveTheirPhraseAndOthersAText) {
  struct Case {
    unsigned status;
    const char* phrase;
  };
  const Case cases[] = {
      {200, "OK"},
      {404, "Not Found"},
      {500, "Internal Server Error"},
      {401, "Unauthorized"},
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
