#include "hlp/HttpAnswer.h"

#include <algorithm>
#include <cstdio>

namespace hlp::detail {

namespace {
constexpr size_t kMaxFormattedBytes = 1 << 20;
}  // namespace

std::string FormatV(const char* format, va_list args) noexcept {
  // The callers' texts are short; the cut only bounds what a bad format could produce.
  if (format == nullptr) {
    return {};
  }
  try {
    va_list measure;
    va_copy(measure, args);
    const int length = std::vsnprintf(nullptr, 0, format, measure);
    va_end(measure);
    if (length <= 0) {
      return {};
    }
    const size_t size = std::min(static_cast<size_t>(length), kMaxFormattedBytes);
    std::string text(size + 1, '\0');
    std::vsnprintf(text.data(), text.size(), format, args);
    text.resize(size);
    return text;
  } catch (...) {
    return {};
  }
}

// Texts land in HTML pages and may echo what a client sent (a URI); they must not become markup.
std::string EscapeHtml(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    switch (c) {
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '&':
        out += "&amp;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

// A header value must not end the header line early (response splitting).
std::string HeaderSafe(std::string_view text) {
  std::string out;
  for (const char c : text) {
    if (c != '\r' && c != '\n' && c != '\0') {
      out += c;
    }
  }
  return out;
}

std::string HtmlPage(unsigned status, std::string_view reason, std::string_view markup) {
  const std::string title = std::to_string(status) + " " + EscapeHtml(reason);
  return "<html><head><title>" + title + "</title></head><body><h1>" + title + "</h1>" +
         std::string(markup) + "</body></html>";
}

std::string BuildAnswer(unsigned status, std::string_view reason, std::string_view type,
                        std::string_view extraHeaders, std::string_view connection,
                        std::string_view body) {
  // Built in place, in one allocation: every routine answer comes through here.
  const std::string safeReason = HeaderSafe(reason);
  const std::string statusText = std::to_string(status);
  const std::string lengthText = std::to_string(body.size());
  std::string answer;
  answer.reserve(96 + safeReason.size() + type.size() + extraHeaders.size() + connection.size() +
                 body.size());
  answer.append("HTTP/1.1 ").append(statusText).append(" ").append(safeReason);
  answer.append("\r\nContent-Type: ").append(type);
  answer.append("\r\nContent-Length: ").append(lengthText).append("\r\n");
  answer.append(extraHeaders);
  if (!connection.empty()) {
    answer.append("Connection: ").append(connection).append("\r\n");
  }
  answer.append("\r\n").append(body);
  return answer;
}

}  // namespace hlp::detail
