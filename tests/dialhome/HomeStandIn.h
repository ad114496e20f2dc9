#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

#include "hlp/HttpServerConnection.h"
#include "hlp/RequestInfo.h"
#include "hlp/SSLContext.h"
#include "tests/support/HttpTestSupport.h"

// A management server for tests: it reads framed reports and answers as it is told.
namespace kro::test {

inline std::string Le32(uint32_t v) {
  return {static_cast<char>(v & 0xFF), static_cast<char>((v >> 8) & 0xFF),
          static_cast<char>((v >> 16) & 0xFF), static_cast<char>((v >> 24) & 0xFF)};
}

/** @brief A well-formed reply record around `json` (its zero included). */
inline std::string Reply(const std::string& json) {
  const uint32_t payload = static_cast<uint32_t>(json.size() + 1);
  return Le32(25 + payload) + Le32(9) + Le32(0) + Le32(payload) + std::string("DialHome", 9) +
         json + std::string(1, '\0');
}

/**
 * @brief The request record's JSON; a test failure unless the record is, byte for byte, the
 * header of five little-endian words (total, 0, 9, 0, payload size with its zero), the name
 * "DialHome" with its zero, and the JSON with its zero.
 */
inline std::string UnframeRequest(const std::string& body) {
  const std::string json = body.size() > 30 ? body.substr(29, body.size() - 30) : "";
  const std::string expected = Le32(static_cast<uint32_t>(29 + json.size() + 1)) + Le32(0) +
                               Le32(9) + Le32(0) + Le32(static_cast<uint32_t>(json.size() + 1)) +
                               std::string("DialHome\0", 9) + json + std::string(1, '\0');
  EXPECT_TRUE(body == expected) << "malformed request record of " << body.size() << " bytes";
  EXPECT_EQ(json.find('\0'), std::string::npos);
  return json;
}

/** @brief The management server: records each request and answers as it is told. */
class StandIn {
 public:
  struct Seen {
    std::string method, uri, userAgent, body;
  };

  explicit StandIn(hlp::SSLContext* tls = nullptr)
      : server_(tls != nullptr ? "0s" : "0", tls, 5000,
                [this](hlp::HttpServerConnection& c) { Serve(c); }) {}
  ~StandIn() {
    std::lock_guard<std::mutex> lock(mutex_);
    released_ = true;
    release_.notify_all();
  }

  uint16_t Port() const { return server_.Port(); }
  /** @brief Status 0: read requests but never answer them. */
  void Answer(unsigned status, std::string body) {
    std::lock_guard<std::mutex> lock(mutex_);
    status_ = status;
    body_ = std::move(body);
  }
  /** @brief Runs while a request is being answered. */
  void During(std::function<void()> hook) {
    std::lock_guard<std::mutex> lock(mutex_);
    during_ = std::move(hook);
  }
  std::vector<Seen> Requests() {
    std::lock_guard<std::mutex> lock(mutex_);
    return seen_;
  }

 private:
  void Serve(hlp::HttpServerConnection& connection) {
    hlp::RequestInfo request;
    if (connection.ReadRequest(request) != 0) {
      return;
    }
    std::string body(std::strtoul(request.Header("Content-Length").c_str(), nullptr, 10), '\0');
    if (!body.empty() && connection.Read(body.data(), body.size()) != 0) {
      return;
    }
    std::unique_lock<std::mutex> lock(mutex_);
    seen_.push_back({request.method, request.uri, request.Header("User-Agent"), body});
    if (status_ == 0) {
      release_.wait_for(lock, std::chrono::seconds(10), [this] { return released_; });
      return;
    }
    const std::string answer = "HTTP/1.1 " + std::to_string(status_) +
                               " X\r\nContent-Type: application/octet-stream\r\nContent-Length: " +
                               std::to_string(body_.size()) + "\r\nConnection: close\r\n\r\n" +
                               body_;
    const std::function<void()> during = during_;
    lock.unlock();
    if (during) {
      during();
    }
    connection.Write(answer.data(), answer.size());
  }

  std::mutex mutex_;
  std::condition_variable release_;
  bool released_ = false;
  unsigned status_ = 200;
  std::string body_ = Reply(R"({"result":"success"})");
  std::function<void()> during_;
  std::vector<Seen> seen_;
  LiveServer server_;  // last: stops before the state its workers use goes away
};

/**
 * @brief A management server whose network swallows everything: it takes each connection
 * and never sends a byte, so a TLS handshake waits until its time-out. Counts connections.
 */
class SilentHome {
 public:
  SilentHome() : acceptor_(io_, {boost::asio::ip::address_v4::loopback(), 0}) {
    Accept();
    thread_ = std::thread([this] { io_.run(); });
  }
  ~SilentHome() {
    io_.stop();
    thread_.join();
  }

  uint16_t Port() const { return acceptor_.local_endpoint().port(); }
  int Connections() const { return connections_.load(); }

 private:
  void Accept() {
    acceptor_.async_accept([this](boost::system::error_code ec, boost::asio::ip::tcp::socket s) {
      if (!ec) {
        ++connections_;
        held_.push_back(std::move(s));
        Accept();
      }
    });
  }

  boost::asio::io_context io_;
  boost::asio::ip::tcp::acceptor acceptor_;
  std::vector<boost::asio::ip::tcp::socket> held_;  // only the io thread touches it
  std::atomic<int> connections_{0};
  std::thread thread_;
};

}  // namespace kro::test
