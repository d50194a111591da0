#include "facade/formatters.h"

#include <gtest/gtest.h>

#include "support/test_support.h"

namespace kestrova {
namespace {

using testing::utc;

TEST(TimestampFormatter, RendersAndParsesGmtWhateverTheDeviceZone) {
  testing::TempDir dir;
  testing::makeTestPlatform(dir.path(), "Pacific/Kiritimati");  // +14, far from GMT
  const auto instant = utc(2021, 1, 1, 0, 0, 0, 500);
  EXPECT_EQ(timestampString(instant), "2021-01-01T00:00:00.500");
  EXPECT_EQ(dateFromTimestampString("2021-01-01T00:00:00.500"), instant);
  EXPECT_EQ(timestampString(utc(1999, 12, 31, 23, 59, 59, 7)), "1999-12-31T23:59:59.007");
  EXPECT_EQ(dateFromTimestampString("2024-02-29T08:15:30.250"), utc(2024, 2, 29, 8, 15, 30, 250));
  installPlatform(nullptr);

  for (const char* bad :
       {"", "2021-01-01", "2021-01-01T00:00:00", "2021-01-01T00:00:00.5000",
        "2021-13-01T00:00:00.000", "2021-02-29T00:00:00.000", "2021-01-01T24:00:00.000",
        "2021-01-01T00:60:00.000", "2021-01-01 00:00:00.000", "2021-01-0aT00:00:00.000",
        "+021-01-01T00:00:00.000", "2021-01-01T00:00:00.-00"}) {
    EXPECT_FALSE(dateFromTimestampString(bad)) << bad;
  }
}

TEST(DayFormatter, UsesItsZone) {
  const DayFormatter berlin(*TimeZone::named("Europe/Berlin"));
  const DayFormatter newYork(*TimeZone::named("America/New_York"));
  const auto lateEvening = utc(2021, 6, 30, 23, 30);  // 1 July in Berlin, 30 June in New York
  EXPECT_EQ(berlin.string(lateEvening), "2021-07-01");
  EXPECT_EQ(newYork.string(lateEvening), "2021-06-30");
}

TEST(DataPointDateFormatter, WallClockTimeOfTheSampleZoneWithoutOffset) {
  const DataPointDateFormatter formatter(*TimeZone::named("Europe/Berlin"));
  const auto instant = utc(2021, 7, 1, 6, 0, 0, 125);
  EXPECT_EQ(formatter.string(instant), "2021-07-01T08:00:00.125");
  EXPECT_EQ(formatter.string(instant, "America/Los_Angeles"), "2021-06-30T23:00:00.125");
  EXPECT_EQ(formatter.string(instant, "Asia/Kolkata"), "2021-07-01T11:30:00.125");
  // Unknown zones fall back to the device zone, also the second time (from the cache).
  EXPECT_EQ(formatter.string(instant, "Not/AZone"), "2021-07-01T08:00:00.125");
  EXPECT_EQ(formatter.string(instant, "Not/AZone"), "2021-07-01T08:00:00.125");
  EXPECT_EQ(formatter.string(instant, "America/Los_Angeles"), "2021-06-30T23:00:00.125");
}

}  // namespace
}  // namespace kestrova
