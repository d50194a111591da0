// The envelope rules that every family shares: modality, the zone of the dates, the metadata
// list's exclusions and conversions, and the two time frame shapes.
#include "datapoints/envelope.h"

#include <gtest/gtest.h>

#include "datapoints/category_sample.h"
#include "datapoints/datapoint_test_support.h"

namespace kestrova::testing {
namespace {

constexpr std::string_view kMindful = "HKCategoryTypeIdentifierMindfulSession";

std::shared_ptr<const CategorySample> session(Metadata metadata, Date start = utc(2021, 3, 1, 7),
                                              Date end = utc(2021, 3, 1, 7, 10)) {
  return category(kMindful, 0, properties(1, start, end, std::move(metadata)));
}

struct ModalityCase {
  const char* name;
  std::optional<MetadataValue> wasUserEntered;
  std::string_view expected;
};

class ModalityTest : public ::testing::TestWithParam<ModalityCase> {};

TEST_P(ModalityTest, OnlyABooleanTrueIsSelfReported) {
  Metadata metadata;
  if (GetParam().wasUserEntered) {
    metadata.emplace(std::string(kMetadataKeyWasUserEntered), *GetParam().wasUserEntered);
  }
  const nlohmann::json header = makeHeader(kSchemaCategorySample, *session(metadata));
  EXPECT_EQ(header["acquisition_provenance"]["modality"], GetParam().expected);
  EXPECT_EQ(makeMetadataList(*session(metadata)), nlohmann::json::array());
}

INSTANTIATE_TEST_SUITE_P(
    Envelope, ModalityTest,
    ::testing::Values(ModalityCase{"absent", std::nullopt, "sensed"},
                      ModalityCase{"true", MetadataValue(true), "self-reported"},
                      ModalityCase{"false", MetadataValue(false), "sensed"},
                      ModalityCase{"text", MetadataValue(std::string("true")), "sensed"},
                      ModalityCase{"one", MetadataValue(std::int64_t{1}), "sensed"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(EnvelopeDates, AnotherZoneRendersEveryDateInThatZoneWithoutOffset) {
  // 2021-03-01 07:00 UTC is 16:00 in Tokyo (UTC+9, no daylight saving).
  const auto sample = session({{std::string(kMetadataKeyTimeZone), std::string("Asia/Tokyo")},
                               {"com.example.at", utc(2021, 3, 1, 6, 59, 59, 999)}});
  EXPECT_EQ(formatSampleDate(*sample, SampleDate::start), "2021-03-01T16:00:00.000");
  EXPECT_EQ(formatSampleDate(*sample, SampleDate::end), "2021-03-01T16:10:00.000");
  EXPECT_EQ(makeHeader(kSchemaCategorySample, *sample)["creation_date_time"],
            "2021-03-01T16:00:00.000");
  EXPECT_EQ(makeMetadataList(*sample), nlohmann::json::parse(R"([{"key": "com.example.at",
                                       "value": "2021-03-01T15:59:59.999"}])"));
}

TEST(EnvelopeDates, UnknownOrNonTextZoneFallsBackToTheDeviceZone) {
  // Europe/Berlin is UTC+1 in March.
  for (const MetadataValue& zone :
       {MetadataValue(std::string("Mars/Olympus_Mons")), MetadataValue(std::int64_t{9})}) {
    const auto sample = session({{std::string(kMetadataKeyTimeZone), zone}});
    EXPECT_EQ(makeEffectiveTimeFrame(*sample)["time_interval"]["start_date_time"],
              "2021-03-01T08:00:00.000");
    EXPECT_EQ(makeMetadataList(*sample), nlohmann::json::array());
  }
}

TEST(EnvelopeDates, DaylightSavingIsTakenFromTheDateNotFromNow) {
  // Berlin is UTC+2 in July although the test clock stands in January.
  const auto sample = session({}, utc(2021, 7, 1, 7), utc(2021, 7, 1, 7));
  EXPECT_EQ(makeEffectiveTimeFrame(*sample),
            nlohmann::json::parse(R"({"date_time": "2021-07-01T09:00:00.000"})"));
}

TEST(EnvelopeTimeFrame, OneNanosecondApartIsAnIntervalEvenIfTheTextsAreEqual) {
  const Date start = utc(2021, 3, 1, 7);
  const auto sample = session({}, start, start + std::chrono::nanoseconds(1));
  EXPECT_EQ(makeEffectiveTimeFrame(*sample), nlohmann::json::parse(R"({"time_interval": {
                "start_date_time": "2021-03-01T08:00:00.000",
                "end_date_time": "2021-03-01T08:00:00.000"}})"));
}

TEST(EnvelopeMetadata, QuantitiesBecomeNumbersInTheUnitsTheBodiesUse) {
  const auto sample = session({
      {"distance", amount(2.5, "km")},
      {"energy", amount(41840, "J")},
      {"pause", amount(1.5, "min")},
      {"humidity", amount(0.5, "%")},
      // No listed unit is a speed: the number stays in the quantity's own unit.
      {"speed", amount(3.25, "m/s")},
  });
  EXPECT_EQ(makeMetadataList(*sample), nlohmann::json::parse(R"([
      {"key": "distance", "value": 2500},
      {"key": "energy", "value": 10},
      {"key": "humidity", "value": 0.5},
      {"key": "pause", "value": 90},
      {"key": "speed", "value": 3.25}])"));
}

TEST(EnvelopeValues, ValueWithUnitUsesTheUnitTexts) {
  EXPECT_EQ(makeValueWithUnit(72, Units::bpm),
            nlohmann::json::parse(R"({"value": 72, "unit": "beats/min"})"));
  EXPECT_EQ(makeValueWithUnit(3, Units::count),
            nlohmann::json::parse(R"({"value": 3, "unit": ""})"));
}

}  // namespace
}  // namespace kestrova::testing
