// A real embedded store on a temporary file for the encoders that query it, a runner that
// executes on it and counts finished queries, and a wait for one completion. Each fixture owns
// its store; the completion is handed over through a promise.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <vector>

#include "datapoints/datapoint_test_support.h"
#include "datapoints/query_runner.h"
#include "healthstore/embedded_health_store.h"

namespace kestrova::testing {

// Generous: answers normally come in milliseconds.
inline constexpr std::chrono::seconds kWait{10};

class StoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const auto platform = currentPlatform();
    ASSERT_TRUE(platform);
    EmbeddedHealthStoreOptions options;
    options.path = directory_.path() / "health.sqlite";
    options.dispatcher = platform->dispatcher;
    options.clock = platform->clock;
    options.timeZone = platform->timeZone;
    auto opened = EmbeddedHealthStore::open(std::move(options));
    ASSERT_TRUE(opened.ok()) << opened.error().text();
    store_ = opened.value();
    queue_ = platform->dispatcher->makeSerialQueue("test.datapoints.completion",
                                                   QualityOfService::standard);
  }

  void save(const std::vector<SamplePtr>& samples) {
    Result<std::size_t> saved = store_->saveObjects(samples);
    ASSERT_TRUE(saved.ok()) << saved.error().text();
  }

  QueryRunner runner() {
    std::weak_ptr<EmbeddedHealthStore> store = store_;
    return QueryRunner{[store, this](std::shared_ptr<Query> query) {
                         ++executed_;
                         if (auto strong = store.lock()) {
                           strong->executeQuery(std::move(query));
                         }
                       },
                       [this](const std::shared_ptr<Query>&) { ++finished_; }};
  }

  // Starts the collection with a completion that fulfils a promise, and waits for it. None when
  // no completion came in time; a second completion fails the test.
  template <class Start>
  std::optional<std::vector<nlohmann::json>> collect(Start start) {
    auto promise = std::make_shared<std::promise<std::vector<nlohmann::json>>>();
    auto calls = std::make_shared<std::atomic<int>>(0);
    start(runner(), queue_, [promise, calls, queue = queue_](std::vector<nlohmann::json> points) {
      EXPECT_TRUE(queue->isCurrent());
      if (calls->fetch_add(1) == 0) {
        promise->set_value(std::move(points));
      } else {
        ADD_FAILURE() << "completion called more than once";
      }
    });
    auto future = promise->get_future();
    if (future.wait_for(kWait) != std::future_status::ready) {
      return std::nullopt;
    }
    return future.get();
  }

  TempDir directory_;
  std::shared_ptr<EmbeddedHealthStore> store_;
  std::shared_ptr<DispatchQueue> queue_;
  std::atomic<int> executed_{0};
  std::atomic<int> finished_{0};
};

}  // namespace kestrova::testing
