#include "dialhome/EndNodeModifyPort.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

#include "agent/RoutineTable.h"
#include "common/KroStatus.h"
#include "tests/support/TestSupport.h"

namespace kro {
namespace {

const std::string kSuccess42 = R"({"result":"success","systemId":"42"})";

std::string ErrorReply(const std::string& systemId) {
  return R"({"result":"error","systemId":")" + systemId +
         R"(","message":"The port is unavailable at the target system"})";
}

std::string Request(const std::string& systemId, const std::string& port) {
  return R"({"systemId":)" + systemId + R"(,"port":)" + port + "}";
}

class EndNodeModifyPortTests : public testing::Test {
 protected:
  /** @brief Calls `routine` the way the server's dispatcher does; the reply, or "" on failure. */
  static std::string Call(const std::function<RoutineFn>& routine, const char* request,
                          size_t requestLen, long& status) {
    const char* response = nullptr;
    size_t responseLen = 0;
    status = routine(request, requestLen, &response, &responseLen);
    if (response == nullptr) {
      return {};
    }
    // The reply doubles as a C string for callers that treat it so.
    EXPECT_EQ(response[responseLen], '\0');
    std::string reply(response, responseLen);
    delete[] response;
    return reply;
  }

  std::string Call(const std::string& request) {
    long status = -1;
    std::string reply = Call(Routine(), request.data(), request.size(), status);
    EXPECT_EQ(status, status::Ok);
    return reply;
  }

  std::function<RoutineFn> Routine() {
    return
        [this](const char* request, size_t requestLen, const char** response, size_t* responseLen) {
          return handler_.ModifyCommunicationPort(request, requestLen, response, responseLen);
        };
  }

  static constexpr uint32_t kUnchanged = 7777;
  std::atomic<uint32_t> pendingPort_{kUnchanged};
  EndNodeModifyPort handler_{pendingPort_};
};

TEST_F(EndNodeModifyPortTests, FreePortIsAcceptedAndBecomesPending) {
  struct Case {
    const char* systemId;
    bool quotePort;
    const char* expectedId;
  };
  const Case cases[] = {
      {R"("42")", true, "42"},
      {"42", false, "42"},  // numbers as JSON numbers
      {R"("18446744073709551615")", true, "18446744073709551615"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.systemId);
    const uint16_t port = test::FreeTcpPort();
    ASSERT_NE(port, 0);
    const std::string portText =
        c.quotePort ? "\"" + std::to_string(port) + "\"" : std::to_string(port);
    pendingPort_ = kUnchanged;
    EXPECT_EQ(Call(Request(c.systemId, portText)),
              R"({"result":"success","systemId":")" + std::string(c.expectedId) + "\"}");
    EXPECT_EQ(pendingPort_.load(), port);
  }
}

TEST_F(EndNodeModifyPortTests, PortSomeoneListensOnIsRefused) {
  namespace net = boost::asio;
  net::io_context io;
  net::ip::tcp::acceptor listener(io);
  const net::ip::tcp::endpoint loopback(net::ip::make_address_v4("127.0.0.1"), 0);
  listener.open(loopback.protocol());
  listener.bind(loopback);
  listener.listen();
  const uint16_t port = listener.local_endpoint().port();

  EXPECT_EQ(TestPortAvailable(port), status::PortUnavailable);
  EXPECT_EQ(Call(Request(R"("42")", "\"" + std::to_string(port) + "\"")), ErrorReply("42"));
  EXPECT_EQ(pendingPort_.load(), kUnchanged);

  // Once the listener is gone the same request succeeds: the refusal was the port's doing.
  listener.close();
  EXPECT_EQ(Call(Request(R"("42")", "\"" + std::to_string(port) + "\"")), kSuccess42);
  EXPECT_EQ(pendingPort_.load(), port);
}

TEST_F(EndNodeModifyPortTests, BadRequestsGetTheErrorReply) {
  // A free port wherever the port is not the fault, so that only the named fault can refuse.
  const std::string port = "\"" + std::to_string(test::FreeTcpPort()) + "\"";
  struct Case {
    std::string request;
    const char* expectedId;  // as far as the request let it be read
  };
  const Case cases[] = {
      {"", "0"},
      {"not json", "0"},
      {R"(["42",8443])", "0"},
      {R"({"systemId":"42"})", "42"},
      {R"({"port":)" + port + "}", "0"},
      {Request(R"("42")", R"("abc")"), "42"},
      {Request(R"("42")", R"("70000")"), "42"},
      {Request(R"("42")", R"("-1")"), "42"},
      {Request(R"("42")", "-1"), "42"},
      {Request(R"("42")", R"("0")"), "42"},
      {Request(R"("42")", R"("8443abc")"), "42"},
      {Request(R"("42")", "{}"), "42"},
      {Request(R"("x")", port), "0"},
      {Request(R"("-1")", port), "0"},
      {Request(R"("18446744073709551616")", port), "0"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.request);
    EXPECT_EQ(Call(c.request), ErrorReply(c.expectedId));
    EXPECT_EQ(pendingPort_.load(), kUnchanged);
  }

  long status = 0;
  EXPECT_EQ(Call(Routine(), nullptr, 0, status), ErrorReply("0"));
  EXPECT_EQ(status, status::Ok);
  EXPECT_EQ(handler_.ModifyCommunicationPort("{}", 2, nullptr, nullptr), status::NotAvailable);
}

TEST_F(EndNodeModifyPortTests, RegistrationClearsPendingPortAndIsFoundInAnyCase) {
  KroAgent::RoutineTable routines;
  EXPECT_EQ(handler_.Register(routines), status::Ok);
  EXPECT_EQ(pendingPort_.load(), 0u);

  std::function<RoutineFn> routine;
  ASSERT_TRUE(routines.Find("modifycommunicationPORT", routine));
  const uint16_t port = test::FreeTcpPort();
  const std::string request = Request(R"("42")", std::to_string(port));
  long status = -1;
  EXPECT_EQ(Call(routine, request.data(), request.size(), status), kSuccess42);
  EXPECT_EQ(status, status::Ok);
  EXPECT_EQ(pendingPort_.load(), port);
}

}  // namespace
}  // namespace kro
