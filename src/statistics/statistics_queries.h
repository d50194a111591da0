// The statistics collection queries: 15-minute heart rate figures, 15-minute sums and daily
// figures of each read quantity type, from the start date up to now, handed to the
// DataManager. One-shot queries; no state of their own. Handlers run on the health store's
// queues and hold the DataManager weakly.
#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "platform/clock.h"
#include "platform/health/health_store.h"
#include "platform/health/object_type.h"
#include "platform/time_zone.h"
#include "statistics/data_manager.h"

namespace kestrova {

struct StatisticsQueryContext {
  std::shared_ptr<HealthStore> store;
  std::shared_ptr<DataManager> dataManager;
  std::optional<Date> startDate;
  // The device's zone: intervals start at its local midnight of the start date's day.
  TimeZone zone = TimeZone::gmt();
};

// Local midnight of `date`'s day in `zone`.
Date statisticsAnchorDate(Date date, const TimeZone& zone);

// Starts, for the quantity types among `types`: the heart rate query when heart rate is one
// of them, a daily detail query for each cumulative type and a summary query for each type.
// Without a DataManager or a start date nothing starts.
void startStatisticsQueries(const StatisticsQueryContext& context,
                            const std::vector<ObjectType>& types);

}  // namespace kestrova
