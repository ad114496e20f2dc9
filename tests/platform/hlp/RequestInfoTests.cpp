#include "hlp/RequestInfo.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

class RequestInfoTests : public testing::Test {};

TEST_F(RequestInfoTests, KeepAliveFollowsVersionAndConnectionTokens) {
  struct Case {
    unsigned version;
    std::vector<const char*> connection;  // "Connection" fields as sent
    bool keepAlive;
  };
  const Case cases[] = {
      {11, {}, true},
      {11, {"close"}, false},
      {11, {"Upgrade, CLOSE"}, false},
      {11, {"keep-alive", "close"}, false},
      {11, {"closed"}, true},  // a different token
      {10, {}, false},
      {10, {"Keep-Alive"}, true},
      {10, {" foo ,keep-alive "}, true},
  };
  for (const Case& row : cases) {
    hlp::RequestInfo request;
    request.version = row.version;
    std::string trace = std::to_string(row.version);
    for (const char* value : row.connection) {
      request.headers.emplace("Connection", value);
      trace += std::string(" [") + value + "]";
    }
    SCOPED_TRACE(trace);
    EXPECT_EQ(request.KeepAlive(), row.keepAlive);
  }
}

TEST_F(RequestInfoTests, HeaderLookupIgnoresCaseAndReturnsTheFirstField) {
  hlp::RequestInfo request;
  request.headers.emplace("Content-Length", "12");
  request.headers.emplace("content-length", "13");
  std::string value = "untouched";
  EXPECT_TRUE(request.GetHeader("CONTENT-LENGTH", value));
  EXPECT_EQ(value, "12");
  EXPECT_EQ(request.Header("content-LENGTH"), "12");
  value = "untouched";
  EXPECT_FALSE(request.GetHeader("Host", value));
  EXPECT_EQ(value, "untouched");
  EXPECT_FALSE(request.HasHeader("Host"));
}

}  // namespace
