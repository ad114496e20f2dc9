#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "common/WinHelper.h"

namespace kro {

/** @brief One registry value: type and bytes exactly as a Windows reader would get them. */
struct RegistryValue {
  std::wstring name;  // the spelling first written; empty for the default value ("@")
  RegType type = RegType::None;
  std::vector<uint8_t> data;
};

/** @brief One key below HKEY_LOCAL_MACHINE with its values in the order they were written. */
struct RegistryKey {
  std::wstring name;  // e.g. L"SOFTWARE\\Norvane Technologies\\Arbalo"
  std::vector<RegistryValue> values;

  /** @brief The value of that name (compared case-insensitively), or null. */
  const RegistryValue* Find(const std::wstring& valueName) const;
  /** @brief Replaces or adds a value; an existing value keeps its spelling. */
  void Set(const std::wstring& valueName, RegType type, std::vector<uint8_t> data);
};

/**
 * @brief HKEY_LOCAL_MACHINE on POSIX: one UTF-8 text file in regedit's export format.
 *
 * Readers parse the file afresh on every call, since other processes write it. Writers
 * serialise on a process mutex and an flock on "<file>.lock", re-read, apply their change and
 * rename a fully written temporary file over the original, so a crash never leaves a torn
 * file and concurrent writers lose no update.
 */
class RegistryFile {
 public:
  /** @brief KRO_REGISTRY_FILE, read at each call, or /etc/kroagent/registry.reg. */
  static std::filesystem::path Location();

  /** @brief Parses regedit text; lines that cannot be read are skipped. */
  static RegistryFile Parse(std::string_view text);
  /** @brief The file's content; a missing or unreadable file is an empty registry. */
  static RegistryFile Load(const std::filesystem::path& file);

  /**
   * @brief Applies `change` to the file's current content and writes the result back.
   *
   * A nonzero status from `change` leaves the file alone and is returned as it is;
   * 0x80000102 when the file cannot be read, locked or replaced.
   */
  static long Update(const std::filesystem::path& file,
                     const std::function<long(RegistryFile&)>& change);

  /** @brief The text Load and Parse read back to the same keys and values. */
  std::string Serialize() const;

  /** @brief True when the key or any key below it has a section, as RegOpenKey would see. */
  bool KeyExists(const std::wstring& key) const;
  /** @brief The key of that name (compared case-insensitively), or null. */
  const RegistryKey* FindKey(const std::wstring& key) const;
  /** @brief The key of that name, created (empty) when missing. */
  RegistryKey& CreateKey(const std::wstring& key);

  const std::vector<RegistryKey>& Keys() const { return keys_; }

  /** @brief REG_SZ data: UTF-16LE text with its terminating zero. */
  static std::vector<uint8_t> EncodeText(const std::wstring& text);
  /** @brief Value data read as UTF-16LE text up to its first zero unit. */
  static std::wstring DecodeText(const std::vector<uint8_t>& data);

 private:
  std::vector<RegistryKey> keys_;
};

}  // namespace kro
