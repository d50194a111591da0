// The statistics pass and its upload over 90 days, 1 year and 3 years of generated data: the
// queries over an embedded store, the recording on the statistics queue, and the uploads to
// the in-process reference server; then one more day and the pass and upload after it. Each
// size runs in a child process so that its peak memory is its own.
//
//   statistics_bench            all sizes
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
std::size_t generate(EmbeddedHealthStore& store, Date firstDay, int firstIndex, int days) {
  const SourceRevision watch{
      Source{"Watch", "com.apple.health.watch"}, "10.4", "Watch6,7", {10, 4, 0}};
  const SourceRevision phone{
      Source{"iPhone", "com.apple.health.phone"}, "17.4", "iPhone15,2", {17, 4, 0}};
  std::mt19937 random(7);
  std::uniform_real_distribution<double> unit(0, 1);
  std::size_t saved = 0;
  for (int day = firstIndex; day < firstIndex + days; ++day) {
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

  PlatformOptions options;
  options.dataDirectory = setup.directory;
  options.timeZone = zone;
  options.clock = setup.clock;
  options.healthStore = setup.embedded;
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

std::size_t pendingRecords(const StatisticsStore& store) {
  std::size_t pending = 0;
  for (auto family : {StatisticsFamily::heartRateSamples, StatisticsFamily::dailyDetailSamples,
                      StatisticsFamily::dailySummaries}) {
    pending += store.count(family).withNewData;
  }
  return pending;
}

struct Figures {
  double pass = 0;
  double passCpu = 0;
  double upload = 0;
  double uploadCpu = 0;
  long long points = 0;
  long long requests = 0;
  bool complete = true;
};

// One pass over every statistics type, then the upload of what it changed, each timed.
Figures passAndUpload(Setup& setup, StatisticsPass& pass) {
  Figures figures;
  const auto before = setup.server->stats();
  auto started = Clock::now();
  double cpuStarted = cpuSeconds();
  pass.run(dailySummaryTypes());
  while (pass.isRunning()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  const auto queue = statisticsQueue(setup);
  queue->sync([] {});
  figures.pass = secondsSince(started);
  figures.passCpu = cpuSeconds() - cpuStarted;

  started = Clock::now();
  cpuStarted = cpuSeconds();
  const StatisticsStore reader(setup.platform->defaults, setup.clock, Date::min());
  setup.clock->advance(DataManager::kUploadDelay);
  const auto deadline = Clock::now() + std::chrono::minutes(10);
  std::size_t pending = 1;
  while (pending > 0 && Clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    queue->sync([&] { pending = pendingRecords(reader); });
  }
  figures.upload = secondsSince(started);
  figures.uploadCpu = cpuSeconds() - cpuStarted;
  const auto after = setup.server->stats();
  figures.points = static_cast<long long>(after.store.dataPoints - before.store.dataPoints);
  figures.requests = static_cast<long long>(after.requestCount - before.requestCount);
  figures.complete = pending == 0;
  return figures;
}

int runSize(int days) {
  logging::setMinimumLevel(std::getenv("BENCH_LOG") ? LogLevel::info : LogLevel::error);
  const auto zone = *TimeZone::named(kZone);
  const auto firstDay = zone.date(CivilTime{2022, 1, 3});
  auto setup = makeSetup(days, firstDay);
  const auto samples = generate(*setup.embedded, firstDay, 0, days);

  auto manager = DataManager::make(
      *setup.api, firstDay,
      DataManager::Environment{setup.platform->defaults, setup.clock, setup.platform->dispatcher});
  StatisticsPass::Environment environment;
  environment.store = setup.embedded;
  environment.anchors = std::make_shared<AnchorStore>(setup.platform->defaults);
  environment.defaults = setup.platform->defaults;
  environment.clock = setup.clock;
  environment.settings = [manager, firstDay, zone] {
    return std::optional(StatisticsPass::Settings{manager, firstDay, std::string(kProfile), zone});
  };
  auto pass = StatisticsPass::make(std::move(environment));

  const auto print = [](const char* label, const Figures& figures) {
    std::printf(
        "%-14s pass %6.2f s (cpu %6.2f s)  upload %6.2f s (cpu %6.2f s)  %7lld points  %4lld "
        "requests  peak %7.1f MB%s\n",
        label, figures.pass, figures.passCpu, figures.upload, figures.uploadCpu, figures.points,
        figures.requests, peakKilobytes() / 1024.0, figures.complete ? "" : "  (NOT all uploaded)");
  };
  std::printf("%5d days  %8zu samples\n", days, samples);
  const auto full = passAndUpload(setup, *pass);
  print("  first pass", full);
  generate(*setup.embedded, firstDay, days, 1);
  setup.clock->advance(std::chrono::hours(24));
  const auto next = passAndUpload(setup, *pass);
  print("  one more day", next);
  pass->stop();
  manager.reset();
  setup.server->stop();
  installPlatform(nullptr);
  std::filesystem::remove_all(setup.directory);
  return full.complete && next.complete ? 0 : 1;
}

}  // namespace
}  // namespace kestrova

int main(int argc, char** argv) {
  if (argc == 3 && std::string(argv[1]) == "--days") {
    return kestrova::runSize(std::atoi(argv[2]));
  }
  std::printf("Statistics pass (queries + recording) and upload to the in-process server:\n");
  int failures = 0;
  for (int days : {90, 365, 1095}) {
    std::fflush(stdout);
    failures +=
        std::system((std::string(argv[0]) + " --days " + std::to_string(days)).c_str()) != 0;
  }
  return failures;
}
