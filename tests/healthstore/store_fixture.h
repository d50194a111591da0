// A store on a real file in a temporary directory, with a dispatcher of its own and a fixed
// device zone, plus helpers that build samples and wait for query results. Each fixture owns
// its store; results are handed over through futures.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "healthstore/embedded_health_store.h"
#include "support/test_support.h"

namespace kestrova::testing {

// Generous: results normally arrive in milliseconds.
inline constexpr std::chrono::seconds kWait{10};

inline SourceRevision phone() {
  return SourceRevision{
      Source{"Phone", "com.apple.health.phone"}, "17.4", "iPhone15,2", {17, 4, 0}};
}
inline SourceRevision watch() {
  return SourceRevision{Source{"Watch", "com.apple.health.watch"}, "10.4", "Watch6,7", {10, 4, 0}};
}
inline SourceRevision app(std::string bundle) {
  return SourceRevision{Source{"App", std::move(bundle)}, "1.0", std::nullopt, {}};
}

inline ObjectType quantityType(std::string_view identifier) {
  return ObjectType::quantityType(identifier).value();
}

inline SamplePtr quantitySample(std::string_view identifier, double value, std::string_view unit,
                                Date start, Date end, SourceRevision source = phone(),
                                Metadata metadata = {}) {
  SampleProperties properties;
  properties.startDate = start;
  properties.endDate = end;
  properties.sourceRevision = std::move(source);
  properties.metadata = std::move(metadata);
  return QuantitySample::make(quantityType(identifier),
                              Quantity(Unit::fromString(unit).value(), value),
                              std::move(properties))
      .value();
}

inline SamplePtr categorySample(std::string_view identifier, int value, Date start, Date end) {
  SampleProperties properties;
  properties.startDate = start;
  properties.endDate = end;
  properties.sourceRevision = phone();
  return CategorySample::make(ObjectType::categoryType(identifier).value(), value,
                              std::move(properties))
      .value();
}

class StoreFixture : public ::testing::Test {
 protected:
  void SetUp() override { store_ = openStore(); }

  std::shared_ptr<EmbeddedHealthStore> openStore(std::shared_ptr<Clock> clock = nullptr) {
    EmbeddedHealthStoreOptions options;
    options.clock = std::move(clock);
    options.path = dir_.path() / "health.sqlite";
    options.dispatcher = dispatcher_;
    options.timeZone = makeFixedTimeZoneSource(TimeZone::named("Europe/Berlin").value());
    options.changePollInterval = std::chrono::milliseconds(10);
    auto store = EmbeddedHealthStore::open(std::move(options));
    EXPECT_TRUE(store.ok()) << (store.ok() ? "" : store.error().text());
    return store.ok() ? store.value() : nullptr;
  }

  void save(std::vector<SamplePtr> samples) {
    Result<std::size_t> saved = store_->saveObjects(samples);
    ASSERT_TRUE(saved.ok()) << saved.error().text();
    ASSERT_EQ(saved.value(), samples.size());
  }

  Result<AnchoredObjectResults> anchored(const ObjectType& type, std::optional<QueryAnchor> anchor,
                                         std::optional<Predicate> predicate = std::nullopt,
                                         std::size_t limit = 0) {
    std::promise<Result<AnchoredObjectResults>> promise;
    store_->executeQuery(
        AnchoredObjectQuery::make(type, std::move(predicate), anchor, limit,
                                  [&](const auto&, Result<AnchoredObjectResults> results) {
                                    promise.set_value(std::move(results));
                                  }));
    return wait(promise);
  }

  Result<std::vector<SamplePtr>> samples(const ObjectType& type, std::optional<Predicate> predicate,
                                         std::size_t limit = 0,
                                         std::vector<SortDescriptor> sort = {}) {
    std::promise<Result<std::vector<SamplePtr>>> promise;
    store_->executeQuery(
        SampleQuery::make(type, std::move(predicate), limit, std::move(sort),
                          [&](const auto&, Result<std::vector<SamplePtr>> results) {
                            promise.set_value(std::move(results));
                          }));
    return wait(promise);
  }

  Result<StatisticsCollection> collection(std::string_view identifier, StatisticsOptions options,
                                          Date anchor, DateComponents interval,
                                          std::optional<Predicate> predicate = std::nullopt) {
    std::promise<Result<StatisticsCollection>> promise;
    store_->executeQuery(StatisticsCollectionQuery::make(
        quantityType(identifier), std::move(predicate), options, anchor, interval,
        [&](const auto&, Result<StatisticsCollection> results) {
          promise.set_value(std::move(results));
        }));
    return wait(promise);
  }

  template <class T>
  static T wait(std::promise<T>& promise) {
    std::future<T> future = promise.get_future();
    if (future.wait_for(kWait) != std::future_status::ready) {
      ADD_FAILURE() << "no result within " << kWait.count() << " s";
      std::abort();
    }
    return future.get();
  }

  TempDir dir_;
  std::shared_ptr<Dispatcher> dispatcher_ = makeDispatcher();
  std::shared_ptr<EmbeddedHealthStore> store_;
};

}  // namespace kestrova::testing
