#include "hlp/JsonNumber.h"

#include <charconv>
#include <cstdint>
#include <limits>
#include <system_error>

namespace hlp::detail {
namespace {

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

/**
 * @brief True when a number that does not fit a double is too large rather than too small:
 * the power of ten of its first significant digit, exponent included, is above zero.
 */
bool BeyondLargest(std::string_view text) {
  size_t i = text.empty() || text[0] != '-' ? 0 : 1;
  int64_t power = 0;
  bool significant = false;
  for (; i < text.size() && IsDigit(text[i]); ++i) {
    if (significant) {
      ++power;
    } else if (text[i] != '0') {
      significant = true;
    }
  }
  if (i < text.size() && text[i] == '.') {
    for (++i; i < text.size() && IsDigit(text[i]); ++i) {
      if (!significant) {
        --power;
        significant = text[i] != '0';
      }
    }
  }
  if (i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
    ++i;
    const bool minus = i < text.size() && text[i] == '-';
    if (i < text.size() && (text[i] == '-' || text[i] == '+')) {
      ++i;
    }
    // Far beyond any double either way; the bound only keeps the sum from overflowing.
    constexpr int64_t kCap = 1'000'000'000;
    int64_t exponent = 0;
    for (; i < text.size() && IsDigit(text[i]); ++i) {
      exponent = exponent < kCap ? exponent * 10 + (text[i] - '0') : kCap;
    }
    power += minus ? -exponent : exponent;
  }
  return power > 0;
}

JsonNumber Real(std::string_view text) {
  JsonNumber number;
  number.form = JsonNumber::Form::kDouble;
  const char* end = text.data() + text.size();
  const std::from_chars_result result = std::from_chars(text.data(), end, number.real);
  if (result.ec == std::errc::result_out_of_range) {
    const bool minus = !text.empty() && text[0] == '-';
    const double magnitude = BeyondLargest(text) ? std::numeric_limits<double>::infinity() : 0.0;
    number.real = minus ? -magnitude : magnitude;
  } else if (result.ec != std::errc()) {
    number.real = 0;
  }
  return number;
}

}  // namespace

JsonNumber ConvertJsonNumber(std::string_view text) {
  const bool minus = !text.empty() && text[0] == '-';
  if (text.find_first_of(".eE") != std::string_view::npos) {
    return Real(text);
  }
  uint64_t magnitude = 0;
  const char* first = text.data() + (minus ? 1 : 0);
  const char* end = text.data() + text.size();
  const std::from_chars_result result = std::from_chars(first, end, magnitude);
  if (result.ec != std::errc() || result.ptr != end) {
    return Real(text);  // beyond 64 bits
  }
  JsonNumber number;
  if (!minus) {
    number.form = magnitude <= std::numeric_limits<uint32_t>::max() ? JsonNumber::Form::kUint
                                                                    : JsonNumber::Form::kUint64;
    number.magnitude = magnitude;
    return number;
  }
  constexpr uint64_t kInt32Floor = uint64_t{1} << 31;
  constexpr uint64_t kInt64Floor = uint64_t{1} << 63;
  if (magnitude > kInt64Floor) {
    return Real(text);
  }
  number.form = magnitude <= kInt32Floor ? JsonNumber::Form::kInt : JsonNumber::Form::kInt64;
  // Negated in unsigned arithmetic, so -2^63 needs no signed overflow on the way.
  number.negative = static_cast<int64_t>(~magnitude + 1);
  return number;
}

}  // namespace hlp::detail
