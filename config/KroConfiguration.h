#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace KroAgent {
class RoutineTable;
}

namespace hlp {
class JsonValue;
class JsonWriter;
}  // namespace hlp

namespace kro {

/**
 * @brief Base of the settings objects: one lock over every setting, the file they were loaded
 * from, and the get/save routine bodies that each subclass registers under its own names.
 *
 * A settings file is the same compact JSON object that the get routine answers with. Every
 * public operation returns a status and lets no exception out.
 */
class KroConfiguration {
 public:
  KroConfiguration() = default;
  virtual ~KroConfiguration();
  KroConfiguration(const KroConfiguration&) = delete;
  KroConfiguration& operator=(const KroConfiguration&) = delete;

  /** @brief Adds this object's request routines to `table`; the base has none. Returns 0. */
  virtual long RegisterRoutines(KroAgent::RoutineTable& table);
  /** @brief All settings as one JSON object; the base writes nothing and returns 0. */
  virtual long ToJson(std::string& text) const;
  /** @brief Applies the members of a JSON object (zero-terminated) to the settings. */
  virtual long FromJson(const char* text);

  /**
   * @brief Reads the file and applies it with FromJson. 0x80000114 for an empty path or a text
   * that is no JSON object, 0x80000011 when the file cannot be opened. A file that is there but
   * not applied is logged with the place where it stops being JSON.
   */
  long Load(const std::string& path);
  /**
   * @brief Writes ToJson's text to `path`, or to the loaded path when `path` is empty. Only
   * ToJson's result is reported: a file that cannot be written is not.
   */
  long Save(const std::string& path);

  /** @brief Routine body: answers ToJson's text; the request is ignored. */
  long GetConfigure(const char* request, size_t requestLen, const char** response,
                    size_t* responseLen) const;
  /** @brief Routine body: always 0x80000114, no answer; saving by request is switched off. */
  long SaveConfigure(const char* request, size_t requestLen, const char** response,
                     size_t* responseLen);

  /** @brief The path of the last load attempt; empty before the first. */
  std::string FilePath() const;

 protected:
  /** @brief Copies one field under the lock: how other subsystems read a single setting. */
  template <typename T>
  T Locked(const T& field) const {
    std::lock_guard<std::recursive_mutex> hold(lock_);
    return field;
  }

  /**
   * @brief The parsed text (after an optional UTF-8 byte-order mark) when it is a JSON object;
   * null for no text, bad text or no object.
   */
  static std::unique_ptr<hlp::JsonValue> ParseObject(const char* text);

  /**
   * @brief Stores a number member in a 32- or 16-bit field: truncated toward zero and narrowed
   * without range checks. An absent member or one of another JSON type changes nothing.
   */
  static void ApplyNumber(const hlp::JsonValue& root, std::string_view key, uint32_t& field);
  static void ApplyNumber(const hlp::JsonValue& root, std::string_view key, uint16_t& field);
  /**
   * @brief "LoggingLevel": a number as above, then (present or not) a level beyond the log
   * library's 0..5 falls back to 4, the error level, not to the nearest valid 5.
   */
  static void ApplyLoggingLevel(const hlp::JsonValue& root, uint32_t& field);
  /** @brief Stores a JSON boolean; anything else, a number included, changes nothing. */
  static void ApplyFlag(const hlp::JsonValue& root, std::string_view key, bool& field);

  /** @brief Writes one member as an unsigned decimal, flags included. */
  static void WriteNumber(hlp::JsonWriter& writer, std::string_view key, uint64_t value);
  /** @brief 0 and the writer's text when it holds one whole object, else 0x80000000. */
  static long FinishJson(const hlp::JsonWriter& writer, const std::ostringstream& out,
                         std::string& text);

  /**
   * @brief Held for the whole of every operation. Recursive because GetConfigure holds it
   * while it calls the virtual ToJson, which takes it again.
   */
  mutable std::recursive_mutex lock_;

 private:
  std::string path_;
};

}  // namespace kro
