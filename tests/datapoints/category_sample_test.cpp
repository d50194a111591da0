// Mindful sessions against hand-written data points.
#include "datapoints/category_sample.h"

#include <gtest/gtest.h>

#include "datapoints/datapoint_test_support.h"

namespace kestrova::testing {
namespace {

constexpr std::string_view kMindful = "HKCategoryTypeIdentifierMindfulSession";

TEST(MindfulSessions, TenMinutesInTheDeviceZoneWithEveryKindOfMetadata) {
  const auto sample = category(kMindful, 0,
                               properties(1, utc(2021, 3, 1, 7), utc(2021, 3, 1, 7, 10),
                                          {{"HKExternalUUID", std::string("abc-123")},
                                           {std::string(kMetadataKeyWasUserEntered), false},
                                           {"com.example.rating", std::int64_t{4}},
                                           {"com.example.score", 0.5},
                                           {"com.example.guided", true},
                                           {"com.example.reminder", utc(2021, 3, 1, 6, 30)},
                                           {"com.example.elevation", amount(1.5, "km")}},
                                          "com.example.meditate"));
  EXPECT_EQ(encodeMindfulSessions({sample}),
            std::vector<nlohmann::json>{golden("mindful_session.json")});
}

TEST(MindfulSessions, EnteredByHandAtOneInstantInNewYork) {
  const Date at = utc(2021, 7, 4, 16, 30, 15, 250);
  const auto sample = category(kMindful, 0,
                               properties(2, at, at,
                                          {{"HKTimeZone", std::string("America/New_York")},
                                           {std::string(kMetadataKeyWasUserEntered), true},
                                           {"com.example.started", utc(2021, 7, 4, 16)}},
                                          "com.example.meditate"));
  EXPECT_EQ(encodeMindfulSessions({sample}),
            std::vector<nlohmann::json>{golden("mindful_point_in_time_other_zone.json")});
}

TEST(MindfulSessions, BatchKeepsDeliveryOrderAndSkipsOtherKinds) {
  const auto first = category(kMindful, 0, properties(3, utc(2021, 1, 2), utc(2021, 1, 2, 0, 5)));
  const auto second = category(kMindful, 0, properties(4, utc(2021, 1, 1), utc(2021, 1, 1, 0, 5)));
  const SamplePtr steps = quantity("HKQuantityTypeIdentifierStepCount", 10, "count",
                                   properties(5, utc(2021, 1, 1), utc(2021, 1, 1, 0, 1)));
  const std::vector<nlohmann::json> points = encodeMindfulSessions({first, steps, second});
  ASSERT_EQ(points.size(), 2u);
  EXPECT_EQ(points[0]["header"]["id"], "00000000-0000-4000-8000-000000000003");
  EXPECT_EQ(points[1]["header"]["id"], "00000000-0000-4000-8000-000000000004");
  EXPECT_TRUE(encodeMindfulSessions({}).empty());
}

TEST(MindfulSessions, CategoryValueIsDecimalText) {
  // Another category type with a negative value: the text form must not be a number.
  const auto sample = category("HKCategoryTypeIdentifierAppleStandHour", -1,
                               properties(6, utc(2021, 1, 1), utc(2021, 1, 1, 1)));
  const nlohmann::json body = encodeCategorySample(*sample);
  EXPECT_EQ(body["category_value"], "-1");
  EXPECT_EQ(body["category_type"], "HKCategoryTypeIdentifierAppleStandHour");
}

}  // namespace
}  // namespace kestrova::testing
