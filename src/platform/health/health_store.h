// The health store as the library sees it: availability, read authorisation, queries, and
// background delivery. Implementations own their state behind their own queues and may be
// called from any thread; every handler and completion comes on one of the store's background
// queues, never on the calling thread before the call returns.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <set>

#include "platform/health/object_type.h"
#include "platform/health/query.h"
#include "platform/result.h"

namespace kestrova {

// Raw values as HKUpdateFrequency.
enum class UpdateFrequency : int { immediate = 1, hourly = 2, daily = 3, weekly = 4 };

// (success, error): the shape of the platform's store completions.
using HealthStoreCompletion = std::function<void(bool success, std::optional<Error> error)>;

class HealthStore {
 public:
  virtual ~HealthStore() = default;

  virtual bool isHealthDataAvailable() const = 0;
  // Asks for permission to write `toShare` and read `read`. Success means the request was
  // handled, not that it was granted: as on the platform, a denied read looks like no data.
  virtual void requestAuthorization(std::set<ObjectType> toShare, std::set<ObjectType> read,
                                    HealthStoreCompletion completion) = 0;

  // Starts the query; its handlers report results and errors. Executing a query that runs
  // already does nothing.
  virtual void executeQuery(std::shared_ptr<Query> query) = 0;
  // Ends a running query: no handler of it is called after stopQuery returns, except one
  // already running. Stopping a query that does not run does nothing.
  virtual void stopQuery(const std::shared_ptr<Query>& query) = 0;

  virtual void enableBackgroundDelivery(ObjectType type, UpdateFrequency frequency,
                                        HealthStoreCompletion completion) = 0;
  virtual void disableBackgroundDelivery(ObjectType type, HealthStoreCompletion completion) = 0;
  // Succeeds also when nothing was enabled.
  virtual void disableAllBackgroundDelivery(HealthStoreCompletion completion) = 0;
};

}  // namespace kestrova
