#include "datapoints/electrocardiogram.h"

#include <mutex>
#include <string_view>
#include <variant>

#include "datapoints/envelope.h"
#include "datapoints/log_texts.h"
#include "datapoints/schema_id.h"
#include "platform/dispatch_group.h"
#include "platform/health/query.h"
#include "platform/log.h"

namespace kestrova {
namespace {

inline constexpr std::string_view kKeySampleFrequency = "sample_frequency";
inline constexpr std::string_view kKeySampleCount = "sample_count";
inline constexpr std::string_view kKeyData = "data";
inline constexpr std::string_view kKeyTime = "time";

// One recording's query. Owned by `mutex`: the store calls the handler one result at a time,
// but nothing in the query's contract says on one thread.
struct VoltageReading {
  std::mutex mutex;
  std::vector<VoltagePoint> trace;
  // Emptied once called, so that nothing the store may still send calls it twice.
  VoltagesCompletion completion;
};

// One delivery. `recordings` is fixed at creation; `points` is owned by `mutex`.
struct ElectrocardiogramBatch {
  std::vector<std::shared_ptr<const Electrocardiogram>> recordings;
  std::mutex mutex;
  std::vector<std::optional<nlohmann::json>> points;
};

}  // namespace

void readVoltages(std::shared_ptr<const Electrocardiogram> electrocardiogram,
                  const QueryRunner& runner, VoltagesCompletion completion) {
  auto reading = std::make_shared<VoltageReading>();
  reading->completion = std::move(completion);
  const auto finished = runner.finished;
  runner.execute(ElectrocardiogramQuery::make(
      std::move(electrocardiogram),
      [reading, finished](const std::shared_ptr<ElectrocardiogramQuery>& query,
                          const ElectrocardiogramQueryResult& result) {
        std::optional<std::vector<VoltagePoint>> outcome;
        VoltagesCompletion completion;
        {
          std::lock_guard lock(reading->mutex);
          if (!reading->completion) {
            return;
          }
          if (const auto* measurement = std::get_if<VoltageMeasurement>(&result)) {
            const std::optional<Quantity> leadI =
                measurement->quantity(ElectrocardiogramLead::appleWatchSimilarToLeadI);
            if (leadI) {
              if (Result<double> volts = leadI->doubleValue(Unit::volt())) {
                reading->trace.push_back(
                    VoltagePoint{measurement->timeSinceSampleStart, volts.value()});
              }
            }
            return;
          }
          if (const auto* error = std::get_if<Error>(&result)) {
            logError(kDataPointsLogCategory, kLogVoltageQueryFailed, {error->text()});
          } else {
            outcome = std::move(reading->trace);
          }
          reading->trace.clear();
          completion = std::move(reading->completion);
          reading->completion = nullptr;
        }
        if (finished) {
          finished(query);
        }
        completion(std::move(outcome));
      }));
}

nlohmann::json encodeElectrocardiogram(const Electrocardiogram& electrocardiogram,
                                       const std::vector<VoltagePoint>& trace) {
  nlohmann::json data = nlohmann::json::array();
  for (const VoltagePoint& point : trace) {
    data.push_back(nlohmann::json{{kKeyTime, point.time}, {kKeyValue, point.value}});
  }
  nlohmann::json body{{kKeyEffectiveTimeFrame, makeEffectiveTimeFrame(electrocardiogram)},
                      {kKeySampleCount, electrocardiogram.numberOfVoltageMeasurements()},
                      {kKeyData, std::move(data)}};
  if (const auto& frequency = electrocardiogram.samplingFrequency()) {
    if (Result<double> hertz = frequency->doubleValue(Unit::hertz())) {
      body[kKeySampleFrequency] = hertz.value();
    }
  }
  return makeDataPoint(makeHeader(kSchemaElectrocardiogram, electrocardiogram), std::move(body));
}

void collectElectrocardiograms(const std::vector<SamplePtr>& samples, const QueryRunner& runner,
                               std::shared_ptr<DispatchQueue> completionQueue,
                               DataPointsCompletion completion) {
  auto batch = std::make_shared<ElectrocardiogramBatch>();
  for (const SamplePtr& sample : samples) {
    if (auto recording = std::dynamic_pointer_cast<const Electrocardiogram>(sample)) {
      batch->recordings.push_back(std::move(recording));
    }
  }
  batch->points.resize(batch->recordings.size());
  // The group lives outside the batch: its pending notification holds the batch, so a batch
  // holding the group would keep itself alive for ever when a query is stopped unanswered.
  auto group = std::make_shared<DispatchGroup>();
  // Every query enters the group before any starts, so an early answer cannot empty it.
  for (std::size_t i = 0; i < batch->recordings.size(); ++i) {
    group->enter();
  }
  for (std::size_t index = 0; index < batch->recordings.size(); ++index) {
    readVoltages(batch->recordings[index], runner,
                 [batch, group, index](std::optional<std::vector<VoltagePoint>> trace) {
                   if (trace) {
                     nlohmann::json point =
                         encodeElectrocardiogram(*batch->recordings[index], *trace);
                     std::lock_guard lock(batch->mutex);
                     batch->points[index] = std::move(point);
                   }
                   group->leave();
                 });
  }
  group->notify(std::move(completionQueue), [batch, completion = std::move(completion)] {
    std::vector<nlohmann::json> points;
    {
      std::lock_guard lock(batch->mutex);
      for (std::optional<nlohmann::json>& point : batch->points) {
        if (point) {
          points.push_back(std::move(*point));
        }
      }
      batch->points.clear();
    }
    completion(std::move(points));
  });
}

}  // namespace kestrova
