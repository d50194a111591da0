// Sample collection: the observers that wake the library, background delivery, and the anchored
// fetches that turn new samples into upload files. State owners: `mutex_` owns the running-query
// set, the fetch state of each type and the generation; everything else is immutable after
// construction. Handlers run on the health store's queues; files are written on the file
// store's write queue and uploaded on the API queue.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "api/api.h"
#include "datapoints/query_runner.h"
#include "platform/clock.h"
#include "platform/health/health_store.h"
#include "platform/platform.h"
#include "storage/anchor_store.h"

namespace kestrova {

// The families that are uploaded sample by sample, each with its file prefix.
enum class SampleFamily { workouts, sleep, mindfulSessions, electrocardiograms, bodyMeasurements };

std::string_view filePrefix(SampleFamily family);

using DataPoints = std::vector<nlohmann::json>;

class SampleCollector : public std::enable_shared_from_this<SampleCollector> {
 public:
  // What collection needs from the current configuration; read at every fetch, so that a new
  // configuration takes effect without restarting the observers.
  struct Settings {
    Date startDate;
    std::string profileId;
    // Identifiers of the types the host enabled; nothing else is read or observed.
    std::set<std::string, std::less<>> enabledTypes;
    API api;
  };

  struct Environment {
    std::shared_ptr<HealthStore> store;
    std::shared_ptr<AnchorStore> anchors;
    std::shared_ptr<Clock> clock;
    SystemVersion system;
    std::function<std::optional<Settings>()> settings;
    // Where the encoders that query further (workouts, sleep) complete.
    std::shared_ptr<DispatchQueue> encodingQueue;
    // The statistics pass over the given quantity types; when set, collection start runs it
    // over every enabled statistics type and observes each of them to run it again.
    std::function<void(std::vector<ObjectType> types)> statistics;
  };

  // At most this many data points go into one upload file.
  static constexpr std::size_t kMaximumDataPointsPerFile = 5000;

  // At most this many samples and deletions of a family are fetched at a time.
  static std::size_t fetchLimit(SampleFamily family);

  static std::shared_ptr<SampleCollector> make(Environment environment);

  // Stops what runs, fetches every family once, starts one observer per family and type, runs
  // the statistics pass and observes the statistics types, and enables immediate background
  // delivery for every read type.
  void startObserving();
  // Stops every running query; what a fetch under way still delivers is dropped (no file, no
  // anchor), so that nothing of an earlier connection outlives a disconnect.
  void stopObserving();
  // One anchored fetch of a family's type from its stored anchor, a page at a time; returns at
  // once. While a fetch of the type is under way, it runs once more after that one instead:
  // two fetches from the same anchor would write the same samples twice.
  void fetchNewSamples(SampleFamily family, const ObjectType& type);

  std::size_t runningQueryCount() const;

  // The common result check: the samples of a delivery, or none with a log line for an error
  // or an empty delivery.
  static std::vector<SamplePtr> checkResults(const Query& query,
                                             const Result<AnchoredObjectResults>& results);

 private:
  explicit SampleCollector(Environment environment) : environment_(std::move(environment)) {}

  struct Route {
    SampleFamily family;
    ObjectType type;
  };
  std::vector<Route> routes() const;
  std::optional<Settings> settingsFor(const ObjectType& type) const;
  void observe(const Route& route);
  // The daily summary types (heart rate, activity sums) that the host enabled.
  std::vector<ObjectType> statisticsTypes() const;
  void observeStatistics(const ObjectType& type);
  void enableBackgroundDelivery();
  void execute(std::shared_ptr<Query> query);
  void forget(const Query& query);
  QueryRunner queryRunner();
  // `done` learns the data points and whether every sample of the delivery is in them.
  void encode(SampleFamily family, std::vector<SamplePtr> samples,
              std::function<void(DataPoints, bool complete)> done);
  void deliver(SampleFamily family, const ObjectType& type, Settings settings,
               std::vector<SamplePtr> samples, QueryAnchor newAnchor, std::uint64_t generation,
               bool more);
  void writeBatches(SampleFamily family, const Settings& settings, DataPoints points,
                    std::function<void()> settled);
  std::uint64_t currentGeneration() const;
  bool isCurrent(std::uint64_t generation) const;
  // Stores the anchor unless the fetch belongs to an earlier connection.
  void settle(const ObjectType& type, std::optional<QueryAnchor> newAnchor,
              std::uint64_t generation);
  // Ends the fetch of `type`, and runs the next one when a wake-up waited for it or `more`
  // samples wait behind a full page.
  void fetchEnded(SampleFamily family, const ObjectType& type, std::uint64_t generation, bool more);
  // fetchNewSamples for a wake-up or a next page of `generation`: nothing once that connection
  // has ended.
  void fetchOf(std::uint64_t generation, SampleFamily family, const ObjectType& type);

  const Environment environment_;
  mutable std::mutex mutex_;  // owns the fields below
  std::vector<std::shared_ptr<Query>> running_;
  // Bumped by stopObserving: fetches of an earlier generation write and anchor nothing.
  std::uint64_t generation_ = 0;
  struct FetchState {
    bool running = false;
    bool again = false;
  };
  std::map<std::string, FetchState, std::less<>> fetches_;
};

}  // namespace kestrova
