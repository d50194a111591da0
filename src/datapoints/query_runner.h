// How the encoders that need more data (workouts, sleep, electrocardiograms) get their queries
// run: the caller decides where a query is registered so that it can be stopped, and on which
// store it executes. A plain value of two callables; copies share whatever they capture.
#pragma once

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <vector>

#include "platform/health/query.h"

namespace kestrova {

struct QueryRunner {
  // Registers the query in the running-query set and executes it on the health store. Called on
  // the thread of the family entry point, once per query.
  std::function<void(std::shared_ptr<Query>)> execute;
  // Optional: called on a store queue after the query's last handler call, so the caller can
  // drop it from its set. Not called for a query that was stopped before it answered.
  std::function<void(const std::shared_ptr<Query>&)> finished;

  void finish(const std::shared_ptr<Query>& query) const {
    if (finished) {
      finished(query);
    }
  }
};

// The data points of one delivery, in one call.
using DataPointsCompletion = std::function<void(std::vector<nlohmann::json> dataPoints)>;

}  // namespace kestrova
