// `kestrova sync` killed with SIGKILL at random moments and started again each time, until a
// run completes: the back end must then hold every data point that a run without kills
// delivers, no upload file may be left, and every store must open cleanly.
//   KESTROVA_CRASH_KILLS=500   the long run (default: 50, fewer under the sanitizers)
//   KESTROVA_CRASH_SEED=N      the kill moments of an earlier run (printed by every run);
//                              the child's own timing still varies from run to run
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <set>

#include "e2e/library_harness.h"
#include "export_generator.h"
#include "platform/linux/sqlite.h"
#include "platform/log.h"
#include "server/server.h"
#include "support/kestrova_command.h"
#include "support/test_support.h"

namespace kestrova {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

#if defined(__SANITIZE_ADDRESS__)
#define KESTROVA_TEST_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KESTROVA_TEST_SANITIZED 1
#endif
#endif

// Generated days: every family (the electrocardiogram is on day 15), and a run busy for a few
// seconds; a run after its kill does less, so a round of delivery takes a few kills.
#ifdef KESTROVA_TEST_SANITIZED
// Every run takes about four times as long under the sanitizers, and finishing a round (a run
// to the end, status, disconnect) about 40 s: 50 kills would take half an hour. Two weeks of
// data and 8 kills keep it near three minutes and still kill start-up, collection, writes,
// uploads and statistics passes.
constexpr int kExportDays = 15;
constexpr int kDefaultKills = 8;
#else
constexpr int kExportDays = 28;
constexpr int kDefaultKills = 50;
#endif

constexpr std::string_view kProfile = "crash-profile";
constexpr std::string_view kSince = "2021-01-01";
// Beyond the sync's own --timeout, so that its report is what a test sees.
constexpr auto kLongestRun = std::chrono::milliseconds(700'000);
constexpr auto kStatsPoll = std::chrono::milliseconds(50);
constexpr std::array<std::string_view, 2> kUploadDirectories = {"Kestrova/Upload",
                                                                "Kestrova/UploadBulk"};
constexpr std::array<std::string_view, 3> kStores = {"healthstore.sqlite", "defaults.sqlite",
                                                     "keychain/keychain.sqlite"};

std::uint64_t fromEnvironment(const char* name, std::uint64_t fallback) {
  const char* value = std::getenv(name);
  return value != nullptr && *value != '\0' ? std::strtoull(value, nullptr, 10) : fallback;
}

// Everything in the upload directories, hidden files included.
std::vector<fs::path> uploadFiles(const fs::path& dataDirectory) {
  std::vector<fs::path> files;
  for (auto name : kUploadDirectories) {
    std::error_code missing;
    for (const auto& entry : fs::directory_iterator(dataDirectory / name, missing)) {
      files.push_back(entry.path());
    }
  }
  return files;
}

using testing::KestrovaCommand;

// A data directory with the export imported, and a server of its own for its deliveries.
struct Side {
  Side(const fs::path& root, std::string_view name, const fs::path& exportFolder)
      : name(name), dataDirectory(root / name) {
    startServer();
    if (server) {
      const auto imported = command->run({"import", "--quiet", exportFolder.string()}, kLongestRun);
      EXPECT_EQ(imported.exitCode, 0) << imported.err;
    }
  }

  // A new server, with a fresh secret, in place of the one before.
  void startServer() {
    server = testing::startServer(name + "-secret-" + std::to_string(std::random_device{}()));
    if (server) {
      command.emplace(KESTROVA_CLI_PATH, dataDirectory, server->tokenFor(std::string(kProfile)));
    }
  }

  std::vector<std::string> syncArguments(std::string_view timeoutSeconds = "600") const {
    return {"sync",
            "--url",
            server->baseUrl(),
            "--since",
            std::string(kSince),
            "--timeout",
            std::string(timeoutSeconds),
            "--json",
            "--quiet"};
  }

  // A sync run to its end: it exits 0 only once every upload file is gone and every
  // statistics upload is answered.
  void sync() const {
    const auto finished = command->run(syncArguments(), kLongestRun);
    EXPECT_EQ(finished.exitCode, 0) << finished.err;
  }

  // Every data point the server holds, by header id.
  std::map<std::string, server::StoredDataPoint> delivered() const {
    std::map<std::string, server::StoredDataPoint> points;
    for (auto& point : server->dataPoints(std::string(kProfile))) {
      points.emplace(point.id, std::move(point));
    }
    return points;
  }

  std::string name;
  fs::path dataDirectory;
  std::unique_ptr<server::KestrovaServer> server;
  std::optional<KestrovaCommand> command;
};

// What a data directory should look like after a completed sync: nothing left to upload (not
// even a half-written temporary file), no store moved aside as damaged, every store intact.
void expectSettledDataDirectory(const fs::path& directory) {
  for (const auto& left : uploadFiles(directory)) {
    ADD_FAILURE() << "left: " << left;
  }
  for (const auto& entry : fs::recursive_directory_iterator(directory)) {
    EXPECT_EQ(entry.path().filename().string().find(".corrupt-"), std::string::npos)
        << "a store was found damaged and moved aside: " << entry.path();
  }
  for (auto name : kStores) {
    auto database = SqliteDatabase::open(directory / name, SQLITE_OPEN_READWRITE);
    ASSERT_TRUE(database.ok()) << name << ": " << database.error().text();
    SqliteDatabase opened = std::move(database).value();
    auto integrity = opened.pragma("integrity_check");
    ASSERT_TRUE(integrity.ok()) << name << ": " << integrity.error().text();
    EXPECT_EQ(*integrity, "ok") << name;
  }
}

class CrashConsistencyTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    // The in-process servers would log every request.
    logging::setMinimumLevel(LogLevel::error);
    root_ = new testing::TempDir();
    bench::GeneratorOptions options;
    options.days = kExportDays;
    options.seed = 7;
    auto generated = bench::generateExport(root_->path() / "export", options);
    ASSERT_TRUE(generated.ok()) << generated.error().text();
    exportFolder_ = generated->folder;
  }

