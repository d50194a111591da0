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
#include <string>
#include <thread>
#include <vector>

#include "support/child_process.h"
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

void writeAll(const std::filesystem::path& path, std::string_view bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

TEST(SqliteDefaultsStore, KeepsEachValueWithItsTypeAcrossReopening) {
  TempDir dir;
  const auto path = dir.path() / "nested" / "defaults.sqlite";
  const std::vector<std::pair<std::string, DefaultsValue>> values = {
      {"blob", Bytes{0x00, 0xff, 0x00, 0x7f}},
      {"text", std::string("a\0b\xc3\xa9", 5)},
      {"emptyText", std::string()},
      {"min", std::numeric_limits<std::int64_t>::min()},
      {"tiny", std::numeric_limits<double>::denorm_min()},
  };
  {
    auto store = openStore(path);
    ASSERT_TRUE(store);
    store->setObjects(values);
    // SQLite turns a bound NaN into NULL; it must still come back as a real number.
    store->setObject("nan", std::numeric_limits<double>::quiet_NaN());
    store->setObjects({{"later", std::int64_t{1}}, {"later", std::int64_t{3}}});
  }
  auto store = openStore(path);
  ASSERT_TRUE(store);
  for (const auto& [key, value] : values) {
    EXPECT_EQ(store->object(key), value) << key;
  }
  auto nan = store->object("nan");
  ASSERT_TRUE(nan && std::holds_alternative<double>(*nan));
  EXPECT_TRUE(std::isnan(std::get<double>(*nan)));
  EXPECT_EQ(store->object("later"), DefaultsValue(std::int64_t{3}));

  // A key holds one value of any type; string() reads numbers as the platform prints them.
  const std::vector<std::pair<DefaultsValue, std::string>> reads = {{std::int64_t{42}, "42"},
                                                                    {1.5e300, "1.5e+300"},
                                                                    {toBytes("text"), "-"},
                                                                    {std::string("text"), "text"}};
  for (const auto& [value, text] : reads) {
    store->setObject("k", value);
    EXPECT_EQ(store->object("k"), value);
    EXPECT_EQ(store->string("k").value_or("-"), text);
  }
  EXPECT_FALSE(store->data("k"));
}

TEST(SqliteDefaultsStore, ConcurrentWritersLoseNothing) {
  TempDir dir;
  auto store = openStore(dir.path() / "defaults.sqlite");
  ASSERT_TRUE(store);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&store, t] {
      for (std::int64_t i = 0; i < 500; ++i) {
        const std::string key = "t" + std::to_string(t) + "." + std::to_string(i);
        if (i % 50 == 0) {
          store->setObjects({{key, i}, {key + ".batch", key}});
        } else {
          store->setObject(key, i);
        }
        // Reads share the connection and its cached statements with the writers.
        EXPECT_EQ(store->object(key), DefaultsValue(i));
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  for (const char* prefix : {"t0.", "t1.", "t2.", "t3."}) {
    EXPECT_EQ(store->keys(prefix).size(), 510u);
    EXPECT_EQ(store->object(prefix + std::string("499")), DefaultsValue(std::int64_t{499}));
  }
}

// Two processes that start on a new data directory at once (an import while watch starts) set
// up the same new file together; neither may fail for the other's lock.
TEST(SqliteDefaultsStore, TwoOpeningsOfANewFileAtOnceBothSucceed) {
  TempDir dir;
  for (int round = 0; round < 40; ++round) {
    const auto path = dir.path() / ("defaults-" + std::to_string(round) + ".sqlite");
    std::vector<std::thread> openings;
    for (int opening = 0; opening < 3; ++opening) {
      openings.emplace_back([path] { EXPECT_TRUE(openStore(path)); });
    }
    for (auto& thread : openings) {
      thread.join();
    }
  }
}

// One iteration i of the writer leaves "blob" = 16 KiB of byte (i % 251), "k<i>" = i, and
// "batch.0".."batch.2" = i written in one transaction.
Bytes blobFor(std::int64_t i) {
  return Bytes(16 * 1024, static_cast<std::uint8_t>(i % 251));
}

// Starts a writer process at iteration `first`, kills it `delay` after it reports iteration
// first + 100, and returns the last iteration it reported.
std::int64_t runWriterAndKill(const std::filesystem::path& path, std::int64_t first,
                              std::chrono::microseconds delay) {
  int fds[2];
  EXPECT_EQ(pipe(fds), 0);
  const pid_t child = fork();
  if (child == 0) {
    auto store = openSqliteDefaultsStore(path);
    for (std::int64_t i = first; store; ++i) {
      (*store)->setObject("blob", blobFor(i));
      (*store)->setObject("k" + std::to_string(i), i);
      (*store)->setObjects({{"batch.0", i}, {"batch.1", i}, {"batch.2", i}});
      if (write(fds[1], &i, sizeof i) != sizeof i) {
        break;
      }
    }
    _exit(2);
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

    // Whole old value or whole new value, never a mixture; a batch is one transaction.
    const auto blob = store->data("blob");
    EXPECT_TRUE(blob == blobFor(completed) || blob == blobFor(completed + 1));
    const std::vector batch = {store->object("batch.0"), store->object("batch.1"),
                               store->object("batch.2")};
    EXPECT_TRUE(batch == std::vector(3, std::optional<DefaultsValue>(completed)) ||
                batch == std::vector(3, std::optional<DefaultsValue>(completed + 1)));
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

  // Bytes that are no database: SQLite says "not a database".
  writeAll(path, std::string(8192, '\x5a'));
  writeAll(dir.path() / "defaults.sqlite-wal", "stale write-ahead log");
  {
    auto store = openStore(path);
    ASSERT_TRUE(store);
    EXPECT_TRUE(store->keys().empty());
    store->setObject("fresh", std::int64_t{1});
  }
  const auto copies = corruptCopies(dir.path());
  ASSERT_EQ(copies.size(), 1u);
  // SQLite deletes a connection's WAL when it closes; the moved copy must survive that.
  EXPECT_EQ(testing::readFile(copies[0].string() + "-wal"), "stale write-ahead log");
  EXPECT_EQ(log->matching(path.string() + " ").size(), 1u);

  // A real database whose schema page is overwritten: SQLite opens it, the first query fails.
  auto store = openStore(path);
  ASSERT_TRUE(store);
  EXPECT_EQ(store->object("fresh"), DefaultsValue(std::int64_t{1}));
  for (int i = 0; i < 200; ++i) {
    store->setObject("key" + std::to_string(i), std::string(100, 'x'));
  }
  store.reset();
  std::string database = testing::readFile(path);
  ASSERT_GT(database.size(), 4096u);
  std::fill(database.begin() + 100, database.begin() + 4096, '\xA5');
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
  EXPECT_TRUE(corruptCopies(dir.path()).empty());
}

}  // namespace
}  // namespace kestrova
