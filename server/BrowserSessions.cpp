#include "server/BrowserSessions.h"

#include "common/WinHelper.h"
#include "core/KroStatus.h"
#include "core/StringCompare.h"
#include "hlp/Json.h"
#include "server/RequestChecks.h"

namespace kro {
namespace {

constexpr uint64_t kFileTimeTicksPerMinute = 60ull * 10'000'000;

bool IsHtmlPage(std::string_view path) {
  const size_t end = path.find_last_not_of(". ");
  if (end == std::string_view::npos) {
    return false;
  }
  path = path.substr(0, end + 1);
  constexpr std::string_view kSuffix = ".html";
  return path.size() >= kSuffix.size() &&
         StartsWithIgnoringCase(path.substr(path.size() - kSuffix.size()), kSuffix);
}

}  // namespace

BrowserSessions::BrowserSessions() : clock_(&CurrentFileTime) {}

long BrowserSessions::CheckBrowserAccess(const std::string& address, uint32_t timeoutMinutes,
                                         bool agent, bool remoteUI, std::string& uri) {
  if (address.empty()) {
    return status::WinInvalidParameter;
  }
  if (agent && remoteUI) {
    return status::Ok;
  }
  if (timeoutMinutes == 0) {
    return LeadingInt(address) == 127 ? status::Ok : status::WinAccessDenied;
  }
  if (!agent && uri != kLoginUri && IsHtmlPage(uri)) {
    try {
      const uint64_t now = clock_();
      std::lock_guard<std::mutex> guard(lock_);
      uint64_t& lastSeen = sessions_[address];
      if (lastSeen != 0 && now < lastSeen + timeoutMinutes * kFileTimeTicksPerMinute) {
        lastSeen = now;
      } else {
        uri = kLoginPageUri;
      }
    } catch (...) {
      uri = kLoginPageUri;
    }
  }
  return status::Ok;
}

void BrowserSessions::UpdateSession(const std::string& address, std::string_view uri,
                                    std::string_view answer) {
  if (address.empty() || answer.empty() || (uri != kLoginUri && uri != kLogoutUri)) {
    return;
  }
  try {
    // The answer is a whole HTTP answer; its JSON follows the header block.
    std::string_view body = answer;
    if (const size_t end = answer.find("\r\n\r\n"); end != std::string_view::npos) {
      body = answer.substr(end + 4);
    }
    hlp::JsonParser parser;
    const auto root = parser.Parse(body);
    const hlp::JsonValue* result = root != nullptr ? root->FindMember("result") : nullptr;
    if (result == nullptr || !result->IsString() || result->GetString() != "success") {
      return;
    }
    const uint64_t now = clock_();
    std::lock_guard<std::mutex> guard(lock_);
    if (uri == kLoginUri) {
      sessions_[address] = now;
    } else {
      sessions_.erase(address);
    }
  } catch (...) {
    // A session that could not be recorded makes the caller log in again; nothing to report.
  }
}

}  // namespace kro
