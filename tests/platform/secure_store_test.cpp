#include "platform/secure_store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <string>

#include "support/test_support.h"

namespace kestrova {
namespace {

using testing::TempDir;

std::shared_ptr<SecureStore> openStore(const std::filesystem::path& path) {
  auto store = openSqliteSecureStore(path);
  EXPECT_TRUE(store.ok()) << (store.ok() ? "" : store.error().text());
  return store.ok() ? *store : nullptr;
}

mode_t permissions(const std::filesystem::path& path) {
  struct stat status {};
  EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777;
}

// The data stored under service and account, or the status of the lookup as text.
std::string lookUp(const SecureStore& store, std::string_view service, std::string_view account) {
  SecureItem found{"untouched", "untouched", toBytes("untouched")};
  const auto status = store.copyMatching(service, account, found);
  if (status != errSecSuccess) {
    return found.data == toBytes("untouched") ? std::to_string(status) : "touched on failure";
  }
  return found.service == service && found.account == account ? toString(found.data) : "wrong key";
}

TEST(SqliteSecureStore, StatusesOfCopyAddUpdateRemoveAndReopening) {
  TempDir dir;
  const auto path = dir.path() / "keychain" / "keychain.sqlite";
  auto store = openStore(path);
  ASSERT_TRUE(store);
  EXPECT_EQ(lookUp(*store, "svc", "alice"), "-25300");  // errSecItemNotFound
  EXPECT_EQ(store->update("svc", "alice", toBytes("x")), errSecItemNotFound);
  EXPECT_EQ(store->remove("svc", "alice"), errSecItemNotFound);

  EXPECT_EQ(store->add({"svc", "alice", toBytes("secret-1")}), errSecSuccess);
  EXPECT_EQ(store->add({"svc", "alice", toBytes("other")}), errSecDuplicateItem);
  // Service and account together are the key: neither alone may collide.
  EXPECT_EQ(store->add({"svc", "bob", toBytes("bob")}), errSecSuccess);
  EXPECT_EQ(store->add({"svc2", "alice", toBytes("svc2")}), errSecSuccess);
  EXPECT_EQ(lookUp(*store, "svc", "alice"), "secret-1");  // the duplicate add changed nothing
  EXPECT_EQ(store->update("svc", "alice", toBytes("secret-2")), errSecSuccess);
  EXPECT_EQ(store->remove("svc", "bob"), errSecSuccess);
  store = openStore(path);  // what a new process sees
  ASSERT_TRUE(store);
  EXPECT_EQ(lookUp(*store, "svc", "alice") + lookUp(*store, "svc", "bob"), "secret-2-25300");
}

TEST(SqliteSecureStore, WideFilesLeftBySomeoneElseAreMadeOwnerOnly) {
  const mode_t umask = ::umask(0);  // only the store's own modes may narrow them
  TempDir dir;
  const auto directory = dir.path() / "existing";
  const auto path = directory / "keychain.sqlite";
  auto wal = path;
  wal += "-wal";
  std::filesystem::create_directory(directory);
  ::chmod(directory.c_str(), 0755);
  for (const auto& [file, mode] : {std::pair{path, 0644}, std::pair{wal, 0666}}) {
    std::ofstream(file).close();
    ::chmod(file.c_str(), static_cast<mode_t>(mode));
  }
  auto store = openStore(path);
  ::umask(umask);
  ASSERT_TRUE(store);
  EXPECT_EQ(store->add({"svc", "acct", toBytes("secret")}), errSecSuccess);
  EXPECT_EQ(permissions(directory), 0700u);
  EXPECT_EQ(permissions(path), 0600u);
  EXPECT_EQ(permissions(wal), 0600u);
}

// Moving a damaged store aside is shared with the defaults store (tested there); the new
// store must be as private as the first.
TEST(SqliteSecureStore, DamagedStoreIsReplacedOwnerOnly) {
  TempDir dir;
  auto log = testing::CapturedLog::install();
  const auto path = dir.path() / "keychain.sqlite";
  std::ofstream(path, std::ios::binary) << std::string(4096, '\x5a');
  auto store = openStore(path);
  ASSERT_TRUE(store);
  EXPECT_EQ(store->add({"svc", "acct", toBytes("secret")}), errSecSuccess);
  EXPECT_EQ(lookUp(*store, "svc", "acct"), "secret");
  EXPECT_EQ(permissions(path), 0600u);
  EXPECT_TRUE(log->contains(path.string() + ".corrupt-"));
  log->uninstall();
}

}  // namespace
}  // namespace kestrova
