#include "platform/secure_store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <set>
#include <string>

#include "support/test_support.h"

namespace kestrova {
namespace {

using testing::CapturedLog;
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

// Makes files and directories as wide as the process can, so that only explicit modes narrow
// them.
class PermissiveUmask {
 public:
  PermissiveUmask() : previous_(::umask(0)) {}
  ~PermissiveUmask() { ::umask(previous_); }

 private:
  mode_t previous_;
};

TEST(SqliteSecureStore, StatusesOfCopyAddUpdateRemoveAndReopening) {
  TempDir dir;
  const auto path = dir.path() / "keychain" / "keychain.sqlite";
  auto store = openStore(path);
  ASSERT_TRUE(store);

  SecureItem found{"untouched", "untouched", toBytes("untouched")};
  EXPECT_EQ(store->copyMatching("svc", "alice", found), errSecItemNotFound);
  EXPECT_EQ(found.data, toBytes("untouched"));
  EXPECT_EQ(store->update("svc", "alice", toBytes("x")), errSecItemNotFound);
  EXPECT_EQ(store->remove("svc", "alice"), errSecItemNotFound);

  EXPECT_EQ(store->add({"svc", "alice", toBytes("secret-1")}), errSecSuccess);
  EXPECT_EQ(store->add({"svc", "alice", toBytes("other")}), errSecDuplicateItem);
  // Service and account together are the key: neither alone may collide.
  EXPECT_EQ(store->add({"svc", "bob", toBytes("bob")}), errSecSuccess);
  EXPECT_EQ(store->add({"svc2", "alice", toBytes("svc2")}), errSecSuccess);
  EXPECT_EQ(store->add({"", "", Bytes{}}), errSecSuccess);

  ASSERT_EQ(store->copyMatching("svc", "alice", found), errSecSuccess);
  EXPECT_EQ(found.service, "svc");
  EXPECT_EQ(found.account, "alice");
  EXPECT_EQ(found.data, toBytes("secret-1"));  // the duplicate add changed nothing

  EXPECT_EQ(store->update("svc", "alice", toBytes("secret-2")), errSecSuccess);
  ASSERT_EQ(store->copyMatching("svc", "alice", found), errSecSuccess);
  EXPECT_EQ(found.data, toBytes("secret-2"));
  ASSERT_EQ(store->copyMatching("svc", "bob", found), errSecSuccess);
  EXPECT_EQ(found.data, toBytes("bob"));
  ASSERT_EQ(store->copyMatching("", "", found), errSecSuccess);
  EXPECT_TRUE(found.data.empty());

  EXPECT_EQ(store->remove("svc", "alice"), errSecSuccess);
  EXPECT_EQ(store->remove("svc", "alice"), errSecItemNotFound);
  EXPECT_EQ(store->copyMatching("svc", "alice", found), errSecItemNotFound);
  EXPECT_EQ(store->copyMatching("svc2", "alice", found), errSecSuccess);
  EXPECT_EQ(store->add({"svc", "alice", toBytes("again")}), errSecSuccess);

  store.reset();
  store = openStore(path);
  ASSERT_TRUE(store);
  ASSERT_EQ(store->copyMatching("svc", "alice", found), errSecSuccess);
  EXPECT_EQ(found.data, toBytes("again"));
  ASSERT_EQ(store->copyMatching("svc", "bob", found), errSecSuccess);
  EXPECT_EQ(found.data, toBytes("bob"));
  EXPECT_EQ(store->add({"svc2", "alice", Bytes{}}), errSecDuplicateItem);
}

TEST(SqliteSecureStore, DirectoryAndFilesAreOwnerOnly) {
  PermissiveUmask umask;
  TempDir dir;
  {
    const auto path = dir.path() / "fresh" / "keychain.sqlite";
    auto store = openStore(path);
    ASSERT_TRUE(store);
    ASSERT_EQ(store->add({"svc", "acct", toBytes("secret")}), errSecSuccess);
    EXPECT_EQ(permissions(path.parent_path()), 0700u);
    EXPECT_EQ(permissions(path), 0600u);
    // The write-ahead log and its index exist while the store is open.
    for (const char* suffix : {"-wal", "-shm"}) {
      auto companion = path;
      companion += suffix;
      ASSERT_TRUE(std::filesystem::exists(companion)) << companion;
      EXPECT_EQ(permissions(companion), 0600u) << companion;
    }
  }
  {
    // Left wide by someone else, including a journal from an earlier run.
    const auto directory = dir.path() / "existing";
    const auto path = directory / "keychain.sqlite";
    std::filesystem::create_directory(directory);
    ::chmod(directory.c_str(), 0755);
    std::ofstream(path).close();
    ::chmod(path.c_str(), 0644);
    auto wal = path;
    wal += "-wal";
    std::ofstream(wal).close();
    ::chmod(wal.c_str(), 0666);

    auto store = openStore(path);
    ASSERT_TRUE(store);
    EXPECT_EQ(store->add({"svc", "acct", toBytes("secret")}), errSecSuccess);
    EXPECT_EQ(permissions(directory), 0700u);
    EXPECT_EQ(permissions(path), 0600u);
    EXPECT_EQ(permissions(wal), 0600u);
  }
}

TEST(SqliteSecureStore, DamagedStoreIsMovedAsideAndReplaced) {
  TempDir dir;
  auto log = CapturedLog::install();
  const auto path = dir.path() / "keychain" / "keychain.sqlite";
  std::filesystem::create_directory(path.parent_path());
  const std::string garbage(4096, '\x5a');
  std::ofstream(path, std::ios::binary) << garbage;

  auto store = openStore(path);
  ASSERT_TRUE(store);
  SecureItem found;
  EXPECT_EQ(store->copyMatching("svc", "acct", found), errSecItemNotFound);
  EXPECT_EQ(store->add({"svc", "acct", toBytes("secret")}), errSecSuccess);
  EXPECT_EQ(permissions(path), 0600u);

  std::vector<std::filesystem::path> copies;
  for (const auto& entry : std::filesystem::directory_iterator(path.parent_path())) {
    if (entry.path().filename().string().starts_with("keychain.sqlite.corrupt-")) {
      copies.push_back(entry.path());
    }
  }
  ASSERT_EQ(copies.size(), 1u);
  std::ifstream in(copies[0], std::ios::binary);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), garbage);
  EXPECT_EQ(log->matching(copies[0].string()).size(), 1u);
  log->uninstall();
}

