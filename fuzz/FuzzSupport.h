#pragma once

// What every fuzz target shares: quiet logging, a scratch folder, and the way a broken promise
// of the code under test ends the run.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "logging_support/logging_support.h"

namespace kro::fuzz {

/** @brief The input as text, bytes as they are. */
inline std::string_view Text(const uint8_t* data, size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

/**
 * @brief Ends the run when a property the code promises does not hold: prints what broke (with
 * the offending text, non-printable bytes escaped) and aborts, so libFuzzer keeps the input.
 */
[[noreturn]] void Fail(const char* what, std::string_view detail = {});

/** @brief Fail(what, detail) unless `holds`. */
inline void Check(bool holds, const char* what, std::string_view detail = {}) {
  if (!holds) {
    Fail(what, detail);
  }
}

/**
 * @brief A logger whose records go through a real sink into /dev/null, installed on the
 * calling thread: log statements are evaluated as in the agent, arguments included, and print
 * nothing. Hand it to servers whose threads install a logger of their own.
 */
logging_support::logger_type& QuietLogger();

/** @brief A fresh folder of this process under TMPDIR (the script points that at its scratch). */
const std::filesystem::path& ScratchDir();

/** @brief Whether `text` is well-formed UTF-8 (no overlong forms, no surrogates, none beyond
 * U+10FFFF). */
bool IsUtf8(std::string_view text);

/** @brief Replaces `file` with `content`, bytes as they are. False when it cannot be written. */
bool WriteFile(const std::filesystem::path& file, std::string_view content);

/** @brief Points KRO_REGISTRY_FILE at an empty registry file in the scratch folder. */
std::filesystem::path UseScratchRegistry();

}  // namespace kro::fuzz
