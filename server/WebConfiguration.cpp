#include "server/WebConfiguration.h"

#include <cstdio>
#include <cstring>
#include <fstream>

#include "common/FilePath.h"
#include "common/WinHelper.h"
#include "core/KroStatus.h"
#include "core/StringCompare.h"
#include "hlp/TcpClient.h"
#include "server/RequestChecks.h"

namespace kro {
namespace {

constexpr size_t kMaxExecutablePath = 259;
constexpr size_t kMaxConfigurationPath = 279;
constexpr uint64_t kFileTimeTicksPerSecond = 10'000'000;

bool IsSpace(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

}  // namespace

WebConfiguration::WebConfiguration()
    : clock_(&CurrentFileTime),
      connector_([](const std::string& host, uint16_t port, uint32_t timeout) {
        hlp::TcpClient client(host, port, timeout);
        return client.Connect();
      }) {}

long WebConfiguration::ReadWebConfiguration() {
  try {
    std::wstring executable;
    long st = GetHostExecutablePath(executable);
    if (st == status::OutOfRange || (st == status::Ok && executable.size() > kMaxExecutablePath)) {
      return status::PathTooLong;
    }
    if (st != status::Ok) {
      return st;
    }
    const size_t folderEnd = executable.find_last_of(L"\\/");
    std::wstring file = executable.substr(0, folderEnd == std::wstring::npos ? 0 : folderEnd + 1);
    file += L"WebServer.cfg";
    if (file.size() > kMaxConfigurationPath) {
      return status::PathTooLong;
    }
    return ReadWebConfiguration(ToFilePath(file));
  } catch (...) {
    return status::Failure;
  }
}

long WebConfiguration::ReadWebConfiguration(const std::filesystem::path& file) {
  try {
    options_ = ReachableOptions{};
    redirects_.clear();
    std::ifstream in(file);
    if (!in) {
      return status::FileOpenFailed;
    }
    return Parse(in);
  } catch (...) {
    return status::Failure;
  }
}

long WebConfiguration::Parse(std::istream& in) {
  options_ = ReachableOptions{};
  redirects_.clear();
  std::string line;
  while (std::getline(in, line)) {
    ParseLine(line);
  }
  return in.bad() ? status::FileReadFailed : status::Ok;
}

void WebConfiguration::ParseLine(const std::string& line) {
  size_t start = 0;
  while (start < line.size() && IsSpace(line[start])) {
    ++start;
  }
  if (start == line.size() || line[start] == '#') {
    return;
  }
  const char* text = line.c_str() + start;
  char keyword[41] = {};
  if (std::sscanf(text, "%40s", keyword) != 1) {
    return;
  }
  if (EqualsIgnoringCase(keyword, "ReachableOptions")) {
    unsigned int timeout = 0;
    unsigned int afterSuccess = 0;
    unsigned int afterFailure = 0;
    if (std::sscanf(text, "%*40s %u %u %u", &timeout, &afterSuccess, &afterFailure) == 3) {
      options_ = ReachableOptions{timeout, afterSuccess, afterFailure};
    }
  } else if (EqualsIgnoringCase(keyword, "Redirect")) {
    unsigned int code = 0;
    char source[261] = {};
    char target[261] = {};
    if (std::sscanf(text, "%*40s %u %260s %260s", &code, source, target) != 3) {
      return;
    }
    if (code < 300 || code > 308) {
      return;
    }
    // 306 is grouped with the unconditional codes on purpose.
    const bool conditional = code == 302 || code == 303 || code == 307;
    redirects_[source] = RedirectEntry{code, conditional, target};
  }
}

long WebConfiguration::FindRedirect(const std::string& uri, RedirectEntry& entry) const {
  const auto it = redirects_.find(uri);
  if (it == redirects_.end()) {
    return status::NotFound;
  }
  entry = it->second;
  return status::Ok;
}

RedirectAction WebConfiguration::ApplyRedirect(std::string& uri, std::string& location,
                                               uint32_t& code) {
  RedirectEntry entry;
  if (FindRedirect(uri, entry) != status::Ok) {
    return RedirectAction::ServeLocally;
  }
  std::string host;
  uint16_t port = 0;
  if (!ParseAbsoluteTarget(entry.target, host, port)) {
    uri = entry.target;
    return RedirectAction::ServeLocally;
  }
  if (entry.conditional && !IsTargetReachable(entry.target)) {
    return RedirectAction::ServeLocally;
  }
  location = entry.target;
  code = entry.code;
  return RedirectAction::Redirect;
}

bool WebConfiguration::ParseAbsoluteTarget(std::string_view target, std::string& host,
                                           uint16_t& port) {
  const size_t colon = target.find(':');
  if (colon == std::string_view::npos) {
    return false;
  }
  const std::string_view scheme = target.substr(0, colon);
  const bool https = EqualsIgnoringCase(scheme, "https");
  if (!https && !EqualsIgnoringCase(scheme, "http")) {
    return false;
  }
  size_t at = colon + 1;
  while (at < target.size() && (target[at] == '/' || target[at] == '\\')) {
    ++at;
  }
  const size_t hostEnd = target.find_first_of(":/", at);
  host = std::string(
      target.substr(at, hostEnd == std::string_view::npos ? std::string_view::npos : hostEnd - at));
  port = https ? 443 : 80;
  if (hostEnd != std::string_view::npos && target[hostEnd] == ':') {
    // A port that is not a number a TCP port can have reads as 0, which never connects.
    const int number = LeadingInt(target.substr(hostEnd + 1));
    port = (number > 0 && number <= 65535) ? static_cast<uint16_t>(number) : 0;
  }
  return true;
}

bool WebConfiguration::IsTargetReachable(const std::string& target) {
  std::string host;
  uint16_t port = 0;
  if (!ParseAbsoluteTarget(target, host, port)) {
    return false;
  }
  try {
    std::lock_guard<std::mutex> guard(cacheLock_);
    CacheEntry& entry = cache_[{host, port}];
    const uint64_t now = clock_();
    const uint64_t interval =
        uint64_t{entry.reachable ? options_.recheckAfterSuccess : options_.recheckAfterFailure} *
        kFileTimeTicksPerSecond;
    if (entry.checked && now < entry.lastCheck + interval) {
      return entry.reachable;
    }
    entry.reachable = connector_(host, port, options_.connectTimeout);
    entry.lastCheck = now;
    entry.checked = true;
    return entry.reachable;
  } catch (...) {
    return false;
  }
}

}  // namespace kro
