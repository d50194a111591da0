#include <gtest/gtest.h>

#include <set>

#include "platform/linux/sqlite.h"
#include "store_fixture.h"

namespace kestrova {
namespace {

using testing::categorySample;
using testing::phone;
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

using StoreAnchoredQueries = StoreFixture;

TEST_F(StoreAnchoredQueries, ReturnEverythingAfterTheAnchorOnceThenNothing) {
  const ObjectType mass = quantityType(kBodyMass);
  const SamplePtr first = quantitySample(kBodyMass, 70, "kg", utc(2024, 1, 1), utc(2024, 1, 1));
  const SamplePtr second = quantitySample(kBodyMass, 154, "lb", utc(2024, 1, 2), utc(2024, 1, 2));
  save({first, second});
  save({quantitySample(kHeartRateIdentifier, 60, "count/min", utc(2024, 1, 1), utc(2024, 1, 1))});

  Result<AnchoredObjectResults> initial = anchored(mass, std::nullopt);
  ASSERT_TRUE(initial.ok());
  EXPECT_EQ(uuids(initial.value().samples), (std::set<Uuid>{first->uuid(), second->uuid()}));
  // Saved values come back in the unit they were saved in.
  const auto& pounds = static_cast<const QuantitySample&>(*initial.value().samples[1]);
  EXPECT_EQ(pounds.quantity().unit().unitString(), "lb");
  EXPECT_DOUBLE_EQ(pounds.quantity().doubleValue(Unit::fromString("lb").value()).value(), 154);

  Result<AnchoredObjectResults> again = anchored(mass, initial.value().newAnchor);
  ASSERT_TRUE(again.ok());
  EXPECT_TRUE(again.value().samples.empty());
  EXPECT_TRUE(again.value().deletedObjects.empty());
  EXPECT_EQ(again.value().newAnchor, initial.value().newAnchor);

  const SamplePtr third = quantitySample(kBodyMass, 71, "kg", utc(2023, 1, 1), utc(2023, 1, 1));
  save({third});
  Result<AnchoredObjectResults> later = anchored(mass, initial.value().newAnchor);
  ASSERT_TRUE(later.ok());
  ASSERT_EQ(later.value().samples.size(), 1u);
  EXPECT_EQ(later.value().samples[0]->uuid(), third->uuid());

  // Saving the same UUID again adds nothing and moves no anchor.
  ASSERT_EQ(store_->saveObjects({third}).value(), 0u);
  EXPECT_TRUE(anchored(mass, later.value().newAnchor).value().samples.empty());

  // An empty store with no anchor answers anchor 0.
  EXPECT_EQ(anchored(ObjectType::workoutType(), std::nullopt).value().newAnchor, QueryAnchor(0));
}

TEST_F(StoreAnchoredQueries, ReportDeletionsAfterTheAnchorAndPageWithALimit) {
  const ObjectType mass = quantityType(kBodyMass);
  Metadata metadata{{"HKExternalUUID", std::string("scale-1")}};
  std::vector<SamplePtr> saved;
  for (int day = 1; day <= 3; ++day) {
    saved.push_back(quantitySample(kBodyMass, 70 + day, "kg", utc(2024, 1, day), utc(2024, 1, day),
                                   phone(), metadata));
    save({saved.back()});
  }
  const QueryAnchor afterInserts = anchored(mass, std::nullopt).value().newAnchor;
  ASSERT_EQ(store_->deleteObjects({saved[1]->uuid(), Uuid::random()}).value(), 1u);

  const Result<AnchoredObjectResults> deletions = anchored(mass, afterInserts);
  ASSERT_TRUE(deletions.ok());
  EXPECT_TRUE(deletions.value().samples.empty());
  ASSERT_EQ(deletions.value().deletedObjects.size(), 1u);
  EXPECT_EQ(deletions.value().deletedObjects[0].uuid, saved[1]->uuid());
  EXPECT_EQ(
      std::get<std::string>(deletions.value().deletedObjects[0].metadata.at("HKExternalUUID")),
      "scale-1");

  // Three inserts and one delete, two at a time: every change exactly once, in order.
  std::vector<std::string> seen;
  std::optional<QueryAnchor> anchor;
  for (int page = 0; page < 3; ++page) {
    Result<AnchoredObjectResults> results = anchored(mass, anchor, std::nullopt, 2);
    ASSERT_TRUE(results.ok());
    EXPECT_LE(results.value().samples.size() + results.value().deletedObjects.size(), 2u);
    for (const SamplePtr& sample : results.value().samples) {
      seen.push_back("+" + sample->uuid().uuidString());
    }
    for (const DeletedObject& deleted : results.value().deletedObjects) {
      seen.push_back("-" + deleted.uuid.uuidString());
    }
    anchor = results.value().newAnchor;
  }
  EXPECT_EQ(seen, (std::vector<std::string>{"+" + saved[0]->uuid().uuidString(),
                                            "+" + saved[2]->uuid().uuidString(),
                                            "-" + saved[1]->uuid().uuidString()}));
}

TEST_F(StoreAnchoredQueries, DeletionsAreForgottenAfterTheRetentionWindow) {
  const ObjectType mass = quantityType(kBodyMass);
  auto clock = ManualClock::make(utc(2024, 1, 1));
  store_.reset();
  store_ = openStore("Europe/Berlin", clock);
  const SamplePtr sample = quantitySample(kBodyMass, 70, "kg", utc(2024, 1, 1), utc(2024, 1, 1));
  save({sample});
  ASSERT_EQ(store_->deleteObjects({sample->uuid()}).value(), 1u);

  // The default window is thirty days; the store forgets when it opens.
  clock->set(utc(2024, 1, 30));
  store_.reset();
  store_ = openStore("Europe/Berlin", clock);
  EXPECT_EQ(anchored(mass, std::nullopt).value().deletedObjects.size(), 1u);
  clock->set(utc(2024, 2, 1));
  store_.reset();
  store_ = openStore("Europe/Berlin", clock);
  EXPECT_TRUE(anchored(mass, std::nullopt).value().deletedObjects.empty());
}

TEST_F(StoreAnchoredQueries, StrictStartExcludesASampleThatBeganBeforeTheStart) {
  const ObjectType sleep = ObjectType::categoryType(kSleepAnalysisIdentifier).value();
  const Date start = utc(2024, 2, 1, 12);
  const SamplePtr straddling = categorySample(kSleepAnalysisIdentifier, kSleepInBed,
                                              utc(2024, 2, 1, 11), utc(2024, 2, 1, 13));
  const SamplePtr atStart =
      categorySample(kSleepAnalysisIdentifier, kSleepInBed, start, utc(2024, 2, 1, 14));
  save({straddling, atStart});
  const Predicate strict = predicateForSamples(start, std::nullopt, QueryOptions::strictStartDate);
  EXPECT_EQ(uuids(anchored(sleep, std::nullopt, strict).value().samples),
            std::set<Uuid>{atStart->uuid()});
  const Predicate overlapping = predicateForSamples(start, std::nullopt, QueryOptions::none);
  EXPECT_EQ(uuids(anchored(sleep, std::nullopt, overlapping).value().samples),
            (std::set<Uuid>{straddling->uuid(), atStart->uuid()}));

  // Overlap queries scan the start index from the window minus the longest sample of the
  // type: a sample that began days before the window must still be found.
  const SamplePtr long_ = categorySample(kSleepAnalysisIdentifier, kSleepAwake, utc(2024, 1, 28),
                                         utc(2024, 2, 1, 12, 30));
  save({long_});
  const Predicate lateWindow =
      predicateForSamples(utc(2024, 2, 1, 12, 15), utc(2024, 2, 1, 16), QueryOptions::none);
  EXPECT_EQ(uuids(samples(sleep, lateWindow).value()),
            (std::set<Uuid>{straddling->uuid(), atStart->uuid(), long_->uuid()}));
  const Predicate afterAll =
      predicateForSamples(utc(2024, 2, 1, 13, 30), std::nullopt, QueryOptions::none);
  EXPECT_EQ(uuids(samples(sleep, afterAll).value()), std::set<Uuid>{atStart->uuid()});
}

TEST_F(StoreAnchoredQueries, UpdateHandlerNeedsNoLimitAndReportsLaterChanges) {
  const ObjectType mass = quantityType(kBodyMass);
  std::promise<Result<AnchoredObjectResults>> refused;
  store_->executeQuery(AnchoredObjectQuery::make(
      mass, std::nullopt, std::nullopt, 5,
      [&](const auto&, Result<AnchoredObjectResults> results) {
        refused.set_value(std::move(results));
      },
      [](const auto&, Result<AnchoredObjectResults>) {}));
  const Result<AnchoredObjectResults> error = wait(refused);
  ASSERT_FALSE(error.ok());
  EXPECT_EQ(error.error().code, kHealthErrorInvalidArgument);

  std::promise<void> initial;
  std::promise<Result<AnchoredObjectResults>> update;
  auto query = AnchoredObjectQuery::make(
      mass, std::nullopt, std::nullopt, 0,
      [&](const auto&, Result<AnchoredObjectResults>) { initial.set_value(); },
      [&](const auto&, Result<AnchoredObjectResults> results) {
        update.set_value(std::move(results));
      });
  store_->executeQuery(query);
  wait(initial);
  const SamplePtr later = quantitySample(kBodyMass, 80, "kg", utc(2024, 3, 1), utc(2024, 3, 1));
  save({later});
  const Result<AnchoredObjectResults> changed = wait(update);
  ASSERT_TRUE(changed.ok());
  EXPECT_EQ(uuids(changed.value().samples), std::set<Uuid>{later->uuid()});
  store_->stopQuery(query);
}

using StoreSampleQueries = StoreFixture;

TEST_F(StoreSampleQueries, FilterSortLimitAndCategoryValues) {
  const ObjectType sleep = ObjectType::categoryType(kSleepAnalysisIdentifier).value();
  const SamplePtr inBed = categorySample(kSleepAnalysisIdentifier, kSleepInBed, utc(2024, 4, 1, 22),
                                         utc(2024, 4, 2, 6));
  const SamplePtr core = categorySample(kSleepAnalysisIdentifier, kSleepAsleepCore,
                                        utc(2024, 4, 1, 23), utc(2024, 4, 2, 1));
  const SamplePtr awake = categorySample(kSleepAnalysisIdentifier, kSleepAwake, utc(2024, 4, 2, 1),
                                         utc(2024, 4, 2, 1, 10));
  const SamplePtr deep = categorySample(kSleepAnalysisIdentifier, kSleepAsleepDeep,
                                        utc(2024, 4, 1, 22, 30), utc(2024, 4, 1, 23));
  save({inBed, core, awake, deep});

  const Predicate episode =
      predicateForSamples(inBed->startDate(), inBed->endDate(), QueryOptions::strictStartDate);
  const Predicate stages = predicateForCategorySamples({2, 3, 5, 4, 1});
  const auto found = samples(sleep, andPredicate({stages, episode}), 0,
                             {SortDescriptor{SortKey::startDate, true}});
  ASSERT_TRUE(found.ok());
  ASSERT_EQ(found.value().size(), 3u);
  EXPECT_EQ(found.value()[0]->uuid(), deep->uuid());
  EXPECT_EQ(found.value()[1]->uuid(), core->uuid());
  EXPECT_EQ(found.value()[2]->uuid(), awake->uuid());

  // Newest first, limited after sorting.
  const auto newest = samples(sleep, std::nullopt, 1, {SortDescriptor{SortKey::startDate, false}});
  ASSERT_EQ(newest.value().size(), 1u);
  EXPECT_EQ(newest.value()[0]->uuid(), awake->uuid());

  // Without sort descriptors: the order of saving.
  const auto unsorted =
      samples(sleep, predicateForCategorySamples(ComparisonOperator::notEqualTo, kSleepInBed));
  ASSERT_EQ(unsorted.value().size(), 3u);
  EXPECT_EQ(unsorted.value()[0]->uuid(), core->uuid());
  EXPECT_EQ(static_cast<const CategorySample&>(*unsorted.value()[2]).value(), kSleepAsleepDeep);
}

TEST_F(StoreSampleQueries, DeniedReadsLookLikeAnEmptyStore) {
  const ObjectType mass = quantityType(kBodyMass);
  save({quantitySample(kBodyMass, 70, "kg", utc(2024, 1, 1), utc(2024, 1, 1))});
  store_->setAuthorizationPolicy(AuthorizationPolicy{false, {std::string(kBodyMass)}});
  EXPECT_TRUE(samples(mass, std::nullopt).value().empty());
  const Result<AnchoredObjectResults> hidden = anchored(mass, std::nullopt);
  EXPECT_TRUE(hidden.value().samples.empty());
  EXPECT_EQ(hidden.value().newAnchor, QueryAnchor(0));

  store_->setAuthorizationPolicy(AuthorizationPolicy{});
  EXPECT_EQ(samples(mass, std::nullopt).value().size(), 1u);

  std::promise<std::optional<Error>> requested;
  store_->requestAuthorization({}, {mass, ObjectType::workoutType()},
                               [&](bool success, std::optional<Error> error) {
                                 EXPECT_TRUE(success);
                                 requested.set_value(error);
                               });
  EXPECT_FALSE(wait(requested).has_value());
  EXPECT_EQ(store_->requestedReadTypes(), (std::set<ObjectType>{mass, ObjectType::workoutType()}));
}

TEST_F(StoreSampleQueries, EveryKindOfSampleSurvivesTheFile) {
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
  save({workout});
  // A store opened again on the same file reads what the first one wrote.
  store_.reset();
  store_ = openStore();
  const auto found = samples(ObjectType::workoutType(), std::nullopt);
  ASSERT_EQ(found.value().size(), 1u);
  const auto& read = static_cast<const Workout&>(*found.value()[0]);
  EXPECT_EQ(read.uuid(), workout->uuid());
  EXPECT_EQ(read.workoutActivityType(), 37u);
  EXPECT_EQ(read.totalDistance(), workout->totalDistance());
  EXPECT_EQ(read.totalEnergyBurned(), workout->totalEnergyBurned());
  EXPECT_EQ(read.sourceRevision(), watch());
  EXPECT_EQ(read.device(), properties.device);
  EXPECT_EQ(read.metadata(), properties.metadata);
  EXPECT_EQ(read.startDate(), properties.startDate);

  // Text that is not UTF-8 (as exports sometimes hold) is stored with replacement characters.
  SampleProperties odd = properties;
  odd.uuid = Uuid::random();
  odd.metadata = {{"HKMetadataKeyDeviceName", std::string("Scale \xff\xfe")}};
  odd.device = Device{std::string("Waage \xc3"),
                      std::nullopt,
                      std::nullopt,
                      std::nullopt,
                      std::nullopt,
                      std::nullopt,
                      std::nullopt,
                      std::nullopt};
  save({QuantitySample::make(quantityType(kBodyMass), Quantity(Unit::fromString("kg").value(), 70),
                             odd)
            .value()});
  const auto masses = samples(quantityType(kBodyMass), std::nullopt);
  ASSERT_EQ(masses.value().size(), 1u);
  EXPECT_EQ(std::get<std::string>(masses.value()[0]->metadata().at("HKMetadataKeyDeviceName")),
            "Scale \xef\xbf\xbd\xef\xbf\xbd");

  // Samples that do not fit their type are refused before they reach the store.
  EXPECT_FALSE(
      QuantitySample::make(quantityType(kBodyMass), Quantity(Unit::meter(), 1.8), properties).ok());
  EXPECT_FALSE(
      Workout::make(Workout::Details{37, 0, Quantity(Unit::meter(), 1), std::nullopt}, properties)
          .ok());
  SampleProperties backwards = properties;
  std::swap(backwards.startDate, backwards.endDate);
  EXPECT_FALSE(CategorySample::make(ObjectType::categoryType(kMindfulSessionIdentifier).value(), 0,
                                    backwards)
                   .ok());
}

TEST_F(StoreSampleQueries, ElectrocardiogramVoltagesThenExactlyOneDone) {
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

  std::vector<VoltageMeasurement> measurements;
  int done = 0;
  std::promise<void> finished;
  store_->executeQuery(ElectrocardiogramQuery::make(
      ecg, [&](const auto&, const ElectrocardiogramQueryResult& result) {
        if (const auto* measurement = std::get_if<VoltageMeasurement>(&result)) {
          measurements.push_back(*measurement);
        } else if (std::holds_alternative<ElectrocardiogramQueryDone>(result)) {
          if (++done == 1) {
            finished.set_value();
          }
        }
      }));
  wait(finished);
  ASSERT_EQ(measurements.size(), volts.size());
  EXPECT_EQ(done, 1);
  EXPECT_DOUBLE_EQ(measurements[0].timeSinceSampleStart, 0);
  EXPECT_DOUBLE_EQ(measurements[512].timeSinceSampleStart, 1.0);
  EXPECT_DOUBLE_EQ(measurements[3]
                       .quantity(ElectrocardiogramLead::appleWatchSimilarToLeadI)
                       ->doubleValue(Unit::fromString("mcV").value())
                       .value(),
                   100);

  const auto stored = samples(ObjectType::electrocardiogramType(), std::nullopt);
  const auto& read = static_cast<const Electrocardiogram&>(*stored.value().at(0));
  EXPECT_EQ(read.numberOfVoltageMeasurements(), 1536);
  EXPECT_EQ(read.classification(), Electrocardiogram::Classification::sinusRhythm);
  EXPECT_EQ(read.averageHeartRate(), ecg->averageHeartRate());

  // Deleting the recording drops its voltages: the query then has nothing but the end.
  ASSERT_EQ(store_->deleteObjects({ecg->uuid()}).value(), 1u);
  std::promise<int> calls;
  int count = 0;
  store_->executeQuery(ElectrocardiogramQuery::make(
      ecg, [&](const auto&, const ElectrocardiogramQueryResult& result) {
        ++count;
        if (std::holds_alternative<ElectrocardiogramQueryDone>(result)) {
          calls.set_value(count);
        }
      }));
  EXPECT_EQ(wait(calls), 1);
}

using StoreWrites = StoreFixture;

TEST_F(StoreWrites, ForgetRevisionsOfASaveThatRolledBack) {
  // Another connection makes the store refuse the second sample, after the first one's new
  // source revision was inserted in the same transaction.
  Result<SqliteDatabase> other = SqliteDatabase::open(dir_.path() / "health.sqlite");
  ASSERT_TRUE(other.ok());
  ASSERT_FALSE(
      other.value().exec("CREATE TRIGGER refuse BEFORE INSERT ON samples "
                         "WHEN NEW.value = 99 BEGIN SELECT RAISE(ABORT, 'no'); END"));
  const SourceRevision fresh = testing::app("com.example.fresh");
  const Result<std::size_t> refused = store_->saveObjects(
      {quantitySample(kBodyMass, 70, "kg", utc(2024, 1, 1), utc(2024, 1, 1), fresh),
       quantitySample(kBodyMass, 99, "kg", utc(2024, 1, 2), utc(2024, 1, 2), fresh)});
  EXPECT_FALSE(refused.ok());
  ASSERT_FALSE(other.value().exec("DROP TRIGGER refuse"));

  save({quantitySample(kBodyMass, 71, "kg", utc(2024, 1, 3), utc(2024, 1, 3), fresh)});
  Result<std::vector<SamplePtr>> found = samples(quantityType(kBodyMass), std::nullopt);
  ASSERT_TRUE(found.ok()) << found.error().text();
  ASSERT_EQ(found.value().size(), 1u);
  EXPECT_EQ(found.value()[0]->sourceRevision(), fresh);
}

}  // namespace
}  // namespace kestrova
