#include "healthstore/statistics_engine.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <unordered_map>

namespace kestrova {
namespace {

using std::chrono::nanoseconds;

// Interval lookups with the last answer remembered: sweeps ask about nearby times in order,
// and calendar intervals cost a time-zone conversion each.
class IntervalLocator {
 public:
  explicit IntervalLocator(const IntervalGrid* grid) : grid_(grid) {}

  std::int64_t index(Date date) {
    if (grid_ == nullptr) {
      return 0;
    }
    if (!(cached_ && date >= start_ && date < end_)) {
      index_ = grid_->indexContaining(date);
      start_ = grid_->start(index_);
      end_ = grid_->start(index_ + 1);
      cached_ = true;
    }
    return index_;
  }
  // The end of the interval that index() last returned.
  Date currentEnd() const { return grid_ == nullptr ? Date::max() : end_; }

 private:
  const IntervalGrid* grid_;
  bool cached_ = false;
  std::int64_t index_ = 0;
  Date start_;
  Date end_;
};

struct Accumulator {
  bool populated = false;
  double sum = 0;
  std::size_t count = 0;
  double valueSum = 0;
  double weightedSum = 0;
  double weight = 0;
  double minimum = std::numeric_limits<double>::infinity();
  double maximum = -std::numeric_limits<double>::infinity();
  std::optional<double> recent;
  Date recentStart;
  Date recentEnd;
  std::vector<std::pair<Date, Date>> covered;

