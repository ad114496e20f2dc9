#include <windows.h>

#include <oleauto.h>

#include <cwchar>
#include <memory>
#include <new>

#include "common/WinHelper.h"
#include "core/KroStatus.h"

namespace kro {

namespace {

// The largest length the conversion calls accept (they take an int).
constexpr size_t kMaxConvertLength = 0x7FFFFFFF;

// Most texts fit on the stack; only longer ones pay for a sizing pass and an allocation.
constexpr int kStackBufferUnits = 256;

// The access the writers ask for: KEY_ALL_ACCESS.
constexpr REGSAM kFullAccess = 0xF003F;

std::wstring KeyOrDefault(std::wstring key) {
  return key.empty() ? std::wstring(kDefaultRegistryKey) : key;
}

/** @brief Closes a registry key on every path. */
class KeyHandle {
 public:
  KeyHandle() = default;
  ~KeyHandle() {
    if (key_ != nullptr) {
      RegCloseKey(key_);
    }
  }
  KeyHandle(const KeyHandle&) = delete;
  KeyHandle& operator=(const KeyHandle&) = delete;

  HKEY* Out() { return &key_; }
  HKEY Get() const { return key_; }

 private:
  HKEY key_ = nullptr;
};

void WriteValue(const std::wstring& key, const std::wstring& valueName, DWORD type,
                const void* data, DWORD bytes) {
  KeyHandle handle;
  if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0, const_cast<wchar_t*>(L""), 0, kFullAccess,
                      nullptr, handle.Out(), nullptr) != ERROR_SUCCESS) {
    return;
  }
  RegSetValueExW(handle.Get(), valueName.c_str(), 0, type, static_cast<const BYTE*>(data), bytes);
}

bool ToSystemTime(uint64_t fileTime, SYSTEMTIME& utc) {
  FILETIME ft;
  ft.dwLowDateTime = static_cast<DWORD>(fileTime);
  ft.dwHighDateTime = static_cast<DWORD>(fileTime >> 32);
  return FileTimeToSystemTime(&ft, &utc) != FALSE;
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
  const int units = static_cast<int>(length);
  char stackBuffer[kStackBufferUnits];
  int written = WideCharToMultiByte(CP_UTF8, 0, text, units, stackBuffer, sizeof(stackBuffer),
                                    nullptr, nullptr);
  if (written > 0) {
    out.assign(stackBuffer, static_cast<size_t>(written));
    return status::Ok;
  }
  DWORD error = GetLastError();
  if (error == ERROR_INSUFFICIENT_BUFFER) {
    const int needed = WideCharToMultiByte(CP_UTF8, 0, text, units, nullptr, 0, nullptr, nullptr);
    if (needed > 0) {
      std::unique_ptr<char[]> buffer(new (std::nothrow) char[static_cast<size_t>(needed)]);
      if (buffer == nullptr) {
        return status::OutOfMemory;
      }
      written =
          WideCharToMultiByte(CP_UTF8, 0, text, units, buffer.get(), needed, nullptr, nullptr);
      if (written > 0) {
        out.assign(buffer.get(), static_cast<size_t>(written));
        return status::Ok;
      }
    }
    error = GetLastError();
  }
  LogConvertFailure(true, text, length * sizeof(wchar_t), error);
  return status::FromWin32(error);
}

long BstrToUtf8(BSTR text, std::string& out) {
  return WideToUtf8(text, SysStringLen(text), out);
}

long Utf8ToWide(const char* text, size_t length, std::wstring& out) {
  if (length > kMaxConvertLength) {
    return status::Failure;
  }
  if (length == 0) {
    out.clear();
    return status::Ok;
  }
  const int bytes = static_cast<int>(length);
  wchar_t stackBuffer[kStackBufferUnits];
  int written = MultiByteToWideChar(CP_UTF8, 0, text, bytes, stackBuffer, kStackBufferUnits);
  if (written > 0) {
    out.assign(stackBuffer, static_cast<size_t>(written));
    return status::Ok;
  }
  DWORD error = GetLastError();
  if (error == ERROR_INSUFFICIENT_BUFFER) {
    const int needed = MultiByteToWideChar(CP_UTF8, 0, text, bytes, nullptr, 0);
    if (needed > 0) {
      std::unique_ptr<wchar_t[]> buffer(new (std::nothrow) wchar_t[static_cast<size_t>(needed)]);
      if (buffer == nullptr) {
        return status::OutOfMemory;
      }
      written = MultiByteToWideChar(CP_UTF8, 0, text, bytes, buffer.get(), needed);
      if (written > 0) {
        out.assign(buffer.get(), static_cast<size_t>(written));
        return status::Ok;
      }
    }
    error = GetLastError();
  }
  LogConvertFailure(false, text, length, error);
  return status::FromWin32(error);
}

