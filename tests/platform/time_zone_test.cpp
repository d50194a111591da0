#include "platform/time_zone.h"

#include <gtest/gtest.h>

#include "support/test_support.h"

namespace kestrova {
namespace {

using testing::utc;

TEST(TimeZone, CivilTimeInZonesAcrossDaylightSaving) {
  EXPECT_FALSE(TimeZone::named("Mars/Olympus_Mons"));
  const auto berlin = TimeZone::named("Europe/Berlin");
  ASSERT_TRUE(berlin);
  // Winter (+1) and summer (+2).
  EXPECT_EQ(berlin->civil(utc(2021, 1, 15, 12, 0, 0, 250)),
            (CivilTime{2021, 1, 15, 13, 0, 0, 250}));
  EXPECT_EQ(berlin->civil(utc(2021, 7, 15, 12)), (CivilTime{2021, 7, 15, 14, 0, 0, 0}));
  // Crossing midnight into the next local day, and the year boundary.
  EXPECT_EQ(berlin->civil(utc(2020, 12, 31, 23, 30)), (CivilTime{2021, 1, 1, 0, 30, 0, 0}));
  // Milliseconds are truncated towards the past, also before 1970.
  EXPECT_EQ(TimeZone::gmt().civil(Date(std::chrono::milliseconds(-1))),
            (CivilTime{1969, 12, 31, 23, 59, 59, 999}));

  // 02:30 on 28 March 2021 does not exist in Berlin: it moves forward by the jump.
  EXPECT_EQ(berlin->date(CivilTime{2021, 3, 28, 2, 30}), utc(2021, 3, 28, 1, 30));
  // 02:30 on 31 October 2021 occurs twice: the earlier one is taken.
  EXPECT_EQ(berlin->date(CivilTime{2021, 10, 31, 2, 30}), utc(2021, 10, 31, 0, 30));
}

TEST(TimeZone, AddingDaysKeepsTheWallClockTime) {
  EXPECT_EQ(addingDays(CivilTime{2021, 1, 1, 10, 5, 6, 7}, -20),
            (CivilTime{2020, 12, 12, 10, 5, 6, 7}));
  EXPECT_EQ(addingDays(CivilTime{2020, 2, 28, 0}, 1), (CivilTime{2020, 2, 29, 0}));
  EXPECT_EQ(addingDays(CivilTime{2021, 2, 28, 0}, 1), (CivilTime{2021, 3, 1, 0}));
  // Across daylight saving the configuration test checks it (its default start date).
}

}  // namespace
}  // namespace kestrova
