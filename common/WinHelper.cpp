#include "common/WinHelper.h"

#include <algorithm>
#include <cstdio>
#include <cwchar>
#include <istream>
#include <new>
#include <string>
#include <utility>

#include "core/KroStatus.h"
#include "hlp/Base64.h"
#include "logging_support/logging_support.h"

namespace kro {

namespace {

// Enough of the input to recognise it in the log without flooding it with a whole document.
constexpr size_t kMaxLoggedInputBytes = 1024;

// Every pattern fits: "MM/DD/YYYY HH:MM AMPM" is 19 characters for any four-digit year.
constexpr size_t kPatternBufferSize = 32;

int TwelveHourClock(int hour) {
  if (hour == 0) {
    return 12;
  }
  return hour > 12 ? hour - 12 : hour;
}

const char* Meridiem(int hour) {
  return hour < 12 ? "AM" : "PM";
}

}  // namespace

void LogConvertFailure(bool wideToMultibyte, const void* input, size_t inputBytes, uint32_t error) {
  try {
    const size_t shown = input != nullptr ? std::min(inputBytes, kMaxLoggedInputBytes) : 0;
    char code[16];
    std::snprintf(code, sizeof(code), "%X", static_cast<unsigned>(error));
    const std::string encoded = hlp::Base64::Encode(shown != 0 ? input : "", shown);
    KRO_LOG_ERROR << (wideToMultibyte ? "Failure to convert wide to multibyte string. ["
                                      : "Failure to convert multibyte to wide string. [")
                  << code << "]: [" << encoded << "]";
  } catch (...) {
    // A failing log must not turn a reported conversion failure into a crash.
  }
}

long ReadWholeStream(std::istream& in, char*& buffer, size_t& length) {
  buffer = nullptr;
  length = 0;
  in.seekg(0, std::ios::end);
  const std::streamoff end = in.tellg();
  if (end < 0) {
    return status::FileReadFailed;
  }
  const size_t size = static_cast<size_t>(end);
  char* data = new (std::nothrow) char[size + 1];
  if (data == nullptr) {
    return status::OutOfMemory;
  }
  data[size] = '\0';
  in.seekg(0, std::ios::beg);
  in.read(data, static_cast<std::streamsize>(size));
  if (static_cast<size_t>(in.gcount()) != size) {
    delete[] data;
    return status::FileReadFailed;
  }
  buffer = data;
  length = size;
  return status::Ok;
}

std::string FileTimeToLocalText(uint64_t fileTime) {
  detail::CalendarTime t;
  if (!detail::FileTimeToCalendar(fileTime, true, t)) {
    return {};
  }
  // Sized for the common case; a five-digit year grows it.
  std::string text(20, '\0');
  for (;;) {
    const int written = std::snprintf(
        text.data(), text.size() + 1, "%4u-%02u-%02u %02u:%02u:%02u", static_cast<unsigned>(t.year),
        static_cast<unsigned>(t.month), static_cast<unsigned>(t.day), static_cast<unsigned>(t.hour),
        static_cast<unsigned>(t.minute), static_cast<unsigned>(t.second));
    if (written < 0) {
      return {};
    }
    if (static_cast<size_t>(written) <= text.size()) {
      text.resize(static_cast<size_t>(written));
      return text;
    }
    text.resize(static_cast<size_t>(written));
  }
}

std::string FormatFileTime(int64_t fileTime, const std::string& pattern) {
  detail::CalendarTime t;
  if (fileTime < 0 || !detail::FileTimeToCalendar(static_cast<uint64_t>(fileTime), false, t)) {
    return {};
  }
  char text[kPatternBufferSize];
  int written = -1;
  if (pattern == "MM/DD/YYYY HH:MM AMPM") {
    written = std::snprintf(text, sizeof(text), "%02d/%02d/%04d %02d:%02d %s", t.month, t.day,
                            t.year, TwelveHourClock(t.hour), t.minute, Meridiem(t.hour));
  } else if (pattern == "MM/DD/YYYY") {
    written = std::snprintf(text, sizeof(text), "%02d/%02d/%04d", t.month, t.day, t.year);
  } else if (pattern == "HH:MM AMPM") {
    written = std::snprintf(text, sizeof(text), "%02d:%02d %s", TwelveHourClock(t.hour), t.minute,
                            Meridiem(t.hour));
  }
  if (written < 0) {
    return {};
  }
  return std::string(text, std::min(static_cast<size_t>(written), sizeof(text) - 1));
}

std::string MakeJobName(const char* prefix) {
  std::string name = "Job_";
  if (prefix != nullptr) {
    name += prefix;
    name += '_';
  }
  std::tm local{};
  if (detail::LocalTimeOf(std::time(nullptr), local)) {
    char stamp[32];
    const size_t written = std::strftime(stamp, sizeof(stamp), "%Y-%m-%d_%H:%M:%S", &local);
    name.append(stamp, written);
  }
  return name;
}

std::string MakeAutomaticJobName(const std::string& name) {
  return "Automatic " + (name.empty() ? std::string("Job") : name);
}

long GetHostDirectory(std::wstring& out) {
  try {
    std::wstring path;
    const long result = GetHostExecutablePath(path);
    if (status::Failed(result)) {
      return result;
    }
    const size_t cut = path.rfind(kPathSeparator);
    if (cut == std::wstring::npos) {
      return status::Failure;
    }
    out.assign(path, 0, cut);
    return status::Ok;
  } catch (...) {
    return status::OutOfMemory;
  }
}

long GetHostDataDirectory(std::wstring& out) {
  try {
    std::wstring folder;
    const long result = GetHostDirectory(folder);
    if (status::Failed(result)) {
      return result;
    }
    folder += kPathSeparator;
    folder += L"Data";
    out = std::move(folder);
    return status::Ok;
  } catch (...) {
    return status::OutOfMemory;
  }
}

void ReadRegistryNumber(int64_t& out, std::wstring key, std::wstring valueName) {
  out = 0;
  std::wstring text;
  ReadRegistryString(text, std::move(key), std::move(valueName));
  if (!text.empty()) {
    // Same rules as _wtoi64: leading blanks, optional sign, digits up to the first other
    // character, clamped on overflow.
    out = std::wcstoll(text.c_str(), nullptr, 10);
  }
}

void WriteRegistryNumberAsText(int64_t value, std::wstring key, std::wstring valueName) {
  try {
    WriteRegistryString(std::to_wstring(value), std::move(key), std::move(valueName));
  } catch (...) {
    // Registry writes fail silently.
  }
}

}  // namespace kro
