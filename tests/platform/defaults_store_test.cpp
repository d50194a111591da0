#include "platform/defaults_store.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <fstream>
#include <limits>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/test_support.h"

namespace kestrova {
namespace {

using testing::CapturedLog;
using testing::TempDir;

std::shared_ptr<DefaultsStore> openStore(const std::filesystem::path& path) {
  auto store = openSqliteDefaultsStore(path);
  EXPECT_TRUE(store.ok()) << (store.ok() ? "" : store.error().text());
  return store.ok() ? *store : nullptr;
}

// The moved-aside database files, without their -wal, -shm and -journal companions.
std::vector<std::filesystem::path> corruptCopies(const std::filesystem::path& directory) {
  std::vector<std::filesystem::path> found;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    const std::string name = entry.path().filename().string();
    if (name.find(".corrupt-") != std::string::npos && std::isdigit(name.back())) {
      found.push_back(entry.path());
    }
  }
  std::sort(found.begin(), found.end());
  return found;
}

Bytes readAll(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), {});
}

void writeAll(const std::filesystem::path& path, const Bytes& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
}

TEST(SqliteDefaultsStore, KeepsEachValueWithItsType) {
  TempDir dir;
  auto store = openStore(dir.path() / "nested" / "defaults.sqlite");
  ASSERT_TRUE(store);

  const Bytes binary = {0x00, 0xff, 0x00, 0x7f};
  const std::string textWithNul("a\0b\xc3\xa9", 5);
  const std::vector<std::pair<std::string, DefaultsValue>> values = {
      {"blob", binary},
      {"emptyBlob", Bytes{}},
      {"text", textWithNul},
      {"emptyText", std::string()},
      {"digits", std::string("42")},
      {"min", std::numeric_limits<std::int64_t>::min()},
      {"max", std::numeric_limits<std::int64_t>::max()},
      {"whole", 2.0},
      {"tiny", std::numeric_limits<double>::denorm_min()},
      {"infinity", -std::numeric_limits<double>::infinity()},
  };
  for (const auto& [key, value] : values) {
    store->setObject(key, value);
  }
  for (const auto& [key, value] : values) {
    EXPECT_EQ(store->object(key), value) << key;
  }

  // SQLite turns a bound NaN into NULL; it must still come back as a real number.
  store->setObject("nan", std::numeric_limits<double>::quiet_NaN());
  auto nan = store->object("nan");
  ASSERT_TRUE(nan && std::holds_alternative<double>(*nan));
  EXPECT_TRUE(std::isnan(std::get<double>(*nan)));

  EXPECT_EQ(store->object("missing"), std::nullopt);
  EXPECT_EQ(store->data("emptyBlob"), Bytes{});
  EXPECT_EQ(store->string("emptyText"), std::string());
}

TEST(SqliteDefaultsStore, ReplacesAcrossTypesAndReadsLikeThePlatform) {
  TempDir dir;
  auto store = openStore(dir.path() / "defaults.sqlite");
  ASSERT_TRUE(store);

  store->setObject("k", std::int64_t{42});
  EXPECT_EQ(store->string("k"), "42");
  EXPECT_EQ(store->data("k"), std::nullopt);

  store->setObject("k", std::string("text"));
  EXPECT_EQ(store->object("k"), DefaultsValue(std::string("text")));
  EXPECT_EQ(store->data("k"), std::nullopt);

  store->setObject("k", toBytes("text"));
  EXPECT_EQ(store->data("k"), toBytes("text"));
  EXPECT_EQ(store->string("k"), std::nullopt);

  store->setObject("k", 0.1);
  EXPECT_EQ(store->object("k"), DefaultsValue(0.1));
  EXPECT_EQ(store->string("k"), "0.1");
  store->setObject("k", 1.5e300);
  EXPECT_EQ(store->string("k"), "1.5e+300");

  EXPECT_EQ(store->keys(), std::vector<std::string>{"k"});
}

