// Electrocardiograms: one data point per recording with the full trace of lead I in volts,
// read by one voltage query per recording. The per-recording and per-delivery state is owned
// by the queries' handlers and guarded by its own mutex; see the functions for the threads.
#pragma once

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <vector>

#include "datapoints/query_runner.h"
#include "platform/dispatch.h"
#include "platform/health/sample.h"

namespace kestrova {

struct VoltagePoint {
  // Seconds from the start of the recording.
  double time = 0;
  // Lead I, volts.
  double value = 0;

  friend bool operator==(const VoltagePoint&, const VoltagePoint&) = default;
};

// The trace in the order delivered, or none when the query reported an error (logged as
// "Error querying ECG sample: %@").
using VoltagesCompletion = std::function<void(std::optional<std::vector<VoltagePoint>> trace)>;

// Runs one voltage query for `electrocardiogram` through `runner` (on the calling thread) and
// calls `completion` once, on the store's queue, when the query ends. Only lead I is read; a
// measurement without it is skipped. A stopped query never calls `completion`.
void readVoltages(std::shared_ptr<const Electrocardiogram> electrocardiogram,
                  const QueryRunner& runner, VoltagesCompletion completion);

// "sample_frequency" (hertz) only when the recording has one; "sample_count" is the recording's
// own count, "data" the trace as given.
nlohmann::json encodeElectrocardiogram(const Electrocardiogram& electrocardiogram,
                                       const std::vector<VoltagePoint>& trace);

// Reads every recording of one delivery at the same time (one query each), then calls
// `completion` once on `completionQueue` with the data points in delivery order, also for an
// empty delivery. A recording whose query failed is left out; samples of other kinds are
// ignored.
void collectElectrocardiograms(const std::vector<SamplePtr>& samples, const QueryRunner& runner,
                               std::shared_ptr<DispatchQueue> completionQueue,
                               DataPointsCompletion completion);

}  // namespace kestrova
