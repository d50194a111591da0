// Category samples (mindful sessions) in the generic category-sample schema. Pure functions:
// thread-safe.
#pragma once

#include <nlohmann/json.hpp>
#include <vector>

#include "platform/health/sample.h"

namespace kestrova {

// The body: time frame, type identifier, the value as decimal text (deliberately a string:
// the back end's schema types it so) and the metadata list.
nlohmann::json encodeCategorySample(const CategorySample& sample);

// The data points of one delivery, in delivery order; samples of another kind are skipped.
// Runs on the caller's thread.
std::vector<nlohmann::json> encodeMindfulSessions(const std::vector<SamplePtr>& samples);

}  // namespace kestrova
