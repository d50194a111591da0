// The health store of Linux hosts: samples kept in one SQLite file, queried with the platform's
// semantics, observers woken by writes of this process and, through a change poll, of others.
// State owners: writeMutex_ (the write connection), queryQueue_ (the read connection and the
// anchors of long-running anchored queries), changeQueue_ (the change-watch connection, the
// scan position and the poll timer), stateMutex_ (running queries, settings, registrations).
// The handlers of each executed query run on a serial queue of that query's own; completions
// of authorisation and background-delivery calls on the store's completion queue.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "healthstore/sample_database.h"
#include "platform/clock.h"
#include "platform/dispatch.h"
#include "platform/health/health_store.h"
#include "platform/time_zone.h"

namespace kestrova {

struct EmbeddedHealthStoreOptions {
  std::filesystem::path path;
  std::shared_ptr<Dispatcher> dispatcher;
  // Drives the change poll and dates tombstones; the system clock when null.
  std::shared_ptr<Clock> clock;
  // The device zone in which statistics intervals are laid out; the system zone when null.
  std::shared_ptr<TimeZoneSource> timeZone;
  // How often the file is checked for commits by other processes. One check is a
  // "PRAGMA data_version" on an idle connection (microseconds), so a short period costs
  // nothing measurable and keeps cross-process wake-ups prompt.
  std::chrono::milliseconds changePollInterval{50};
  // Deleted objects are reported to anchored queries for this long, then forgotten (as on
  // the platform, a client that stays away longer misses old deletions).
  std::chrono::hours deletedObjectRetention{24 * 30};
};

// Which reads the user allowed. Denied types read as empty, as on the platform, where an app
// cannot tell a denied read from a store without data.
struct AuthorizationPolicy {
  bool denyAllReads = false;
  std::set<std::string> deniedReadTypes;  // type identifiers
};

struct BackgroundDeliveryRegistration {
  // The requested frequency, lowered to the type's cap (step counts: at most hourly).
  UpdateFrequency frequency = UpdateFrequency::immediate;
  // Observer deliveries for the type whose completion handler has not been called.
  int unacknowledgedDeliveries = 0;
  // Set when a delivery finds three earlier ones unacknowledged; cleared by enabling again.
  bool suspended = false;
};

class EmbeddedHealthStore final : public HealthStore,
                                  public std::enable_shared_from_this<EmbeddedHealthStore> {
 public:
  // Opens or creates the store file. Errors: the file cannot be opened or set up.
  static Result<std::shared_ptr<EmbeddedHealthStore>> open(EmbeddedHealthStoreOptions options);
  ~EmbeddedHealthStore() override;

  bool isHealthDataAvailable() const override { return true; }
  void requestAuthorization(std::set<ObjectType> toShare, std::set<ObjectType> read,
                            HealthStoreCompletion completion) override;
  void executeQuery(std::shared_ptr<Query> query) override;
  void stopQuery(const std::shared_ptr<Query>& query) override;
  void enableBackgroundDelivery(ObjectType type, UpdateFrequency frequency,
                                HealthStoreCompletion completion) override;
  void disableBackgroundDelivery(ObjectType type, HealthStoreCompletion completion) override;
  void disableAllBackgroundDelivery(HealthStoreCompletion completion) override;

  // Writing, on the caller's thread, each call one transaction. Samples already stored (same
  // UUID) are skipped; the result is how many were added or deleted. Observers hear of a
  // call that changed something once, after it committed.
  Result<std::size_t> saveObjects(const std::vector<SamplePtr>& samples);
  // `volts`: the lead I trace in volts, one value per measurement.
  Result<std::size_t> saveElectrocardiogram(std::shared_ptr<const Electrocardiogram> sample,
                                            std::vector<double> volts);
  Result<std::size_t> deleteObjects(const std::vector<Uuid>& uuids);
  // Rows of any stored type and what belongs to them, in one transaction (imports).
  Result<BatchOutcome> saveBatch(const ImportBatch& batch);

  // The order in which sources win where their cumulative samples overlap, for one type:
  // these bundle identifiers first, in this order; then the default order: samples the user
  // entered, watches, phones, then other sources, most recently added first.
  void setSourcePriority(const ObjectType& type, std::vector<std::string> bundleIdentifiers);
  void setAuthorizationPolicy(AuthorizationPolicy policy);
  // Every type that requestAuthorization has been asked to read.
  std::set<ObjectType> requestedReadTypes() const;
  std::optional<BackgroundDeliveryRegistration> backgroundDeliveryRegistration(
      const ObjectType& type) const;

 private:
  struct RunningQuery;

  EmbeddedHealthStore(EmbeddedHealthStoreOptions options, SampleDatabase writer,
                      SampleDatabase reader, SampleDatabase watcher);

  void startPolling();
  void poll();
  // Reports every change committed since the last scan; false when the file could not be
  // read (the next poll tries again).
  bool scanChanges();
  void deliverObserver(const std::shared_ptr<RunningQuery>& running,
                       std::vector<ObjectType> changedTypes);
  void refreshAnchored(const std::shared_ptr<RunningQuery>& running);
  void finish(const std::shared_ptr<RunningQuery>& running);
  void complete(HealthStoreCompletion completion);
  bool canRead(const ObjectType& type) const;
  void afterWrite(const Result<std::size_t>& written);

  void runAnchored(const std::shared_ptr<RunningQuery>& running);
  void runSample(const std::shared_ptr<RunningQuery>& running);
  void runStatistics(const std::shared_ptr<RunningQuery>& running);
  void runStatisticsCollection(const std::shared_ptr<RunningQuery>& running);
  void runElectrocardiogram(const std::shared_ptr<RunningQuery>& running);

  struct StatisticsInput;
  Result<StatisticsInput> statisticsInput(const ObjectType& type,
                                          const std::optional<Predicate>& predicate);

  const EmbeddedHealthStoreOptions options_;
  const std::shared_ptr<DispatchQueue> queryQueue_;
  const std::shared_ptr<DispatchQueue> changeQueue_;
  const std::shared_ptr<DispatchQueue> completionQueue_;

  std::mutex writeMutex_;  // owns writer_
  SampleDatabase writer_;

  SampleDatabase reader_;  // owned by queryQueue_

  SampleDatabase watcher_;            // owned by changeQueue_
  std::uint64_t scannedThrough_ = 0;  // owned by changeQueue_
  std::int64_t dataVersion_ = 0;      // owned by changeQueue_
  std::unique_ptr<Timer> pollTimer_;  // owned by changeQueue_

  mutable std::mutex stateMutex_;  // owns everything below
  std::unordered_map<const Query*, std::shared_ptr<RunningQuery>> running_;
  AuthorizationPolicy policy_;
  std::map<std::string, std::vector<std::string>> sourcePriorities_;
  std::set<ObjectType> requestedRead_;
  std::map<std::string, BackgroundDeliveryRegistration> registrations_;
};

}  // namespace kestrova
