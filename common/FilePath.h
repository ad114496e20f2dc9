#pragma once

#include <filesystem>
#include <string>

namespace kro {

/**
 * @brief A wide path as a file-system path, the same whatever locale the host process set. On
 * POSIX wchar_t holds UTF-32, which the library converts to UTF-8 only from char32_t: from
 * wchar_t it would use the process's locale, and under the C locale any non-ASCII name throws.
 */
inline std::filesystem::path ToFilePath(const std::wstring& path) {
  if constexpr (sizeof(wchar_t) == sizeof(char32_t)) {
    return std::filesystem::path(std::u32string(path.begin(), path.end()));
  } else {
    return std::filesystem::path(path);
  }
}

}  // namespace kro
