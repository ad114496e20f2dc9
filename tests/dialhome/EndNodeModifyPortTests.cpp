#include "dialhome/EndNodeModifyPort.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <tuple>

#include "core/KroStatus.h"
#include "core/RoutineTable.h"
#include "tests/support/Routines.h"
#include "tests/support/TestSupport.h"

namespace kro {
namespace {

const std::string kSuccess42 = R"(0 {"result":"success","systemId":"42"})";

std::string ErrorReply(const std::string& systemId) {
  return R"(0 {"result":"error","systemId":")" + systemId +
         R"(","message":"The port is unavailable at the target system"})";
}

std::string Request(const std::string& systemId, const std::string& port) {
  return R"({"systemId":)" + systemId + R"(,"port":)" + port + "}";
}

std::string Quoted(uint16_t port) {
  // Named: on a temporary, mingw's g++ 12 reports a false -Wrestrict overlap.
  const std::string digits = std::to_string(port);
  return "\"" + digits + "\"";
}

class EndNodeModifyPortTests : public testing::Test {
 protected:
  /** @brief Calls the routine the way the server's dispatcher does: "<status> <reply>". */
  std::string Call(const std::string& request) {
    return test::CallRoutine(
        [this](const char* in, size_t inLen, const char** out, size_t* outLen) {
          return handler_.ModifyCommunicationPort(in, inLen, out, outLen);
        },
        request);
  }

  static constexpr uint32_t kUnchanged = 7777;
  std::atomic<uint32_t> pendingPort_{kUnchanged};
  EndNodeModifyPort handler_{pendingPort_};
};

TEST_F(EndNodeModifyPortTests, FormsStreamExtractionReadsAreAccepted) {
  // Each form names the free port p: blanks and a sign are taken, reading stops at the first
  // other character, a minus wraps modulo 2^16 (2^64 for the system id).
  struct Case {
    const char* what;
    const char* systemId;
    const char* before;  // the port text: before, the number, after
    bool negated;        // the number is 65536 - p
    const char* after;
    const char* expectedId;
  };
  const Case cases[] = {
      {"quoted", R"("42")", "\"", false, "\"", "42"},
      {"numbers", "42", "", false, "", "42"},
      {"largest id", R"("18446744073709551615")", "\"", false, "\"", "18446744073709551615"},
      {"blanks and plus", R"(" +42")", "\" +", false, "\"", "42"},
      {"text after the number", R"("42abc")", "\"", false, "abc\"", "42"},
      {"fraction", R"("42")", "\"", false, ".9\"", "42"},
      {"minus wraps", R"("-1")", "\"-", true, "\"", "18446744073709551615"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const uint16_t port = test::FreeTcpPort();
    std::string text = c.before;
    text += std::to_string(c.negated ? 65536 - port : port);
    text += c.after;
    pendingPort_ = kUnchanged;
    std::string expected = R"(0 {"result":"success","systemId":")";
    expected += c.expectedId;
    expected += "\"}";
    EXPECT_EQ(Call(Request(c.systemId, text)), expected);
    EXPECT_EQ(pendingPort_.load(), port);
  }
  // Port 0 binds as well as any: it is taken as it comes.
  EXPECT_EQ(Call(Request(R"("42")", R"("0")")), kSuccess42);
  EXPECT_EQ(pendingPort_.load(), 0u);
}

TEST_F(EndNodeModifyPortTests, PortSomeoneListensOnIsRefused) {
  test::LoopbackListener listener;
  const std::string request = Request(R"("42")", Quoted(listener.Port()));
  EXPECT_EQ(TestPortAvailable(listener.Port()), status::PortUnavailable);
  EXPECT_EQ(Call(request), ErrorReply("42"));
  EXPECT_EQ(pendingPort_.load(), kUnchanged);

  // Once the listener is gone the same request succeeds: the refusal was the port's doing.
  listener.Close();
  EXPECT_EQ(Call(request), kSuccess42);
  EXPECT_EQ(pendingPort_.load(), listener.Port());
}

TEST_F(EndNodeModifyPortTests, BadRequestsGetTheErrorReply) {
  // A free port wherever the port is not the fault, so that only the named fault can refuse.
  const std::string port = Quoted(test::FreeTcpPort());
  // expectedId: as far as the request let it be read
  const std::pair<std::string, const char*> cases[] = {
      {"", "0"},
      {"not json", "0"},
      {R"(["42",8443])", "0"},
      {R"({"systemId":"42"})", "42"},
      {R"({"port":)" + port + "}", "0"},
      {Request(R"("42")", R"("abc")"), "42"},
      {Request(R"("42")", R"("")"), "42"},
      {Request(R"("42")", R"("-")"), "42"},
      {Request(R"("42")", R"("70000")"), "42"},
      {Request(R"("42")", R"("-70000")"), "42"},
      {Request(R"("42")", "{}"), "42"},
      {Request(R"("x")", port), "0"},
      {Request(R"("18446744073709551616")", port), "0"},
  };
  for (const auto& [request, expectedId] : cases) {
    SCOPED_TRACE(request);
    EXPECT_EQ(Call(request), ErrorReply(expectedId));
    EXPECT_EQ(pendingPort_.load(), kUnchanged);
  }
  EXPECT_EQ(handler_.ModifyCommunicationPort("{}", 2, nullptr, nullptr), status::NotAvailable);
}

}  // namespace
}  // namespace kro
