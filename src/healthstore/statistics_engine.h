// The arithmetic of statistics queries: samples spread over calendar-aligned intervals,
// cumulative values prorated by time overlap and de-duplicated across sources by priority,
// discrete average (arithmetic or time-weighted), minimum, maximum, most recent and duration.
// Pure functions over their arguments: no shared state, callable from any thread.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "platform/health/object_type.h"
#include "platform/health/statistics.h"

namespace kestrova {

struct StatisticsSample {
  Date start;
  Date end;
  double value = 0;  // canonical unit
  std::uint32_t source = 0;
  // Lower wins. Where samples of different priorities overlap in time, only the best
  // priority's samples count towards a merged cumulative sum.
  std::int64_t priority = 0;
};

struct IntervalStatistics {
  StatisticsValues merged;
  // Indexed by StatisticsSample::source; filled only with separateBySource.
  std::map<std::uint32_t, StatisticsValues> bySource;
};

// Statistics per interval index of `grid`; only intervals that at least one sample overlaps
// (or, for an instant, contains) appear. Without a grid everything falls in interval 0.
std::map<std::int64_t, IntervalStatistics> computeStatistics(
    const std::vector<StatisticsSample>& samples, AggregationStyle style, StatisticsOptions options,
    const IntervalGrid* grid);

}  // namespace kestrova
