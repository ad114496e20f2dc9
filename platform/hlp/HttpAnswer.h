#pragma once

// Internal to the server library: how its answers are put together.

#include <cstdarg>
#include <string>
#include <string_view>

namespace hlp::detail {

/** @brief printf-style text, cut at 1 MiB. Never throws: callers hold a va_list to end. */
std::string FormatV(const char* format, va_list args) noexcept;

/** @brief `text` with the characters that would make markup replaced by entities. */
std::string EscapeHtml(std::string_view text);

/** @brief `text` without the characters that could end a header line early. */
std::string HeaderSafe(std::string_view text);

/** @brief A short page titled "<status> <reason>" around the given (already escaped) markup. */
std::string HtmlPage(unsigned status, std::string_view reason, std::string_view markup);

/**
 * @brief A complete answer: status line, Content-Type, Content-Length, `extraHeaders` (whole
 * lines), a "Connection" field when `connection` is not empty, then the body.
 */
std::string BuildAnswer(unsigned status, std::string_view reason, std::string_view type,
                        std::string_view extraHeaders, std::string_view connection,
                        std::string_view body);

}  // namespace hlp::detail