  void addDiscrete(const StatisticsSample& sample, double overlapSeconds) {
    populated = true;
    ++count;
    valueSum += sample.value;
    weightedSum += sample.value * overlapSeconds;
    weight += overlapSeconds;
    minimum = std::min(minimum, sample.value);
    maximum = std::max(maximum, sample.value);
  }
  void noteRecent(const StatisticsSample& sample) {
    if (!recent || sample.end > recentEnd ||
        (sample.end == recentEnd && sample.start >= recentStart)) {
      recent = sample.value;
      recentStart = sample.start;
      recentEnd = sample.end;
    }
  }
};

struct IntervalAccumulators {
  Accumulator merged;
  std::map<std::uint32_t, Accumulator> bySource;
};

double seconds(nanoseconds span) {
  return std::chrono::duration<double>(span).count();
}

double coveredSeconds(std::vector<std::pair<Date, Date>> spans) {
  std::sort(spans.begin(), spans.end());
  double total = 0;
  std::optional<std::pair<Date, Date>> current;
  for (const auto& span : spans) {
    if (current && span.first <= current->second) {
      current->second = std::max(current->second, span.second);
      continue;
    }
    if (current) {
      total += seconds(current->second - current->first);
    }
    current = span;
  }
  if (current) {
    total += seconds(current->second - current->first);
  }
  return total;
}

StatisticsValues finish(const Accumulator& acc, AggregationStyle style, StatisticsOptions options) {
  StatisticsValues values;
  if (hasOption(options, StatisticsOptions::cumulativeSum)) {
    values.sum = acc.sum;
  }
  if (acc.count > 0) {
    if (hasOption(options, StatisticsOptions::discreteAverage)) {
      // Instantaneous samples carry no time weight; then every sample counts alike.
      values.average = style == AggregationStyle::discreteTemporallyWeighted && acc.weight > 0
                           ? acc.weightedSum / acc.weight
                           : acc.valueSum / static_cast<double>(acc.count);
    }
    if (hasOption(options, StatisticsOptions::discreteMin)) {
      values.minimum = acc.minimum;
    }
    if (hasOption(options, StatisticsOptions::discreteMax)) {
      values.maximum = acc.maximum;
    }
  }
  if (hasOption(options, StatisticsOptions::mostRecent) && acc.recent) {
    values.mostRecent = acc.recent;
    values.mostRecentStartDate = acc.recentStart;
    values.mostRecentEndDate = acc.recentEnd;
  }
  if (hasOption(options, StatisticsOptions::duration)) {
    values.duration = coveredSeconds(acc.covered);
  }
  return values;
}

// The merged cumulative sum: a sweep over the time line in which each elementary slice is
// counted only for the best-priority lane with samples covering it.
void sweepMergedSums(const std::vector<StatisticsSample>& samples, const IntervalGrid* grid,
                     std::map<std::int64_t, IntervalAccumulators>& intervals) {
  std::vector<std::int64_t> priorities;
  for (const StatisticsSample& sample : samples) {
    priorities.push_back(sample.priority);
  }
  std::sort(priorities.begin(), priorities.end());
  priorities.erase(std::unique(priorities.begin(), priorities.end()), priorities.end());
  const auto laneOf = [&](std::int64_t priority) {
    return static_cast<std::size_t>(
        std::lower_bound(priorities.begin(), priorities.end(), priority) - priorities.begin());
  };

  struct Event {
    Date time;
    std::size_t lane;
    double rate;  // value per nanosecond; negative at a sample's end
    int delta;
  };
  std::vector<Event> events;
  events.reserve(samples.size() * 2);
  IntervalLocator instants(grid);
  for (const StatisticsSample& sample : samples) {
    if (sample.end <= sample.start) {
      // No length to share: the whole value goes to the interval holding the start.
      intervals[instants.index(sample.start)].merged.sum += sample.value;
      continue;
    }
    const double rate = sample.value / static_cast<double>((sample.end - sample.start).count());
    const std::size_t lane = laneOf(sample.priority);
    events.push_back({sample.start, lane, rate, 1});
    events.push_back({sample.end, lane, -rate, -1});
  }
  std::sort(events.begin(), events.end(),
            [](const Event& a, const Event& b) { return a.time < b.time; });

  std::vector<int> active(priorities.size(), 0);
  std::vector<double> rates(priorities.size(), 0);
  IntervalLocator locator(grid);
  std::size_t i = 0;
  while (i < events.size()) {
    const Date now = events[i].time;
    for (; i < events.size() && events[i].time == now; ++i) {
      const Event& event = events[i];
      active[event.lane] += event.delta;
      // Reset rather than subtract at zero so rounding never leaves a residue behind.
      rates[event.lane] = active[event.lane] == 0 ? 0 : rates[event.lane] + event.rate;
    }
    if (i == events.size()) {
      break;
    }
    const auto best = std::find_if(active.begin(), active.end(), [](int n) { return n > 0; });
    if (best == active.end()) {
      continue;
    }
    const double rate = rates[static_cast<std::size_t>(best - active.begin())];
    Date from = now;
    const Date to = events[i].time;
    while (from < to) {
      const std::int64_t index = locator.index(from);
      const Date until = std::min(to, locator.currentEnd());
      intervals[index].merged.sum += rate * static_cast<double>((until - from).count());
      from = until;
    }
  }
}

}  // namespace

std::map<std::int64_t, IntervalStatistics> computeStatistics(
    const std::vector<StatisticsSample>& samples, AggregationStyle style, StatisticsOptions options,
    const IntervalGrid* grid) {
  const bool bySource = hasOption(options, StatisticsOptions::separateBySource);
  const bool durations = hasOption(options, StatisticsOptions::duration);
  const bool cumulative = !isDiscrete(style);
  std::map<std::int64_t, IntervalAccumulators> intervals;

  IntervalLocator locator(grid);
  for (const StatisticsSample& sample : samples) {
    const double length = static_cast<double>((sample.end - sample.start).count());
    // Every interval the sample overlaps; an instant belongs to the interval holding it.
    Date from = sample.start;
    do {
      const std::int64_t index = locator.index(from);
      const Date until = std::min(sample.end, locator.currentEnd());
      const double overlap = static_cast<double>((until - from).count());
      IntervalAccumulators& interval = intervals[index];
      Accumulator* targets[2] = {&interval.merged, nullptr};
      if (bySource) {
        targets[1] = &interval.bySource[sample.source];
      }
      for (Accumulator* acc : targets) {
        if (acc == nullptr) {
          continue;
        }
        acc->populated = true;
        if (cumulative) {
          // Per-source sums are plain prorated sums; the merged sum comes from the sweep.
          if (acc != &interval.merged) {
            acc->sum += length > 0 ? sample.value * overlap / length : sample.value;
          }
        } else {
          acc->addDiscrete(sample, overlap / 1e9);
        }
        acc->noteRecent(sample);
        if (durations) {
          acc->covered.emplace_back(from, until);
        }
      }
      from = until;
    } while (from < sample.end);
  }
  if (cumulative && hasOption(options, StatisticsOptions::cumulativeSum)) {
    sweepMergedSums(samples, grid, intervals);
  }

  std::map<std::int64_t, IntervalStatistics> results;
  for (const auto& [index, interval] : intervals) {
    if (!interval.merged.populated) {
      continue;
    }
    IntervalStatistics& out = results[index];
    out.merged = finish(interval.merged, style, options);
    for (const auto& [source, acc] : interval.bySource) {
      out.bySource[source] = finish(acc, style, options);
    }
  }
  return results;
}

}  // namespace kestrova
