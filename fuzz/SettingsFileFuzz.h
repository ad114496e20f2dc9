#pragma once

// The body of the settings-file targets: one configuration class, its file as the manager
// loads it, and the promises its get routine and its saved file make.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "core/KroStatus.h"
#include "fuzz/FuzzSupport.h"

namespace kro::fuzz {

/** @brief The settings as the get routine answers them; Fail when it has no answer. */
template <typename Settings>
std::string Answered(const Settings& settings) {
  const char* answer = nullptr;
  size_t length = 0;
  Check(settings.GetConfigure(nullptr, 0, &answer, &length) == status::Ok && answer != nullptr,
        "the get routine gives no answer");
  std::string text(answer, length);
  Check(answer[length] == '\0', "the get routine's answer is not zero-terminated", text);
  delete[] answer;
  return text;
}

/**
 * @brief Loads `content` from `file` into fresh settings, then checks that the settings read
 * their own text back unchanged and that merging the same file again changes nothing.
 */
template <typename Settings>
Settings& LoadSettingsFile(Settings& settings, const std::filesystem::path& file,
                           std::string_view content) {
  WriteFile(file, content);
  settings.SetDefaults();
  settings.Load(file.string());

  const std::string loaded = Answered(settings);
  Check(settings.FromJson(loaded.c_str()) == status::Ok, "the settings' own text does not load",
        loaded);
  Check(Answered(settings) == loaded, "the settings' own text loads as other settings", loaded);

  // Load hands the file on as a C string: it ends at the first zero byte.
  const std::string text(content.substr(0, content.find('\0')));
  settings.FromJson(text.c_str());
  Check(Answered(settings) == loaded, "merging the same file twice changes the settings",
        loaded + " | " + text);
  return settings;
}

}  // namespace kro::fuzz
