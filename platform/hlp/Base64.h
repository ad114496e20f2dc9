#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace hlp {

/** @brief Standard Base64 (RFC 4648 alphabet, "=" padding, no line breaks). */
class Base64 {
 public:
  static std::string Encode(const void* data, size_t size);
  /** @brief False (and `out` unchanged) for text that is not canonical padded Base64. */
  static bool Decode(std::string_view text, std::vector<uint8_t>& out);
};

}  // namespace hlp
