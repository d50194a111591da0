// Observer queries on a real store file: one delivery per committed change of a watched type,
// background delivery acknowledgements, and a second process writing the same file.
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>

#include <condition_variable>
#include <deque>
#include <mutex>

#include "store_fixture.h"

extern char** environ;

namespace kestrova {
namespace {

using testing::kWait;
using testing::quantitySample;
using testing::quantityType;
using testing::StoreFixture;
using testing::utc;

constexpr std::string_view kBodyMass = "HKQuantityTypeIdentifierBodyMass";

struct Delivery {
  std::vector<std::string> changedTypes;
  ObserverCompletionHandler completion;
};

// Collects observer deliveries; the test thread waits for them with a generous timeout.
class Deliveries {
 public:
  ObserverQuery::UpdateHandler handler() {
    return [this](const auto&, const std::vector<ObjectType>& types,
                  ObserverCompletionHandler completion, const std::optional<Error>& error) {
      EXPECT_FALSE(error.has_value());
      Delivery delivery{{}, std::move(completion)};
      for (const ObjectType& type : types) {
        delivery.changedTypes.emplace_back(type.identifier());
      }
      std::lock_guard lock(mutex_);
      received_.push_back(std::move(delivery));
      arrived_.notify_all();
    };
  }

  // The next delivery; fails the test when none comes.
  Delivery next() {
    std::unique_lock lock(mutex_);
    if (!arrived_.wait_for(lock, kWait, [&] { return !received_.empty(); })) {
      ADD_FAILURE() << "no observer delivery";
      return {};
    }
    Delivery delivery = std::move(received_.front());
    received_.pop_front();
    return delivery;
  }

  std::size_t pending() const {
    std::lock_guard lock(mutex_);
    return received_.size();
  }

