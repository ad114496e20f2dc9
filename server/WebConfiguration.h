#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <istream>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

namespace kro {

/** @brief One "Redirect" line of "WebServer.cfg". */
struct RedirectEntry {
  uint32_t code = 0;
  /** @brief Redirect only while the target accepts connections (302, 303, 307). */
  bool conditional = false;
  std::string target;
};

/** @brief The "ReachableOptions" line: connect time-out and the two re-check intervals. */
struct ReachableOptions {
  uint32_t connectTimeout = 5;         // as hlp::TcpClient takes it (seconds)
  uint32_t recheckAfterSuccess = 60;   // seconds
  uint32_t recheckAfterFailure = 300;  // seconds
};

/** @brief What a redirect entry makes of a request. */
enum class RedirectAction {
  ServeLocally,  // serve the (possibly rewritten) URI from the UI folder
  Redirect,      // answer with the entry's code and location
};

/**
 * @brief The request handler's "WebServer.cfg": reachability options, the redirect table and
 * the cache of reachability checks that conditional redirects consult.
 */
class WebConfiguration {
 public:
  /** @brief Now, in 100 ns units (a Windows file time). */
  using Clock = std::function<uint64_t()>;
  /** @brief Tries a TCP connection: host, port, time-out. */
  using Connector = std::function<bool(const std::string&, uint16_t, uint32_t)>;

  WebConfiguration();

  /** @brief For tests: a clock and a connection attempt of their own. */
  void SetClock(Clock clock) { clock_ = std::move(clock); }
  void SetConnector(Connector connector) { connector_ = std::move(connector); }

  /**
   * @brief Reads "WebServer.cfg" beside the host executable. 0; 0x80000011 when there is no
   * such file (the defaults stand); 0x80000024 when the executable's path or the file's path
   * is too long; 0x80000012 when reading fails midway; 0x80000000 on an exception.
   */
  long ReadWebConfiguration();
  /** @brief The same from a given file. */
  long ReadWebConfiguration(const std::filesystem::path& file);
  /** @brief Resets to the defaults and applies every line of `in`. 0x80000012 on a read error. */
  long Parse(std::istream& in);

  /** @brief The entry whose source path is exactly `uri`; 0x80000120 when none. */
  long FindRedirect(const std::string& uri, RedirectEntry& entry) const;

  /**
   * @brief Decides a request: a relative target rewrites `uri` and serves locally; an
   * absolute target redirects (`location`, `code`), when conditional only while reachable.
   */
  RedirectAction ApplyRedirect(std::string& uri, std::string& location, uint32_t& code);

  /** @brief Whether an absolute target accepts connections, from the cache when still fresh. */
  bool IsTargetReachable(const std::string& target);

  /**
   * @brief Splits an absolute "http(s):" target into host and port (443 / 80 by default).
   * False for a relative target.
   */
  static bool ParseAbsoluteTarget(std::string_view target, std::string& host, uint16_t& port);

  ReachableOptions Options() const { return options_; }
  size_t RedirectCount() const { return redirects_.size(); }

 private:
  struct CacheEntry {
    bool checked = false;
    bool reachable = false;
    uint64_t lastCheck = 0;
  };

  void ParseLine(const std::string& line);

  ReachableOptions options_;
  std::map<std::string, RedirectEntry> redirects_;
  std::mutex cacheLock_;
  std::map<std::pair<std::string, uint16_t>, CacheEntry> cache_;
  Clock clock_;
  Connector connector_;
};

}  // namespace kro