TEST(SqliteDefaultsStore, ListsKeysByExactBytewisePrefixInOrder) {
  TempDir dir;
  auto store = openStore(dir.path() / "defaults.sqlite");
  ASSERT_TRUE(store);
  // "_" and "%" are LIKE wildcards and LIKE ignores ASCII case; neither may leak in.
  for (const char* key :
       {"stat.b", "stat.a", "stat", "stax", "Stat.c", "stat_x", "st%t.y", "stat\xff", "a", "z"}) {
    store->setObject(key, std::int64_t{1});
  }

  EXPECT_EQ(store->keys("stat."), (std::vector<std::string>{"stat.a", "stat.b"}));
  EXPECT_EQ(store->keys("stat"),
            (std::vector<std::string>{"stat", "stat.a", "stat.b", "stat_x", "stat\xff"}));
  EXPECT_EQ(store->keys("st%"), (std::vector<std::string>{"st%t.y"}));
  EXPECT_EQ(store->keys("stat_"), (std::vector<std::string>{"stat_x"}));
  EXPECT_EQ(store->keys("stat\xff"), (std::vector<std::string>{"stat\xff"}));
  EXPECT_TRUE(store->keys("zz").empty());
  const auto all = store->keys();
  EXPECT_EQ(all.size(), 10u);
  EXPECT_TRUE(std::is_sorted(all.begin(), all.end()));

  store->removeObject("stat.a");
  store->removeObject("never-there");
  EXPECT_EQ(store->object("stat.a"), std::nullopt);
  EXPECT_EQ(store->keys("stat."), (std::vector<std::string>{"stat.b"}));
  EXPECT_EQ(store->keys().size(), 9u);
}

TEST(SqliteDefaultsStore, ValuesSurviveReopening) {
  TempDir dir;
  const auto path = dir.path() / "defaults.sqlite";
  {
    auto store = openStore(path);
    ASSERT_TRUE(store);
    store->setObject("single", std::string("one"));
    store->setObjects(
        {{"batch.a", std::int64_t{1}}, {"batch.b", toBytes("two")}, {"batch.a", std::int64_t{3}}});
    store->setObject("gone", 1.0);
    store->removeObject("gone");
  }
  auto store = openStore(path);
  ASSERT_TRUE(store);
  EXPECT_EQ(store->string("single"), "one");
  EXPECT_EQ(store->object("batch.a"), DefaultsValue(std::int64_t{3}));
  EXPECT_EQ(store->data("batch.b"), toBytes("two"));
  EXPECT_EQ(store->object("gone"), std::nullopt);
  EXPECT_TRUE(corruptCopies(dir.path()).empty());
}

TEST(SqliteDefaultsStore, ConcurrentWritersLoseNothing) {
  TempDir dir;
  const auto path = dir.path() / "defaults.sqlite";
  constexpr int kThreads = 4;
  constexpr int kKeysPerThread = 500;
  {
    auto store = openStore(path);
    ASSERT_TRUE(store);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&store, t] {
        for (int i = 0; i < kKeysPerThread; ++i) {
          const std::string key = "t" + std::to_string(t) + "." + std::to_string(i);
          if (i % 50 == 0) {
            store->setObjects({{key, std::int64_t{i}}, {key + ".batch", std::string(key)}});
          } else {
            store->setObject(key, std::int64_t{i});
          }
          // Reads share the connection and its cached statements with the writers.
          EXPECT_EQ(store->object(key), DefaultsValue(std::int64_t{i}));
        }
      });
    }
    for (auto& thread : threads) {
      thread.join();
    }
  }
  auto store = openStore(path);
  ASSERT_TRUE(store);
  for (int t = 0; t < kThreads; ++t) {
    const std::string prefix = "t" + std::to_string(t) + ".";
    EXPECT_EQ(store->keys(prefix).size(), kKeysPerThread + kKeysPerThread / 50u);
    EXPECT_EQ(store->object(prefix + "499"), DefaultsValue(std::int64_t{499}));
  }
}

