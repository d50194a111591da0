// The statistics pass and its upload over 90 days, 1 year and 3 years of generated data: the
// queries over an embedded store, the recording on the statistics queue, and the uploads to
// the in-process reference server. Each size runs in a child process so that its peak memory
// is its own. Then the 1-year recording step whole-list-per-work-item against one work item
// (one load and one save) per statistics object.
//
//   statistics_bench            all sizes and the comparison
//   statistics_bench --days N   one size (what the children run)
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "api/api.h"
#include "healthkit/health_kit_types.h"
#include "healthstore/embedded_health_store.h"
#include "platform/manual_clock.h"
#include "platform/platform.h"
#include "server/server.h"
#include "statistics/data_manager.h"
#include "statistics/statistics_queries.h"
#include "storage/profile_store.h"
#include "storage/token_store.h"

namespace kestrova {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::minutes;

constexpr std::string_view kProfile = "bench";
constexpr std::string_view kZone = "Europe/Berlin";

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Processor time of the whole process (the in-process server's included): unlike the wall
// time, it does not grow when other programs compete for the processors.
double cpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& t) { return t.tv_sec + t.tv_usec / 1e6; };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

long peakKilobytes() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

// Passes every query through, counting the statistics collection queries until their
// results have been handed on; keeps the delivered collections when asked.
class CountingStore : public HealthStore {
 public:
  explicit CountingStore(std::shared_ptr<HealthStore> store) : store_(std::move(store)) {}
  bool isHealthDataAvailable() const override { return store_->isHealthDataAvailable(); }
  void requestAuthorization(std::set<ObjectType> share, std::set<ObjectType> read,
                            HealthStoreCompletion completion) override {
    store_->requestAuthorization(std::move(share), std::move(read), std::move(completion));
  }
  void executeQuery(std::shared_ptr<Query> query) override {
    auto collection = std::dynamic_pointer_cast<StatisticsCollectionQuery>(query);
    if (!collection) {
      store_->executeQuery(std::move(query));
      return;
    }
    pending_.fetch_add(1);
    auto handler = collection->initialResultsHandler();
    store_->executeQuery(StatisticsCollectionQuery::make(
        *collection->objectType(), collection->predicate(), collection->options(),
        collection->anchorDate(), collection->intervalComponents(),
        [this, handler](const std::shared_ptr<StatisticsCollectionQuery>& q,
                        Result<StatisticsCollection> result) {
          if (keep_ && result) {
            std::lock_guard lock(mutex_);
            kept_.emplace_back(*q->objectType(), q->intervalComponents().day == 1,
                               result->statistics());
          }
          handler(q, std::move(result));
          pending_.fetch_sub(1);
        }));
  }
  void stopQuery(const std::shared_ptr<Query>& query) override { store_->stopQuery(query); }
  void enableBackgroundDelivery(ObjectType type, UpdateFrequency frequency,
                                HealthStoreCompletion completion) override {
    store_->enableBackgroundDelivery(type, frequency, std::move(completion));
  }
  void disableBackgroundDelivery(ObjectType type, HealthStoreCompletion completion) override {
    store_->disableBackgroundDelivery(type, std::move(completion));
  }
  void disableAllBackgroundDelivery(HealthStoreCompletion completion) override {
    store_->disableAllBackgroundDelivery(std::move(completion));
  }

  void keepResults() { keep_ = true; }
  bool idle() const { return pending_.load() == 0; }
  struct Kept {
    Kept(ObjectType t, bool d, std::vector<Statistics> s)
        : type(t), daily(d), statistics(std::move(s)) {}
    ObjectType type;
    bool daily;
    std::vector<Statistics> statistics;
  };
  std::vector<Kept> kept() const {
    std::lock_guard lock(mutex_);
    return kept_;
  }

