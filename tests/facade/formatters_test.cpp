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

}  // namespace
}  // namespace kestrova
