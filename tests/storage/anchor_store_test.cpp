#include "storage/anchor_store.h"

#include <gtest/gtest.h>

#include "storage/delivery_store.h"
#include "storage/file_server.h"
#include "storage/profile_store.h"
#include "storage/token_store.h"
#include "support/test_support.h"

namespace kestrova {
namespace {

constexpr std::string_view kSteps = "HKQuantityTypeIdentifierStepCount";

class StorageTest : public ::testing::Test {
 protected:
  void TearDown() override {
    log_->uninstall();
    installPlatform(nullptr);
  }

  testing::TempDir dir_;
  testing::TestPlatform test_ = testing::makeTestPlatform(dir_.path());
  std::shared_ptr<DefaultsStore> defaults_ = test_.platform->defaults;
  std::shared_ptr<testing::CapturedLog> log_ = testing::CapturedLog::install();
};

// Renaming any of these would orphan what users' devices already hold: their anchors (a full
// re-read of the health store), profile, delivery records, token and pending upload files.
TEST_F(StorageTest, PersistedNamesStayAsTheyAre) {
  AnchorStore(defaults_).storeAnchor(QueryAnchor(7), kSteps);
  ProfileStore(defaults_).store(Profile{"p1"});
  DeliveryStore deliveries(defaults_);
  FamilyDelivery delivered;
  delivered.deliveredPoints = 3;
  deliveries.setFamily("workout", delivered);
  UploadAttempts refused;
  refused.refusals = 1;
  deliveries.setAttempts("2024-03-01T08:15:30.250---s---p1", refused);
  EXPECT_EQ(defaults_->keys(), (std::vector<std::string>{
                                   "KestrovaAnchorKeyHKQuantityTypeIdentifierStepCount",
                                   "KestrovaCurrentProfileKey", "KestrovaDeliveryKey.workout",
                                   "KestrovaUploadAttemptsKey.2024-03-01T08:15:30.250---s---p1"}));

  TokenStore tokens(test_.platform->secureStore, "com.example.host");
  tokens.saveToken("token-p1", std::string("p1"));
  tokens.saveToken("token-without-profile", std::nullopt);
  SecureItem item;
  ASSERT_EQ(test_.platform->secureStore->copyMatching("com.example.host.Kestrova", "User+p1", item),
            errSecSuccess);
  EXPECT_EQ(toString(item.data), "token-p1");
  ASSERT_EQ(test_.platform->secureStore->copyMatching("com.example.host.Kestrova", "User", item),
            errSecSuccess);
  EXPECT_EQ(toString(item.data), "token-without-profile");

  const FileNameComponents file{"workout-2024-03-01T08:15:30.000", "p1",
                                testing::utc(2024, 3, 1, 8, 15, 30, 250)};
  EXPECT_EQ(file.fileName(), "2024-03-01T08:15:30.250---workout-2024-03-01T08:15:30.000---p1");
  FileServer files(test_.platform->files, nullptr);
  EXPECT_EQ(*files.directoryURL(false), dir_.path() / "Kestrova" / "Upload");
  const auto bulk = dir_.path() / "Kestrova" / "UploadBulk";
  ASSERT_EQ(*files.directoryURL(true), bulk);
  ASSERT_FALSE(test_.platform->files->createFileAtomically(bulk / file.fileName(), toBytes("[]")));
  ASSERT_TRUE(files.setAside(RejectedFile{file, true, 400, 5, "", Date{}}));
  const auto rejected = dir_.path() / "Kestrova" / "Rejected" / file.fileName();
  EXPECT_TRUE(std::filesystem::exists(rejected));
  EXPECT_TRUE(std::filesystem::exists(rejected.string() + ".rejected.json"));
}

// A damaged entry gives no anchor (the types are read again from the start) and stays in place
// for a later look.
TEST_F(StorageTest, DamagedAnchorsYieldNoneAndStayInPlace) {
  AnchorStore anchors(defaults_);
  const std::string key = "KestrovaAnchorKeyHKQuantityTypeIdentifierStepCount";
  const std::vector<Bytes> damaged = {
      toBytes("not an anchor"),
      Bytes{'K', 'Q', 'A', 1, 0, 0, 0},                 // one byte short
      Bytes{'K', 'Q', 'A', 2, 0, 0, 0, 0, 0, 0, 0, 1},  // a format version we do not know
      Bytes{'K', 'Q', 'A', 1, 0, 0, 0, 0, 0, 0, 0, 1, 9},
  };
  for (const auto& blob : damaged) {
    log_->clear();
    defaults_->setObject(key, blob);
    EXPECT_FALSE(anchors.storedAnchor(kSteps));
    EXPECT_TRUE(
        log_->contains("Unarchived data could not be converted to an QueryAnchor for type "
                       "HKQuantityTypeIdentifierStepCount"));
    EXPECT_EQ(defaults_->data(key), blob);
  }
}

}  // namespace
}  // namespace kestrova
