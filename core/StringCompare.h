#pragma once

#include <string_view>

namespace kro {

/**
 * @brief Case-insensitive ordering of narrow strings (ASCII letters fold; other bytes compare
 * as unsigned). Transparent, so maps keyed by std::string can be searched with any string view.
 */
struct case_insensitive_less {
  using is_transparent = void;
  bool operator()(std::string_view a, std::string_view b) const noexcept {
    const size_t n = a.size() < b.size() ? a.size() : b.size();
    for (size_t i = 0; i < n; ++i) {
      const unsigned char ca = Fold(static_cast<unsigned char>(a[i]));
      const unsigned char cb = Fold(static_cast<unsigned char>(b[i]));
      if (ca != cb) {
        return ca < cb;
      }
    }
    return a.size() < b.size();
  }

 private:
  static constexpr unsigned char Fold(unsigned char c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<unsigned char>(c - 'A' + 'a') : c;
  }
};

}  // namespace kro
