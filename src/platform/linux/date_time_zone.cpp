// Time zones from the system's tz database through Howard Hinnant's date library.
#include <date/date.h>
#include <date/tz.h>

#include <cstdlib>

#include "platform/log.h"
#include "platform/time_zone.h"

namespace kestrova {
namespace {

constexpr std::string_view kGmt = "GMT";
constexpr std::string_view kCategory = "platform";
constexpr std::string_view kNoSystemZone =
    "Could not determine the device time zone, using GMT: %{public}@";

using Milliseconds = std::chrono::milliseconds;

const date::time_zone* zoneOf(const void* zone) {
  return static_cast<const date::time_zone*>(zone);
}

CivilTime civilFromLocal(date::local_time<Milliseconds> local) {
  const auto day = date::floor<date::days>(local);
  const date::year_month_day ymd(day);
  const date::hh_mm_ss<Milliseconds> time(local - day);
  return CivilTime{static_cast<int>(ymd.year()),
                   static_cast<int>(static_cast<unsigned>(ymd.month())),
                   static_cast<int>(static_cast<unsigned>(ymd.day())),
                   static_cast<int>(time.hours().count()),
                   static_cast<int>(time.minutes().count()),
                   static_cast<int>(time.seconds().count()),
                   static_cast<int>(time.subseconds().count())};
}

date::local_time<Milliseconds> localFromCivil(const CivilTime& civil) {
  const date::year_month_day ymd(date::year(civil.year),
                                 date::month(static_cast<unsigned>(civil.month)),
                                 date::day(static_cast<unsigned>(civil.day)));
  return date::local_days(ymd) + std::chrono::hours(civil.hour) +
         std::chrono::minutes(civil.minute) + std::chrono::seconds(civil.second) +
         Milliseconds(civil.millisecond);
}

class SystemTimeZoneSource : public TimeZoneSource {
 public:
  SystemTimeZoneSource() : zone_(find()) {}
  TimeZone current() const override { return zone_; }

 private:
  static TimeZone find() {
    if (const char* tz = std::getenv("TZ"); tz != nullptr && *tz != '\0') {
      std::string_view name(tz);
      if (name.front() == ':') {
        name.remove_prefix(1);
      }
      if (auto zone = TimeZone::named(name)) {
        return *zone;
      }
    }
    try {
      if (auto zone = TimeZone::named(date::current_zone()->name())) {
        return *zone;
      }
    } catch (const std::exception& e) {
      logError(kCategory, kNoSystemZone, {e.what()});
    }
    return TimeZone::gmt();
  }

  const TimeZone zone_;
};

}  // namespace

std::optional<TimeZone> TimeZone::named(std::string_view identifier) {
  if (identifier == kGmt) {
    return gmt();
  }
  try {
    const auto* zone = date::locate_zone(identifier);
    return TimeZone(std::string(identifier), zone);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

TimeZone TimeZone::gmt() {
  return TimeZone(std::string(kGmt), nullptr);
}

CivilTime TimeZone::civil(Date date) const {
  const auto instant = date::floor<Milliseconds>(date);
  if (zone_ == nullptr) {
    return civilFromLocal(date::local_time<Milliseconds>(instant.time_since_epoch()));
  }
  return civilFromLocal(zoneOf(zone_)->to_local(instant));
}

Date TimeZone::date(const CivilTime& civil) const {
  const auto local = localFromCivil(civil);
  if (zone_ == nullptr) {
    return Date(local.time_since_epoch());
  }
  // The offset in force before the wall-clock time: for a skipped time this lands after the
  // jump by its length, for a repeated time it picks the first occurrence.
  const auto info = zoneOf(zone_)->get_info(date::floor<std::chrono::seconds>(local));
  return Date(local.time_since_epoch() - info.first.offset);
}

std::shared_ptr<TimeZoneSource> makeSystemTimeZoneSource() {
  return std::make_shared<SystemTimeZoneSource>();
}

}  // namespace kestrova
