#include "hlp/RequestInfo.h"

#include "core/StringCompare.h"

namespace hlp {
namespace {

// Whether a comma-separated "Connection" value names `option` as one of its tokens.
bool HasToken(std::string_view list, std::string_view option) {
  while (!list.empty()) {
    const size_t comma = list.find(',');
    std::string_view token = list.substr(0, comma);
    while (!token.empty() && (token.front() == ' ' || token.front() == '\t')) {
      token.remove_prefix(1);
    }
    while (!token.empty() && (token.back() == ' ' || token.back() == '\t')) {
      token.remove_suffix(1);
    }
    if (kro::EqualsIgnoringCase(token, option)) {
      return true;
    }
    if (comma == std::string_view::npos) {
      break;
    }
    list.remove_prefix(comma + 1);
  }
  return false;
}

}  // namespace

bool RequestInfo::GetHeader(std::string_view name, std::string& value) const {
  const auto found = headers.find(name);
  if (found == headers.end()) {
    return false;
  }
  value = found->second;
  return true;
}

std::string RequestInfo::Header(std::string_view name) const {
  const auto found = headers.find(name);
  return found == headers.end() ? std::string() : found->second;
}

bool RequestInfo::HasHeader(std::string_view name) const {
  return headers.find(name) != headers.end();
}

bool RequestInfo::KeepAlive() const {
  // A client may send several "Connection" fields; any of them can carry the option.
  bool close = false;
  bool keepAlive = false;
  const auto [first, last] = headers.equal_range(std::string_view("Connection"));
  for (auto field = first; field != last; ++field) {
    close = close || HasToken(field->second, "close");
    keepAlive = keepAlive || HasToken(field->second, "keep-alive");
  }
  if (version >= 11) {
    return !close;
  }
  return keepAlive && !close;
}

}  // namespace hlp
