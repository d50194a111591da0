// Sleep: one episode data point per in-bed sample, with the time spent in each stage during
// it, and one sleep-detail data point per stage sample of the episode, found by one query per
// episode. The per-delivery state is owned by the delivery's queries and guarded by its own
// mutex; see collectSleepEpisodes for the threads.
#pragma once

#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>
#include <vector>

#include "datapoints/query_runner.h"
#include "platform/dispatch.h"
#include "platform/health/sample.h"
#include "platform/platform.h"

namespace kestrova {

// The "sleep_stage_state" of a stage value, or none when the value gives no detail point (in
// bed, unknown values, and the newer stages on systems before 16.0). Core sleep is "light" on
// purpose.
std::optional<std::string_view> sleepStageName(int value, const SystemVersion& system);

// Seconds. The stage sums and the total count the time covered by at least one stage sample of
// that kind inside the episode: samples are clipped to the episode, and overlapping samples
// (two sources recording the same night) are counted once. The total is the time covered by
// any asleep stage (unspecified, core, deep, REM). Only stages that have a name on `system`
// count, so on older systems light, REM and deep stay zero.
struct SleepStageSums {
  double awake = 0;
  double light = 0;
  double rem = 0;
  double deep = 0;
  double totalSleepTime = 0;
};

SleepStageSums sumSleepStages(const Sample& episode, const std::vector<SamplePtr>& stages,
                              const SystemVersion& system);

// The episode's data point: "sleep-episode" (omh) when the four stage sums are all zero, else
// "sleep-episode-with-sleep-stages" (ks) with "sleep_stages_data".
nlohmann::json encodeSleepEpisode(const CategorySample& episode, const SleepStageSums& sums);

// None when the stage has no name on `system`.
std::optional<nlohmann::json> encodeSleepDetail(const CategorySample& stage,
                                                const SystemVersion& system);

// Starts one stage query per in-bed sample of the delivery through `runner` (on the calling
// thread); when all have answered, calls `completion` once on `completionQueue` with, per
// episode in delivery order, the episode's data point followed by its detail points in start
// order (a stage sample met in two overlapping episodes is sent once). Stage samples of the
// delivery itself give data points only through their episode's query. A failed query leaves
// its episode out and `allEpisodes` false; a stopped one means no completion at all.
using SleepCompletion =
    std::function<void(std::vector<nlohmann::json> dataPoints, bool allEpisodes)>;
void collectSleepEpisodes(const std::vector<SamplePtr>& samples, const SystemVersion& system,
                          const QueryRunner& runner, std::shared_ptr<DispatchQueue> completionQueue,
                          SleepCompletion completion);

}  // namespace kestrova
