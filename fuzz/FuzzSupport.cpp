#include "fuzz/FuzzSupport.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <system_error>

namespace kro::fuzz {

void Fail(const char* what, std::string_view detail) {
  std::string shown;
  for (const char c : detail.substr(0, 2048)) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte < 0x7F && c != '\\') {
      shown += c;
    } else {
      char escaped[8];
      std::snprintf(escaped, sizeof(escaped), "\\x%02x", byte);
      shown += escaped;
    }
  }
  std::fprintf(stderr, "\n==FUZZ CHECK FAILED== %s\n  %s\n", what, shown.c_str());
  std::fflush(stderr);
  std::abort();
}

logging_support::logger_type& QuietLogger() {
  // Leaked on purpose: threads of a server under test may log until the process ends.
  static logging_support::logger_type* const logger = [] {
    auto* created = new logging_support::logger_type();
    logging_support::create_logger_for_product(*created, "fuzz", "/dev/null");
    logging_support::change_severity_cutoff(0);
    return created;
  }();
  logging_support::set_logger_for_thread(*logger);
  return *logger;
}

const std::filesystem::path& ScratchDir() {
  static const std::filesystem::path* const dir = [] {
    std::error_code ec;
    const std::filesystem::path base = std::filesystem::temp_directory_path(ec);
    auto* made = new std::filesystem::path((ec ? std::filesystem::path("/tmp") : base) /
                                           ("kro-fuzz-" + std::to_string(::getpid())));
    std::filesystem::remove_all(*made, ec);
    std::filesystem::create_directories(*made, ec);
    std::atexit([] {
      std::error_code ignored;
      std::filesystem::remove_all(ScratchDir(), ignored);
    });
    return made;
  }();
  return *dir;
}

bool IsUtf8(std::string_view text) {
  for (size_t i = 0; i < text.size();) {
    const auto lead = static_cast<unsigned char>(text[i]);
    size_t trail = 0;
    unsigned char low = 0x80;
    unsigned char high = 0xBF;
    if (lead < 0x80) {
      ++i;
      continue;
    } else if (lead >= 0xC2 && lead <= 0xDF) {
      trail = 1;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      trail = 2;
      low = lead == 0xE0 ? 0xA0 : 0x80;
      high = lead == 0xED ? 0x9F : 0xBF;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      trail = 3;
      low = lead == 0xF0 ? 0x90 : 0x80;
      high = lead == 0xF4 ? 0x8F : 0xBF;
    } else {
      return false;
    }
    for (size_t k = 1; k <= trail; ++k) {
      if (i + k >= text.size()) {
        return false;
      }
      const auto byte = static_cast<unsigned char>(text[i + k]);
      if (byte < (k == 1 ? low : 0x80) || byte > (k == 1 ? high : 0xBF)) {
        return false;
      }
    }
    i += trail + 1;
  }
  return true;
}

bool WriteFile(const std::filesystem::path& file, std::string_view content) {
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out.write(content.data(), static_cast<std::streamsize>(content.size()));
  return static_cast<bool>(out);
}

std::filesystem::path UseScratchRegistry() {
  const std::filesystem::path file = ScratchDir() / "registry.reg";
  WriteFile(file, "Windows Registry Editor Version 5.00\n");
  ::setenv("KRO_REGISTRY_FILE", file.c_str(), 1);
  return file;
}

}  // namespace kro::fuzz
