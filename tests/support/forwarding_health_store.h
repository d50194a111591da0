// A health store that passes every call to another one: tests derive from it and override
// only the calls whose answers they change.
#pragma once

#include <memory>
#include <set>
#include <utility>

#include "platform/health/health_store.h"

namespace kestrova::testing {

class ForwardingHealthStore : public HealthStore {
 public:
  explicit ForwardingHealthStore(std::shared_ptr<HealthStore> store) : store_(std::move(store)) {}

  bool isHealthDataAvailable() const override { return store_->isHealthDataAvailable(); }
  void requestAuthorization(std::set<ObjectType> share, std::set<ObjectType> read,
                            HealthStoreCompletion completion) override {
    store_->requestAuthorization(std::move(share), std::move(read), std::move(completion));
  }
  void executeQuery(std::shared_ptr<Query> query) override {
    store_->executeQuery(std::move(query));
  }
  void stopQuery(const std::shared_ptr<Query>& query) override { store_->stopQuery(query); }
  void enableBackgroundDelivery(ObjectType type, UpdateFrequency frequency,
                                HealthStoreCompletion completion) override {
    store_->enableBackgroundDelivery(type, frequency, std::move(completion));
  }
  void disableBackgroundDelivery(ObjectType type, HealthStoreCompletion completion) override {
    store_->disableBackgroundDelivery(type, std::move(completion));
  }
  void disableAllBackgroundDelivery(HealthStoreCompletion completion) override {
    store_->disableAllBackgroundDelivery(std::move(completion));
  }

 protected:
  const std::shared_ptr<HealthStore>& store() const { return store_; }

 private:
  std::shared_ptr<HealthStore> store_;
};

}  // namespace kestrova::testing
