#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <mutex>
#include <string>
#include <system_error>
#include <utility>

#include "platform/linux/posix.h"
#include "platform/linux/sqlite.h"
#include "platform/log.h"
#include "platform/secure_store.h"

namespace kestrova {
namespace {

constexpr std::string_view kLogCategory = "Keychain";
constexpr std::string_view kStoreName = "Secure store";
constexpr std::string_view kCopyFailed =
    "Secure store read failed for service %{public}@, account %@: %{public}@";
constexpr std::string_view kAddFailed =
    "Secure store add failed for service %{public}@, account %@: %{public}@";
constexpr std::string_view kUpdateFailed =
    "Secure store update failed for service %{public}@, account %@: %{public}@";
constexpr std::string_view kRemoveFailed =
    "Secure store remove failed for service %{public}@, account %@: %{public}@";

constexpr mode_t kDirectoryMode = 0700;
constexpr mode_t kFileMode = 0600;
constexpr mode_t kPermissionBits = 07777;
constexpr std::chrono::milliseconds kBusyTimeout{5000};

constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS items ("
    "service TEXT NOT NULL, account TEXT NOT NULL, data BLOB NOT NULL, "
    "PRIMARY KEY (service, account)) WITHOUT ROWID";
constexpr std::string_view kSelectSql =
    "SELECT data FROM items WHERE service = ?1 AND account = ?2";
constexpr std::string_view kInsertSql =
    "INSERT INTO items (service, account, data) VALUES (?1, ?2, ?3)";
constexpr std::string_view kUpdateSql =
    "UPDATE items SET data = ?3 WHERE service = ?1 AND account = ?2";
constexpr std::string_view kDeleteSql = "DELETE FROM items WHERE service = ?1 AND account = ?2";

Status restrictDirectory(const std::filesystem::path& directory) {
  if (directory.empty()) {
    return {};  // The current directory is the caller's, not ours to restrict.
  }
  if (directory.has_parent_path()) {
    std::error_code code;
    std::filesystem::create_directories(directory.parent_path(), code);
    if (code) {
      return posixError(code.value(), "create directory", directory.parent_path());
    }
  }
  if (::mkdir(directory.c_str(), kDirectoryMode) != 0 && errno != EEXIST) {
    return posixError(errno, "create directory", directory);
  }
  struct stat status {};
  if (::stat(directory.c_str(), &status) != 0) {
    return posixError(errno, "inspect directory", directory);
  }
  if (!S_ISDIR(status.st_mode)) {
    return posixError(ENOTDIR, "use directory", directory);
  }
  // mkdir's mode passes through the umask, and an older directory may be wider.
  if ((status.st_mode & kPermissionBits) != kDirectoryMode &&
      ::chmod(directory.c_str(), kDirectoryMode) != 0) {
    return posixError(errno, "restrict directory", directory);
  }
  return {};
}

// Creates the database file owner-only before SQLite sees it: SQLite would create it with
// 0644, and it gives its -wal, -shm and -journal files the mode of the database file.
Status restrictFile(const std::filesystem::path& path) {
  // O_NOFOLLOW: a planted symbolic link must not redirect the secrets elsewhere.
  FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kFileMode));
  if (file.get() < 0) {
    return posixError(errno, "create", path);
  }
  struct stat status {};
  if (::fstat(file.get(), &status) != 0) {
    return posixError(errno, "inspect", path);
  }
  if ((status.st_mode & kPermissionBits) != kFileMode && ::fchmod(file.get(), kFileMode) != 0) {
    return posixError(errno, "restrict", path);
  }
  // Journals left behind by an earlier run keep whatever mode they were created with.
  for (const char* suffix : {"-wal", "-shm", "-journal"}) {
    std::filesystem::path companion = path;
    companion += suffix;
    if (::lstat(companion.c_str(), &status) != 0) {
      continue;
    }
    if (S_ISREG(status.st_mode) && (status.st_mode & kPermissionBits) != kFileMode &&
        ::chmod(companion.c_str(), kFileMode) != 0) {
      return posixError(errno, "restrict", companion);
    }
  }
  return {};
}

Status setUpDatabase(SqliteDatabase& database) {
  if (Status failure = database.setBusyTimeout(kBusyTimeout)) {
    return failure;
  }
  // Credentials are rare writes that must not vanish on a power cut: full sync.
  if (Result<std::string> mode = database.pragma("journal_mode", "WAL"); !mode) {
    return mode.error();
  }
  if (Result<std::string> sync = database.pragma("synchronous", "FULL"); !sync) {
    return sync.error();
  }
  // Removed or replaced secrets are overwritten in the file rather than left in free pages.
  if (Result<std::string> erase = database.pragma("secure_delete", "ON"); !erase) {
    return erase.error();
  }
  if (Status failure = sqliteQuickCheck(database)) {
    return failure;
  }
  return database.exec(kSchema);
}

class SqliteSecureStore final : public SecureStore {
 public:
  struct Statements {
    SqliteStatement select;
    SqliteStatement insert;
    SqliteStatement update;
    SqliteStatement remove;
  };

