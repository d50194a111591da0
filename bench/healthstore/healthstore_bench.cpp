// Generates one year of health data into a store file and times the statistics and anchored
// queries the library makes over it, printing the figures and SQLite's query plans.
// Usage: healthstore_bench [store file]   (default: a new file in the temporary directory)
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <future>
#include <random>
#include <string>
#include <vector>

#include "healthstore/embedded_health_store.h"
#include "healthstore/sample_database.h"

namespace {

using namespace kestrova;
using std::chrono::minutes;
using Stopwatch = std::chrono::steady_clock;

double millisecondsSince(Stopwatch::time_point start) {
  return std::chrono::duration<double, std::milli>(Stopwatch::now() - start).count();
}

const char* const kBodyTypes[] = {
    "HKQuantityTypeIdentifierBodyMassIndex",
    "HKQuantityTypeIdentifierHeight",
    "HKQuantityTypeIdentifierBodyMass",
    "HKQuantityTypeIdentifierBodyFatPercentage",
    "HKQuantityTypeIdentifierBodyTemperature",
    "HKQuantityTypeIdentifierBloodGlucose",
    "HKQuantityTypeIdentifierBloodPressureSystolic",
    "HKQuantityTypeIdentifierBloodPressureDiastolic",
    "HKQuantityTypeIdentifierOxygenSaturation",
    "HKQuantityTypeIdentifierVO2Max",
    "HKQuantityTypeIdentifierHeartRateVariabilitySDNN",
};

const SourceRevision kWatch{
    Source{"Watch", "com.apple.health.watch"}, "10.4", "Watch6,7", {10, 4, 0}};
const SourceRevision kPhone{
    Source{"Phone", "com.apple.health.phone"}, "17.4", "iPhone15,2", {17, 4, 0}};

class Generator {
 public:
  Generator(std::shared_ptr<EmbeddedHealthStore> store, Date start)
      : store_(std::move(store)), start_(start) {}

  void add(std::string_view identifier, double value, std::string_view unit, Date from, Date to,
           const SourceRevision& source) {
    SampleProperties properties;
    properties.startDate = from;
    properties.endDate = to;
    properties.sourceRevision = source;
    pending_.push_back(QuantitySample::make(ObjectType::quantityType(identifier).value(),
                                            Quantity(Unit::fromString(unit).value(), value),
                                            std::move(properties))
                           .value());
    if (pending_.size() == 20000) {
      flush();
    }
  }

  void flush() {
    if (pending_.empty()) {
      return;
    }
    Result<std::size_t> saved = store_->saveObjects(pending_);
    if (!saved) {
      std::fprintf(stderr, "save failed: %s\n", saved.error().text().c_str());
      std::exit(1);
    }
    total_ += saved.value();
    pending_.clear();
  }

  void year() {
    std::mt19937 random(42);
    std::normal_distribution<double> noise(0, 1);
    for (int day = 0; day < 365; ++day) {
      const Date midnight = start_ + std::chrono::hours(24 * day);
      for (int minute = 0; minute < 24 * 60; minute += 2) {
        const Date at = midnight + minutes(minute);
        add(kHeartRateIdentifier, 65 + 10 * noise(random), "count/min", at, at, kWatch);
        const bool awake = minute >= 7 * 60 && minute < 23 * 60;
        if (awake) {
          // Watch and phone count the same walking, in overlapping intervals.
          add(kStepCountIdentifier, 40 + 10 * noise(random), "count", at, at + minutes(2), kWatch);
          add(kStepCountIdentifier, 35 + 10 * noise(random), "count", at + minutes(1),
              at + minutes(3), kPhone);
          if (minute % 4 == 0) {
            add("HKQuantityTypeIdentifierDistanceWalkingRunning", 60, "m", at, at + minutes(4),
                kWatch);
          }
        }
      }
      const Date morning = midnight + std::chrono::hours(7);
      add("HKQuantityTypeIdentifierBodyMass", 80 + noise(random), "kg", morning, morning, kPhone);
      add("HKQuantityTypeIdentifierBodyFatPercentage", 0.2, "%", morning, morning, kPhone);
      add("HKQuantityTypeIdentifierBodyMassIndex", 24.5, "count", morning, morning, kPhone);
      add("HKQuantityTypeIdentifierBodyTemperature", 36.8, "degC", morning, morning, kPhone);
      for (int reading = 0; reading < 2; ++reading) {
        const Date at = morning + std::chrono::hours(12 * reading);
        add("HKQuantityTypeIdentifierBloodPressureSystolic", 120, "mmHg", at, at, kPhone);
        add("HKQuantityTypeIdentifierBloodPressureDiastolic", 80, "mmHg", at, at, kPhone);
      }
      for (int reading = 0; reading < 4; ++reading) {
        const Date at = morning + std::chrono::hours(4 * reading);
        add("HKQuantityTypeIdentifierBloodGlucose", 95, "mg/dL", at, at, kPhone);
      }
      for (int hour = 0; hour < 24; ++hour) {
        const Date at = midnight + std::chrono::hours(hour);
        add("HKQuantityTypeIdentifierHeartRateVariabilitySDNN", 45, "ms", at, at, kWatch);
        if (hour % 2 == 0) {
          add("HKQuantityTypeIdentifierOxygenSaturation", 0.97, "%", at, at, kWatch);
        }
      }
      if (day % 7 == 0) {
        add("HKQuantityTypeIdentifierVO2Max", 42, "mL/(kg*min)", morning, morning, kWatch);
      }
    }
    add("HKQuantityTypeIdentifierHeight", 1.8, "m", start_, start_, kPhone);
    flush();
  }

