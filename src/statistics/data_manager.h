// DataManager: records the results of the statistics collection queries in the statistics
// store and uploads new figures a few seconds after each batch. Store writes and upload ticks
// run on the serial statistics queue, which owns every read-modify-write of the store; `mutex_`
// owns the three lazily made timers. Callbacks that outlive a call hold the manager weakly.
//
//   auto manager = DataManager::make(api, startDate, environment);  // sweeps and prunes
//   manager->storeHeartRateStatistics(collection.statistics());      // upload 3 s later
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "api/api.h"
#include "platform/clock.h"
#include "platform/defaults_store.h"
#include "platform/dispatch.h"
#include "platform/health/statistics.h"
#include "statistics/statistics_store.h"

namespace kestrova {

class DataManager : public std::enable_shared_from_this<DataManager> {
 public:
  static constexpr std::string_view kStatisticsQueueLabel = "com.kestrova.queue.statistics";
  // Quiet time after the last batch of a family before its upload.
  static constexpr std::chrono::seconds kUploadDelay{3};
  // At most this many data points go into one request; each request is marked on its own.
  static constexpr std::size_t kMaximumDataPointsPerRequest = 5000;

  struct Environment {
    std::shared_ptr<DefaultsStore> defaults;
    std::shared_ptr<Clock> clock;
    std::shared_ptr<Dispatcher> dispatcher;
  };

  // Retries the upload files left on disk and, with a start date, prunes the stored
  // statistics of the days before it, then sends the stored figures that are still new.
  static std::shared_ptr<DataManager> make(API api, std::optional<Date> startDate,
                                           Environment environment);
  ~DataManager();
  DataManager(const DataManager&) = delete;
  DataManager& operator=(const DataManager&) = delete;

  const API& api() const { return api_; }
  // The queue shared by every manager of the dispatcher, so that the store is written by one
  // queue also while a replaced manager's work drains.
  const std::shared_ptr<DispatchQueue>& statisticsStorageQueue() const { return queue_; }

  // The connection a pass records for: a pass takes it when it starts, and what it delivers
  // after the stored statistics were deleted (a disconnect) is dropped, so that figures of an
  // earlier connection never come back.
  static std::uint64_t currentEpoch();

  // Result entry points: the whole list is recorded in one work item on the statistics queue,
  // unless the epoch has ended, then the family's upload is (re)scheduled kUploadDelay from
  // now. Any thread.
  void storeHeartRateStatistics(std::vector<Statistics> statistics, std::uint64_t epoch);
  void storeDailyDetailStatistics(std::vector<Statistics> statistics, ObjectType quantityType,
                                  std::uint64_t epoch);
  void storeDailySummaryStatistics(std::vector<Statistics> statistics, std::uint64_t epoch);
  // Runs `then` on the statistics queue after the results handed in before it are recorded,
  // with whether `epoch` is still the current one.
  void afterRecorded(std::uint64_t epoch, std::function<void(bool current)> then);

  // Ends the current epoch and returns once the store is empty (after the batches queued
  // before it).
  void deleteAllStoredStatistics();

  // Runs every family's tick now: sends what the back end has not accepted yet, for a host
  // that retries after failed uploads instead of waiting for the next figures.
  void uploadNow();

 private:
  enum class Family { heartRateSamples, dailyDetailSamples, dailySummaries };

  DataManager(API api, std::optional<Date> startDate, Environment environment);

  Timer& timer(Family family);
  Timer& heartRateSamplesTimer() { return timer(Family::heartRateSamples); }
  Timer& dailyDetailSamplesTimer() { return timer(Family::dailyDetailSamples); }
  Timer& dailySummaryTimer() { return timer(Family::dailySummaries); }

  // The upload ticks; on the statistics queue. A tick sends the records with new data a page
  // at a time, each page after the previous one was accepted and marked, so that years of
  // figures are never held at once.
  void tick(Family family);
  void tickAnswered(Family family);
  void uploadPage(Family family, std::string after, Date tickTime);
  template <class Record, class Encode>
  void upload(Family family, StatisticsPage<Record> page, Date tickTime, const Encode& encode);

  const API api_;
  const Environment environment_;
  const std::shared_ptr<StatisticsStore> store_;
  const std::shared_ptr<DispatchQueue> queue_;
  // Whether a family's tick still waits for answers, and whether another tick came meanwhile.
  struct TickState {
    bool running = false;
    bool again = false;
    // The back end asked (Retry-After) for no request of the family before then.
    std::optional<Date> notBefore;
  };
  std::array<TickState, 3> ticks_;  // owned by the statistics queue
  std::mutex mutex_;                // owns the three timers
  std::unique_ptr<Timer> heartRateSamplesTimer_;
  std::unique_ptr<Timer> dailyDetailSamplesTimer_;
  std::unique_ptr<Timer> dailySummaryTimer_;
};

}  // namespace kestrova
