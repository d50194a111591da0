#include "platform/time_zone.h"

#include <chrono>

namespace kestrova {
namespace {

class FixedTimeZoneSource : public TimeZoneSource {
 public:
  explicit FixedTimeZoneSource(TimeZone zone) : zone_(std::move(zone)) {}
  TimeZone current() const override { return zone_; }

 private:
  const TimeZone zone_;
};

}  // namespace

CivilTime addingDays(const CivilTime& time, int days) {
  using namespace std::chrono;
  const sys_days moved =
      sys_days(year_month_day(year(time.year), month(static_cast<unsigned>(time.month)),
                              day(static_cast<unsigned>(time.day)))) +
      std::chrono::days(days);
  const year_month_day ymd(moved);
  CivilTime out = time;
  out.year = static_cast<int>(ymd.year());
  out.month = static_cast<int>(static_cast<unsigned>(ymd.month()));
  out.day = static_cast<int>(static_cast<unsigned>(ymd.day()));
  return out;
}

std::shared_ptr<TimeZoneSource> makeFixedTimeZoneSource(TimeZone zone) {
  return std::make_shared<FixedTimeZoneSource>(std::move(zone));
}

}  // namespace kestrova