  std::size_t total() const { return total_; }

 private:
  std::shared_ptr<EmbeddedHealthStore> store_;
  Date start_;
  std::vector<SamplePtr> pending_;
  std::size_t total_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  const std::filesystem::path path =
      argc > 1 ? std::filesystem::path(argv[1])
               : std::filesystem::temp_directory_path() /
                     ("kestrova-healthstore-bench-" + std::to_string(::getpid()) + ".sqlite");
  const bool fresh = !std::filesystem::exists(path);
  const TimeZone zone = TimeZone::named("Europe/Berlin").value();
  const Date start = zone.date(CivilTime{2024, 1, 1});

  EmbeddedHealthStoreOptions options;
  options.path = path;
  options.dispatcher = makeDispatcher();
  options.timeZone = makeFixedTimeZoneSource(zone);
  auto opened = EmbeddedHealthStore::open(options);
  if (!opened) {
    std::fprintf(stderr, "open failed: %s\n", opened.error().text().c_str());
    return 1;
  }
  auto store = opened.value();
  std::printf("store file: %s\n", path.c_str());

  if (fresh) {
    Generator generator(store, start);
    const auto began = Stopwatch::now();
    generator.year();
    const double elapsed = millisecondsSince(began);
    std::printf("generated %zu samples in %.0f ms (%.0f samples/s), file %.1f MB\n",
                generator.total(), elapsed, generator.total() / elapsed * 1000,
                std::filesystem::file_size(path) / 1e6);
  }

  const Predicate fromStart =
      predicateForSamples(start, std::nullopt, QueryOptions::strictStartDate);
  const auto timeCollection = [&](const char* label, std::string_view identifier,
                                  StatisticsOptions statisticsOptions, DateComponents interval) {
    for (int run = 0; run < 3; ++run) {
      std::promise<Result<StatisticsCollection>> promise;
      const auto began = Stopwatch::now();
      store->executeQuery(StatisticsCollectionQuery::make(
          ObjectType::quantityType(identifier).value(), fromStart, statisticsOptions, start,
          interval, [&](const auto&, Result<StatisticsCollection> result) {
            promise.set_value(std::move(result));
          }));
      Result<StatisticsCollection> result = promise.get_future().get();
      const double elapsed = millisecondsSince(began);
      if (!result) {
        std::fprintf(stderr, "%s failed: %s\n", label, result.error().text().c_str());
        std::exit(1);
      }
      const auto statistics = result.value().statistics();
      std::printf("%-44s run %d: %8.1f ms, %zu intervals\n", label, run + 1, elapsed,
                  statistics.size());
    }
  };
  timeCollection("heart rate avg/min/max per 15 min, 1 year", kHeartRateIdentifier,
                 StatisticsOptions::discreteAverage | StatisticsOptions::discreteMin |
                     StatisticsOptions::discreteMax,
                 DateComponents{.minute = 15});
  timeCollection("daily step sums, phone+watch de-duplicated", kStepCountIdentifier,
                 StatisticsOptions::cumulativeSum, DateComponents{.day = 1});

  for (int run = 0; run < 3; ++run) {
    const auto began = Stopwatch::now();
    std::size_t total = 0;
    for (const char* identifier : kBodyTypes) {
      std::promise<Result<AnchoredObjectResults>> promise;
      store->executeQuery(AnchoredObjectQuery::make(
          ObjectType::quantityType(identifier).value(), fromStart, std::nullopt, 0,
          [&](const auto&, Result<AnchoredObjectResults> result) {
            promise.set_value(std::move(result));
          }));
      Result<AnchoredObjectResults> result = promise.get_future().get();
      if (!result) {
        std::fprintf(stderr, "anchored query failed: %s\n", result.error().text().c_str());
        return 1;
      }
      total += result.value().samples.size();
    }
    std::printf("%-44s run %d: %8.1f ms, %zu samples\n", "anchored queries, all body measurements",
                run + 1, millisecondsSince(began), total);
  }

  Result<SampleDatabase> database = SampleDatabase::open(path);
  if (database) {
    Result<std::vector<std::pair<std::string, std::string>>> plans = database.value().queryPlans();
    if (plans) {
      for (const auto& [name, plan] : plans.value()) {
        std::printf("plan %-10s %s\n", name.c_str(), plan.c_str());
      }
    }
  }
  if (argc <= 1) {
    store.reset();
    std::filesystem::remove(path);
    std::filesystem::remove(path.string() + "-wal");
    std::filesystem::remove(path.string() + "-shm");
  }
  return 0;
}
