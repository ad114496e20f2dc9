#pragma once

#include <map>
#include <string>
#include <string_view>

#include "core/StringCompare.h"

namespace hlp {

/** @brief The request line and the header fields of one request, as the client sent them. */
class RequestInfo {
 public:
  std::string method;     // "GET", "POST", ...
  std::string uri;        // the request target as sent ("/arbalo/index.html?x=1")
  unsigned version = 11;  // 10 for HTTP/1.0, 11 for HTTP/1.1
  /** @brief Header fields by name, names compared without regard to case; values raw. */
  std::multimap<std::string, std::string, kro::case_insensitive_less> headers;

  /** @brief The first field of that name; false (value untouched) when absent. */
  bool GetHeader(std::string_view name, std::string& value) const;
  /** @brief The first field of that name, or "" when absent. */
  std::string Header(std::string_view name) const;
  bool HasHeader(std::string_view name) const;
  /** @brief Whether the client wants the connection kept open after this request. */
  bool KeepAlive() const;
};

}  // namespace hlp
