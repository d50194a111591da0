// The statistics pass: 15-minute heart rate figures, 15-minute sums and daily figures of each
// read quantity type, recomputed from the local midnight of the earliest day whose samples
// changed since the last completed pass (found with anchored queries over the statistics
// types, whose anchors are kept like the sample anchors) and handed to the DataManager a
// month at a time, every changed type of a month before the next month, so that a pass costs
// what changed and never holds years of figures.
// `mutex_` owns the pass bookkeeping; the state of a running pass is handed from one query
// callback to the next, one at a time. Handlers run on the health store's queues and on the
// statistics queue; they hold the pass weakly.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/clock.h"
#include "platform/defaults_store.h"
#include "platform/health/health_store.h"
#include "platform/health/object_type.h"
#include "platform/time_zone.h"
#include "statistics/data_manager.h"
#include "storage/anchor_store.h"

namespace kestrova {

// Local midnight of `date`'s day in `zone`.
Date statisticsAnchorDate(Date date, const TimeZone& zone);

class StatisticsPass : public std::enable_shared_from_this<StatisticsPass> {
 public:
  // The start date and profile the stored statistics anchors were taken for; another start
  // date or profile makes the next pass cover the whole range.
  static constexpr std::string_view kRangeKey = "KestrovaStatisticsRangeKey";
  // Changed samples read at a time while looking for the earliest changed day.
  static constexpr std::size_t kChangesPerPage = 5000;

  // What a pass needs from the current configuration, read when it starts.
  struct Settings {
    std::shared_ptr<DataManager> dataManager;
    Date startDate;
    std::string profileId;
    // The device's zone: intervals start at its local midnight of the start date's day.
    TimeZone zone = TimeZone::gmt();
  };

  struct Environment {
    std::shared_ptr<HealthStore> store;
    std::shared_ptr<AnchorStore> anchors;
    std::shared_ptr<DefaultsStore> defaults;
    std::shared_ptr<Clock> clock;
    std::function<std::optional<Settings>()> settings;
  };

  static std::shared_ptr<StatisticsPass> make(Environment environment);

  // A pass over the quantity types among `types`: the heart rate query when heart rate is
  // one of them, a daily detail query for each cumulative type and a summary query for each
  // type. While a pass runs, the types wait and run in one more pass after it. Any thread.
  void run(std::vector<ObjectType> types);
  // Stops the queries under way and drops what they still deliver; nothing of the pass is
  // recorded or anchored after this returns.
  void stop();

  bool isRunning() const;

 private:
  struct Pass;

  explicit StatisticsPass(Environment environment) : environment_(std::move(environment)) {}

  void begin(std::vector<ObjectType> types);
  void resetAnchorsForNewRange(const Settings& settings);
  void nextType(const std::shared_ptr<Pass>& pass);
  void scanChanges(const std::shared_ptr<Pass>& pass, std::optional<QueryAnchor> from);
  void startWindows(const std::shared_ptr<Pass>& pass);
  void nextWindow(const std::shared_ptr<Pass>& pass);
  void windowRecorded(const std::shared_ptr<Pass>& pass, std::optional<Date> end);
  void finish();
  bool isCurrent(const Pass& pass) const;
  // The pass of a query that answered, done with the query; none when the pass is gone or was
  // stopped, and what the query brought is to be dropped.
  static std::shared_ptr<StatisticsPass> answered(const std::weak_ptr<StatisticsPass>& weak,
                                                  const Query& query, const Pass& pass);
  void execute(std::shared_ptr<Query> query);
  void forget(const Query& query);

  const Environment environment_;
  mutable std::mutex mutex_;  // owns the fields below
  std::uint64_t generation_ = 0;
  bool running_ = false;
  std::vector<ObjectType> pending_;
  std::vector<std::shared_ptr<Query>> queries_;
};

}  // namespace kestrova
