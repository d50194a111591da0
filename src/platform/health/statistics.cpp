#include "platform/health/statistics.h"

#include <algorithm>
#include <chrono>
#include <cmath>

namespace kestrova {
namespace {

using std::chrono::nanoseconds;

std::int64_t floorDiv(std::int64_t a, std::int64_t b) {
  std::int64_t quotient = a / b;
  if ((a % b != 0) && ((a < 0) != (b < 0))) {
    --quotient;
  }
  return quotient;
}

// The same wall-clock time `months` months later, with the day clamped to the length of the
// month reached (31 January + 1 month = 28 or 29 February), as calendars add months.
CivilTime addingMonths(const CivilTime& time, std::int64_t months) {
  using namespace std::chrono;
  const std::int64_t total = static_cast<std::int64_t>(time.year) * 12 + (time.month - 1) + months;
  CivilTime out = time;
  out.year = static_cast<int>(floorDiv(total, 12));
  out.month = static_cast<int>(total - floorDiv(total, 12) * 12) + 1;
  const year_month_day_last last(year(out.year),
                                 month_day_last(month(static_cast<unsigned>(out.month))));
  out.day = std::min(out.day, static_cast<int>(static_cast<unsigned>(last.day())));
  return out;
}

}  // namespace

Status validateStatisticsOptions(const ObjectType& type, StatisticsOptions options) {
  if (type.kind() != ObjectKind::quantity) {
    return healthError(kHealthErrorInvalidArgument,
                       "Statistics need a quantity type, not " + std::string(type.identifier()));
  }
  struct Named {
    StatisticsOptions option;
    std::string_view name;
    bool discrete;
  };
  static constexpr Named kStyled[] = {
      {StatisticsOptions::discreteAverage, "HKStatisticsOptionDiscreteAverage", true},
      {StatisticsOptions::discreteMin, "HKStatisticsOptionDiscreteMin", true},
      {StatisticsOptions::discreteMax, "HKStatisticsOptionDiscreteMax", true},
      {StatisticsOptions::cumulativeSum, "HKStatisticsOptionCumulativeSum", false},
  };
  const bool discreteType = isDiscrete(type.aggregationStyle());
  for (const Named& named : kStyled) {
    if (hasOption(options, named.option) && named.discrete != discreteType) {
      return healthError(kHealthErrorInvalidArgument,
                         "Statistics option " + std::string(named.name) +
                             " is not compatible with " +
                             (discreteType ? "discrete" : "cumulative") + " data type " +
                             std::string(type.identifier()));
    }
  }
  return std::nullopt;
}

std::optional<IntervalGrid> IntervalGrid::make(Date anchor, DateComponents components,
                                               TimeZone zone) {
  const CivilTime civil = zone.civil(anchor);
  IntervalGrid grid(anchor, components, std::move(zone), civil);
  if (grid.typicalStep() <= nanoseconds::zero()) {
    return std::nullopt;
  }
  return grid;
}

bool IntervalGrid::isElapsed() const {
  return components_.year == 0 && components_.month == 0 && components_.week == 0 &&
         components_.day == 0;
}

nanoseconds IntervalGrid::elapsedStep() const {
  return std::chrono::hours(components_.hour) + std::chrono::minutes(components_.minute) +
         std::chrono::seconds(components_.second);
}

nanoseconds IntervalGrid::typicalStep() const {
  using Days = std::chrono::duration<std::int64_t, std::ratio<86400>>;
  return std::chrono::duration_cast<nanoseconds>(std::chrono::years(components_.year) +
                                                 std::chrono::months(components_.month)) +
         Days(components_.week * 7 + components_.day) + elapsedStep();
}

Date IntervalGrid::start(std::int64_t index) const {
  if (isElapsed()) {
    return anchor_ + elapsedStep() * index;
  }
  CivilTime civil = addingMonths(anchorCivil_, index * (components_.year * 12 + components_.month));
  civil = addingDays(civil, static_cast<int>(index * (components_.week * 7 + components_.day)));
  return zone_.date(civil) + elapsedStep() * index;
}

std::int64_t IntervalGrid::indexContaining(Date date) const {
  const std::int64_t step = typicalStep().count();
  std::int64_t index =
      floorDiv(std::chrono::duration_cast<nanoseconds>(date - anchor_).count(), step);
  while (start(index) > date) {
    --index;
  }
  while (start(index + 1) <= date) {
    ++index;
  }
  return index;
}

std::optional<Quantity> Statistics::quantity(const std::optional<double>& value) const {
  if (!value) {
    return std::nullopt;
  }
  return Quantity(quantityType_.canonicalUnit(), *value);
}

std::optional<Quantity> Statistics::duration() const {
  if (!merged_.duration) {
    return std::nullopt;
  }
  return Quantity(Unit::second(), *merged_.duration);
}

std::vector<Source> Statistics::sources() const {
  std::vector<Source> sources;
  for (const auto& [source, values] : bySource_) {
    sources.push_back(source);
  }
  return sources;
}

const StatisticsValues* Statistics::valuesFor(const Source& source) const {
  for (const auto& [known, values] : bySource_) {
    if (known.bundleIdentifier == source.bundleIdentifier) {
      return &values;
    }
  }
  return nullptr;
}

std::optional<Quantity> Statistics::sumQuantity(const Source& source) const {
  const StatisticsValues* values = valuesFor(source);
  return values ? quantity(values->sum) : std::nullopt;
}

std::optional<Quantity> Statistics::averageQuantity(const Source& source) const {
  const StatisticsValues* values = valuesFor(source);
  return values ? quantity(values->average) : std::nullopt;
}

std::optional<Quantity> Statistics::minimumQuantity(const Source& source) const {
  const StatisticsValues* values = valuesFor(source);
  return values ? quantity(values->minimum) : std::nullopt;
}

std::optional<Quantity> Statistics::maximumQuantity(const Source& source) const {
  const StatisticsValues* values = valuesFor(source);
  return values ? quantity(values->maximum) : std::nullopt;
}

std::vector<Statistics> StatisticsCollection::statistics() const {
  std::vector<Statistics> all;
  all.reserve(populated_.size());
  for (const auto& [index, statistics] : populated_) {
    all.push_back(statistics);
  }
  return all;
}

Statistics StatisticsCollection::at(std::int64_t index) const {
  const auto found = std::lower_bound(populated_.begin(), populated_.end(), index,
                                      [](const std::pair<std::int64_t, Statistics>& entry,
                                         std::int64_t wanted) { return entry.first < wanted; });
  if (found != populated_.end() && found->first == index) {
    return found->second;
  }
  return Statistics(quantityType_, grid_.start(index), grid_.end(index), {}, {});
}

Statistics StatisticsCollection::statistics(Date date) const {
  return at(grid_.indexContaining(date));
}

void StatisticsCollection::enumerateStatistics(
    Date from, Date to, const std::function<bool(const Statistics&)>& block) const {
  const std::int64_t last = grid_.indexContaining(to);
  for (std::int64_t index = grid_.indexContaining(from); index <= last; ++index) {
    if (!block(at(index))) {
      return;
    }
  }
}

}  // namespace kestrova
