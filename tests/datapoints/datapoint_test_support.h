// Shared by the encoder tests: the device zone fixed to Europe/Berlin before the shared date
// formatter is first used, hand-written golden files, and builders of samples with fixed
// identifiers. The environment owns the installed platform for the life of the test program.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <string_view>

#include "platform/health/sample.h"
#include "support/test_support.h"

namespace kestrova::testing {

// The device zone of every encoder test: the shared data point formatter keeps the zone it
// first sees, so all tests of a program must agree on it.
inline constexpr std::string_view kDeviceZone = "Europe/Berlin";

class DeviceZoneEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    directory_ = std::make_unique<TempDir>();
    platform_ = makeTestPlatform(directory_->path(), kDeviceZone);
  }
  void TearDown() override {
    installPlatform(nullptr);
    platform_ = {};
    directory_.reset();
  }

 private:
  std::unique_ptr<TempDir> directory_;
  TestPlatform platform_;
};

inline nlohmann::json golden(std::string_view name) {
  std::ifstream file(std::string(KESTROVA_DATAPOINTS_GOLDEN_DIR) + "/" + std::string(name));
  EXPECT_TRUE(file.good()) << "missing golden file " << name;
  std::stringstream text;
  text << file.rdbuf();
  return nlohmann::json::parse(text.str());
}

// 00000000-0000-4000-8000-0000000000NN with NN the decimal `n`, so goldens can name them.
inline Uuid testUuid(int n) {
  Uuid::Bytes16 bytes{0, 0, 0, 0, 0, 0, 0x40, 0, 0x80, 0, 0, 0, 0, 0, 0, 0};
  bytes[15] = static_cast<std::uint8_t>(n % 10 + (n / 10) * 16);
  return Uuid(bytes);
}

inline SampleProperties properties(int uuid, Date start, Date end, Metadata metadata = {},
                                   std::string bundle = "com.apple.health.phone") {
  SampleProperties made;
  made.uuid = testUuid(uuid);
  made.startDate = start;
  made.endDate = end;
  made.metadata = std::move(metadata);
  made.sourceRevision =
      SourceRevision{Source{"Source", std::move(bundle)}, "1.0", std::nullopt, {}};
  return made;
}

inline std::shared_ptr<const QuantitySample> quantity(std::string_view identifier, double value,
                                                      std::string_view unit,
                                                      SampleProperties props) {
  return QuantitySample::make(ObjectType::quantityType(identifier).value(),
                              Quantity(Unit::fromString(unit).value(), value), std::move(props))
      .value();
}

inline std::shared_ptr<const CategorySample> category(std::string_view identifier, int value,
                                                      SampleProperties props) {
  return CategorySample::make(ObjectType::categoryType(identifier).value(), value, std::move(props))
      .value();
}

inline Quantity amount(double value, std::string_view unit) {
  return Quantity(Unit::fromString(unit).value(), value);
}

}  // namespace kestrova::testing

namespace kestrova::testing {

// Registered once per test program, before any test runs.
inline ::testing::Environment* const kDeviceZoneEnvironment =
    ::testing::AddGlobalTestEnvironment(new DeviceZoneEnvironment);

}  // namespace kestrova::testing
