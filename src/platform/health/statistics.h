// Results of statistics queries: one interval's sum, average, minimum, maximum, most recent
// value and duration, merged and per source, and the calendar-aligned intervals of a
// statistics collection. Immutable values once built: thread-safe.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/clock.h"
#include "platform/health/object_type.h"
#include "platform/health/quantity.h"
#include "platform/health/sample.h"
#include "platform/time_zone.h"

namespace kestrova {

// Raw values as HKStatisticsOptions.
enum class StatisticsOptions : unsigned {
  none = 0,
  separateBySource = 1,
  discreteAverage = 2,
  discreteMin = 4,
  discreteMax = 8,
  cumulativeSum = 16,
  mostRecent = 32,
  duration = 64,
};

constexpr StatisticsOptions operator|(StatisticsOptions a, StatisticsOptions b) {
  return static_cast<StatisticsOptions>(static_cast<unsigned>(a) | static_cast<unsigned>(b));
}
constexpr bool hasOption(StatisticsOptions options, StatisticsOptions option) {
  return (static_cast<unsigned>(options) & static_cast<unsigned>(option)) != 0;
}

// The error the platform raises for an option that the type's aggregation style does not
// allow ("Statistics option HKStatisticsOptionCumulativeSum is not compatible with discrete
// data type HKQuantityTypeIdentifierHeartRate"); none when the options fit.
Status validateStatisticsOptions(const ObjectType& type, StatisticsOptions options);

// The length of one statistics interval. Years, months, weeks and days are calendar units
// (a day across a daylight-saving change lasts 23 or 25 hours); hours, minutes and seconds are
// elapsed time.
struct DateComponents {
  int year = 0;
  int month = 0;
  int week = 0;
  int day = 0;
  int hour = 0;
  int minute = 0;
  int second = 0;
};

// Intervals k = [anchor + k·components, anchor + (k+1)·components) in a time zone, for every
// integer k, before and after the anchor.
class IntervalGrid {
 public:
  // None when the components add up to no length.
  static std::optional<IntervalGrid> make(Date anchor, DateComponents components, TimeZone zone);

  Date start(std::int64_t index) const;
  Date end(std::int64_t index) const { return start(index + 1); }
  std::int64_t indexContaining(Date date) const;

 private:
  IntervalGrid(Date anchor, DateComponents components, TimeZone zone, CivilTime anchorCivil)
      : anchor_(anchor),
        components_(components),
        zone_(std::move(zone)),
        anchorCivil_(anchorCivil) {}

  bool isElapsed() const;
  std::chrono::nanoseconds elapsedStep() const;
  std::chrono::nanoseconds typicalStep() const;

  Date anchor_;
  DateComponents components_;
  TimeZone zone_;
  CivilTime anchorCivil_;
};

// Values of one set of samples, in the type's canonical unit.
struct StatisticsValues {
  std::optional<double> sum;
  std::optional<double> average;
  std::optional<double> minimum;
  std::optional<double> maximum;
  std::optional<double> mostRecent;
  std::optional<Date> mostRecentStartDate;
  std::optional<Date> mostRecentEndDate;
  // Seconds covered by at least one sample.
  std::optional<double> duration;
};

class Statistics {
 public:
  Statistics(ObjectType quantityType, Date startDate, Date endDate, StatisticsValues merged,
             std::vector<std::pair<Source, StatisticsValues>> bySource)
      : quantityType_(quantityType),
        startDate_(startDate),
        endDate_(endDate),
        merged_(std::move(merged)),
        bySource_(std::move(bySource)) {}

  const ObjectType& quantityType() const { return quantityType_; }
  Date startDate() const { return startDate_; }
  Date endDate() const { return endDate_; }

  // None when the option was not asked for or no sample contributed.
  std::optional<Quantity> sumQuantity() const { return quantity(merged_.sum); }
  std::optional<Quantity> averageQuantity() const { return quantity(merged_.average); }
  std::optional<Quantity> minimumQuantity() const { return quantity(merged_.minimum); }
  std::optional<Quantity> maximumQuantity() const { return quantity(merged_.maximum); }
  std::optional<Quantity> mostRecentQuantity() const { return quantity(merged_.mostRecent); }
  std::optional<Quantity> duration() const;

  // With separateBySource: the sources that contributed and their own values.
  std::vector<Source> sources() const;
  std::optional<Quantity> sumQuantity(const Source& source) const;
  std::optional<Quantity> averageQuantity(const Source& source) const;
  std::optional<Quantity> minimumQuantity(const Source& source) const;
  std::optional<Quantity> maximumQuantity(const Source& source) const;

 private:
  std::optional<Quantity> quantity(const std::optional<double>& value) const;
  const StatisticsValues* valuesFor(const Source& source) const;

  ObjectType quantityType_;
  Date startDate_;
  Date endDate_;
  StatisticsValues merged_;
  std::vector<std::pair<Source, StatisticsValues>> bySource_;
};

class StatisticsCollection {
 public:
  StatisticsCollection(ObjectType quantityType, IntervalGrid grid,
                       std::vector<std::pair<std::int64_t, Statistics>> populated)
      : quantityType_(quantityType), grid_(std::move(grid)), populated_(std::move(populated)) {}

  // The intervals that hold data, in chronological order.
  std::vector<Statistics> statistics() const;
  // The interval containing `date`; without values when it holds no data.
  Statistics statistics(Date date) const;
  // Every interval from the one containing `from` to the one containing `to`, empty ones
  // included; `block` returns false to stop.
  void enumerateStatistics(Date from, Date to,
                           const std::function<bool(const Statistics&)>& block) const;

 private:
  Statistics at(std::int64_t index) const;

  ObjectType quantityType_;
  IntervalGrid grid_;
  std::vector<std::pair<std::int64_t, Statistics>> populated_;  // sorted by interval index
};

}  // namespace kestrova
