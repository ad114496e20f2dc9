#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "core/InstallLayout.h"

struct sqlite3;

namespace KroAlerts {

/** @brief One stored alert, as a row of the alerts table. */
struct AlertRecord {
  std::string id;
  std::string type;
  uint32_t code = 0;
  int32_t schema = 0;
  int32_t severity = 0;
  std::vector<std::string> parameters;
  int64_t raised = 0;   // seconds since 1970 (UTC)
  int64_t updated = 0;  // seconds since 1970 (UTC)
  bool sent = false;    // the management server has it
};

/** @brief Which stored alerts a Select returns, and in which order. */
struct AlertQuery {
  std::optional<std::string> id;
  bool unsentOnly = false;
  bool newestFirst = false;
  int64_t limit = 0;  // 0: no limit
};

/**
 * @brief The SQLite file that keeps the alerts ("alerts.db" in the alerts folder).
 *
 * Not thread-safe: AlertsManager serialises every call. A file that cannot be used (not a
 * database, damaged, read-only, of an unexpected layout) is renamed aside and replaced by a
 * fresh one; when even that fails the store works in memory, so alerts still flow to the
 * management server for the life of the process. Calls that report "count" return the number
 * of rows concerned, or a negative status.
 */
class AlertStore {
 public:
  static constexpr const char* kFileName = kro::kAlertsFile;

  AlertStore() = default;
  ~AlertStore();
  AlertStore(const AlertStore&) = delete;
  AlertStore& operator=(const AlertStore&) = delete;

  /**
   * @brief Opens (creating it when missing) the database in `folder`.
   * @return Ok when the file is in use; a failure status when the store fell back to memory
   */
  long Open(const std::filesystem::path& folder);
  void Close();
  bool IsOpen() const { return db_ != nullptr; }
  bool InMemory() const { return inMemory_; }

  long Insert(const AlertRecord& record);
  long Select(const AlertQuery& query, std::vector<AlertRecord>& out);
  /** @brief Count of the alerts (only the unsent ones when `unsentOnly`). */
  long Count(bool unsentOnly);
  /**
   * @brief Gives every alert of `type` and `code` the schema and update time and clears its
   * sent flag (the server has not seen the change); the changed rows land in `changed`.
   */
  long SetSchema(const std::string& type, uint32_t code, int32_t schema, int64_t now,
                 std::vector<AlertRecord>& changed);
  /** @brief Deletes the alerts of `type` and `schema`, and of `code` when it is given; count. */
  long Remove(const std::string& type, int32_t schema, std::optional<uint32_t> code);
  /** @brief Deletes one alert; NotFound when there is none of that id. */
  long RemoveById(const std::string& id);
  long RemoveAll();
  /** @brief NotFound when there is no alert of that id. */
  long MarkSent(const std::string& id);
  /** @brief Deletes alerts last updated before `cutoff` (unsent ones only unless kept); count. */
  long Purge(int64_t cutoff, bool keepUnsent);
  /** @brief Moves the write-ahead log into the database file. */
  long Checkpoint();

 private:
  bool OpenFile(std::string& why);
  bool OpenMemory(std::string& why);
  /** @brief Renames the file (and its log) aside; the new name, or empty when that failed. */
  std::string SetAside();
  /** @brief Replaces an unusable file by a fresh one, else by memory, and logs it once. */
  void Recover(const std::string& why);
  /** @brief Logs a failed call, recovers from a damaged file, and returns `status`. */
  long Failed(int rc, const char* what, long status);

  sqlite3* db_ = nullptr;
  std::filesystem::path file_;
  bool inMemory_ = false;
};

}  // namespace KroAlerts
