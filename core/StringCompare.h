#pragma once

#include <string_view>

// Comparing text without regard to case, the one way the product does it: ASCII letters fold,
// every other byte stands as it is (the texts compared are protocol tokens, keys and names,
// never prose in a locale).
namespace kro {

/** @brief An ASCII capital letter as its small one; any other byte as it is. */
constexpr char FoldAscii(char c) noexcept {
  return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

/** @brief Whether `text` begins with `prefix`, letters compared without regard to case. */
constexpr bool StartsWithIgnoringCase(std::string_view text, std::string_view prefix) noexcept {
  if (text.size() < prefix.size()) {
    return false;
  }
  for (size_t i = 0; i < prefix.size(); ++i) {
    if (FoldAscii(text[i]) != FoldAscii(prefix[i])) {
      return false;
    }
  }
  return true;
}

/** @brief Whether `a` and `b` are the same text, letters compared without regard to case. */
constexpr bool EqualsIgnoringCase(std::string_view a, std::string_view b) noexcept {
  return a.size() == b.size() && StartsWithIgnoringCase(a, b);
}

/**
 * @brief Case-insensitive ordering of narrow strings (ASCII letters fold; other bytes compare
 * as unsigned). Transparent, so maps keyed by std::string can be searched with any string view.
 */
struct case_insensitive_less {
  using is_transparent = void;
  bool operator()(std::string_view a, std::string_view b) const noexcept {
    const size_t n = a.size() < b.size() ? a.size() : b.size();
    for (size_t i = 0; i < n; ++i) {
      const auto ca = static_cast<unsigned char>(FoldAscii(a[i]));
      const auto cb = static_cast<unsigned char>(FoldAscii(b[i]));
      if (ca != cb) {
        return ca < cb;
      }
    }
    return a.size() < b.size();
  }
};

}  // namespace kro
