#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <iosfwd>
#include <string>
#include <vector>

#ifdef _WIN32
#include <wtypes.h>  // BSTR
#endif

/**
 * @brief Platform helpers of the agent: text conversion, time formatting, registry, paths, DNS.
 *
 * One set of functions with two backends: WinHelper_win.cpp makes the Win32 calls,
 * WinHelper_posix.cpp gives the same observable results on POSIX, where HKEY_LOCAL_MACHINE is
 * the regedit-format text file named by KRO_REGISTRY_FILE (default /etc/kroagent/registry.reg)
 * and wchar_t holds UTF-32. Registry key names keep "\\" on every platform; file-system paths
 * use kPathSeparator.
 */
namespace kro {

#ifdef _WIN32
constexpr wchar_t kPathSeparator = L'\\';
constexpr char kPathSeparatorA = '\\';
#else
constexpr wchar_t kPathSeparator = L'/';
constexpr char kPathSeparatorA = '/';
#endif

/** @brief The key every registry function uses when given an empty key name. */
inline constexpr const wchar_t* kDefaultRegistryKey = L"SOFTWARE\\Norvane Technologies\\Kesta";

// ---- Text ------------------------------------------------------------------------------------

/**
 * @brief UTF-16 (Windows) or UTF-32 (POSIX) text to UTF-8. An empty input empties `out` and
 * returns 0x80000000 (deliberately unlike the other direction); failures are logged and leave
 * `out` unchanged.
 */
long WideToUtf8(const wchar_t* text, size_t length, std::string& out);
inline long WideToUtf8(const std::wstring& text, std::string& out) {
  return WideToUtf8(text.data(), text.size(), out);
}
#ifdef _WIN32
/** @brief A COM string (length from SysStringLen) to UTF-8. */
long BstrToUtf8(BSTR text, std::string& out);
#endif

/** @brief UTF-8 to wide text. An empty input gives an empty output and 0. */
long Utf8ToWide(const char* text, size_t length, std::wstring& out);
inline long Utf8ToWide(const std::string& text, std::wstring& out) {
  return Utf8ToWide(text.data(), text.size(), out);
}

/** @brief Logs a failed conversion: the error in hex and at most 1024 input bytes in Base64. */
void LogConvertFailure(bool wideToMultibyte, const void* input, size_t inputBytes, uint32_t error);

/**
 * @brief Reads a whole stream into a new[] buffer (one extra terminating zero byte). The
 * caller frees it with delete[]. 0x80000030 (buffer null) when the allocation fails.
 */
long ReadWholeStream(std::istream& in, char*& buffer, size_t& length);

// ---- Time ------------------------------------------------------------------------------------

/** @brief Now, as a Windows file time (100 ns units since 1601-01-01 UTC). */
uint64_t CurrentFileTime();

/** @brief "YYYY-MM-DD hh:mm:ss" in local time. */
std::string FileTimeToLocalText(uint64_t fileTime);

/**
 * @brief UTC date/time by pattern name: "MM/DD/YYYY HH:MM AMPM", "MM/DD/YYYY" or
 * "HH:MM AMPM". Any other name, or a negative time, gives "".
 */
std::string FormatFileTime(int64_t fileTime, const std::string& pattern);

/** @brief "Job_" [prefix "_"] local time as %Y-%m-%d_%H:%M:%S. */
std::string MakeJobName(const char* prefix = nullptr);

/** @brief "Automatic " followed by the name, or by "Job" when the name is empty. */
std::string MakeAutomaticJobName(const std::string& name);

// ---- Registry (HKEY_LOCAL_MACHINE) -------------------------------------------------------------
// Failures are silent: reads give empty text or 0, writes do nothing.

void ReadRegistryString(std::wstring& out, std::wstring key, std::wstring valueName);
/** @brief A number kept as text (REG_SZ), converted like _wtoi64; 0 on any failure. */
void ReadRegistryNumber(int64_t& out, std::wstring key, std::wstring valueName);
void WriteRegistryNumberAsText(int64_t value, std::wstring key, std::wstring valueName);
void WriteRegistryString(std::wstring value, std::wstring key, std::wstring valueName);
void WriteRegistryDword(uint32_t value, std::wstring key, std::wstring valueName);

/** @brief Registry value types, with the numbers Windows gives them. */
enum class RegType : uint32_t {
  None = 0,
  Sz = 1,
  ExpandSz = 2,
  Binary = 3,
  Dword = 4,
  MultiSz = 7,
  Qword = 11,
};

/**
 * @brief Reads a REG_SZ value of at most `maxBytes` bytes (as stored: UTF-16 with its zero).
 * 0x80000100 when the key cannot be opened for reading; 0x80000101 when the value is missing,
 * not a REG_SZ or too large. `out` is set only on success.
 */
long RegistryReadSz(const std::wstring& key, const std::wstring& valueName, size_t maxBytes,
                    std::wstring& out);

/**
 * @brief Sets a REG_SZ value (terminating zero included). With `createKey` the key is created
 * when missing (full access, 64-bit view); without it a missing key gives 0x80000100.
 * 0x80000102 when the value cannot be written.
 */
long RegistryWriteSz(const std::wstring& key, const std::wstring& valueName,
                     const std::wstring& value, bool createKey);

/** @brief Type and raw data of any value; 0x80000100 / 0x80000101 as above. */
long RegistryQueryValue(const std::wstring& key, const std::wstring& valueName, RegType& type,
                        std::vector<uint8_t>& data);

// ---- Paths, names, DNS -------------------------------------------------------------------------

/**
 * @brief Full path of the host process's executable (not of this module). 0x80000032 when the
 * path does not fit its buffer (260 characters on Windows, PATH_MAX on POSIX).
 */
long GetHostExecutablePath(std::wstring& out);
/** @brief Folder of the host executable, no trailing separator. 0x80000032 when cut. */
long GetHostDirectory(std::wstring& out);
/** @brief Host folder + separator + "Data". */
long GetHostDataDirectory(std::wstring& out);

/**
 * @brief The computer's fully qualified DNS name (GetComputerNameExA with
 * ComputerNameDnsFullyQualified; on POSIX the canonical name of the host name, or the host name
 * itself when the resolver has no answer within two seconds). Returns the Windows error (or
 * errno) as (e & 0xFFFF) | 0x80070000 on failure.
 */
long GetComputerNameDns(std::string& out);

/**
 * @brief Flushes the resolver cache through dnsapi.dll. 0x80000187 when the library does not
 * load, 0x80000114 when the entry point is missing, 0x80000000 when the flush reports failure.
 * On POSIX the caching services' tools found on PATH are run ("resolvectl flush-caches",
 * "nscd -i hosts"), each for at most a few seconds: 0 when one of them flushed, 0x80000000
 * when all that are there failed, 0x80000114 when there is none.
 */
long FlushDnsCache();

// ---- Backend primitives ----------------------------------------------------------------------
// The formatters above are shared code; each backend supplies only the calendar conversions.
namespace detail {

/** @brief A broken-down date and time (month 1-12). */
struct CalendarTime {
  int year = 0;
  int month = 0;
  int day = 0;
  int hour = 0;
  int minute = 0;
  int second = 0;
};

/**
 * @brief A file time as UTC or as local calendar time. False when the time has no calendar
 * form (the top bit set, or a local time before 1601).
 */
bool FileTimeToCalendar(uint64_t fileTime, bool local, CalendarTime& out);

/** @brief localtime_s / localtime_r. */
bool LocalTimeOf(std::time_t time, std::tm& out);

#ifndef _WIN32
/**
 * @brief The canonical name of `host` from the resolver, waiting at most `limit`; false (and
 * `name` untouched) without an answer in time.
 */
bool CanonicalHostName(const std::string& host, std::chrono::milliseconds limit, std::string& name);
#endif

}  // namespace detail

}  // namespace kro