  static void TearDownTestSuite() {
    delete root_;
    root_ = nullptr;
  }

  void SetUp() override { ASSERT_FALSE(exportFolder_.empty()); }

  static const fs::path& root() { return root_->path(); }

  static testing::TempDir* root_;
  static fs::path exportFolder_;
};

testing::TempDir* CrashConsistencyTest::root_ = nullptr;
fs::path CrashConsistencyTest::exportFolder_;

// What `kestrova status --json` reports; null when it fails.
nlohmann::json statusReport(const KestrovaCommand& command) {
  const auto status = command.run({"status", "--json"}, kLongestRun);
  EXPECT_EQ(status.exitCode, 0) << status.err;
  return status.exitCode == 0 ? nlohmann::json::parse(status.out, nullptr, false)
                              : nlohmann::json();
}

// Statistics records not sent yet, as `kestrova status` counts them.
int statisticsWaiting(const nlohmann::json& report) {
  const auto families = report.value("statistics", nlohmann::json::object());
  int waiting = 0;
  for (const auto& [family, counts] : families.items()) {
    waiting += counts.value("withNewData", 0);
  }
  return waiting;
}

// What `kestrova status` reports once everything is delivered: the profile still connected,
// no upload file waiting and every statistics figure sent and marked as sent.
void expectEverythingSent(const KestrovaCommand& command) {
  const auto report = statusReport(command);
  ASSERT_TRUE(report.is_object());
  EXPECT_EQ(report["status"], "connected");
  EXPECT_EQ(report["profileId"], kProfile);
  EXPECT_EQ(report["pendingFiles"], 0);
  EXPECT_EQ(statisticsWaiting(report), 0);
}

using Delivery = std::map<std::string, server::StoredDataPoint>;

// Whether `side`'s server holds every data point of `reference`, with the same figures, and
// nothing else; adds its duplicates to `duplicated` by schema.
void expectDelivered(const Delivery& reference, const Side& side,
                     std::map<std::string, int>& duplicated) {
  const auto received = side.delivered();
  std::map<std::string, int> missing;
  std::map<std::string, int> different;
  std::map<std::string, int> unexpected;
  for (const auto& [id, point] : reference) {
    const auto found = received.find(id);
    if (found == received.end()) {
      ++missing[point.schemaName];
    } else if (found->second.dataPoint["body"] != point.dataPoint["body"]) {
      ++different[point.schemaName];
    }
  }
  for (const auto& [id, point] : received) {
    duplicated[point.schemaName] += static_cast<int>(point.receipts - 1);
    // Ids derive from the samples and the days, so killed runs cannot make new ones.
    unexpected[point.schemaName] += reference.contains(id) ? 0 : 1;
  }
  for (const auto& [schema, count] : missing) {
    ADD_FAILURE() << count << " data points of " << schema << " never delivered";
  }
  for (const auto& [schema, count] : different) {
    ADD_FAILURE() << count << " data points of " << schema
                  << " hold other figures than without kills";
  }
  for (const auto& [schema, count] : unexpected) {
    EXPECT_EQ(count, 0) << "data points of " << schema << " that a run without kills never sent";
  }
}

