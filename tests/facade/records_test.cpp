#include <gtest/gtest.h>

#include "kestrova/config.h"
#include "kestrova/error.h"
#include "support/test_support.h"

namespace {

using kestrova::testing::utc;
using Type = KestrovaHealthKitDataType;

TEST(KestrovaConfigTest, DefaultsApplyOnlyToAbsentParameters) {
  kestrova::testing::TempDir dir;
  const auto test = kestrova::testing::makeTestPlatform(dir.path(), "Europe/Berlin");
  test.clock->set(utc(2021, 3, 30, 10));  // 12:00 in Berlin, summer time
  const KestrovaConfig config("t");
  EXPECT_EQ(config.url(), "https://api.kestrova.com/api/");
  // 20 calendar days back is 12:00 in Berlin on 10 March, winter time: 11:00 UTC.
  EXPECT_EQ(config.startDate(), utc(2021, 3, 10, 11));
  // Every type, in the order of their raw values.
  const auto& all = Type::allCases();
  EXPECT_EQ(config.enabledDataTypes(), std::vector<Type>(all.begin(), all.end()));

  // An explicit empty list enables nothing; integer lists keep order and duplicates.
  EXPECT_TRUE(KestrovaConfig("t", std::nullopt, std::nullopt, std::vector<Type>{})
                  .enabledDataTypes()
                  .empty());
  EXPECT_EQ(KestrovaConfig("t", std::nullopt, std::nullopt, {22, 22, 0}).enabledDataTypes(),
            (std::vector<Type>{Type::stepCount, Type::stepCount, Type::activeEnergyBurned}));
  kestrova::installPlatform(nullptr);
}

TEST(KestrovaConfigDeathTest, RawValueOutsideTheTableEndsTheProcess) {
  EXPECT_DEATH(KestrovaConfig("t", std::nullopt, std::nullopt, {1, 25}), "25 is not a");
  EXPECT_DEATH(KestrovaConfig("t", std::nullopt, std::nullopt, {-1}), "-1 is not a");
}

// Raw values cross the C interface and name the types in hosts' settings: never renumber.
TEST(KestrovaHealthKitDataType, RawValuesAndNames) {
  std::string names;
  for (const auto type : Type::allCases()) {
    names += std::to_string(type.rawValue()) + ":" + std::string(type.name()) + " ";
  }
  EXPECT_EQ(names,
            "0:activeEnergyBurned 1:basalEnergyBurned 2:bloodGlucose 3:bloodPressureDiastolic "
            "4:bloodPressureSystolic 5:bodyFatPercentage 6:bodyMass 7:bodyMassIndex "
            "8:bodyTemperature 9:distanceCycling 10:distanceDownhillSnowSports "
            "11:distanceSwimming 12:distanceWalkingRunning 13:distanceWheelchair "
            "14:electrocardiogram 15:heartRate 16:heartRateVariabilitySDNN 17:height "
            "18:mindfulSession 19:oxygenSaturation 20:restingHeartRate 21:sleepAnalysis "
            "22:stepCount 23:vo2Max 24:workout ");
  EXPECT_FALSE(Type::fromRawValue(25) || Type::fromRawValue(-1));
}

TEST(KestrovaHealthKitError, CodesDescriptionsAndGenericForm) {
  using E = KestrovaHealthKitError;
  const std::vector<std::pair<E, std::string>> table = {
      {E::authorizationNotGranted(""), "Authorization not granted: "},
      {E::noTokenAvailableFor("p1"), "No token available for profile ID: p1"},
      {E::invalidToken("abc"), "InvalidToken: abc"},
      {E::failedToValidateProfile("p2"), "Failed to validate profile: p2"},
      {E::apiURLNotValid(), "API url not valid"},
      {E::bridgeCouldNotBeSetUp(), "Kestrova HealthKit bridge could not be set up"},
      {E::HealthKitStoreNotAvailable(), "HealthKit Store not available"},
      {E::couldNotStartHealthKitQuery(), "Could not start HealthKit queries"},
      {E::invalidHost(), "Invalid url host"},
      {E::invalidScheme(), "Invalid url scheme"},
      {E::noProfileIdProvided(), "No profile ID has been provided"},
  };
  for (std::size_t code = 0; code < table.size(); ++code) {
    const auto& [error, description] = table[code];
    EXPECT_EQ(static_cast<int>(error.code()), static_cast<int>(code));
    EXPECT_EQ(error.errorDescription(), description);
    const auto generic = error.genericError();
    EXPECT_EQ(generic.domain, "KestrovaLib.KestrovaHealthKitError");
    EXPECT_EQ(generic.code, static_cast<int>(code));
    EXPECT_EQ(generic.localizedDescription, description);
  }
}

}  // namespace
