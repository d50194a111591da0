#include "platform/linux/sqlite.h"

#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/linux/posix.h"
#include "platform/log.h"

namespace kestrova {
namespace {

constexpr std::string_view kDamagedStoreMovedAside =
    "%{public}@ database %{public}@ is damaged (%{public}@); moved it to %{public}@ and started "
    "a new one";
constexpr std::string_view kDamagedStoreNotMoved =
    "%{public}@ database %{public}@ is damaged (%{public}@) and could not be moved aside: "
    "%{public}@";
// Files SQLite keeps next to a database; they belong to it and move with it.
constexpr std::string_view kCompanionSuffixes[] = {"-wal", "-shm", "-journal"};
// How long a store's setup is tried again while another connection's lock is in its way, and
// the pause between tries.
constexpr std::chrono::milliseconds kSetUpBusyPatience{10'000};
constexpr std::chrono::milliseconds kSetUpBusyPause{20};

// A non-null pointer for empty texts and blobs: SQLite binds a null pointer as NULL.
constexpr char kEmptyText[] = "";
constexpr std::uint8_t kEmptyBlob[1] = {0};

sqlite3_destructor_type destructorFor(SqliteCopy copy) {
  return copy == SqliteCopy::copy ? SQLITE_TRANSIENT : SQLITE_STATIC;
}

// lstat rather than exists(): a dangling symbolic link still occupies the name.
bool nameTaken(const std::filesystem::path& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 || errno != ENOENT;
}

std::filesystem::path withSuffix(const std::filesystem::path& path, std::string_view suffix) {
  std::filesystem::path result = path;
  result += std::string(suffix);
  return result;
}

// The companions get the new name plus their suffix, so that SQLite opens the moved copy
// together with its write-ahead log.
Result<std::filesystem::path> moveDatabaseAside(const std::filesystem::path& path) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(
                           std::chrono::system_clock::now().time_since_epoch())
                           .count();
  const std::filesystem::path base = withSuffix(path, ".corrupt-" + std::to_string(seconds));
  auto takenWithCompanions = [](const std::filesystem::path& candidate) {
    if (nameTaken(candidate)) {
      return true;
    }
    for (std::string_view suffix : kCompanionSuffixes) {
      if (nameTaken(withSuffix(candidate, suffix))) {
        return true;
      }
    }
    return false;
  };
  // An earlier damaged copy from the same second is kept, never replaced.
  std::filesystem::path target = base;
  for (int n = 1; takenWithCompanions(target); ++n) {
    target = withSuffix(base, "." + std::to_string(n));
  }

  if (::rename(path.c_str(), target.c_str()) != 0) {
    return posixError(errno, "rename " + path.string());
  }
  for (std::string_view suffix : kCompanionSuffixes) {
    const std::filesystem::path companion = withSuffix(path, suffix);
    if (::rename(companion.c_str(), withSuffix(target, suffix).c_str()) != 0 && errno != ENOENT) {
      return posixError(errno, "rename " + companion.string());
    }
  }
  return target;
}

}  // namespace

Error sqliteError(sqlite3* db, int code) {
  // The connection's message describes its most recent failure, which need not be this one.
  const bool connectionKnowsIt = db != nullptr && sqlite3_extended_errcode(db) == code;
  return Error{std::string(kSqliteErrorDomain), code,
               connectionKnowsIt ? sqlite3_errmsg(db) : sqlite3_errstr(code)};
}

bool isSqliteBusy(const Error& error) {
  return error.domain == kSqliteErrorDomain && (error.code & 0xff) == SQLITE_BUSY;
}

bool isSqliteCorruption(const Error& error) {
  if (error.domain != kSqliteErrorDomain) {
    return false;
  }
  const auto primary = error.code & 0xff;
  return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB;
}

// ----- SqliteStatement

SqliteStatement::~SqliteStatement() {
  sqlite3_finalize(statement_);
}

SqliteStatement::SqliteStatement(SqliteStatement&& other) noexcept
    : statement_(std::exchange(other.statement_, nullptr)) {}

SqliteStatement& SqliteStatement::operator=(SqliteStatement&& other) noexcept {
  if (this != &other) {
    sqlite3_finalize(statement_);
    statement_ = std::exchange(other.statement_, nullptr);
  }
  return *this;
}

Error SqliteStatement::lastError(int code) const {
  return sqliteError(statement_ != nullptr ? sqlite3_db_handle(statement_) : nullptr, code);
}

Status SqliteStatement::bindText(int index, std::string_view text, SqliteCopy copy) {
  const char* data = text.empty() ? kEmptyText : text.data();
  const int rc =
      sqlite3_bind_text64(statement_, index, data, text.size(), destructorFor(copy), SQLITE_UTF8);
  return rc == SQLITE_OK ? Status{} : lastError(rc);
}

Status SqliteStatement::bindBlob(int index, std::span<const std::uint8_t> bytes, SqliteCopy copy) {
  const void* data = bytes.empty() ? kEmptyBlob : bytes.data();
  const int rc = sqlite3_bind_blob64(statement_, index, data, bytes.size(), destructorFor(copy));
  return rc == SQLITE_OK ? Status{} : lastError(rc);
}

Status SqliteStatement::bindInt64(int index, std::int64_t value) {
  const int rc = sqlite3_bind_int64(statement_, index, value);
  return rc == SQLITE_OK ? Status{} : lastError(rc);
}

Status SqliteStatement::bindDouble(int index, double value) {
  const int rc = sqlite3_bind_double(statement_, index, value);
  return rc == SQLITE_OK ? Status{} : lastError(rc);
}

Status SqliteStatement::bindNull(int index) {
  const int rc = sqlite3_bind_null(statement_, index);
  return rc == SQLITE_OK ? Status{} : lastError(rc);
}

Result<bool> SqliteStatement::step() {
  const int rc = sqlite3_step(statement_);
  if (rc == SQLITE_ROW) {
    return true;
  }
  if (rc == SQLITE_DONE) {
    return false;
  }
  return lastError(rc);
}

Status SqliteStatement::run() {
  for (;;) {
    Result<bool> row = step();
    if (!row) {
      return row.error();
    }
    if (!*row) {
      return {};
    }
  }
}

void SqliteStatement::reset() {
  // sqlite3_reset repeats the error of the last step, which its caller has already seen.
  sqlite3_reset(statement_);
  sqlite3_clear_bindings(statement_);
}

int SqliteStatement::columnCount() const {
  return sqlite3_column_count(statement_);
}

int SqliteStatement::columnType(int column) const {
  return sqlite3_column_type(statement_, column);
}

std::int64_t SqliteStatement::columnInt64(int column) const {
  return sqlite3_column_int64(statement_, column);
}

double SqliteStatement::columnDouble(int column) const {
  return sqlite3_column_double(statement_, column);
}

std::string_view SqliteStatement::columnTextView(int column) const {
  // The pointer first, then the size: the documented order that avoids a second conversion.
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
  const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement_, column));
  return text == nullptr ? std::string_view() : std::string_view(text, size);
}

