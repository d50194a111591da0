#include "storage/anchor_store.h"

#include <gtest/gtest.h>

#include "support/test_support.h"

namespace kestrova {
namespace {

constexpr std::string_view kSteps = "HKQuantityTypeIdentifierStepCount";
constexpr std::string_view kWorkouts = "HKWorkoutTypeIdentifier";

TEST(AnchorStore, KeepsOneAnchorPerTypeAcrossReopening) {
  testing::TempDir dir;
  auto log = testing::CapturedLog::install();
  {
    auto test = testing::makeTestPlatform(dir.path());
    AnchorStore anchors(test.platform->defaults);
    anchors.storeAnchor(QueryAnchor(7), kSteps);
    anchors.storeAnchor(QueryAnchor(0xFFFF'FFFF'FFFF'FFFFULL), kSteps);  // overwrites
    anchors.storeAnchor(QueryAnchor(3), kWorkouts);
    EXPECT_TRUE(
        test.platform->defaults->data("KestrovaAnchorKeyHKQuantityTypeIdentifierStepCount"));
  }
  installPlatform(nullptr);
  auto test = testing::makeTestPlatform(dir.path());
  AnchorStore anchors(test.platform->defaults);
  EXPECT_EQ(anchors.storedAnchor(kSteps), QueryAnchor(0xFFFF'FFFF'FFFF'FFFFULL));
  EXPECT_EQ(anchors.storedAnchor(kWorkouts), QueryAnchor(3));

  anchors.deleteAnchor(kSteps);
  EXPECT_FALSE(anchors.storedAnchor(kSteps));
  EXPECT_EQ(anchors.storedAnchor(kWorkouts), QueryAnchor(3));
  EXPECT_TRUE(log->contains("No stored anchor for type HKQuantityTypeIdentifierStepCount"));
  log->uninstall();
  installPlatform(nullptr);
}

TEST(AnchorStore, DamagedEntriesYieldNoAnchorAndStayInPlace) {
  testing::TempDir dir;
  auto test = testing::makeTestPlatform(dir.path());
  auto log = testing::CapturedLog::install();
  AnchorStore anchors(test.platform->defaults);
  const auto key = AnchorStore::key(kSteps);

  const std::vector<Bytes> damaged = {
      Bytes{},
      toBytes("not an anchor"),
      Bytes{'K', 'Q', 'A', 1, 0, 0, 0},                 // one byte short
      Bytes{'K', 'Q', 'A', 2, 0, 0, 0, 0, 0, 0, 0, 1},  // a format version we do not know
      Bytes{'K', 'Q', 'A', 1, 0, 0, 0, 0, 0, 0, 0, 1, 9},
  };
  for (const auto& blob : damaged) {
    log->clear();
    test.platform->defaults->setObject(key, blob);
    EXPECT_FALSE(anchors.storedAnchor(kSteps));
    EXPECT_TRUE(
        log->contains("Unarchived data could not be converted to an QueryAnchor for type "
                      "HKQuantityTypeIdentifierStepCount"));
    EXPECT_EQ(test.platform->defaults->data(key), blob);
  }

  // A value of another type is no stored anchor at all.
  log->clear();
  test.platform->defaults->setObject(key, std::string("text"));
  EXPECT_FALSE(anchors.storedAnchor(kSteps));
  EXPECT_TRUE(log->contains("No stored anchor for type"));
  log->uninstall();
  installPlatform(nullptr);
}

}  // namespace
}  // namespace kestrova
