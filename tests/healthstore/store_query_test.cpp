// Anchored and sample queries on a real store file: changes after an anchor exactly once,
// deletions and their retention, paging, overlap windows, denied reads, what survives the
// file, electrocardiogram voltages, and a save that rolled back.
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
  EXPECT_TRUE(deletions.samples.empty());
  ASSERT_EQ(deletions.deletedObjects.size(), 1u);
  EXPECT_EQ(deletions.deletedObjects[0].uuid, saved[1]->uuid());
  EXPECT_EQ(std::get<std::string>(deletions.deletedObjects[0].metadata.at("HKExternalUUID")),
            "scale");

  // Three inserts and one delete, two at a time: every change exactly once, in order.
  std::vector<std::string> seen;
  std::optional<QueryAnchor> anchor;
  for (int page = 0; page < 3; ++page) {
    const AnchoredObjectResults results = anchored(type, anchor, std::nullopt, 2).value();
    EXPECT_LE(results.samples.size() + results.deletedObjects.size(), 2u);
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
    store_ = openStore("Europe/Berlin", clock);
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

TEST_F(StoreQueries, UpdateHandlerRefusesALimitAndReportsLaterChanges) {
  const ObjectType type = quantityType(kBodyMass);
  std::promise<Result<AnchoredObjectResults>> refused;
  store_->executeQuery(AnchoredObjectQuery::make(
      type, std::nullopt, std::nullopt, 5,
      [&](const auto&, Result<AnchoredObjectResults> results) {
        refused.set_value(std::move(results));
      },
      [](const auto&, Result<AnchoredObjectResults>) {}));
  EXPECT_EQ(wait(refused).error().code, kHealthErrorInvalidArgument);

  std::promise<void> initial;
  std::promise<Result<AnchoredObjectResults>> update;
  auto query = AnchoredObjectQuery::make(
      type, std::nullopt, std::nullopt, 0,
      [&](const auto&, Result<AnchoredObjectResults>) { initial.set_value(); },
      [&](const auto&, Result<AnchoredObjectResults> results) {
        update.set_value(std::move(results));
      });
  store_->executeQuery(query);
  wait(initial);
  const SamplePtr later = mass(80, utc(2024, 3, 1));
  save({later});
  EXPECT_EQ(uuids(wait(update).value().samples), std::set<Uuid>{later->uuid()});
  store_->stopQuery(query);
}

TEST_F(StoreQueries, SampleQueriesFilterSortAndLimit) {
  const ObjectType sleep = ObjectType::categoryType(kSleepAnalysisIdentifier).value();
  const auto stage = [](int value, Date start, Date end) {
    return categorySample(kSleepAnalysisIdentifier, value, start, end);
  };
  const SamplePtr inBed = stage(kSleepInBed, utc(2024, 4, 1, 22), utc(2024, 4, 2, 6));
  const SamplePtr core = stage(kSleepAsleepCore, utc(2024, 4, 1, 23), utc(2024, 4, 2, 1));
  const SamplePtr awake = stage(kSleepAwake, utc(2024, 4, 2, 1), utc(2024, 4, 2, 1, 10));
  const SamplePtr deep = stage(kSleepAsleepDeep, utc(2024, 4, 1, 22, 30), utc(2024, 4, 1, 23));
  save({inBed, core, awake, deep});
  const auto order = [](const Result<std::vector<SamplePtr>>& found) {
    std::vector<Uuid> uuids;
    for (const SamplePtr& sample : found.value()) {
      uuids.push_back(sample->uuid());
    }
    return uuids;
  };

  const Predicate episode =
      predicateForSamples(inBed->startDate(), inBed->endDate(), QueryOptions::strictStartDate);
  EXPECT_EQ(
      order(samples(sleep, andPredicate({predicateForCategorySamples({2, 3, 5, 4, 1}), episode}), 0,
                    {SortDescriptor{SortKey::startDate, true}})),
      (std::vector<Uuid>{deep->uuid(), core->uuid(), awake->uuid()}));
  // Newest first, limited after sorting.
  EXPECT_EQ(order(samples(sleep, std::nullopt, 1, {SortDescriptor{SortKey::startDate, false}})),
            std::vector<Uuid>{awake->uuid()});
  // Without sort descriptors: the order of saving.
  const auto unsorted =
      samples(sleep, predicateForCategorySamples(ComparisonOperator::notEqualTo, kSleepInBed));
  EXPECT_EQ(order(unsorted), (std::vector<Uuid>{core->uuid(), awake->uuid(), deep->uuid()}));
  EXPECT_EQ(static_cast<const CategorySample&>(*unsorted.value()[2]).value(), kSleepAsleepDeep);
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

  std::promise<std::optional<Error>> requested;
  store_->requestAuthorization({}, {type, ObjectType::workoutType()},
                               [&](bool success, std::optional<Error> error) {
                                 EXPECT_TRUE(success);
                                 requested.set_value(error);
                               });
  EXPECT_FALSE(wait(requested).has_value());
  EXPECT_EQ(store_->requestedReadTypes(), (std::set<ObjectType>{type, ObjectType::workoutType()}));
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
  EXPECT_DOUBLE_EQ(workout->duration(), 3600);  // zero: the whole span
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
  EXPECT_EQ(read.uuid(), workout->uuid());
  EXPECT_EQ(read.workoutActivityType(), 37u);
  EXPECT_EQ(read.totalDistance(), workout->totalDistance());
  EXPECT_EQ(read.totalEnergyBurned(), workout->totalEnergyBurned());
  EXPECT_EQ(read.sourceRevision(), watch());
  EXPECT_EQ(read.device(), properties.device);
  EXPECT_EQ(read.metadata(), properties.metadata);
  EXPECT_EQ(read.startDate(), properties.startDate);
  const SamplePtr scale = samples(quantityType(kBodyMass), std::nullopt).value().at(0);
  EXPECT_EQ(std::get<std::string>(scale->metadata().at("HKMetadataKeyDeviceName")),
            "Scale \xef\xbf\xbd\xef\xbf\xbd");
  EXPECT_EQ(scale->device()->name, "Waage \xef\xbf\xbd");

  // Samples that do not fit their type are refused before they reach the store.
  EXPECT_FALSE(
      QuantitySample::make(quantityType(kBodyMass), Quantity(Unit::meter(), 1.8), properties).ok());
  EXPECT_FALSE(
      Workout::make(Workout::Details{37, 0, Quantity(Unit::meter(), 1), std::nullopt}, properties)
          .ok());
  std::swap(properties.startDate, properties.endDate);
  EXPECT_FALSE(CategorySample::make(ObjectType::categoryType(kMindfulSessionIdentifier).value(), 0,
                                    properties)
                   .ok());
}

TEST_F(StoreQueries, ElectrocardiogramVoltagesThenExactlyOneDoneAndNoneOnceDeleted) {
  SampleProperties properties;
  properties.startDate = utc(2024, 7, 1, 9);
  properties.endDate = utc(2024, 7, 1, 9, 0, 30);
  properties.sourceRevision = watch();
  std::vector<double> volts;
  for (int i = 0; i < 1536; ++i) {
    volts.push_back((i % 7) * 1e-4 - 2e-4);
  }
  auto ecg =
      Electrocardiogram::make(
          Electrocardiogram::Details{
              Quantity(Unit::hertz(), 512), 1536, Electrocardiogram::Classification::sinusRhythm,
              Electrocardiogram::SymptomsStatus::none, Quantity(Unit::countPerMinute(), 64)},
          properties)
          .value();
  ASSERT_EQ(store_->saveElectrocardiogram(ecg, volts).value(), 1u);
  // Every answer up to and including the first end; anything after it fails the test.
  const auto read = [&] {
    auto measurements = std::make_shared<std::vector<VoltageMeasurement>>();
    auto done = std::make_shared<std::promise<void>>();
    auto ended = std::make_shared<std::atomic<bool>>(false);
    store_->executeQuery(ElectrocardiogramQuery::make(
        ecg, [=](const auto&, const ElectrocardiogramQueryResult& result) {
          EXPECT_FALSE(ended->load()) << "an answer after the end";
          if (const auto* measurement = std::get_if<VoltageMeasurement>(&result)) {
            measurements->push_back(*measurement);
          } else if (std::holds_alternative<ElectrocardiogramQueryDone>(result) &&
                     !ended->exchange(true)) {
            done->set_value();
          }
        }));
    wait(*done);
    return *measurements;
  };
  const std::vector<VoltageMeasurement> measurements = read();
  ASSERT_EQ(measurements.size(), volts.size());
  EXPECT_DOUBLE_EQ(measurements[512].timeSinceSampleStart, 1.0);
  EXPECT_DOUBLE_EQ(measurements[3]
                       .quantity(ElectrocardiogramLead::appleWatchSimilarToLeadI)
                       ->doubleValue(Unit::fromString("mcV").value())
                       .value(),
                   100);
  const SamplePtr recording =
      samples(ObjectType::electrocardiogramType(), std::nullopt).value().at(0);
  const auto& stored = static_cast<const Electrocardiogram&>(*recording);
  EXPECT_EQ(stored.numberOfVoltageMeasurements(), 1536);
  EXPECT_EQ(stored.classification(), Electrocardiogram::Classification::sinusRhythm);
  EXPECT_EQ(stored.averageHeartRate(), ecg->averageHeartRate());

  // Deleting the recording drops its voltages: the query then has nothing but the end.
  ASSERT_EQ(store_->deleteObjects({ecg->uuid()}).value(), 1u);
  EXPECT_TRUE(read().empty());
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