std::span<const std::uint8_t> SqliteStatement::columnBlobView(int column) const {
  const auto* bytes = static_cast<const std::uint8_t*>(sqlite3_column_blob(statement_, column));
  const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement_, column));
  return bytes == nullptr ? std::span<const std::uint8_t>() : std::span(bytes, size);
}

Bytes SqliteStatement::columnBlob(int column) const {
  const auto view = columnBlobView(column);
  return Bytes(view.begin(), view.end());
}

// ----- SqliteDatabase

Result<SqliteDatabase> SqliteDatabase::open(const std::filesystem::path& path, int flags) {
  sqlite3* db = nullptr;
  const int rc = sqlite3_open_v2(path.c_str(), &db, flags | SQLITE_OPEN_EXRESCODE, nullptr);
  if (rc != SQLITE_OK) {
    Error error = sqliteError(db, rc);
    error.description += " (" + path.string() + ")";
    sqlite3_close_v2(db);
    return error;
  }
  sqlite3_extended_result_codes(db, 1);
  return SqliteDatabase(db);
}

// close_v2 defers the close until the last statement is finalised, so the order in which an
// owner destroys its members cannot leak the connection.
SqliteDatabase::~SqliteDatabase() {
  sqlite3_close_v2(db_);
}

SqliteDatabase::SqliteDatabase(SqliteDatabase&& other) noexcept
    : db_(std::exchange(other.db_, nullptr)) {}

SqliteDatabase& SqliteDatabase::operator=(SqliteDatabase&& other) noexcept {
  if (this != &other) {
    sqlite3_close_v2(db_);
    db_ = std::exchange(other.db_, nullptr);
  }
  return *this;
}

Status SqliteDatabase::exec(const std::string& sql) {
  const int rc = sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr);
  return rc == SQLITE_OK ? Status{} : error(rc);
}

Result<SqliteStatement> SqliteDatabase::prepare(std::string_view sql, bool persistent) {
  sqlite3_stmt* raw = nullptr;
  const char* tail = nullptr;
  const int rc = sqlite3_prepare_v3(db_, sql.data(), static_cast<int>(sql.size()),
                                    persistent ? SQLITE_PREPARE_PERSISTENT : 0, &raw, &tail);
  if (rc != SQLITE_OK) {
    return error(rc);
  }
  SqliteStatement statement(raw);
  // Only the first statement would run; anything after it is a mistake in the caller's SQL.
  std::string_view rest = sql.substr(static_cast<std::size_t>(tail - sql.data()));
  if (!statement.valid() || rest.find_first_not_of(" \t\r\n;") != std::string_view::npos) {
    return Error{std::string(kSqliteErrorDomain), SQLITE_MISUSE,
                 "not exactly one statement: " + std::string(sql)};
  }
  return statement;
}

