// Move-only owners of SQLite connections, prepared statements and transactions, and the
// open-or-move-aside routine of the stores kept in SQLite files. Each object is owned by its
// holder and used by one thread at a time: a shared connection is guarded by the caller's mutex.
#pragma once

#include <sqlite3.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <span>
#include <string>
#include <string_view>

#include "platform/result.h"

namespace kestrova {

inline constexpr std::string_view kSqliteErrorDomain = "SQLite";

// Read-write, created when missing, and without SQLite's per-connection mutex: every
// connection here is already serialised by its owner.
inline constexpr int kSqliteOpenDefault =
    SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;

// Error{"SQLite", code, message}; the message is the connection's when there is one.
Error sqliteError(sqlite3* db, int code);
// Whether `error` is SQLITE_BUSY (or one of its extended codes).
bool isSqliteBusy(const Error& error);
// True for the results that mean the file is not a database or is damaged.
bool isSqliteCorruption(const Error& error);

// Whether a bound text or blob is copied by SQLite or must outlive the next step or reset.
enum class SqliteCopy { copy, borrow };

class SqliteStatement {
 public:
  SqliteStatement() = default;
  explicit SqliteStatement(sqlite3_stmt* statement) : statement_(statement) {}
  ~SqliteStatement();
  SqliteStatement(SqliteStatement&& other) noexcept;
  SqliteStatement& operator=(SqliteStatement&& other) noexcept;
  SqliteStatement(const SqliteStatement&) = delete;
  SqliteStatement& operator=(const SqliteStatement&) = delete;

  bool valid() const { return statement_ != nullptr; }
  sqlite3_stmt* handle() const { return statement_; }

  // Parameters count from 1. An empty text or blob is bound as such, never as NULL.
  Status bindText(int index, std::string_view text, SqliteCopy copy = SqliteCopy::copy);
  Status bindBlob(int index, std::span<const std::uint8_t> bytes,
                  SqliteCopy copy = SqliteCopy::copy);
  Status bindInt64(int index, std::int64_t value);
  Status bindDouble(int index, double value);
  Status bindNull(int index);

  // True when a row is ready, false when the statement has run to its end.
  Result<bool> step();
  // Steps to the end, ignoring any rows: for statements that change data.
  Status run();
  // Makes the statement ready to run again and clears its bindings. A statement left
  // unreset keeps its read snapshot open, which holds back WAL checkpoints.
  void reset();

  // Columns count from 0 and are read from the current row; views and spans stay valid until
  // the next step or reset.
  int columnCount() const;
  // SQLITE_INTEGER, SQLITE_FLOAT, SQLITE_TEXT, SQLITE_BLOB or SQLITE_NULL.
  int columnType(int column) const;
  bool columnIsNull(int column) const { return columnType(column) == SQLITE_NULL; }
  std::int64_t columnInt64(int column) const;
  double columnDouble(int column) const;
  std::string_view columnTextView(int column) const;
  std::string columnText(int column) const { return std::string(columnTextView(column)); }
  std::span<const std::uint8_t> columnBlobView(int column) const;
  Bytes columnBlob(int column) const;

 private:
  Error lastError(int code) const;

  sqlite3_stmt* statement_ = nullptr;
};

// Resets a statement, typically a cached one, when the scope that used it ends.
class SqliteResetScope {
 public:
  explicit SqliteResetScope(SqliteStatement& statement) : statement_(statement) {}
  ~SqliteResetScope() { statement_.reset(); }
  SqliteResetScope(const SqliteResetScope&) = delete;
  SqliteResetScope& operator=(const SqliteResetScope&) = delete;

 private:
  SqliteStatement& statement_;
};

class SqliteTransaction;

enum class SqliteTransactionKind { deferred, immediate, exclusive };

class SqliteDatabase {
 public:
  // Extended result codes are always on, so that errors keep SQLite's precise code.
  static Result<SqliteDatabase> open(const std::filesystem::path& path,
                                     int flags = kSqliteOpenDefault);

  SqliteDatabase() = default;
  ~SqliteDatabase();
  SqliteDatabase(SqliteDatabase&& other) noexcept;
  SqliteDatabase& operator=(SqliteDatabase&& other) noexcept;
  SqliteDatabase(const SqliteDatabase&) = delete;
  SqliteDatabase& operator=(const SqliteDatabase&) = delete;

  bool valid() const { return db_ != nullptr; }
  sqlite3* handle() const { return db_; }

  // Runs one or more statements that return no rows of interest.
  Status exec(const std::string& sql);
  // `persistent` tells SQLite the statement is cached and reused many times.
  Result<SqliteStatement> prepare(std::string_view sql, bool persistent = false);
  // "PRAGMA name = value" (or just "PRAGMA name"); the first column of the first row, empty
  // when there is none. Names and values are the caller's own constants, not user input.
  Result<std::string> pragma(std::string_view name, std::string_view value = {});
  Status setBusyTimeout(std::chrono::milliseconds timeout);

  Result<SqliteTransaction> begin(SqliteTransactionKind kind = SqliteTransactionKind::immediate);

  // Rows changed by the most recent INSERT, UPDATE or DELETE.
  std::int64_t changes() const;
  std::int64_t lastInsertRowId() const;
  bool inTransaction() const;
  Error error(int code) const { return sqliteError(db_, code); }

 private:
  explicit SqliteDatabase(sqlite3* db) : db_(db) {}

  sqlite3* db_ = nullptr;
};

// An open transaction that is rolled back when it goes away without a successful commit.
class SqliteTransaction {
 public:
  ~SqliteTransaction();
  SqliteTransaction(SqliteTransaction&& other) noexcept;
  SqliteTransaction& operator=(SqliteTransaction&& other) = delete;
  SqliteTransaction(const SqliteTransaction&) = delete;
  SqliteTransaction& operator=(const SqliteTransaction&) = delete;

  // On failure the transaction stays open and is rolled back by the destructor.
  Status commit();
  void rollback();

 private:
  friend class SqliteDatabase;
  explicit SqliteTransaction(SqliteDatabase& database) : database_(&database) {}

  SqliteDatabase* database_;  // null once committed or rolled back
};

// What a store needs to open its database file.
struct SqliteStoreOpening {
  std::filesystem::path path;
  // Log category and the store's name as it appears in log lines.
  std::string_view logCategory;
  std::string_view storeName;
  // Runs before every attempt to open the file, for instance to create it with narrow
  // permissions; its error ends the opening.
  std::function<Status()> prepareFile;
  // Pragmas, integrity check and schema on the new connection. An error that
  // isSqliteCorruption() accepts makes the file count as damaged.
  std::function<Status(SqliteDatabase&)> setUp;
};

// Opens the database; a file that turns out to be damaged, at open or in setUp, is moved
// aside with its -wal, -shm and -journal files to "<name>.corrupt-<unix seconds>", an error
// line names both paths, and a new database is started in its place. A setUp that fails
// because another connection holds a lock is run again on a new connection, for up to 10 s.
Result<SqliteDatabase> openSqliteStore(const SqliteStoreOpening& opening);

// The database's integrity by "PRAGMA quick_check": an SQLITE_CORRUPT error when it finds
// damage.
Status sqliteQuickCheck(SqliteDatabase& database);

}  // namespace kestrova
