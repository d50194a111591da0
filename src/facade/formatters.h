// The shared date formatters: the fixed-GMT timestamp of file names and store keys, the
// calendar day of daily statistics in the device's zone, and the per-zone wall-clock times
// inside data points. Immutable after creation except the data point zone cache, which its
// own mutex owns; all of them may be used from any thread.
#pragma once

#include <optional>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "platform/clock.h"
#include "platform/time_zone.h"

namespace kestrova {

// "yyyy-MM-dd'T'HH:mm:ss.SSS": wall-clock time with milliseconds, no offset.
std::string formatDateTime(const CivilTime& time);

// The timestamp formatter: `date` in GMT, e.g. 2021-01-01T00:00:00.500.
std::string timestampString(Date date);
// The instant of a timestamp text; none unless the text has exactly that form and names a
// real date and time.
std::optional<Date> dateFromTimestampString(std::string_view text);

// "yyyy-MM-dd" in the zone it was made with.
class DayFormatter {
 public:
  explicit DayFormatter(TimeZone zone) : zone_(std::move(zone)) {}
  // The process-wide formatter, in the device's zone at the time of its creation.
  static const DayFormatter& shared();

  std::string string(Date date) const;
  const TimeZone& zone() const { return zone_; }

 private:
  const TimeZone zone_;
};

// Wall-clock times of data points, in the zone where a sample was recorded.
class DataPointDateFormatter {
 public:
  explicit DataPointDateFormatter(TimeZone deviceZone) : deviceZone_(std::move(deviceZone)) {}
  // The process-wide formatter; its device zone is the one current at its creation.
  static DataPointDateFormatter& shared();

  // In the device's zone.
  std::string string(Date date) const;
  // In the named zone; an unknown identifier falls back to the device's zone.
  std::string string(Date date, std::string_view zoneIdentifier) const;
  // True when an earlier instant has the same wall-clock time in the device's zone: `date`
  // lies in the second pass through an hour that a clock change repeats.
  bool isRepeatedLocalTime(Date date) const;

 private:
  const TimeZone deviceZone_;
  mutable std::shared_mutex mutex_;  // owns zones_
  // Every identifier met so far; none for identifiers that name no zone.
  mutable std::unordered_map<std::string, std::optional<TimeZone>> zones_;
};

}  // namespace kestrova
