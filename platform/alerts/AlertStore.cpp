#include "alerts/AlertStore.h"

#include <sqlite3.h>

#include <chrono>
#include <system_error>

#include "alerts/AlertPayload.h"
#include "core/KroStatus.h"
#include "logging_support/logging_support.h"

namespace KroAlerts {

namespace fs = std::filesystem;
namespace status = kro::status;

namespace {

// Each alert is one row; parameters are a JSON array of strings so that any number of them
// fits one column. The layout is checked on open by preparing kSelectColumns: a file with a
// table of another shape counts as unusable and is set aside like a damaged one.
constexpr const char* kCreateSql =
    "CREATE TABLE IF NOT EXISTS alerts("
    "id TEXT PRIMARY KEY NOT NULL, type TEXT NOT NULL, code INTEGER NOT NULL,"
    " data_schema INTEGER NOT NULL, severity INTEGER NOT NULL, parameters TEXT NOT NULL,"
    " raised INTEGER NOT NULL, updated INTEGER NOT NULL, sent INTEGER NOT NULL DEFAULT 0);"
    "CREATE INDEX IF NOT EXISTS alerts_by_type ON alerts(type, code);";
#define KRO_ALERT_COLUMNS "id, type, code, data_schema, severity, parameters, raised, updated, sent"
constexpr const char* kSelectColumns = "SELECT " KRO_ALERT_COLUMNS " FROM alerts";

// Another process (an older agent still shutting down) may hold the file for a moment.
constexpr int kBusyTimeoutMs = 5000;

std::string Utf8(const fs::path& path) {
  const std::u8string text = path.u8string();
  return std::string(text.begin(), text.end());
}

int PrimaryCode(int rc) {
  return rc & 0xFF;
}

/** @brief A prepared statement that finalises itself; binds by position, from 1. */
class Statement {
 public:
  Statement(sqlite3* db, const char* sql) {
    rc_ = sqlite3_prepare_v2(db, sql, -1, &stmt_, nullptr);
  }
  ~Statement() { sqlite3_finalize(stmt_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  int Prepared() const { return rc_; }
  void Bind(int index, const std::string& text) {
    Keep(sqlite3_bind_text(stmt_, index, text.data(), static_cast<int>(text.size()),
                           SQLITE_TRANSIENT));
  }
  void Bind(int index, int64_t value) { Keep(sqlite3_bind_int64(stmt_, index, value)); }
  /** @brief SQLITE_ROW, SQLITE_DONE, or the first error of preparing, binding or stepping. */
  int Step() {
    if (rc_ != SQLITE_OK && rc_ != SQLITE_ROW) {
      return rc_;
    }
    return sqlite3_step(stmt_);
  }
  int64_t Int(int column) const { return sqlite3_column_int64(stmt_, column); }
  std::string Text(int column) const {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, column));
    return text != nullptr
               ? std::string(text, static_cast<size_t>(sqlite3_column_bytes(stmt_, column)))
               : std::string();
  }