Result<std::string> SqliteDatabase::pragma(std::string_view name, std::string_view value) {
  std::string sql = "PRAGMA " + std::string(name);
  if (!value.empty()) {
    sql += " = " + std::string(value);
  }
  Result<SqliteStatement> statement = prepare(sql);
  if (!statement) {
    return statement.error();
  }
  Result<bool> row = statement.value().step();
  if (!row) {
    return row.error();
  }
  return *row ? statement.value().columnText(0) : std::string();
}

Status SqliteDatabase::setBusyTimeout(std::chrono::milliseconds timeout) {
  const int rc = sqlite3_busy_timeout(db_, static_cast<int>(timeout.count()));
  return rc == SQLITE_OK ? Status{} : error(rc);
}

Result<SqliteTransaction> SqliteDatabase::begin(SqliteTransactionKind kind) {
  const char* sql = "BEGIN IMMEDIATE";
  if (kind == SqliteTransactionKind::deferred) {
    sql = "BEGIN DEFERRED";
  } else if (kind == SqliteTransactionKind::exclusive) {
    sql = "BEGIN EXCLUSIVE";
  }
  if (Status failure = exec(sql)) {
    return *failure;
  }
  return SqliteTransaction(*this);
}

std::int64_t SqliteDatabase::changes() const {
  return sqlite3_changes64(db_);
}

std::int64_t SqliteDatabase::lastInsertRowId() const {
  return sqlite3_last_insert_rowid(db_);
}

bool SqliteDatabase::inTransaction() const {
  return db_ != nullptr && sqlite3_get_autocommit(db_) == 0;
}

// ----- SqliteTransaction

SqliteTransaction::~SqliteTransaction() {
  rollback();
}

SqliteTransaction::SqliteTransaction(SqliteTransaction&& other) noexcept
    : database_(std::exchange(other.database_, nullptr)) {}

Status SqliteTransaction::commit() {
  if (database_ == nullptr) {
    return Error{std::string(kSqliteErrorDomain), SQLITE_MISUSE, "no transaction to commit"};
  }
  if (Status failure = database_->exec("COMMIT")) {
    return failure;
  }
  database_ = nullptr;
  return {};
}

void SqliteTransaction::rollback() {
  // After some errors (a full disk, an I/O error) SQLite has already rolled back by itself.
  if (database_ != nullptr && database_->inTransaction()) {
    (void)database_->exec("ROLLBACK");
  }
  database_ = nullptr;
}

// ----- Stores

Status sqliteQuickCheck(SqliteDatabase& database) {
  Result<std::string> verdict = database.pragma("quick_check(1)");
  if (!verdict) {
    return verdict.error();
  }
  if (*verdict != "ok") {
    return Error{std::string(kSqliteErrorDomain), SQLITE_CORRUPT, "quick_check: " + *verdict};
  }
  return {};
}

Result<SqliteDatabase> openSqliteStore(const SqliteStoreOpening& opening) {
  const std::filesystem::path& path = opening.path;
  bool movedAside = false;
  const auto busyUntil = std::chrono::steady_clock::now() + kSetUpBusyPatience;
  for (;;) {
    if (opening.prepareFile) {
      if (Status failure = opening.prepareFile()) {
        return *failure;
      }
    }
    if (path.has_parent_path()) {
      std::error_code code;
      std::filesystem::create_directories(path.parent_path(), code);
      if (code) {
        return posixError(code.value(), "create directory", path.parent_path());
      }
    }

    Result<SqliteDatabase> database = SqliteDatabase::open(path);
    Status failure;
    if (!database) {
      failure = database.error();
    } else if (opening.setUp) {
      failure = opening.setUp(database.value());
    }
    if (!failure) {
      return database;
    }
    // Connections setting up a new file at once (two processes starting on a new data
    // directory) can meet locks that the busy handler does not wait for, such as the change to
    // WAL: the setup is run again on a new connection.
    if (isSqliteBusy(*failure) && std::chrono::steady_clock::now() < busyUntil) {
      database = SqliteDatabase();
      std::this_thread::sleep_for(kSetUpBusyPause);
      continue;
    }
    if (movedAside || !isSqliteCorruption(*failure)) {
      return *failure;
    }
    movedAside = true;
    // Moved while still open: closing the last connection deletes the -wal and -shm files by
    // name, which must by then name nothing.
    Result<std::filesystem::path> moved = moveDatabaseAside(path);
    database = SqliteDatabase();
    if (!moved) {
      logError(opening.logCategory, kDamagedStoreNotMoved,
               {opening.storeName, path.string(), failure->text(), moved.error().text()});
      return moved.error();
    }
    logError(opening.logCategory, kDamagedStoreMovedAside,
             {opening.storeName, path.string(), failure->text(), moved->string()});
  }
}

}  // namespace kestrova