// ---- Time ------------------------------------------------------------------------------------

uint64_t CurrentFileTime() {
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  return (static_cast<uint64_t>(now.dwHighDateTime) << 32) | now.dwLowDateTime;
}

namespace detail {

bool FileTimeToCalendar(uint64_t fileTime, bool local, CalendarTime& out) {
  SYSTEMTIME utc;
  SYSTEMTIME shown;
  if (!ToSystemTime(fileTime, utc)) {
    return false;
  }
  if (!local) {
    shown = utc;
  } else if (!SystemTimeToTzSpecificLocalTime(nullptr, &utc, &shown)) {
    return false;
  }
  out = CalendarTime{shown.wYear, shown.wMonth,  shown.wDay,
                     shown.wHour, shown.wMinute, shown.wSecond};
  return true;
}

bool LocalTimeOf(std::time_t time, std::tm& out) {
  return localtime_s(&out, &time) == 0;
}

}  // namespace detail

// ---- Registry --------------------------------------------------------------------------------

void ReadRegistryString(std::wstring& out, std::wstring key, std::wstring valueName) {
  try {
    key = KeyOrDefault(std::move(key));
    out.clear();
    KeyHandle handle;
    if (RegOpenKeyW(HKEY_LOCAL_MACHINE, key.c_str(), handle.Out()) != ERROR_SUCCESS) {
      return;
    }
    DWORD bytes = 0;
    if (RegQueryValueExW(handle.Get(), valueName.c_str(), nullptr, nullptr, nullptr, &bytes) !=
        ERROR_SUCCESS) {
      return;
    }
    // One character more than the data holds, zeroed: data stored without its terminator (or
    // of an odd size) still ends in a zero.
    const size_t units = bytes / 2 + 1;
    std::unique_ptr<wchar_t[]> buffer(new (std::nothrow) wchar_t[units]());
    if (buffer == nullptr) {
      return;
    }
    if (RegQueryValueExW(handle.Get(), valueName.c_str(), nullptr, nullptr,
                         reinterpret_cast<BYTE*>(buffer.get()), &bytes) == ERROR_SUCCESS) {
      buffer[units - 1] = L'\0';
      out = buffer.get();
    }
  } catch (...) {
    out.clear();
  }
}

void WriteRegistryString(std::wstring value, std::wstring key, std::wstring valueName) {
  try {
    WriteValue(KeyOrDefault(std::move(key)), valueName, REG_SZ, value.c_str(),
               static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
  } catch (...) {
    // Registry writes fail silently.
  }
}

void WriteRegistryDword(uint32_t value, std::wstring key, std::wstring valueName) {
  try {
    const DWORD data = value;
    WriteValue(KeyOrDefault(std::move(key)), valueName, REG_DWORD, &data, sizeof(data));
  } catch (...) {
    // Registry writes fail silently.
  }
}

long RegistryReadSz(const std::wstring& key, const std::wstring& valueName, size_t maxBytes,
                    std::wstring& out) {
  try {
    KeyHandle handle;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, KeyOrDefault(key).c_str(), 0,
                      KEY_QUERY_VALUE | KEY_WOW64_64KEY, handle.Out()) != ERROR_SUCCESS) {
      return status::RegistryOpenFailed;
    }
    DWORD type = REG_NONE;
    DWORD bytes = 0;
    if (RegQueryValueExW(handle.Get(), valueName.c_str(), nullptr, &type, nullptr, &bytes) !=
            ERROR_SUCCESS ||
        type != REG_SZ || bytes > maxBytes) {
      return status::RegistryValueMissing;
    }
    std::wstring text(bytes / 2 + 1, L'\0');
    if (RegQueryValueExW(handle.Get(), valueName.c_str(), nullptr, &type,
                         reinterpret_cast<BYTE*>(text.data()), &bytes) != ERROR_SUCCESS ||
        type != REG_SZ) {
      return status::RegistryValueMissing;
    }
    text.resize(wcsnlen(text.c_str(), text.size()));
    out = std::move(text);
    return status::Ok;
  } catch (...) {
    return status::OutOfMemory;
  }
}