TEST(SecureStoreMessages, KnownStatusesHaveTheKeychainWording) {
  EXPECT_EQ(secCopyErrorMessageString(errSecItemNotFound),
            "The specified item could not be found in the keychain.");
  EXPECT_EQ(secCopyErrorMessageString(errSecDuplicateItem),
            "The specified item already exists in the keychain.");
  EXPECT_EQ(secCopyErrorMessageString(errSecParam),
            "One or more parameters passed to a function were not valid.");
  EXPECT_EQ(secCopyErrorMessageString(errSecIO), "I/O error (bummers)");

  std::set<std::string> distinct;
  for (OSStatus status :
       {errSecSuccess, errSecIO, errSecParam, errSecAllocate, errSecNotAvailable, errSecAuthFailed,
        errSecDuplicateItem, errSecItemNotFound, errSecInteractionNotAllowed, errSecDecode}) {
    auto message = secCopyErrorMessageString(status);
    ASSERT_TRUE(message) << status;
    EXPECT_FALSE(message->empty()) << status;
    distinct.insert(*message);
  }
  EXPECT_EQ(distinct.size(), 10u);

  for (OSStatus unknown : {1, -1, -25301, -26276, -34018}) {
    EXPECT_EQ(secCopyErrorMessageString(unknown), std::nullopt) << unknown;
  }
}

}  // namespace
}  // namespace kestrova