// One iteration of the child's loop leaves: "blob" = 16 KiB of byte (i % 251) after an 8-byte
// counter i, "k<i>" = i, and "batch.0".."batch.9" = i written in one transaction.
Bytes blobFor(std::int64_t i) {
  Bytes bytes(16 * 1024, static_cast<std::uint8_t>(i % 251));
  for (int b = 0; b < 8; ++b) {
    bytes[b] = static_cast<std::uint8_t>(i >> (8 * b));
  }
  return bytes;
}

[[noreturn]] void writeUntilKilled(const std::filesystem::path& path, std::int64_t first,
                                   int progressFd) {
  auto store = openSqliteDefaultsStore(path);
  if (!store) {
    _exit(2);
  }
  for (std::int64_t i = first; i < first + 1'000'000; ++i) {
    (*store)->setObject("blob", blobFor(i));
    (*store)->setObject("k" + std::to_string(i), i);
    std::vector<std::pair<std::string, DefaultsValue>> batch;
    for (int b = 0; b < 10; ++b) {
      batch.emplace_back("batch." + std::to_string(b), i);
    }
    (*store)->setObjects(std::move(batch));
    if (write(progressFd, &i, sizeof i) != sizeof i) {
      _exit(3);
    }
  }
  _exit(0);
}

// Starts a writer at iteration `first`, kills it `delay` after it reports iteration
// first + 100, and returns the last iteration it reported.
std::int64_t runWriterAndKill(const std::filesystem::path& path, std::int64_t first,
                              std::chrono::microseconds delay) {
  int fds[2];
  EXPECT_EQ(pipe(fds), 0);
  const pid_t child = fork();
  EXPECT_GE(child, 0);
  if (child == 0) {
    close(fds[0]);
    writeUntilKilled(path, first, fds[1]);
  }
  close(fds[1]);
  std::int64_t completed = first - 1;
  std::int64_t reported = 0;
  while (read(fds[0], &reported, sizeof reported) == sizeof reported) {
    completed = reported;
    if (completed == first + 100) {
      // Spinning rather than sleeping spreads the kill over every phase of an iteration.
      const auto until = std::chrono::steady_clock::now() + delay;
      while (std::chrono::steady_clock::now() < until) {
      }
      kill(child, SIGKILL);
    }
  }
  close(fds[0]);
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status)) << "writer exited with " << WEXITSTATUS(status);
  EXPECT_GE(completed, first + 100);
  return completed;
}

TEST(SqliteDefaultsStore, ProcessKilledMidWriteLeavesCompletedValues) {
  TempDir dir;
  const auto path = dir.path() / "defaults.sqlite";
  auto log = CapturedLog::install();
  std::int64_t first = 1;
  for (int round = 0; round < 12; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    const std::int64_t completed =
        runWriterAndKill(path, first, std::chrono::microseconds(41 * round));

    auto store = openStore(path);
    ASSERT_TRUE(store);
    for (std::int64_t i = 1; i <= completed; ++i) {
      ASSERT_EQ(store->object("k" + std::to_string(i)), DefaultsValue(i)) << i;
    }
    EXPECT_EQ(store->object("k" + std::to_string(completed + 2)), std::nullopt);

    // Whole old value or whole new value, never a mixture.
    auto blob = store->data("blob");
    ASSERT_TRUE(blob);
    ASSERT_GE(blob->size(), 8u);
    std::int64_t blobIteration = 0;
    for (int b = 0; b < 8; ++b) {
      blobIteration |= static_cast<std::int64_t>((*blob)[b]) << (8 * b);
    }
    EXPECT_TRUE(blobIteration == completed || blobIteration == completed + 1) << blobIteration;
    EXPECT_EQ(*blob, blobFor(blobIteration));

    // A batch is one transaction: all ten keys from the same iteration.
    auto batchValue = store->object("batch.0");
    ASSERT_TRUE(batchValue);
    const auto batchIteration = std::get<std::int64_t>(*batchValue);
    EXPECT_TRUE(batchIteration == completed || batchIteration == completed + 1);
    for (int b = 1; b < 10; ++b) {
      EXPECT_EQ(store->object("batch." + std::to_string(b)), batchValue) << b;
    }
    first = completed + 1;
  }
  EXPECT_TRUE(corruptCopies(dir.path()).empty());
  EXPECT_FALSE(log->contains("damaged"));
  log->uninstall();
}