 private:
  std::shared_ptr<HealthStore> store_;
  std::atomic<int> pending_{0};
  std::atomic<bool> keep_{false};
  mutable std::mutex mutex_;  // owns kept_
  std::vector<Kept> kept_;
};

SamplePtr sample(std::string_view identifier, double value, const Unit& unit, Date start, Date end,
                 const SourceRevision& source) {
  SampleProperties properties;
  properties.startDate = start;
  properties.endDate = end;
  properties.sourceRevision = source;
  return QuantitySample::make(ObjectType::quantityType(identifier).value(), Quantity(unit, value),
                              properties)
      .value();
}

// A day of a watch wearer who also carries a phone: steps, walking distance and active energy
// every 15 minutes from 07:00 to 22:00 (the phone counting a third of the same minutes), basal
// energy hourly, heart rate every 5 minutes, one resting heart rate.
std::size_t generate(EmbeddedHealthStore& store, Date firstDay, int days) {
  const SourceRevision watch{
      Source{"Watch", "com.apple.health.watch"}, "10.4", "Watch6,7", {10, 4, 0}};
  const SourceRevision phone{
      Source{"iPhone", "com.apple.health.phone"}, "17.4", "iPhone15,2", {17, 4, 0}};
  std::mt19937 random(7);
  std::uniform_real_distribution<double> unit(0, 1);
  std::size_t saved = 0;
  for (int day = 0; day < days; ++day) {
    const auto midnight = firstDay + std::chrono::hours(24 * day);
    std::vector<SamplePtr> samples;
    for (int slot = 28; slot < 88; ++slot) {
      const auto start = midnight + minutes(15 * slot);
      const auto end = start + minutes(14);
      const double steps = std::floor(200 + 800 * unit(random));
      samples.push_back(sample(kStepCountIdentifier, steps, Unit::count(), start, end, watch));
      if (slot % 3 == 0) {
        samples.push_back(
            sample(kStepCountIdentifier, steps * 1.1, Unit::count(), start, end, phone));
      }
      samples.push_back(sample("HKQuantityTypeIdentifierDistanceWalkingRunning", steps * 0.75,
                               Unit::meter(), start, end, watch));
      samples.push_back(sample("HKQuantityTypeIdentifierActiveEnergyBurned", steps * 0.04,
                               Unit::kilocalorie(), start, end, watch));
    }
    for (int hour = 0; hour < 24; ++hour) {
      const auto start = midnight + std::chrono::hours(hour);
      samples.push_back(sample("HKQuantityTypeIdentifierBasalEnergyBurned", 68, Unit::kilocalorie(),
                               start, start + std::chrono::hours(1), watch));
    }
    for (int slot = 0; slot < 288; ++slot) {
      const auto at = midnight + minutes(5 * slot);
      samples.push_back(sample(kHeartRateIdentifier, 55 + 60 * unit(random), Unit::countPerMinute(),
                               at, at, watch));
    }
    samples.push_back(sample(kRestingHeartRateIdentifier, 52 + 6 * unit(random),
                             Unit::countPerMinute(), midnight + minutes(420),
                             midnight + minutes(420), watch));
    saved += store.saveObjects(samples).value();
  }
  return saved;
}

struct Setup {
  std::filesystem::path directory;
  std::shared_ptr<ManualClock> clock;
  std::shared_ptr<const Platform> platform;
  std::shared_ptr<EmbeddedHealthStore> embedded;
  std::shared_ptr<CountingStore> store;
  std::unique_ptr<server::KestrovaServer> server;
  std::shared_ptr<API> api;
};

Setup makeSetup(int days, Date firstDay) {
  Setup setup;
  setup.directory = std::filesystem::temp_directory_path() /
                    ("kestrova-statistics-bench-" + std::to_string(::getpid()));
  std::filesystem::remove_all(setup.directory);
  const auto zone = makeFixedTimeZoneSource(*TimeZone::named(kZone));
  setup.clock = ManualClock::make(firstDay + std::chrono::hours(24 * (days + 1)));
  auto dispatcher = makeDispatcher();
  EmbeddedHealthStoreOptions storeOptions;
  storeOptions.path = setup.directory / "healthstore.sqlite";
  storeOptions.dispatcher = dispatcher;
  storeOptions.timeZone = zone;
  setup.embedded = EmbeddedHealthStore::open(std::move(storeOptions)).value();
  setup.store = std::make_shared<CountingStore>(setup.embedded);

  PlatformOptions options;
  options.dataDirectory = setup.directory;
  options.timeZone = zone;
  options.clock = setup.clock;
  options.healthStore = setup.store;
  setup.platform = makeLinuxPlatform(std::move(options)).value();
  installPlatform(setup.platform);

  server::ServerOptions serverOptions;
  serverOptions.secret = "statistics-bench-secret";
  setup.server = server::KestrovaServer::start(std::move(serverOptions)).value();
  setup.api =
      std::make_shared<API>(*URLComponents::parse(setup.server->baseUrl()), *setup.platform);
  ProfileStore(setup.platform->defaults).store(Profile{std::string(kProfile)});
  TokenStore(setup.platform->secureStore, setup.platform->applicationIdentifier)
      .saveToken(setup.server->tokenFor(std::string(kProfile)), std::string(kProfile));
  return setup;
}

std::shared_ptr<DispatchQueue> statisticsQueue(const Setup& setup) {
  return setup.platform->dispatcher->sharedSerialQueue(DataManager::kStatisticsQueueLabel,
                                                       QualityOfService::utility);
}

// New records per family: heart rate samples, 15-minute details, daily summaries.
std::array<std::size_t, 3> newRecords(const StatisticsStore& store) {
  std::array<std::size_t, 3> counts{};
  for (const auto& r : store.heartRateSamples())
    counts[0] += r.hasNewData;
  for (const auto& r : store.dailyDetailSamples())
    counts[1] += r.hasNewData;
  for (const auto& r : store.dailySummaries())
    counts[2] += r.hasNewData;
  return counts;
}

std::size_t total(const std::array<std::size_t, 3>& counts) {
  return counts[0] + counts[1] + counts[2];
}

int runSize(int days) {
  logging::setMinimumLevel(std::getenv("BENCH_LOG") ? LogLevel::info : LogLevel::error);
  const auto firstDay = TimeZone::named(kZone)->date(CivilTime{2022, 1, 3});
  auto setup = makeSetup(days, firstDay);
  const auto samples = generate(*setup.embedded, firstDay, days);

  const auto started = Clock::now();
  const double cpuStarted = cpuSeconds();
  auto manager = DataManager::make(
      *setup.api, firstDay,
      DataManager::Environment{setup.platform->defaults, setup.clock, setup.platform->dispatcher});
  StatisticsQueryContext context{setup.store, manager, firstDay, *TimeZone::named(kZone)};
  startStatisticsQueries(context, dailySummaryTypes());
  while (!setup.store->idle()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  const auto queue = statisticsQueue(setup);
  queue->sync([] {});
  const double recorded = secondsSince(started);
  const double recordedCpu = cpuSeconds() - cpuStarted;

  // Counting what is due is not part of the measured time.
  const StatisticsStore reader(setup.platform->defaults, setup.clock, firstDay);
  std::array<std::size_t, 3> due{};
  queue->sync([&] { due = newRecords(reader); });
  std::int64_t expectedRequests = 0;
  for (const auto count : due) {
    expectedRequests +=
        static_cast<std::int64_t>((count + DataManager::kMaximumDataPointsPerRequest - 1) /
                                  DataManager::kMaximumDataPointsPerRequest);
  }
  const auto uploadStarted = Clock::now();
  const double uploadCpuStarted = cpuSeconds();
  setup.clock->advance(DataManager::kUploadDelay);
  // NOTE: the server's count of data points cannot tell the end: the two local 02:00 hours of
  // the autumn clock change give interval records the same ids, which it stores once. Its
  // request count can; reading the store while the ticks run would compete with them for the
  // statistics queue, so it is read once the last answer is in, to see the marks.
  const auto deadline = Clock::now() + std::chrono::minutes(10);
  while (setup.server->stats().requestCount < expectedRequests && Clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  std::size_t pending = total(due);
  while (pending > 0 && Clock::now() < deadline) {
    queue->sync([&] { pending = total(newRecords(reader)); });
    if (pending > 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }
  const double uploaded = secondsSince(uploadStarted);
  const double uploadedCpu = cpuSeconds() - uploadCpuStarted;
  const auto stats = setup.server->stats();
  std::printf(
      "%5d days  %8zu samples  pass %6.2f s (cpu %6.2f s)  upload %6.2f s (cpu %6.2f s)  "
      "%7lld points  %4lld requests  peak %7.1f MB%s\n",
      days, samples, recorded, recordedCpu, uploaded, uploadedCpu,
      static_cast<long long>(stats.store.dataPoints), static_cast<long long>(stats.requestCount),
      peakKilobytes() / 1024.0, pending ? "  (NOT all uploaded)" : "");
  manager.reset();
  setup.server->stop();
  installPlatform(nullptr);
  std::filesystem::remove_all(setup.directory);
  return pending ? 1 : 0;
}

// The same delivered lists recorded whole, one work item per list, and item by item, one work
// item (one load and one save of the key) per statistics object.
int compareRecording(int days) {
  logging::setMinimumLevel(LogLevel::error);
  const auto firstDay = TimeZone::named(kZone)->date(CivilTime{2022, 1, 3});
  auto setup = makeSetup(days, firstDay);
  generate(*setup.embedded, firstDay, days);
  setup.store->keepResults();
  auto manager = DataManager::make(
      *setup.api, firstDay,
      DataManager::Environment{setup.platform->defaults, setup.clock, setup.platform->dispatcher});
  startStatisticsQueries({setup.store, manager, firstDay, *TimeZone::named(kZone)},
                         dailySummaryTypes());
  while (!setup.store->idle()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  const auto queue = statisticsQueue(setup);
  queue->sync([] {});
  manager.reset();
  // Smallest lists first: the objects that item by item gets to within its budget are then
  // the cheapest ones, and the extrapolation below a lower bound.
  auto kept = setup.store->kept();
  std::sort(kept.begin(), kept.end(),
            [](const auto& a, const auto& b) { return a.statistics.size() < b.statistics.size(); });
  std::size_t objects = 0;
  for (const auto& list : kept) {
    objects += list.statistics.size();
  }

  auto store = std::make_shared<StatisticsStore>(setup.platform->defaults, setup.clock, firstDay);
  // Returns the seconds taken and how many objects were recorded; item by item stops after a
  // time budget, since its cost per object grows with the map it loads and saves.
  auto record = [&](bool perItem) {
    for (const auto& key : statisticsKeys()) {
      setup.platform->defaults->removeObject(key);
    }
    constexpr double kBudgetSeconds = 90;
    constexpr std::size_t kChunk = 100;
    std::size_t done = 0;
    const auto started = Clock::now();
    for (const auto& list : kept) {
      const bool heartRate = !list.daily && list.type.identifier() == kHeartRateIdentifier;
      auto apply = [store, type = list.type, daily = list.daily,
                    heartRate](const std::vector<Statistics>& part) {
        if (daily) {
          store->storeDailySummaryStatistics(part);
        } else if (heartRate) {
          store->storeHeartRateStatistics(part);
        } else {
          store->storeDailyDetailStatistics(part, type);
        }
      };
      if (!perItem) {
        queue->async([apply, all = list.statistics] { apply(all); });
        done += list.statistics.size();
        continue;
      }
      for (std::size_t first = 0; first < list.statistics.size(); first += kChunk) {
        const auto last = std::min(list.statistics.size(), first + kChunk);
        for (auto i = first; i < last; ++i) {
          queue->async([apply, one = list.statistics[i]] { apply({one}); });
        }
        queue->sync([] {});
        done += last - first;
        if (secondsSince(started) > kBudgetSeconds) {
          return std::make_pair(secondsSince(started), done);
        }
      }
    }
    queue->sync([] {});
    return std::make_pair(secondsSince(started), done);
  };
  const auto [whole, wholeCount] = record(false);
  const auto [perItem, perItemCount] = record(true);
  if (perItemCount == objects) {
    std::printf(
        "%5d days  %zu statistics objects in %zu lists: recorded whole %.2f s, item by "
        "item %.2f s (%.0fx)\n",
        days, objects, kept.size(), whole, perItem, perItem / whole);
  } else {
    // The first objects are the cheapest ones, so the linear extrapolation is a lower bound.
    const double atLeast =
        perItem * static_cast<double>(objects) / static_cast<double>(perItemCount);
    std::printf(
        "%5d days  %zu statistics objects in %zu lists: recorded whole %.2f s; item by "
        "item %zu objects in %.1f s, so all of them at least %.0f s (at least %.0fx)\n",
        days, objects, kept.size(), whole, perItemCount, perItem, atLeast, atLeast / whole);
  }
  (void)wholeCount;
  setup.server->stop();
  installPlatform(nullptr);
  std::filesystem::remove_all(setup.directory);
  return 0;
}

}  // namespace
}  // namespace kestrova

int main(int argc, char** argv) {
  if (argc == 3 && std::string(argv[1]) == "--days") {
    return kestrova::runSize(std::atoi(argv[2]));
  }
  if (argc == 3 && std::string(argv[1]) == "--compare") {
    return kestrova::compareRecording(std::atoi(argv[2]));
  }
  std::printf("Statistics pass (queries + recording) and upload to the in-process server:\n");
  int failures = 0;
  for (int days : {90, 365, 1095}) {
    std::fflush(stdout);
    failures +=
        std::system((std::string(argv[0]) + " --days " + std::to_string(days)).c_str()) != 0;
  }
  std::printf("Recording the 1-year results, whole lists against one object at a time:\n");
  std::fflush(stdout);
  failures += std::system((std::string(argv[0]) + " --compare 365").c_str()) != 0;
  return failures;
}