TEST_F(CrashConsistencyTest, SyncKilledAtRandomMomentsDeliversEverythingAndLeavesNothing) {
  const int kills = static_cast<int>(fromEnvironment("KESTROVA_CRASH_KILLS", kDefaultKills));
  const std::uint64_t seed = fromEnvironment("KESTROVA_CRASH_SEED", std::random_device{}());
  std::printf("crash test: seed %llu (KESTROVA_CRASH_SEED repeats it), %d kills\n",
              static_cast<unsigned long long>(seed), kills);
  std::fflush(stdout);  // seen even when the run is cut off by a time limit
  SCOPED_TRACE("KESTROVA_CRASH_SEED=" + std::to_string(seed));
  const auto testStarted = Clock::now();

  Side clean(root(), "clean", exportFolder_);
  Side killed(root(), "killed", exportFolder_);
  ASSERT_TRUE(clean.server && killed.server);

  // The reference, and how long a run is busy: until the server's last request, and a moment
  // for the work after its answer. Then the command only waits for quiet before it exits, so
  // the kill moments are drawn from the busy part, where a kill interrupts something.
  const auto cleanStarted = Clock::now();
  const auto cleanRun = clean.command->start(clean.syncArguments());
  ASSERT_TRUE(cleanRun->started());
  std::int64_t requests = 0;
  auto lastRequest = cleanStarted;
  std::optional<int> cleanExit;
  while (!(cleanExit = cleanRun->wait(kStatsPoll))) {
    if (const auto count = clean.server->stats().requestCount; count != requests) {
      requests = count;
      lastRequest = Clock::now();
    }
  }
  const auto cleanFinished = Clock::now();
  ASSERT_EQ(*cleanExit, 0) << cleanRun->err();
  const auto busy = std::chrono::duration_cast<std::chrono::milliseconds>(
      lastRequest - cleanStarted + std::chrono::milliseconds(250));
  const auto reference = clean.delivered();
  ASSERT_FALSE(reference.empty());

  // In rounds: once a run completes on its own or the server holds every data point, the
  // delivery is finished, the server and the data directory are checked, and the next round
  // forgets what was delivered (disconnect) and delivers to a new server. So the kills keep
  // landing in deliveries rather than in runs with nothing left to do.
  std::mt19937_64 random(seed);
  std::uniform_int_distribution<long> moment(0, busy.count());
  int killedRuns = 0;
  int completedRuns = 0;
  int rounds = 0;
  std::map<std::string, int> duplicated;
  const auto finishRound = [&] {
    ++rounds;
    killed.sync();
    expectDelivered(reference, killed, duplicated);
    expectSettledDataDirectory(killed.dataDirectory);
    expectEverythingSent(*killed.command);
  };
  while (killedRuns < kills) {
    const auto run = killed.command->start(killed.syncArguments());
    ASSERT_TRUE(run->started());
    bool completed = false;
    if (const auto exitCode = run->wait(std::chrono::milliseconds(moment(random)))) {
      // Done before its kill moment: it must have succeeded like any other run.
      ASSERT_EQ(*exitCode, 0) << run->err();
      completed = true;
    } else if (const auto ended = run->stop(SIGKILL, kLongestRun); ended == 0) {
      completed = true;  // it ended on its own just before the kill
    } else {
      ASSERT_EQ(ended, 128 + SIGKILL) << run->err();
      ++killedRuns;
    }
    completedRuns += completed ? 1 : 0;
    const auto held = killed.server->stats().store.dataPoints;
    if ((completed || held >= static_cast<std::int64_t>(reference.size())) && killedRuns < kills) {
      finishRound();
      ASSERT_FALSE(::testing::Test::HasFailure());
      killed.startServer();
      ASSERT_TRUE(killed.server);
      ASSERT_EQ(killed.command->run({"disconnect"}, kLongestRun).exitCode, 0);
    }
  }
  finishRound();

  int duplicates = 0;
  for (const auto& [schema, count] : duplicated) {
    std::printf("crash test: %-45s %d duplicates\n", schema.c_str(), count);
    duplicates += count;
  }
  std::printf(
      "crash test: %d kills in %d rounds, %d runs done before their kill moment; busy %.1f s of "
      "a %.1f s run; %zu data points a round, %d duplicates (%lld in the delivery "
      "without kills); %.1f s in all\n",
      killedRuns, rounds, completedRuns, busy.count() / 1000.0,
      std::chrono::duration<double>(cleanFinished - cleanStarted).count(), reference.size(),
      duplicates, static_cast<long long>(clean.server->stats().store.duplicates),
      std::chrono::duration<double>(Clock::now() - testStarted).count());
}

// A kill between a write's start and its rename leaves the write's hidden temporary file; its
// batch is fetched again, and the next run must remove it rather than wait for it forever.
TEST_F(CrashConsistencyTest, AWriteCutShortByAKillIsRemovedByTheNextSync) {
  Side side(root(), "interrupted", exportFolder_);
  ASSERT_TRUE(side.server);
  side.sync();
  const auto delivered = side.delivered().size();

  const auto bulk = side.dataDirectory / kUploadDirectories[1];
  std::ofstream(bulk /
                ".2021-01-28T06:00:00.000Z---body-2021-01-28T06:00:00.000Z---crash-profile.q1W2e3")
      << R"([{"header":{"id":)";
  // Bounded: a run that waits for the file would otherwise wait for its whole timeout.
  const auto next = side.command->run(side.syncArguments("30"), kLongestRun);
  EXPECT_EQ(next.exitCode, 0) << next.err;
  expectSettledDataDirectory(side.dataDirectory);
  EXPECT_EQ(side.delivered().size(), delivered);
}

}  // namespace
}  // namespace kestrova