  SqliteSecureStore(SqliteDatabase database, Statements statements)
      : database_(std::move(database)), statements_(std::move(statements)) {}

  OSStatus copyMatching(std::string_view service, std::string_view account,
                        SecureItem& result) const override {
    std::lock_guard lock(mutex_);
    SqliteStatement& select = statements_.select;
    SqliteResetScope resetScope(select);
    Status bound = bindKey(select, service, account);
    Result<bool> row = bound ? Result<bool>(*bound) : select.step();
    if (!row) {
      logError(kLogCategory, kCopyFailed, {service, account, row.error().text()});
      return errSecIO;
    }
    if (!*row) {
      return errSecItemNotFound;
    }
    result.service = std::string(service);
    result.account = std::string(account);
    result.data = select.columnBlob(0);
    return errSecSuccess;
  }

  OSStatus add(const SecureItem& item) override {
    std::lock_guard lock(mutex_);
    SqliteStatement& insert = statements_.insert;
    SqliteResetScope resetScope(insert);
    Status failure = bindKeyAndData(insert, item.service, item.account, item.data);
    if (!failure) {
      failure = insert.run();
    }
    if (!failure) {
      return errSecSuccess;
    }
    if (failure->code == SQLITE_CONSTRAINT_PRIMARYKEY) {
      return errSecDuplicateItem;
    }
    logError(kLogCategory, kAddFailed, {item.service, item.account, failure->text()});
    return errSecIO;
  }

  OSStatus update(std::string_view service, std::string_view account, const Bytes& data) override {
    std::lock_guard lock(mutex_);
    SqliteStatement& update = statements_.update;
    SqliteResetScope resetScope(update);
    Status failure = bindKeyAndData(update, service, account, data);
    if (!failure) {
      failure = update.run();
    }
    if (failure) {
      logError(kLogCategory, kUpdateFailed, {service, account, failure->text()});
      return errSecIO;
    }
    return database_.changes() == 0 ? errSecItemNotFound : errSecSuccess;
  }

  OSStatus remove(std::string_view service, std::string_view account) override {
    std::lock_guard lock(mutex_);
    SqliteStatement& remove = statements_.remove;
    SqliteResetScope resetScope(remove);
    Status failure = bindKey(remove, service, account);
    if (!failure) {
      failure = remove.run();
    }
    if (failure) {
      logError(kLogCategory, kRemoveFailed, {service, account, failure->text()});
      return errSecIO;
    }
    return database_.changes() == 0 ? errSecItemNotFound : errSecSuccess;
  }

 private:
  static Status bindKey(SqliteStatement& statement, std::string_view service,
                        std::string_view account) {
    if (Status failure = statement.bindText(1, service, SqliteCopy::borrow)) {
      return failure;
    }
    return statement.bindText(2, account, SqliteCopy::borrow);
  }

  static Status bindKeyAndData(SqliteStatement& statement, std::string_view service,
                               std::string_view account, const Bytes& data) {
    if (Status failure = bindKey(statement, service, account)) {
      return failure;
    }
    return statement.bindBlob(3, data, SqliteCopy::borrow);
  }

  mutable std::mutex mutex_;  // owns database_ and statements_ (one connection, one user)
  SqliteDatabase database_;
  // Declared after database_ so that they are finalised before it closes.
  mutable Statements statements_;
};

}  // namespace

Result<std::shared_ptr<SecureStore>> openSqliteSecureStore(const std::filesystem::path& path) {
  Result<SqliteDatabase> database = openSqliteStore(SqliteStoreOpening{
      .path = path,
      .logCategory = kLogCategory,
      .storeName = kStoreName,
      .prepareFile = [&path]() -> Status {
        if (Status failure = restrictDirectory(path.parent_path())) {
          return failure;
        }
        return restrictFile(path);
      },
      .setUp = setUpDatabase,
  });
  if (!database) {
    return database.error();
  }
  SqliteSecureStore::Statements statements;
  const std::pair<SqliteStatement*, std::string_view> toPrepare[] = {
      {&statements.select, kSelectSql},
      {&statements.insert, kInsertSql},
      {&statements.update, kUpdateSql},
      {&statements.remove, kDeleteSql},
  };
  for (const auto& [statement, sql] : toPrepare) {
    Result<SqliteStatement> prepared = database.value().prepare(sql, /*persistent=*/true);
    if (!prepared) {
      return prepared.error();
    }
    *statement = std::move(prepared).value();
  }
  return std::shared_ptr<SecureStore>(
      std::make_shared<SqliteSecureStore>(std::move(database).value(), std::move(statements)));
}

}  // namespace kestrova
