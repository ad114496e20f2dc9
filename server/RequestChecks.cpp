#include "server/RequestChecks.h"

#include <climits>

#include "core/KroStatus.h"
#include "core/StringCompare.h"

namespace kro {
namespace {

constexpr std::string_view kComponents[] = {"KroMaster", "KroSysMgr", "KroAgent", "KroProduct"};
constexpr std::string_view kOldBrowsers[] = {"MSIE 8.0", "MSIE 7.0", "MSIE 6.0"};

bool IsBlank(char c) {
  return c == ' ' || c == '\t';
}

}  // namespace

int LeadingInt(std::string_view text) {
  size_t i = 0;
  while (i < text.size() && (text[i] == ' ' || (text[i] >= '\t' && text[i] <= '\r'))) {
    ++i;
  }
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
    negative = text[i] == '-';
    ++i;
  }
  long long value = 0;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    value = value * 10 + (text[i] - '0');
    if (value > static_cast<long long>(INT_MAX) + 1) {
      value = static_cast<long long>(INT_MAX) + 1;
    }
  }
  if (negative) {
    value = -value;
  }
  if (value > INT_MAX) {
    return INT_MAX;
  }
  return static_cast<int>(value);
}

long ClientIdentity(std::string_view userAgent, bool& supported) {
  supported = false;
  const size_t slash = userAgent.find('/');
  if (slash == std::string_view::npos) {
    return status::NotAvailable;
  }
  const std::string_view name = userAgent.substr(0, slash);
  bool known = false;
  for (const std::string_view component : kComponents) {
    known = known || name == component;
  }
  if (!known) {
    return status::UnknownComponent;
  }
  const std::string_view version = userAgent.substr(slash + 1);
  const size_t dot = version.find('.');
  const long long major = LeadingInt(version.substr(0, dot));
  const long long minor = dot == std::string_view::npos ? 0 : LeadingInt(version.substr(dot + 1));
  // OR, not addition: the console has always compared versions this way, so "1.256" stays
  // refused here as everywhere else.
  supported = ((major * 256) | minor) >= 258;
  return status::Ok;
}

ClientClass ClassifyClient(std::string_view userAgent, bool serverIsMasterOrAgent) {
  if (!userAgent.empty()) {
    for (const std::string_view old : kOldBrowsers) {
      if (userAgent.find(old) != std::string_view::npos) {
        return ClientClass::OldBrowser;
      }
    }
  }
  bool supported = false;
  if (ClientIdentity(userAgent, supported) == status::Ok) {
    return supported ? ClientClass::Component : ClientClass::OutdatedComponent;
  }
  return serverIsMasterOrAgent ? ClientClass::Browser : ClientClass::Unsupported;
}

bool IsUriAdmitted(ClientClass client, std::string_view uri) {
  if (client != ClientClass::Component && client != ClientClass::Browser) {
    return false;
  }
  if (StartsWithIgnoringCase(uri, "/kro/") || StartsWithIgnoringCase(uri, "/arbalo/")) {
    return true;
  }
  return client == ClientClass::Browser && uri == "/";
}

bool ParseContentLength(std::string_view value, uint64_t& length) {
  size_t begin = 0;
  size_t end = value.size();
  while (begin < end && IsBlank(value[begin])) {
    ++begin;
  }
  while (end > begin && IsBlank(value[end - 1])) {
    --end;
  }
  if (begin == end) {
    return false;
  }
  uint64_t parsed = 0;
  for (size_t i = begin; i < end; ++i) {
    const char c = value[i];
    if (c < '0' || c > '9') {
      return false;
    }
    const uint64_t digit = static_cast<uint64_t>(c - '0');
    if (parsed > (UINT64_MAX - digit) / 10) {
      return false;
    }
    parsed = parsed * 10 + digit;
  }
  length = parsed;
  return true;
}

std::string OldBrowserPage(bool agent) {
  std::string page = "<html>";
  if (agent) {
    page +=
        "<head><title>Error - Arbalo</title></head>"
        "<body><h2>Arbalo requires Internet Explorer version 9 or greater.</h2><br>";
  } else {
    page +=
        "<head><title>Error - Arbalo Management Console</title></head>"
        "<body><h2>Arbalo Management Console requires Internet Explorer version 9 or "
        "greater.</h2><br>";
  }
  page +=
      "<h2>If you are using version 9 or greater, the Compatibility View Settings must be "
      "disabled.</h2></body>";
  page += "</html>";
  return page;
}

}  // namespace kro