long RegistryWriteSz(const std::wstring& key, const std::wstring& valueName,
                     const std::wstring& value, bool createKey) {
  try {
    const std::wstring name = KeyOrDefault(key);
    KeyHandle handle;
    const LONG opened =
        createKey ? RegCreateKeyExW(HKEY_LOCAL_MACHINE, name.c_str(), 0, nullptr, 0,
                                    kFullAccess | KEY_WOW64_64KEY, nullptr, handle.Out(), nullptr)
                  : RegOpenKeyExW(HKEY_LOCAL_MACHINE, name.c_str(), 0,
                                  KEY_SET_VALUE | KEY_WOW64_64KEY, handle.Out());
    if (opened != ERROR_SUCCESS) {
      return status::RegistryOpenFailed;
    }
    if (RegSetValueExW(handle.Get(), valueName.c_str(), 0, REG_SZ,
                       reinterpret_cast<const BYTE*>(value.c_str()),
                       static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t))) != ERROR_SUCCESS) {
      return status::RegistryWriteFailed;
    }
    return status::Ok;
  } catch (...) {
    return status::RegistryWriteFailed;
  }
}

long RegistryQueryValue(const std::wstring& key, const std::wstring& valueName, RegType& type,
                        std::vector<uint8_t>& data) {
  try {
    KeyHandle handle;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, KeyOrDefault(key).c_str(), 0,
                      KEY_QUERY_VALUE | KEY_WOW64_64KEY, handle.Out()) != ERROR_SUCCESS) {
      return status::RegistryOpenFailed;
    }
    DWORD kind = REG_NONE;
    DWORD bytes = 0;
    LONG result =
        RegQueryValueExW(handle.Get(), valueName.c_str(), nullptr, &kind, nullptr, &bytes);
    std::vector<uint8_t> buffer;
    // Another writer may grow the value between the sizing call and the read.
    for (int attempt = 0; result == ERROR_SUCCESS || result == ERROR_MORE_DATA; ++attempt) {
      buffer.resize(bytes);
      result =
          RegQueryValueExW(handle.Get(), valueName.c_str(), nullptr, &kind, buffer.data(), &bytes);
      if (result == ERROR_SUCCESS) {
        buffer.resize(bytes);
        type = static_cast<RegType>(kind);
        data = std::move(buffer);
        return status::Ok;
      }
      if (attempt == 3) {
        break;
      }
    }
    return status::RegistryValueMissing;
  } catch (...) {
    return status::OutOfMemory;
  }
}

// ---- Paths, names, DNS -------------------------------------------------------------------------

long GetHostExecutablePath(std::wstring& out) {
  wchar_t path[MAX_PATH];
  // No module handle: the host's executable, not this library.
  const DWORD length = GetModuleFileNameW(nullptr, path, MAX_PATH);
  if (length == 0) {
    return status::FromWin32(GetLastError());
  }
  if (length == MAX_PATH) {
    return status::OutOfRange;
  }
  try {
    out.assign(path, length);
    return status::Ok;
  } catch (...) {
    return status::OutOfMemory;
  }
}

long GetComputerNameDns(std::string& out) {
  try {
    std::string name(64, '\0');
    for (;;) {
      DWORD size = static_cast<DWORD>(name.size());
      if (GetComputerNameExA(ComputerNameDnsFullyQualified, name.data(), &size)) {
        name.resize(size);
        out = std::move(name);
        return status::Ok;
      }
      const DWORD error = GetLastError();
      // On ERROR_MORE_DATA `size` holds the length needed, terminator included.
      if (error != ERROR_MORE_DATA || size <= name.size()) {
        return status::FromWin32(error);
      }
      name.resize(size);
    }
  } catch (...) {
    return status::OutOfMemory;
  }
}

long FlushDnsCache() {
  HMODULE dnsapi = LoadLibraryW(L"dnsapi.dll");
  if (dnsapi == nullptr) {
    return status::LibraryLoadFailed;
  }
  long result = status::NotAvailable;
  const FARPROC entry = GetProcAddress(dnsapi, "DnsFlushResolverCache");
  if (entry != nullptr) {
    using FlushFn = BOOL(WINAPI*)();
    // Through void(*)(): the cast between unrelated function types is then deliberate.
    const auto flush = reinterpret_cast<FlushFn>(reinterpret_cast<void (*)()>(entry));
    result = flush() ? status::Ok : status::Failure;
  }
  FreeLibrary(dnsapi);
  return result;
}

}  // namespace kro
