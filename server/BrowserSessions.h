#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

namespace kro {

/** @brief The login routine's URI, the one ".json" request that never needs a session. */
inline constexpr std::string_view kLoginUri = "/KRO/Master/Requests/login.json";
inline constexpr std::string_view kLogoutUri = "/KRO/Master/Requests/logout.json";
/** @brief Served instead of an HTML page while the caller has no live session. */
inline constexpr std::string_view kLoginPageUri = "/KRO/Master/login.html";

/**
 * @brief Admission of browser clients: by address on an end node, by a per-address session
 * that a login opens on a console server.
 */
class BrowserSessions {
 public:
  /** @brief Now, in 100 ns units (a Windows file time). */
  using Clock = std::function<uint64_t()>;

  BrowserSessions();
  void SetClock(Clock clock) { clock_ = std::move(clock); }

  /**
   * @brief 0 to admit; 87 for an unknown address, 5 for a remote client of a server without
   * sessions. On a console server an HTML request without a live session is admitted with
   * `uri` replaced by the login page. `uri` is the path as it will be served (RoutedPath); its
   * ".html" is recognised in any case and before trailing dots and blanks, which Windows
   * ignores when it opens the file.
   */
  long CheckBrowserAccess(const std::string& address, uint32_t timeoutMinutes, bool agent,
                          bool remoteUI, std::string& uri);

  /** @brief Opens or ends the address's session after a successful login or logout answer. */
  void UpdateSession(const std::string& address, std::string_view uri, std::string_view answer);

 private:
  std::mutex lock_;
  // Last seen, as a file time; 0 (a new or logged-out address) is always expired.
  std::map<std::string, uint64_t> sessions_;
  Clock clock_;
};

}  // namespace kro
