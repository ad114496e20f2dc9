#include <fcntl.h>
#include <limits.h>
#include <netdb.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string_view>
#include <thread>
#include <vector>

#include "common/RegistryFile.h"
#include "common/WinHelper.h"
#include "core/KroStatus.h"

extern char** environ;  // the process's environment, handed on to the tools it runs

namespace kro {

namespace {

// The largest length the Win32 conversion calls accept (they take an int).
constexpr size_t kMaxConvertLength = 0x7FFFFFFF;

// What Windows reports for a null input with a nonzero length.
constexpr uint32_t kErrorInvalidParameter = 87;

constexpr uint32_t kReplacement = 0xFFFD;

// Seconds from 1601-01-01 (the file time epoch) to 1970-01-01.
constexpr int64_t kEpochDifference = 11644473600;
constexpr uint64_t kTicksPerSecond = 10000000;

void AppendUtf8(uint32_t cp, std::string& out) {
  // Lone surrogates and values beyond Unicode become U+FFFD, as WideCharToMultiByte does.
  if ((cp >= 0xD800 && cp <= 0xDFFF) || cp > 0x10FFFF) {
    cp = kReplacement;
  }
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

// Decodes one character at `in[i]`, advancing `i`. An ill-formed sequence yields U+FFFD for its
// maximal subpart (the bytes that could still have begun a valid character), the way
// MultiByteToWideChar replaces them.
uint32_t DecodeUtf8(const unsigned char* in, size_t length, size_t& i) {
  const unsigned char lead = in[i++];
  if (lead < 0x80) {
    return lead;
  }
  size_t trail;
  uint32_t cp;
  unsigned char low = 0x80;  // the range of the first trail byte depends on the lead
  unsigned char high = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    trail = 1;
    cp = lead & 0x1F;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    trail = 2;
    cp = lead & 0x0F;
    if (lead == 0xE0) {
      low = 0xA0;  // no overlong forms
    } else if (lead == 0xED) {
      high = 0x9F;  // no surrogates
    }
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    trail = 3;
    cp = lead & 0x07;
    if (lead == 0xF0) {
      low = 0x90;
    } else if (lead == 0xF4) {
      high = 0x8F;  // nothing beyond U+10FFFF
    }
  } else {
    return kReplacement;
  }
  for (size_t k = 0; k < trail; ++k) {
    if (i >= length || in[i] < low || in[i] > high) {
      return kReplacement;
    }
    cp = (cp << 6) | (in[i++] & 0x3F);
    low = 0x80;
    high = 0xBF;
  }
  return cp;
}

bool ToUnixTime(uint64_t fileTime, time_t& out) {
  // Windows has no calendar form for file times with the top bit set.
  if (fileTime > static_cast<uint64_t>(INT64_MAX)) {
    return false;
  }
  out = static_cast<time_t>(static_cast<int64_t>(fileTime / kTicksPerSecond) - kEpochDifference);
  return true;
}

// How long the computer's canonical name may take to resolve.
constexpr std::chrono::milliseconds kNameLookupWait(2000);

// How long one cache flush may take before it is given up (and its process killed).
constexpr std::chrono::milliseconds kFlushWait(3000);

/** @brief The tool as the shell would find it on PATH: the first executable regular file. */
bool FindOnPath(std::string_view tool, std::string& found) {
  const char* path = std::getenv("PATH");
  std::string_view dirs = path != nullptr ? path : "";
  while (!dirs.empty()) {
    const size_t colon = dirs.find(':');
    const std::string_view dir = dirs.substr(0, colon);
    dirs = colon == std::string_view::npos ? std::string_view() : dirs.substr(colon + 1);
    // An empty entry would mean the current folder, which is no place to run tools from.
    if (dir.empty()) {
      continue;
    }
    std::string candidate = std::string(dir) + '/' + std::string(tool);
    struct stat info {};
    if (stat(candidate.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
        access(candidate.c_str(), X_OK) == 0) {
      found = std::move(candidate);
      return true;
    }
  }
  return false;
}

/** @brief Runs a tool with no input or output; true when it exits with 0 within kFlushWait. */
bool RunQuietly(const std::string& tool, std::vector<const char*> arguments) {
  posix_spawn_file_actions_t actions;
  if (posix_spawn_file_actions_init(&actions) != 0) {
    return false;
  }
  for (const int fd : {0, 1, 2}) {
    posix_spawn_file_actions_addopen(&actions, fd, "/dev/null", fd == 0 ? O_RDONLY : O_WRONLY, 0);
  }
  arguments.insert(arguments.begin(), tool.c_str());
  arguments.push_back(nullptr);
  pid_t child = 0;
  const int spawned = posix_spawn(&child, tool.c_str(), &actions, nullptr,
                                  const_cast<char* const*>(arguments.data()), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) {
    return false;
  }
  const auto deadline = std::chrono::steady_clock::now() + kFlushWait;
  int state = 0;
  for (;;) {
    const pid_t done = waitpid(child, &state, WNOHANG);
    if (done == child) {
      return WIFEXITED(state) && WEXITSTATUS(state) == 0;
    }
    if (done < 0 && errno != EINTR) {
      return false;
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      // A resolver that does not answer must not hold up the agent's start.
      kill(child, SIGKILL);
      while (waitpid(child, &state, 0) < 0 && errno == EINTR) {
      }
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

std::wstring KeyOrDefault(std::wstring key) {
  return key.empty() ? std::wstring(kDefaultRegistryKey) : key;
}

void WriteValue(const std::wstring& key, const std::wstring& valueName, RegType type,
                std::vector<uint8_t> data) {
  RegistryFile::Update(RegistryFile::Location(), [&](RegistryFile& registry) {
    registry.CreateKey(key).Set(valueName, type, std::move(data));
    return status::Ok;
  });
}

}  // namespace

// ---- Text ------------------------------------------------------------------------------------

long WideToUtf8(const wchar_t* text, size_t length, std::string& out) {
  if (length > kMaxConvertLength) {
    return status::Failure;
  }
  if (length == 0) {
    out.clear();
    return status::Failure;
  }
  if (text == nullptr) {
    LogConvertFailure(true, nullptr, 0, kErrorInvalidParameter);
    return status::FromWin32(kErrorInvalidParameter);
  }
  try {
    std::string converted;
    converted.reserve(length);
    for (size_t i = 0; i < length; ++i) {
      AppendUtf8(static_cast<uint32_t>(text[i]), converted);
    }
    out = std::move(converted);
    return status::Ok;
  } catch (...) {
    return status::OutOfMemory;
  }
}

long Utf8ToWide(const char* text, size_t length, std::wstring& out) {
  if (length > kMaxConvertLength) {
    return status::Failure;
  }
  if (length == 0) {
    out.clear();
    return status::Ok;
  }
  if (text == nullptr) {
    LogConvertFailure(false, nullptr, 0, kErrorInvalidParameter);
    return status::FromWin32(kErrorInvalidParameter);
  }
  try {
    const auto* bytes = reinterpret_cast<const unsigned char*>(text);
    std::wstring converted;
    converted.reserve(length);
    for (size_t i = 0; i < length;) {
      converted += static_cast<wchar_t>(DecodeUtf8(bytes, length, i));
    }
    out = std::move(converted);
    return status::Ok;
  } catch (...) {
    return status::OutOfMemory;
  }
}

// ---- Time ------------------------------------------------------------------------------------

uint64_t CurrentFileTime() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<uint64_t>(now.tv_sec + kEpochDifference) * kTicksPerSecond +
         static_cast<uint64_t>(now.tv_nsec) / 100;
}

namespace detail {

bool FileTimeToCalendar(uint64_t fileTime, bool local, CalendarTime& out) {
  time_t seconds = 0;
  std::tm parts{};
  if (!ToUnixTime(fileTime, seconds) ||
      (local ? localtime_r(&seconds, &parts) : gmtime_r(&seconds, &parts)) == nullptr) {
    return false;
  }
  // A local time before the file time epoch has no SYSTEMTIME either.
  if (parts.tm_year + 1900 < 1601) {
    return false;
  }
  out = CalendarTime{parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday,
                     parts.tm_hour,        parts.tm_min,     parts.tm_sec};
  return true;
}

bool LocalTimeOf(std::time_t time, std::tm& out) {
  return localtime_r(&time, &out) != nullptr;
}

}  // namespace detail

// ---- Registry --------------------------------------------------------------------------------

void ReadRegistryString(std::wstring& out, std::wstring key, std::wstring valueName) {
  try {
    out.clear();
    const RegistryFile registry = RegistryFile::Load(RegistryFile::Location());
    const RegistryKey* found = registry.FindKey(KeyOrDefault(std::move(key)));
    const RegistryValue* value = found != nullptr ? found->Find(valueName) : nullptr;
    if (value != nullptr) {
      out = RegistryFile::DecodeText(value->data);
    }
  } catch (...) {
    out.clear();
  }
}

void WriteRegistryString(std::wstring value, std::wstring key, std::wstring valueName) {
  try {
    WriteValue(KeyOrDefault(std::move(key)), valueName, RegType::Sz,
               RegistryFile::EncodeText(value));
  } catch (...) {
    // Registry writes fail silently.
  }
}

void WriteRegistryDword(uint32_t value, std::wstring key, std::wstring valueName) {
  try {
    WriteValue(KeyOrDefault(std::move(key)), valueName, RegType::Dword,
               {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8),
                static_cast<uint8_t>(value >> 16), static_cast<uint8_t>(value >> 24)});
  } catch (...) {
    // Registry writes fail silently.
  }
}

long RegistryReadSz(const std::wstring& key, const std::wstring& valueName, size_t maxBytes,
                    std::wstring& out) {
  try {
    const RegistryFile registry = RegistryFile::Load(RegistryFile::Location());
    const std::wstring name = KeyOrDefault(key);
    if (!registry.KeyExists(name)) {
      return status::RegistryOpenFailed;
    }
    const RegistryKey* found = registry.FindKey(name);
    const RegistryValue* value = found != nullptr ? found->Find(valueName) : nullptr;
    if (value == nullptr || value->type != RegType::Sz || value->data.size() > maxBytes) {
      return status::RegistryValueMissing;
    }
    out = RegistryFile::DecodeText(value->data);
    return status::Ok;
  } catch (...) {
    return status::OutOfMemory;
  }
}

long RegistryWriteSz(const std::wstring& key, const std::wstring& valueName,
                     const std::wstring& value, bool createKey) {
  try {
    const std::wstring name = KeyOrDefault(key);
    std::vector<uint8_t> data = RegistryFile::EncodeText(value);
    return RegistryFile::Update(RegistryFile::Location(), [&](RegistryFile& registry) {
      if (!createKey && !registry.KeyExists(name)) {
        return status::RegistryOpenFailed;
      }
      registry.CreateKey(name).Set(valueName, RegType::Sz, std::move(data));
      return status::Ok;
    });
  } catch (...) {
    return status::RegistryWriteFailed;
  }
}

long RegistryQueryValue(const std::wstring& key, const std::wstring& valueName, RegType& type,
                        std::vector<uint8_t>& data) {
  try {
    const RegistryFile registry = RegistryFile::Load(RegistryFile::Location());
    const std::wstring name = KeyOrDefault(key);
    if (!registry.KeyExists(name)) {
      return status::RegistryOpenFailed;
    }
    const RegistryKey* found = registry.FindKey(name);
    const RegistryValue* value = found != nullptr ? found->Find(valueName) : nullptr;
    if (value == nullptr) {
      return status::RegistryValueMissing;
    }
    type = value->type;
    data = value->data;
    return status::Ok;
  } catch (...) {
    return status::OutOfMemory;
  }
}

// ---- Paths, names, DNS -------------------------------------------------------------------------

long GetHostExecutablePath(std::wstring& out) {
  char path[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof(path));
  if (length < 0) {
    return status::FromWin32(static_cast<uint32_t>(errno));
  }
  // readlink does not say whether it cut; a full buffer may have been cut.
  if (static_cast<size_t>(length) == sizeof(path)) {
    return status::OutOfRange;
  }
  std::wstring wide;
  const long result = Utf8ToWide(path, static_cast<size_t>(length), wide);
  if (status::Failed(result)) {
    return result;
  }
  out = std::move(wide);
  return status::Ok;
}

namespace detail {

bool CanonicalHostName(const std::string& host, std::chrono::milliseconds limit,
                       std::string& name) {
  // The look-up runs on a thread of its own that nobody waits for beyond `limit`: the C
  // library cannot be told to give a look-up up, so one that is late finishes on its own and
  // leaves its answer where only that thread still looks.
  struct Lookup {
    std::mutex mutex;
    std::condition_variable done;
    bool finished = false;
    std::string canonical;
  };
  try {
    auto lookup = std::make_shared<Lookup>();
    std::thread([lookup, host] {
      addrinfo hints{};
      hints.ai_family = AF_UNSPEC;
      hints.ai_flags = AI_CANONNAME;
      addrinfo* found = nullptr;
      std::string canonical;
      if (getaddrinfo(host.c_str(), nullptr, &hints, &found) == 0 && found != nullptr &&
          found->ai_canonname != nullptr) {
        canonical = found->ai_canonname;
      }
      if (found != nullptr) {
        freeaddrinfo(found);
      }
      std::lock_guard<std::mutex> lock(lookup->mutex);
      lookup->canonical = std::move(canonical);
      lookup->finished = true;
      lookup->done.notify_all();
    }).detach();
    std::unique_lock<std::mutex> lock(lookup->mutex);
    if (!lookup->done.wait_for(lock, limit, [&] { return lookup->finished; }) ||
        lookup->canonical.empty()) {
      return false;
    }
    name = lookup->canonical;
    return true;
  } catch (...) {
    return false;  // no thread to look with
  }
}

}  // namespace detail

long GetComputerNameDns(std::string& out) {
  char host[HOST_NAME_MAX + 1] = {};
  if (gethostname(host, sizeof(host) - 1) != 0) {
    return status::FromWin32(static_cast<uint32_t>(errno));
  }
  try {
    std::string name = host;
    // A name server that does not answer would hold the report up for its time-outs and
    // retries; without the canonical name in time, the plain host name is the answer.
    detail::CanonicalHostName(host, kNameLookupWait, name);
    out = std::move(name);
    return status::Ok;
  } catch (...) {
    return status::OutOfMemory;
  }
}

long FlushDnsCache() {
  // The C library's resolver keeps no cache; the caching services do, and each has its tool:
  // systemd-resolved and nscd. Every one the system has is flushed.
  struct Flusher {
    const char* tool;
    std::vector<const char*> arguments;
  };
  try {
    const Flusher flushers[] = {{"resolvectl", {"flush-caches"}}, {"nscd", {"-i", "hosts"}}};
    bool present = false;
    bool flushed = false;
    for (const Flusher& flusher : flushers) {
      std::string tool;
      if (FindOnPath(flusher.tool, tool)) {
        present = true;
        flushed = RunQuietly(tool, flusher.arguments) || flushed;
      }
    }
    return flushed ? status::Ok : present ? status::Failure : status::NotAvailable;
  } catch (...) {
    return status::OutOfMemory;
  }
}

}  // namespace kro
