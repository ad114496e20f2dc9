#pragma once

// Internal to hlp: how a number's text from the parser becomes a value.

#include <cstdint>
#include <string_view>

namespace hlp::detail {

/** @brief A JSON number as the parse events deliver it, in the narrowest form that holds it. */
struct JsonNumber {
  enum class Form : uint8_t { kUint, kInt, kUint64, kInt64, kDouble };

  Form form = Form::kUint;
  uint64_t magnitude = 0;  // kUint, kUint64
  int64_t negative = 0;    // kInt, kInt64 (never above zero)
  double real = 0;         // kDouble
};

/**
 * @brief Converts the text of a number that the parser has already found well-formed.
 *
 * Integers without fraction or exponent keep their exact value when they fit 64 bits; anything
 * else becomes the correctly rounded double, independent of the process's locale. A magnitude
 * beyond the double range gives an infinity of the number's sign, one below it a zero. Safe
 * for any text: a malformed one simply gives some value.
 */
JsonNumber ConvertJsonNumber(std::string_view text);

}  // namespace hlp::detail