 private:
  mutable std::mutex mutex_;  // owns received_
  std::condition_variable arrived_;
  std::deque<Delivery> received_;
};

using StoreObservers = StoreFixture;

TEST_F(StoreObservers, FireOncePerCommittedChangeOfAMatchingType) {
  const ObjectType mass = quantityType(kBodyMass);
  const ObjectType steps = quantityType(kStepCountIdentifier);
  const Date start = utc(2024, 1, 1);
  // Step counts are the sentinel: a save of steps after the writes under test must be the
  // very next delivery, which proves those writes delivered exactly what was expected
  // (deliveries come in commit order).
  Deliveries deliveries;
  auto query = ObserverQuery::make(
      {QueryDescriptor{mass,
                       predicateForSamples(start, std::nullopt, QueryOptions::strictStartDate)},
       QueryDescriptor{steps, std::nullopt}},
      deliveries.handler());
  store_->executeQuery(query);
  EXPECT_EQ(deliveries.next().changedTypes.size(), 2u);

  const std::vector<std::string> massChanged{std::string(kBodyMass)};
  const std::vector<std::string> stepsChanged{std::string(kStepCountIdentifier)};
  const auto massAt = [&](int day) {
    return quantitySample(kBodyMass, 70, "kg", utc(2024, 1, day), utc(2024, 1, day));
  };
  // Two samples in one transaction: one delivery.
  const SamplePtr second = massAt(3);
  save({massAt(2), second});
  EXPECT_EQ(deliveries.next().changedTypes, massChanged);
  // Another type, and the watched type before the predicate's start: nothing.
  save({quantitySample(kHeartRateIdentifier, 61, "count/min", utc(2024, 1, 2), utc(2024, 1, 2))});
  save({quantitySample(kBodyMass, 69, "kg", utc(2023, 6, 1), utc(2023, 6, 1))});
  save({quantitySample(kStepCountIdentifier, 10, "count", utc(2024, 1, 2), utc(2024, 1, 2))});
  EXPECT_EQ(deliveries.next().changedTypes, stepsChanged);
  // A deletion wakes the observer too.
  ASSERT_EQ(store_->deleteObjects({second->uuid()}).value(), 1u);
  EXPECT_EQ(deliveries.next().changedTypes, massChanged);

  // After stopQuery nothing more is delivered; a second observer proves the save was
  // scanned, and the stop came before it.
  store_->stopQuery(query);
  Deliveries other;
  store_->executeQuery(ObserverQuery::make(mass, std::nullopt, other.handler()));
  other.next();
  save({massAt(5)});
  other.next();
  EXPECT_EQ(deliveries.pending(), 0u);
}

TEST_F(StoreObservers, BackgroundDeliveryRegistrationsTrackAcknowledgements) {
  const ObjectType mass = quantityType(kBodyMass);
  const ObjectType steps = quantityType(kStepCountIdentifier);
  const auto enable = [&](const ObjectType& type) {
    std::promise<bool> done;
    store_->enableBackgroundDelivery(type, UpdateFrequency::immediate,
                                     [&](bool success, auto) { done.set_value(success); });
    return wait(done);
  };
  EXPECT_TRUE(enable(mass));
  // Step counts are delivered at most hourly, whatever was asked for.
  EXPECT_TRUE(enable(steps));
  EXPECT_EQ(store_->backgroundDeliveryRegistration(steps)->frequency, UpdateFrequency::hourly);

  Deliveries deliveries;
  store_->executeQuery(ObserverQuery::make(mass, std::nullopt, deliveries.handler()));
  deliveries.next();  // left unacknowledged
  for (int day = 1; day <= 2; ++day) {
    save({quantitySample(kBodyMass, 70, "kg", utc(2024, 1, day), utc(2024, 1, day))});
    deliveries.next();
  }
  EXPECT_EQ(store_->backgroundDeliveryRegistration(mass)->unacknowledgedDeliveries, 3);
  save({quantitySample(kBodyMass, 70, "kg", utc(2024, 1, 3), utc(2024, 1, 3))});
  Delivery fourth = deliveries.next();
  EXPECT_TRUE(store_->backgroundDeliveryRegistration(mass)->suspended);
  fourth.completion();
  fourth.completion();  // harmless
  EXPECT_EQ(store_->backgroundDeliveryRegistration(mass)->unacknowledgedDeliveries, 0);

  std::promise<bool> disabled;
  store_->disableAllBackgroundDelivery([&](bool success, auto) { disabled.set_value(success); });
  EXPECT_TRUE(wait(disabled));
  EXPECT_FALSE(store_->backgroundDeliveryRegistration(mass));
}

TEST_F(StoreObservers, ASecondProcessWritingTheFileWakesTheObserver) {
  const ObjectType mass = quantityType(kBodyMass);
  const ObjectType steps = quantityType(kStepCountIdentifier);
  Deliveries deliveries;
  store_->executeQuery(ObserverQuery::make(
      {QueryDescriptor{mass, std::nullopt}, QueryDescriptor{steps, std::nullopt}},
      deliveries.handler()));
  deliveries.next();

  const std::string file = (dir_.path() / "health.sqlite").string();
  const char* writer = KESTROVA_STORE_WRITER;
  std::vector<char*> arguments{const_cast<char*>(writer), const_cast<char*>(file.c_str()),
                               const_cast<char*>("3"), nullptr};
  pid_t child = 0;
  ASSERT_EQ(posix_spawn(&child, writer, nullptr, nullptr, arguments.data(), environ), 0);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

  // One transaction in the other process: one delivery here, and the samples are readable.
  EXPECT_EQ(deliveries.next().changedTypes, std::vector<std::string>{std::string(kBodyMass)});
  EXPECT_EQ(anchored(mass, std::nullopt).value().samples.size(), 3u);
  // Our own next write is the next delivery: the other process's commit was reported once.
  save({quantitySample(kStepCountIdentifier, 10, "count", utc(2024, 1, 1), utc(2024, 1, 1))});
  EXPECT_EQ(deliveries.next().changedTypes,
            std::vector<std::string>{std::string(kStepCountIdentifier)});
}

}  // namespace
}  // namespace kestrova
