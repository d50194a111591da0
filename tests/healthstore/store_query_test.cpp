// Anchored and sample queries on a real store file: changes after an anchor exactly once,
// deletions and their retention, paging, overlap windows, denied reads, what survives the
// file, and a save that rolled back.
#include <gtest/gtest.h>

#include <set>

#include "platform/linux/sqlite.h"
#include "store_fixture.h"

namespace kestrova {
namespace {

using testing::categorySample;
using testing::quantitySample;
using testing::quantityType;
using testing::StoreFixture;
using testing::utc;
using testing::watch;

constexpr std::string_view kBodyMass = "HKQuantityTypeIdentifierBodyMass";

std::set<Uuid> uuids(const std::vector<SamplePtr>& samples) {
  std::set<Uuid> found;
  for (const SamplePtr& sample : samples) {
    found.insert(sample->uuid());
  }
  return found;
}

SamplePtr mass(double kilograms, Date at, Metadata metadata = {}) {
  return quantitySample(kBodyMass, kilograms, "kg", at, at, testing::phone(), std::move(metadata));
}

using StoreQueries = StoreFixture;

TEST_F(StoreQueries, AnchoredQueriesReturnEachChangeAfterTheAnchorOnce) {
  const ObjectType type = quantityType(kBodyMass);
  // An empty store with no anchor answers anchor 0.
  EXPECT_EQ(anchored(type, std::nullopt).value().newAnchor, QueryAnchor(0));
  const SamplePtr first = mass(70, utc(2024, 1, 1));
  const SamplePtr pounds = quantitySample(kBodyMass, 154, "lb", utc(2024, 1, 2), utc(2024, 1, 2));
  save({first, pounds});
  save({quantitySample(kHeartRateIdentifier, 60, "count/min", utc(2024, 1, 1), utc(2024, 1, 1))});

  const AnchoredObjectResults initial = anchored(type, std::nullopt).value();
  EXPECT_EQ(uuids(initial.samples), (std::set<Uuid>{first->uuid(), pounds->uuid()}));
  // Saved values come back in the unit they were saved in.
  const auto& read = static_cast<const QuantitySample&>(*initial.samples[1]);
  EXPECT_EQ(read.quantity().unit().unitString(), "lb");
  EXPECT_DOUBLE_EQ(read.quantity().doubleValue(Unit::fromString("lb").value()).value(), 154);
  const AnchoredObjectResults again = anchored(type, initial.newAnchor).value();
  EXPECT_TRUE(again.samples.empty() && again.deletedObjects.empty());
  EXPECT_EQ(again.newAnchor, initial.newAnchor);

  // An older sample saved later still comes after the anchor; saving it again adds nothing.
  const SamplePtr older = mass(71, utc(2023, 1, 1));
  save({older});
  const AnchoredObjectResults later = anchored(type, initial.newAnchor).value();
  EXPECT_EQ(uuids(later.samples), std::set<Uuid>{older->uuid()});
  ASSERT_EQ(store_->saveObjects({older}).value(), 0u);
  EXPECT_TRUE(anchored(type, later.newAnchor).value().samples.empty());
}

TEST_F(StoreQueries, DeletionsComeAfterTheAnchorWithTheirMetadataAndPagesHoldEachChangeOnce) {
  const ObjectType type = quantityType(kBodyMass);
  std::vector<SamplePtr> saved;
  for (int day = 1; day <= 3; ++day) {
    saved.push_back(mass(70 + day, utc(2024, 1, day), {{"HKExternalUUID", std::string("scale")}}));
    save({saved.back()});
  }
  const QueryAnchor afterInserts = anchored(type, std::nullopt).value().newAnchor;
  ASSERT_EQ(store_->deleteObjects({saved[1]->uuid(), Uuid::random()}).value(), 1u);
  const AnchoredObjectResults deletions = anchored(type, afterInserts).value();
  ASSERT_EQ(deletions.deletedObjects.size(), 1u);
  EXPECT_EQ(deletions.deletedObjects[0].uuid, saved[1]->uuid());
  EXPECT_EQ(std::get<std::string>(deletions.deletedObjects[0].metadata.at("HKExternalUUID")),
            "scale");

  // Three inserts and one delete, two at a time: every change exactly once, in order.
  std::vector<std::string> seen;
  std::optional<QueryAnchor> anchor;
  for (int page = 0; page < 3; ++page) {
    const AnchoredObjectResults results = anchored(type, anchor, std::nullopt, 2).value();
    for (const SamplePtr& sample : results.samples) {
      seen.push_back("+" + sample->uuid().uuidString());
    }
    for (const DeletedObject& deleted : results.deletedObjects) {
      seen.push_back("-" + deleted.uuid.uuidString());
    }
    anchor = results.newAnchor;
  }
  EXPECT_EQ(seen, (std::vector<std::string>{"+" + saved[0]->uuid().uuidString(),
                                            "+" + saved[2]->uuid().uuidString(),
                                            "-" + saved[1]->uuid().uuidString()}));
}

TEST_F(StoreQueries, DeletionsAreForgottenOnOpeningAfterThirtyDays) {
  auto clock = ManualClock::make(utc(2024, 1, 1));
  const auto reopenAt = [&](Date now) {
    clock->set(now);
    store_.reset();
    store_ = openStore(clock);
  };
  reopenAt(utc(2024, 1, 1));
  const SamplePtr sample = mass(70, utc(2024, 1, 1));
  save({sample});
  ASSERT_EQ(store_->deleteObjects({sample->uuid()}).value(), 1u);
  reopenAt(utc(2024, 1, 30));
  EXPECT_EQ(anchored(quantityType(kBodyMass), std::nullopt).value().deletedObjects.size(), 1u);
  reopenAt(utc(2024, 2, 1));
  EXPECT_TRUE(anchored(quantityType(kBodyMass), std::nullopt).value().deletedObjects.empty());
}

TEST_F(StoreQueries, StrictStartAndOverlapWindowsFindSamplesThatBeganLongBefore) {
  const ObjectType sleep = ObjectType::categoryType(kSleepAnalysisIdentifier).value();
  const Date start = utc(2024, 2, 1, 12);
  const SamplePtr straddling = categorySample(kSleepAnalysisIdentifier, kSleepInBed,
                                              utc(2024, 2, 1, 11), utc(2024, 2, 1, 13));
  const SamplePtr atStart =
      categorySample(kSleepAnalysisIdentifier, kSleepInBed, start, utc(2024, 2, 1, 14));
  // Overlap queries scan the start index from the window minus the longest sample of the
  // type: one that began days before the window must still be found.
  const SamplePtr longest = categorySample(kSleepAnalysisIdentifier, kSleepAwake, utc(2024, 1, 28),
                                           utc(2024, 2, 1, 12, 30));
  save({straddling, atStart, longest});
  const Predicate strict = predicateForSamples(start, std::nullopt, QueryOptions::strictStartDate);
  EXPECT_EQ(uuids(anchored(sleep, std::nullopt, strict).value().samples),
            std::set<Uuid>{atStart->uuid()});
  const auto overlapping = [&](Date from, std::optional<Date> to) {
    return uuids(samples(sleep, predicateForSamples(from, to, QueryOptions::none)).value());
  };
  EXPECT_EQ(overlapping(utc(2024, 2, 1, 12, 15), utc(2024, 2, 1, 16)),
            (std::set<Uuid>{straddling->uuid(), atStart->uuid(), longest->uuid()}));
  EXPECT_EQ(overlapping(utc(2024, 2, 1, 13, 30), std::nullopt), std::set<Uuid>{atStart->uuid()});
}

TEST_F(StoreQueries, DeniedReadsLookLikeAnEmptyStore) {
  const ObjectType type = quantityType(kBodyMass);
  save({mass(70, utc(2024, 1, 1))});
  store_->setAuthorizationPolicy(AuthorizationPolicy{false, {std::string(kBodyMass)}});
  EXPECT_TRUE(samples(type, std::nullopt).value().empty());
  const AnchoredObjectResults hidden = anchored(type, std::nullopt).value();
  EXPECT_TRUE(hidden.samples.empty());
  EXPECT_EQ(hidden.newAnchor, QueryAnchor(0));
  store_->setAuthorizationPolicy(AuthorizationPolicy{});
  EXPECT_EQ(samples(type, std::nullopt).value().size(), 1u);
}

TEST_F(StoreQueries, EveryFieldSurvivesTheFileAndInvalidTextIsReplaced) {
  SampleProperties properties;
  properties.startDate = utc(2024, 6, 1, 7);
  properties.endDate = utc(2024, 6, 1, 8);
  properties.sourceRevision = watch();
  properties.device = Device{"Apple Watch", "Apple Inc.", "Watch",      "Watch6,7",
                             std::nullopt,  "10.4",       std::nullopt, std::nullopt};
  properties.metadata = {{"HKIndoorWorkout", false},
                         {"HKAverageMETs", Quantity(Unit::fromString("kcal/hr·kg").value(), 7.5)},
                         {"count", std::int64_t{3}},
                         {"when", utc(2024, 6, 1, 7, 30)},
                         {"ratio", 0.25}};
  auto workout = Workout::make(Workout::Details{37, 0, Quantity(Unit::kilocalorie(), 412),
                                                Quantity(Unit::fromString("km").value(), 10.2)},
                               properties)
                     .value();
  // Text that is not UTF-8 (as exports sometimes hold) is stored with replacement characters.
  SampleProperties odd = properties;
  odd.uuid = Uuid::random();
  odd.metadata = {{"HKMetadataKeyDeviceName", std::string("Scale \xff\xfe")}};
  odd.device->name = "Waage \xc3";
  save({workout, QuantitySample::make(quantityType(kBodyMass),
                                      Quantity(Unit::fromString("kg").value(), 70), odd)
                     .value()});
  // A store opened again on the same file reads what the first one wrote.
  store_.reset();
  store_ = openStore();
  const SamplePtr stored = samples(ObjectType::workoutType(), std::nullopt).value().at(0);
  const auto& read = static_cast<const Workout&>(*stored);
  EXPECT_EQ(read.workoutActivityType(), 37u);
  EXPECT_EQ(read.totalDistance(), workout->totalDistance());
  EXPECT_EQ(read.device(), properties.device);
  EXPECT_EQ(read.metadata(), properties.metadata);
  const SamplePtr scale = samples(quantityType(kBodyMass), std::nullopt).value().at(0);
  EXPECT_EQ(std::get<std::string>(scale->metadata().at("HKMetadataKeyDeviceName")),
            "Scale \xef\xbf\xbd\xef\xbf\xbd");
  EXPECT_EQ(scale->device()->name, "Waage \xef\xbf\xbd");
}

TEST_F(StoreQueries, ASaveThatRolledBackForgetsTheRevisionsItInserted) {
  // Another connection makes the store refuse the second sample, after the first one's new
  // source revision was inserted in the same transaction.
  Result<SqliteDatabase> other = SqliteDatabase::open(dir_.path() / "health.sqlite");
  ASSERT_TRUE(other.ok());
  ASSERT_FALSE(
      other.value().exec("CREATE TRIGGER refuse BEFORE INSERT ON samples "
                         "WHEN NEW.value = 99 BEGIN SELECT RAISE(ABORT, 'no'); END"));
  const SourceRevision fresh = testing::app("com.example.fresh");
  EXPECT_FALSE(
      store_
          ->saveObjects(
              {quantitySample(kBodyMass, 70, "kg", utc(2024, 1, 1), utc(2024, 1, 1), fresh),
               quantitySample(kBodyMass, 99, "kg", utc(2024, 1, 2), utc(2024, 1, 2), fresh)})
          .ok());
  ASSERT_FALSE(other.value().exec("DROP TRIGGER refuse"));

  save({quantitySample(kBodyMass, 71, "kg", utc(2024, 1, 3), utc(2024, 1, 3), fresh)});
  const auto found = samples(quantityType(kBodyMass), std::nullopt).value();
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0]->sourceRevision(), fresh);
}

}  // namespace
}  // namespace kestrova