 private:
  void Keep(int rc) {
    if (rc_ == SQLITE_OK) {
      rc_ = rc;
    }
  }
  sqlite3_stmt* stmt_ = nullptr;
  int rc_ = SQLITE_OK;
};

AlertRecord ReadRecord(const Statement& row) {
  AlertRecord record;
  record.id = row.Text(0);
  record.type = row.Text(1);
  record.code = static_cast<uint32_t>(row.Int(2));
  record.schema = static_cast<int32_t>(row.Int(3));
  record.severity = static_cast<int32_t>(row.Int(4));
  record.parameters = ParseParameters(row.Text(5));
  record.raised = row.Int(6);
  record.updated = row.Int(7);
  record.sent = row.Int(8) != 0;
  return record;
}

/** @brief Runs a pragma and returns the text of its first row (empty when it has none). */
bool PragmaText(sqlite3* db, const char* sql, std::string& value, std::string& why) {
  Statement pragma(db, sql);
  const int rc = pragma.Step();
  if (rc == SQLITE_ROW) {
    value = pragma.Text(0);
    return true;
  }
  if (rc == SQLITE_DONE) {
    value.clear();
    return true;
  }
  why = std::string(sql) + ": " + sqlite3_errmsg(db);
  return false;
}

/**
 * @brief Settings and layout shared by the file and the in-memory database.
 *
 * Durability: WAL with synchronous=FULL syncs the log at every commit. Surviving a killed
 * process would need no sync at all (a committed frame is in the kernel's cache before the
 * commit returns, and the next open replays it); FULL also keeps committed alerts across a
 * power cut or an operating-system crash, and alerts are rare enough for one sync per alert
 * to cost nothing noticeable.
 */
bool Configure(sqlite3* db, bool wal, std::string& why) {
  sqlite3_busy_timeout(db, kBusyTimeoutMs);
  std::string value;
  if (wal) {
    // The first read of the file: a file of garbage fails here with "not a database".
    if (!PragmaText(db, "PRAGMA journal_mode=WAL", value, why)) {
      return false;
    }
    if (value != "wal") {
      why = "journal mode stays '" + value + "'";
      return false;
    }
    if (!PragmaText(db, "PRAGMA synchronous=FULL", value, why)) {
      return false;
    }
    if (!PragmaText(db, "PRAGMA quick_check", value, why)) {
      return false;
    }
    if (value != "ok") {
      why = "integrity check: " + value;
      return false;
    }
  }
  char* error = nullptr;
  if (sqlite3_exec(db, kCreateSql, nullptr, nullptr, &error) != SQLITE_OK) {
    why = std::string("creating the table: ") + (error != nullptr ? error : sqlite3_errmsg(db));
    sqlite3_free(error);
    return false;
  }
  Statement probe(db, kSelectColumns);
  if (probe.Prepared() != SQLITE_OK) {
    why = std::string("unexpected layout: ") + sqlite3_errmsg(db);
    return false;
  }
  return true;
}

}  // namespace

AlertStore::~AlertStore() {
  Close();
}

void AlertStore::Close() {
  if (db_ != nullptr) {
    sqlite3_close_v2(db_);
    db_ = nullptr;
  }
  inMemory_ = false;
}

long AlertStore::Open(const fs::path& folder) {
  Close();
  std::string why;
  if (folder.empty()) {
    OpenMemory(why);
    KRO_LOG_ERROR << "No alerts folder; alerts are kept in memory only";
    return status::FileOpenFailed;
  }
  file_ = folder / kFileName;
  std::error_code ec;
  fs::create_directories(folder, ec);
  if (ec) {
    why = "folder cannot be created: " + ec.message();
  } else if (OpenFile(why)) {
    return status::Ok;
  }
  Recover(why);
  return inMemory_ || db_ == nullptr ? status::FileOpenFailed : status::Ok;
}

bool AlertStore::OpenFile(std::string& why) {
  sqlite3* db = nullptr;
  const int rc = sqlite3_open_v2(Utf8(file_).c_str(), &db,
                                 SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  if (rc != SQLITE_OK) {
    why = db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
    sqlite3_close_v2(db);
    return false;
  }
  // SQLite quietly opens a write-protected file read-only; every later add would then fail.
  if (sqlite3_db_readonly(db, "main") == 1) {
    why = "the file is read-only";
    sqlite3_close_v2(db);
    return false;
  }
  if (!Configure(db, true, why)) {
    sqlite3_close_v2(db);
    return false;
  }
  db_ = db;
  inMemory_ = false;
  return true;
}

bool AlertStore::OpenMemory(std::string& why) {
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(":memory:", &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) !=
          SQLITE_OK ||
      !Configure(db, false, why)) {
    if (why.empty()) {
      why = db != nullptr ? sqlite3_errmsg(db) : "out of memory";
    }
    sqlite3_close_v2(db);
    return false;
  }
  db_ = db;
  inMemory_ = true;
  return true;
}

std::string AlertStore::SetAside() {
  std::error_code ec;
  if (!fs::exists(file_, ec)) {
    return {};
  }
  const int64_t now = std::chrono::duration_cast<std::chrono::seconds>(
                          std::chrono::system_clock::now().time_since_epoch())
                          .count();
  fs::path aside = file_;
  aside += ".corrupt-" + std::to_string(now);
  for (int n = 1; fs::exists(aside, ec) && n < 100; ++n) {
    aside = file_;
    aside += ".corrupt-" + std::to_string(now) + "." + std::to_string(n);
  }
  fs::rename(file_, aside, ec);
  if (ec) {
    return {};
  }
  // The log belongs to the old file: beside it, it can still be read with it; left behind, it
  // would be replayed into the fresh one. The shared-memory index is rebuilt from the log.
  fs::path oldWal = file_;
  oldWal += "-wal";
  fs::path asideWal = aside;
  asideWal += "-wal";
  if (fs::exists(oldWal, ec)) {
    fs::rename(oldWal, asideWal, ec);
  }
  fs::path oldShm = file_;
  oldShm += "-shm";
  fs::remove(oldShm, ec);
  return Utf8(aside);
}

void AlertStore::Recover(const std::string& why) {
  Close();
  const std::string aside = SetAside();
  std::string freshWhy;
  if (OpenFile(freshWhy)) {
    KRO_LOG_ERROR << "Alerts database " << Utf8(file_) << " unusable (" << why << "); kept as "
                  << (aside.empty() ? std::string("<not renamed>") : aside)
                  << ", a fresh database is in use";
    return;
  }
  std::string memoryWhy;
  const bool inMemory = OpenMemory(memoryWhy);
  KRO_LOG_ERROR << "Alerts database " << Utf8(file_) << " unusable (" << why << ")"
                << (aside.empty() ? std::string() : ", kept as " + aside)
                << ", no fresh one could be made (" << freshWhy << "); "
                << (inMemory ? "alerts are kept in memory only"
                             : "alerts are not kept (" + memoryWhy + ")");
}

long AlertStore::Failed(int rc, const char* what, long result) {
  KRO_LOG_ERROR << "Alerts database: " << what
                << " failed: " << (db_ != nullptr ? sqlite3_errmsg(db_) : sqlite3_errstr(rc));
  // Damage found in use (a disk error, a file overwritten underneath us) is handled as on open.
  if (!inMemory_ && (PrimaryCode(rc) == SQLITE_CORRUPT || PrimaryCode(rc) == SQLITE_NOTADB)) {
    Recover(sqlite3_errstr(rc));
  }
  return result;
}

long AlertStore::Insert(const AlertRecord& record) {
  if (db_ == nullptr) {
    return status::NotAvailable;
  }
  for (int attempt = 0;; ++attempt) {
    Statement insert(db_,
                     "INSERT INTO alerts(id, type, code, data_schema, severity, parameters, "
                     "raised, updated, sent) VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9)");
    insert.Bind(1, record.id);
    insert.Bind(2, record.type);
    insert.Bind(3, static_cast<int64_t>(record.code));
    insert.Bind(4, static_cast<int64_t>(record.schema));
    insert.Bind(5, static_cast<int64_t>(record.severity));
    insert.Bind(6, ParametersJson(record.parameters));
    insert.Bind(7, record.raised);
    insert.Bind(8, record.updated);
    insert.Bind(9, static_cast<int64_t>(record.sent ? 1 : 0));
    const int rc = insert.Step();
    if (rc == SQLITE_DONE) {
      return status::Ok;
    }
    const bool damaged = PrimaryCode(rc) == SQLITE_CORRUPT || PrimaryCode(rc) == SQLITE_NOTADB;
    const long result = Failed(rc, "adding an alert", status::FileWriteFailed);
    // After a damaged file was replaced the alert still belongs in the fresh one.
    if (!damaged || attempt > 0 || db_ == nullptr) {
      return result;
    }
  }
}

long AlertStore::Select(const AlertQuery& query, std::vector<AlertRecord>& out) {
  out.clear();
  if (db_ == nullptr) {
    return status::NotAvailable;
  }
  std::string sql = kSelectColumns;
  sql += " WHERE (?1 IS NULL OR id = ?1) AND (?2 = 0 OR sent = 0)";
  sql += query.newestFirst ? " ORDER BY raised DESC, rowid DESC" : " ORDER BY raised, rowid";
  sql += " LIMIT ?3";
  Statement select(db_, sql.c_str());
  if (query.id) {
    select.Bind(1, *query.id);
  }
  select.Bind(2, static_cast<int64_t>(query.unsentOnly ? 1 : 0));
  select.Bind(3, query.limit > 0 ? query.limit : int64_t{-1});
  int rc;
  while ((rc = select.Step()) == SQLITE_ROW) {
    out.push_back(ReadRecord(select));
  }
  if (rc != SQLITE_DONE) {
    out.clear();
    return Failed(rc, "reading alerts", status::FileReadFailed);
  }
  return static_cast<long>(out.size());
}

long AlertStore::Count(bool unsentOnly) {
  if (db_ == nullptr) {
    return status::NotAvailable;
  }
  Statement count(db_, "SELECT count(*) FROM alerts WHERE ?1 = 0 OR sent = 0");
  count.Bind(1, static_cast<int64_t>(unsentOnly ? 1 : 0));
  const int rc = count.Step();
  if (rc != SQLITE_ROW) {
    return Failed(rc, "counting alerts", status::FileReadFailed);
  }
  return static_cast<long>(count.Int(0));
}

long AlertStore::SetSchema(const std::string& type, uint32_t code, int32_t schema, int64_t now,
                           std::vector<AlertRecord>& changed) {
  changed.clear();
  if (db_ == nullptr) {
    return status::NotAvailable;
  }
  // RETURNING hands back exactly the rows this statement changed, so no second query can see
  // a different set.
  Statement update(db_,
                   "UPDATE alerts SET data_schema = ?1, updated = ?2, sent = 0 "
                   "WHERE type = ?3 AND code = ?4 RETURNING " KRO_ALERT_COLUMNS);
  update.Bind(1, static_cast<int64_t>(schema));
  update.Bind(2, now);
  update.Bind(3, type);
  update.Bind(4, static_cast<int64_t>(code));
  int rc;
  while ((rc = update.Step()) == SQLITE_ROW) {
    changed.push_back(ReadRecord(update));
  }
  if (rc != SQLITE_DONE) {
    changed.clear();
    return Failed(rc, "updating alerts", status::FileWriteFailed);
  }
  return static_cast<long>(changed.size());
}

namespace {

long ChangedRows(sqlite3* db) {
  return static_cast<long>(sqlite3_changes(db));
}

}  // namespace

long AlertStore::Remove(const std::string& type, int32_t schema, std::optional<uint32_t> code) {
  if (db_ == nullptr) {
    return status::NotAvailable;
  }
  Statement remove(db_,
                   "DELETE FROM alerts WHERE type = ?1 AND data_schema = ?2 AND (?3 IS NULL OR "
                   "code = ?3)");
  remove.Bind(1, type);
  remove.Bind(2, static_cast<int64_t>(schema));
  if (code) {
    remove.Bind(3, static_cast<int64_t>(*code));
  }
  const int rc = remove.Step();
  if (rc != SQLITE_DONE) {
    return Failed(rc, "removing alerts", status::FileWriteFailed);
  }
  return ChangedRows(db_);
}

long AlertStore::RemoveById(const std::string& id) {
  if (db_ == nullptr) {
    return status::NotAvailable;
  }
  Statement remove(db_, "DELETE FROM alerts WHERE id = ?1");
  remove.Bind(1, id);
  const int rc = remove.Step();
  if (rc != SQLITE_DONE) {
    return Failed(rc, "removing an alert", status::FileWriteFailed);
  }
  return ChangedRows(db_) > 0 ? status::Ok : status::NotFound;
}

long AlertStore::RemoveAll() {
  if (db_ == nullptr) {
    return status::NotAvailable;
  }
  Statement remove(db_, "DELETE FROM alerts");
  const int rc = remove.Step();
  if (rc != SQLITE_DONE) {
    return Failed(rc, "removing all alerts", status::FileWriteFailed);
  }
  return ChangedRows(db_);
}

long AlertStore::MarkSent(const std::string& id) {
  if (db_ == nullptr) {
    return status::NotAvailable;
  }
  Statement mark(db_, "UPDATE alerts SET sent = 1 WHERE id = ?1");
  mark.Bind(1, id);
  const int rc = mark.Step();
  if (rc != SQLITE_DONE) {
    return Failed(rc, "marking an alert as sent", status::FileWriteFailed);
  }
  return ChangedRows(db_) > 0 ? status::Ok : status::NotFound;
}

long AlertStore::Purge(int64_t cutoff, bool keepUnsent) {
  if (db_ == nullptr) {
    return status::NotAvailable;
  }
  Statement purge(db_, "DELETE FROM alerts WHERE updated < ?1 AND (?2 = 0 OR sent = 1)");
  purge.Bind(1, cutoff);
  purge.Bind(2, static_cast<int64_t>(keepUnsent ? 1 : 0));
  const int rc = purge.Step();
  if (rc != SQLITE_DONE) {
    return Failed(rc, "purging alerts", status::FileWriteFailed);
  }
  return ChangedRows(db_);
}

long AlertStore::Checkpoint() {
  if (db_ == nullptr) {
    return status::NotAvailable;
  }
  if (inMemory_) {
    return status::Ok;
  }
  const int rc =
      sqlite3_wal_checkpoint_v2(db_, nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr);
  if (rc != SQLITE_OK) {
    return Failed(rc, "checkpoint", status::FileWriteFailed);
  }
  return status::Ok;
}

}  // namespace KroAlerts
