#include "facade/formatters.h"

#include <chrono>
#include <mutex>

#include "platform/platform.h"

namespace kestrova {
namespace {

constexpr std::size_t kDateTimeLength = 23;  // yyyy-MM-ddTHH:mm:ss.SSS

void putDigits(std::string& out, int value, int width) {
  char digits[12];
  int count = 0;
  unsigned magnitude = value < 0 ? 0U - static_cast<unsigned>(value) : static_cast<unsigned>(value);
  do {
    digits[count++] = static_cast<char>('0' + magnitude % 10);
    magnitude /= 10;
  } while (magnitude != 0);
  if (value < 0) {
    out.push_back('-');
  }
  for (int pad = count; pad < width; ++pad) {
    out.push_back('0');
  }
  while (count > 0) {
    out.push_back(digits[--count]);
  }
}

void putDay(std::string& out, const CivilTime& time) {
  putDigits(out, time.year, 4);
  out.push_back('-');
  putDigits(out, time.month, 2);
  out.push_back('-');
  putDigits(out, time.day, 2);
}

std::optional<int> readDigits(std::string_view text, std::size_t at, std::size_t count) {
  int value = 0;
  for (std::size_t i = at; i < at + count; ++i) {
    if (text[i] < '0' || text[i] > '9') {
      return std::nullopt;
    }
    value = value * 10 + (text[i] - '0');
  }
  return value;
}

TimeZone deviceZone() {
  const auto platform = currentPlatform();
  return platform ? platform->timeZone->current() : makeSystemTimeZoneSource()->current();
}

}  // namespace

std::string formatDateTime(const CivilTime& time) {
  std::string out;
  out.reserve(kDateTimeLength);
  putDay(out, time);
  out.push_back('T');
  putDigits(out, time.hour, 2);
  out.push_back(':');
  putDigits(out, time.minute, 2);
  out.push_back(':');
  putDigits(out, time.second, 2);
  out.push_back('.');
  putDigits(out, time.millisecond, 3);
  return out;
}

std::string timestampString(Date date) {
  return formatDateTime(TimeZone::gmt().civil(date));
}

std::optional<Date> dateFromTimestampString(std::string_view text) {
  if (text.size() != kDateTimeLength || text[4] != '-' || text[7] != '-' || text[10] != 'T' ||
      text[13] != ':' || text[16] != ':' || text[19] != '.') {
    return std::nullopt;
  }
  const auto year = readDigits(text, 0, 4);
  const auto month = readDigits(text, 5, 2);
  const auto day = readDigits(text, 8, 2);
  const auto hour = readDigits(text, 11, 2);
  const auto minute = readDigits(text, 14, 2);
  const auto second = readDigits(text, 17, 2);
  const auto millisecond = readDigits(text, 20, 3);
  if (!year || !month || !day || !hour || !minute || !second || !millisecond) {
    return std::nullopt;
  }
  const std::chrono::year_month_day ymd(std::chrono::year(*year),
                                        std::chrono::month(static_cast<unsigned>(*month)),
                                        std::chrono::day(static_cast<unsigned>(*day)));
  if (!ymd.ok() || *year < kEarliestDateYear || *year > kLatestDateYear || *hour > 23 ||
      *minute > 59 || *second > 59) {
    return std::nullopt;
  }
  return TimeZone::gmt().date(
      CivilTime{*year, *month, *day, *hour, *minute, *second, *millisecond});
}

const DayFormatter& DayFormatter::shared() {
  static const auto* formatter = new DayFormatter(deviceZone());
  return *formatter;
}

std::string DayFormatter::string(Date date) const {
  std::string out;
  out.reserve(10);
  putDay(out, zone_.civil(date));
  return out;
}

DataPointDateFormatter& DataPointDateFormatter::shared() {
  static auto* formatter = new DataPointDateFormatter(deviceZone());
  return *formatter;
}

std::string DataPointDateFormatter::string(Date date) const {
  return formatDateTime(deviceZone_.civil(date));
}

bool DataPointDateFormatter::isRepeatedLocalTime(Date date) const {
  // A wall-clock time that occurs twice resolves to its earlier instant.
  return deviceZone_.date(deviceZone_.civil(date)) < date;
}

std::string DataPointDateFormatter::string(Date date, std::string_view zoneIdentifier) const {
  {
    std::shared_lock lock(mutex_);
    if (auto found = zones_.find(std::string(zoneIdentifier)); found != zones_.end()) {
      return formatDateTime(found->second.value_or(deviceZone_).civil(date));
    }
  }
  auto zone = TimeZone::named(zoneIdentifier);
  {
    std::unique_lock lock(mutex_);
    zones_.emplace(std::string(zoneIdentifier), zone);
  }
  return formatDateTime(zone.value_or(deviceZone_).civil(date));
}

}  // namespace kestrova
