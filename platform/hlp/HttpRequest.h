#pragma once

#include <map>
#include <string>
#include <utility>

#include "core/StringCompare.h"

namespace hlp {

/** @brief A request for HttpClient: a POST when it has a body, a GET otherwise. */
class HttpRequest {
 public:
  explicit HttpRequest(std::string path) : path_(std::move(path)) {}

  void SetHeader(const std::string& name, const std::string& value) { headers_[name] = value; }
  void SetBody(std::string body) { body_ = std::move(body); }

  const std::string& Path() const { return path_; }
  const std::string& Body() const { return body_; }
  const std::map<std::string, std::string, kro::case_insensitive_less>& Headers() const {
    return headers_;
  }

 private:
  std::string path_;
  std::map<std::string, std::string, kro::case_insensitive_less> headers_;
  std::string body_;
};

/** @brief What the server answered. */
struct HttpResponse {
  unsigned int status = 0;
  std::string body;
};

}  // namespace hlp