TEST(SqliteDefaultsStore, DamagedFileIsMovedAsideAndReplaced) {
  TempDir dir;
  const auto path = dir.path() / "defaults.sqlite";
  auto log = CapturedLog::install();

  // Random bytes: SQLite says "not a database".
  std::mt19937 random(7);
  Bytes garbage(8192);
  for (auto& byte : garbage) {
    byte = static_cast<std::uint8_t>(random());
  }
  writeAll(path, garbage);
  Bytes staleWal = toBytes("stale write-ahead log");
  writeAll(dir.path() / "defaults.sqlite-wal", staleWal);
  {
    auto store = openStore(path);
    ASSERT_TRUE(store);
    EXPECT_TRUE(store->keys().empty());
    store->setObject("fresh", std::int64_t{1});
  }
  const auto copies = corruptCopies(dir.path());
  ASSERT_EQ(copies.size(), 1u);
  EXPECT_EQ(readAll(copies[0]), garbage);
  // SQLite deletes a connection's WAL when it closes; the moved copy must survive that.
  EXPECT_EQ(readAll(copies[0].string() + "-wal"), staleWal);
  const auto lines = log->matching(copies[0].string());
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].level, LogLevel::error);
  EXPECT_NE(lines[0].message.find(path.string() + " "), std::string::npos) << lines[0].message;

  // A real database whose schema page is overwritten: SQLite opens it, the first query fails.
  auto store = openStore(path);
  ASSERT_TRUE(store);
  EXPECT_EQ(store->object("fresh"), DefaultsValue(std::int64_t{1}));
  for (int i = 0; i < 200; ++i) {
    store->setObject("key" + std::to_string(i), std::string(100, 'x'));
  }
  store.reset();
  Bytes database = readAll(path);
  ASSERT_GT(database.size(), 4096u);
  std::fill(database.begin() + 100, database.begin() + 4096, 0xA5);
  writeAll(path, database);

  store = openStore(path);
  ASSERT_TRUE(store);
  EXPECT_EQ(store->object("fresh"), std::nullopt);
  store->setObject("after", std::int64_t{2});
  EXPECT_EQ(store->object("after"), DefaultsValue(std::int64_t{2}));
  EXPECT_EQ(corruptCopies(dir.path()).size(), 2u);  // an earlier copy is never replaced
  log->uninstall();
}

TEST(SqliteDefaultsStore, UnusablePathIsAnErrorAndNothingIsMoved) {
  TempDir dir;
  std::filesystem::create_directory(dir.path() / "directory");
  auto atDirectory = openSqliteDefaultsStore(dir.path() / "directory");
  ASSERT_FALSE(atDirectory.ok());
  EXPECT_EQ(atDirectory.error().domain, "SQLite");
  EXPECT_TRUE(std::filesystem::is_directory(dir.path() / "directory"));

  writeAll(dir.path() / "file", toBytes("x"));
  auto underFile = openSqliteDefaultsStore(dir.path() / "file" / "defaults.sqlite");
  ASSERT_FALSE(underFile.ok());
  EXPECT_EQ(underFile.error().domain, "POSIX");
  EXPECT_TRUE(corruptCopies(dir.path()).empty());
}

}  // namespace
}  // namespace kestrova
