// Time zones and civil (wall-clock) time. TimeZone is a cheap immutable value that can be
// copied between threads; the device's current zone comes from an injectable TimeZoneSource
// so that tests fix it whatever the machine's TZ.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/clock.h"

namespace kestrova {

// Wall-clock fields of an instant in some zone. Month and day are 1-based.
struct CivilTime {
  int year = 2001;
  int month = 1;
  int day = 1;
  int hour = 0;
  int minute = 0;
  int second = 0;
  int millisecond = 0;

  friend bool operator==(const CivilTime&, const CivilTime&) = default;
};

// The same wall-clock time `days` calendar days later (earlier for negative days).
CivilTime addingDays(const CivilTime& time, int days);

class TimeZone {
 public:
  // A zone by its IANA identifier ("Europe/Berlin", "GMT", "UTC"); none for an unknown name.
  static std::optional<TimeZone> named(std::string_view identifier);
  static TimeZone gmt();

  const std::string& identifier() const { return identifier_; }

  CivilTime civil(Date date) const;
  // The instant of a wall-clock time. A time skipped by a daylight-saving jump moves forward
  // by the jump; a time that occurs twice resolves to the earlier instant.
  Date date(const CivilTime& civil) const;

  friend bool operator==(const TimeZone& a, const TimeZone& b) {
    return a.identifier_ == b.identifier_;
  }

 private:
  TimeZone(std::string identifier, const void* zone)
      : identifier_(std::move(identifier)), zone_(zone) {}

  std::string identifier_;
  const void* zone_;  // the implementation's zone record; null stands for GMT
};

// Where the device's current time zone comes from.
class TimeZoneSource {
 public:
  virtual ~TimeZoneSource() = default;
  virtual TimeZone current() const = 0;
};

// The zone of the machine (TZ, /etc/localtime), falling back to GMT.
std::shared_ptr<TimeZoneSource> makeSystemTimeZoneSource();
// Always the given zone; tests use this to fix the device zone.
std::shared_ptr<TimeZoneSource> makeFixedTimeZoneSource(TimeZone zone);

}  // namespace kestrova
