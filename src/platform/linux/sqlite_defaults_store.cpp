#include <chrono>
#include <cmath>
#include <limits>
#include <mutex>
#include <string>
#include <utility>

#include "platform/defaults_store.h"
#include "platform/linux/sqlite.h"
#include "platform/log.h"

namespace kestrova {
namespace {

constexpr std::string_view kLogCategory = "Defaults";
constexpr std::string_view kStoreName = "Defaults store";
constexpr std::string_view kReadFailed = "Defaults store read failed for %{public}@: %{public}@";
constexpr std::string_view kWriteFailed = "Defaults store write failed for %{public}@: %{public}@";
constexpr std::string_view kRemoveFailed =
    "Defaults store remove failed for %{public}@: %{public}@";
constexpr std::string_view kKeysFailed =
    "Defaults store could not list keys with prefix %{public}@: %{public}@";
constexpr std::string_view kBatchFailed =
    "Defaults store write of %{public}@ keys in one transaction failed: %{public}@";
constexpr std::string_view kRangeFailed =
    "Defaults store could not read the keys from %{public}@: %{public}@";
constexpr std::string_view kUnknownType =
    "Defaults store holds a value of unknown type %{public}@ for %{public}@";

// Another connection (another process) may hold the write lock for the length of a commit.
constexpr std::chrono::milliseconds kBusyTimeout{5000};

// The `value` column has no declared type, so SQLite keeps each value's storage class; the
// explicit type also covers NaN, which SQLite stores as NULL.
constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS entries ("
    "name TEXT PRIMARY KEY NOT NULL, type INTEGER NOT NULL, value) WITHOUT ROWID";
constexpr std::string_view kSelectSql = "SELECT type, value FROM entries WHERE name = ?1";
constexpr std::string_view kUpsertSql =
    "INSERT INTO entries (name, type, value) VALUES (?1, ?2, ?3) "
    "ON CONFLICT (name) DO UPDATE SET type = excluded.type, value = excluded.value";
constexpr std::string_view kDeleteSql = "DELETE FROM entries WHERE name = ?1";
// Binary collation orders keys bytewise, as std::string compares them; the scan stops at the
// first key past the prefix.
constexpr std::string_view kKeysFromSql = "SELECT name FROM entries WHERE name >= ?1 ORDER BY name";
constexpr std::string_view kRangeSql =
    "SELECT name, type, value FROM entries WHERE name >= ?1 AND name < ?2 ORDER BY name LIMIT ?3";
constexpr std::string_view kDeleteRangeSql = "DELETE FROM entries WHERE name >= ?1 AND name < ?2";

// Stored type codes; never renumber, they are on disk.
enum ValueType : std::int64_t { kTypeBlob = 1, kTypeText = 2, kTypeInteger = 3, kTypeReal = 4 };

Status setUpDatabase(SqliteDatabase& database) {
  if (Status failure = database.setBusyTimeout(kBusyTimeout)) {
    return failure;
  }
  // WAL with NORMAL sync: a killed process loses nothing committed; a power cut may lose the
  // last commits but leaves a consistent file.
  if (Result<std::string> mode = database.pragma("journal_mode", "WAL"); !mode) {
    return mode.error();
  }
  if (Result<std::string> sync = database.pragma("synchronous", "NORMAL"); !sync) {
    return sync.error();
  }
  if (Status failure = sqliteQuickCheck(database)) {
    return failure;
  }
  return database.exec(kSchema);
}

Status bindValue(SqliteStatement& statement, const DefaultsValue& value) {
  struct Binder {
    SqliteStatement& statement;
    Status bindType(std::int64_t type) { return statement.bindInt64(2, type); }
    Status operator()(const Bytes& bytes) {
      Status failure = bindType(kTypeBlob);
      return failure ? failure : statement.bindBlob(3, bytes, SqliteCopy::borrow);
    }
    Status operator()(const std::string& text) {
      Status failure = bindType(kTypeText);
      return failure ? failure : statement.bindText(3, text, SqliteCopy::borrow);
    }
    Status operator()(std::int64_t integer) {
      Status failure = bindType(kTypeInteger);
      return failure ? failure : statement.bindInt64(3, integer);
    }
    Status operator()(double real) {
      Status failure = bindType(kTypeReal);
      return failure ? failure : statement.bindDouble(3, real);
    }
  };
  return std::visit(Binder{statement}, value);
}

class SqliteDefaultsStore final : public DefaultsStore {
 public:
  struct Statements {
    SqliteStatement select;
    SqliteStatement upsert;
    SqliteStatement remove;
    SqliteStatement keysFrom;
    SqliteStatement range;
    SqliteStatement removeRange;
  };

  SqliteDefaultsStore(SqliteDatabase database, Statements statements)
      : database_(std::move(database)), statements_(std::move(statements)) {}

  std::optional<DefaultsValue> object(std::string_view key) const override {
    std::lock_guard lock(mutex_);
    SqliteStatement& select = statements_.select;
    SqliteResetScope resetScope(select);
    if (Status failure = select.bindText(1, key, SqliteCopy::borrow)) {
      logError(kLogCategory, kReadFailed, {key, failure->text()});
      return std::nullopt;
    }
    Result<bool> row = select.step();
    if (!row) {
      logError(kLogCategory, kReadFailed, {key, row.error().text()});
      return std::nullopt;
    }
    if (!*row) {
      return std::nullopt;
    }
    return columnValue(select, 0, key);
  }

  std::vector<std::pair<std::string, DefaultsValue>> objects(std::string_view from,
                                                             std::string_view to,
                                                             std::size_t limit) const override {
    std::lock_guard lock(mutex_);
    std::vector<std::pair<std::string, DefaultsValue>> result;
    SqliteStatement& range = statements_.range;
    SqliteResetScope resetScope(range);
    Status failure = range.bindText(1, from, SqliteCopy::borrow);
    if (!failure) {
      failure = range.bindText(2, to, SqliteCopy::borrow);
    }
    if (!failure) {
      // A negative limit is SQLite's "no limit".
      failure = range.bindInt64(3, limit == 0 ? -1 : static_cast<std::int64_t>(limit));
    }
    if (failure) {
      logError(kLogCategory, kRangeFailed, {from, failure->text()});
      return {};
    }
    for (;;) {
      Result<bool> row = range.step();
      if (!row) {
        logError(kLogCategory, kRangeFailed, {from, row.error().text()});
        return result;
      }
      if (!*row) {
        return result;
      }
      std::string key(range.columnTextView(0));
      if (auto value = columnValue(range, 1, key)) {
        result.emplace_back(std::move(key), std::move(*value));
      }
    }
  }
  void setObject(std::string_view key, DefaultsValue value) override {
    std::lock_guard lock(mutex_);
    if (Status failure = write(key, value)) {
      logError(kLogCategory, kWriteFailed, {key, failure->text()});
    }
  }

  void update(std::vector<DefaultsChange> changes) override {
    if (changes.empty()) {
      return;
    }
    std::lock_guard lock(mutex_);
    Result<SqliteTransaction> transaction = database_.begin();
    if (!transaction) {
      logError(kLogCategory, kBatchFailed,
               {std::to_string(changes.size()), transaction.error().text()});
      return;
    }
    for (const auto& [key, value] : changes) {
      if (Status failure = value ? write(key, *value) : remove(key)) {
        logError(kLogCategory, kWriteFailed, {key, failure->text()});
        return;  // The transaction rolls back: none of the batch is kept.
      }
    }
    if (Status failure = transaction.value().commit()) {
      logError(kLogCategory, kBatchFailed, {std::to_string(changes.size()), failure->text()});
    }
  }

  void removeObject(std::string_view key) override {
    std::lock_guard lock(mutex_);
    if (Status failure = remove(key)) {
      logError(kLogCategory, kRemoveFailed, {key, failure->text()});
    }
  }

  void removeObjects(std::string_view from, std::string_view to) override {
    std::lock_guard lock(mutex_);
    SqliteStatement& removeRange = statements_.removeRange;
    SqliteResetScope resetScope(removeRange);
    Status failure = removeRange.bindText(1, from, SqliteCopy::borrow);
    if (!failure) {
      failure = removeRange.bindText(2, to, SqliteCopy::borrow);
    }
    if (!failure) {
      failure = removeRange.run();
    }
    if (failure) {
      logError(kLogCategory, kRemoveFailed, {from, failure->text()});
    }
  }

  std::vector<std::string> keys(std::string_view prefix) const override {
    std::lock_guard lock(mutex_);
    std::vector<std::string> result;
    SqliteStatement& keysFrom = statements_.keysFrom;
    SqliteResetScope resetScope(keysFrom);
    if (Status failure = keysFrom.bindText(1, prefix, SqliteCopy::borrow)) {
      logError(kLogCategory, kKeysFailed, {prefix, failure->text()});
      return {};
    }
    for (;;) {
      Result<bool> row = keysFrom.step();
      if (!row) {
        logError(kLogCategory, kKeysFailed, {prefix, row.error().text()});
        return {};
      }
      if (!*row) {
        return result;
      }
      std::string_view key = keysFrom.columnTextView(0);
      if (!key.starts_with(prefix)) {
        return result;
      }
      result.emplace_back(key);
    }
  }

 private:
  // The value in columns `first` (type) and `first + 1`; none, logged, for an unknown type.
  static std::optional<DefaultsValue> columnValue(const SqliteStatement& row, int first,
                                                  std::string_view key) {
    const std::int64_t type = row.columnInt64(first);
    // Built in place: GCC 12 mistakes the destruction of a moved-from temporary variant for a
    // free of a stack object (-Wfree-nonheap-object) at -O2.
    switch (type) {
      case kTypeBlob:
        return std::optional<DefaultsValue>(std::in_place, std::in_place_type<Bytes>,
                                            row.columnBlob(first + 1));
      case kTypeText:
        return std::optional<DefaultsValue>(std::in_place, std::in_place_type<std::string>,
                                            row.columnTextView(first + 1));
      case kTypeInteger:
        return std::optional<DefaultsValue>(std::in_place, std::in_place_type<std::int64_t>,
                                            row.columnInt64(first + 1));
      case kTypeReal:
        return std::optional<DefaultsValue>(std::in_place, std::in_place_type<double>,
                                            row.columnIsNull(first + 1)
                                                ? std::numeric_limits<double>::quiet_NaN()
                                                : row.columnDouble(first + 1));
      default:
        logError(kLogCategory, kUnknownType, {std::to_string(type), key});
        return std::nullopt;
    }
  }

  // Requires mutex_.
  Status remove(std::string_view key) {
    SqliteStatement& statement = statements_.remove;
    SqliteResetScope resetScope(statement);
    if (Status failure = statement.bindText(1, key, SqliteCopy::borrow)) {
      return failure;
    }
    return statement.run();
  }

  // Requires mutex_.
  Status write(std::string_view key, const DefaultsValue& value) {
    SqliteStatement& upsert = statements_.upsert;
    SqliteResetScope resetScope(upsert);
    if (Status failure = upsert.bindText(1, key, SqliteCopy::borrow)) {
      return failure;
    }
    if (Status failure = bindValue(upsert, value)) {
      return failure;
    }
    return upsert.run();
  }

  mutable std::mutex mutex_;  // owns database_ and statements_ (one connection, one user)
  SqliteDatabase database_;
  // Declared after database_ so that they are finalised before it closes.
  mutable Statements statements_;
};

}  // namespace

Result<std::shared_ptr<DefaultsStore>> openSqliteDefaultsStore(const std::filesystem::path& path) {
  Result<SqliteDatabase> database = openSqliteStore(SqliteStoreOpening{
      .path = path,
      .logCategory = kLogCategory,
      .storeName = kStoreName,
      .prepareFile = nullptr,
      .setUp = setUpDatabase,
  });
  if (!database) {
    return database.error();
  }
  SqliteDefaultsStore::Statements statements;
  const std::pair<SqliteStatement*, std::string_view> toPrepare[] = {
      {&statements.select, kSelectSql}, {&statements.upsert, kUpsertSql},
      {&statements.remove, kDeleteSql}, {&statements.keysFrom, kKeysFromSql},
      {&statements.range, kRangeSql},   {&statements.removeRange, kDeleteRangeSql},
  };
  for (const auto& [statement, sql] : toPrepare) {
    Result<SqliteStatement> prepared = database.value().prepare(sql, /*persistent=*/true);
    if (!prepared) {
      return prepared.error();
    }
    *statement = std::move(prepared).value();
  }
  return std::shared_ptr<DefaultsStore>(
      std::make_shared<SqliteDefaultsStore>(std::move(database).value(), std::move(statements)));
}

}  // namespace kestrova
