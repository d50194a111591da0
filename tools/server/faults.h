// Fault injection of the reference back end: what the server does to an API request instead
// of (or before) answering it. A FaultPlan is a plain value; the server's copy is owned by the
// server's fault mutex.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "platform/result.h"

namespace kestrova::server {

struct Fault {
  enum class Kind { pass, status, delay, drop };
  Kind kind = Kind::pass;
  int status = 0;                      // for Kind::status: the code answered, nothing stored
  std::chrono::milliseconds delay{0};  // for Kind::delay: wait, then answer as usual
  // For Kind::status 429 and 503: the Retry-After seconds answered (1 when absent).
  std::optional<int> retryAfter;

  // "pass", a status code such as "503", "503:retry-after=2", "delay:1500" (milliseconds) or
  // "drop".
  static Result<Fault> parse(std::string_view text);
  std::string text() const;
  bool operator==(const Fault&) const = default;
};

// The members of a fault plan's JSON form, as the admin endpoint takes and reports it.
inline constexpr std::string_view kScriptKey = "script";
inline constexpr std::string_view kRateKey = "rate";
inline constexpr std::string_view kRateFaultKey = "rate_fault";
inline constexpr std::string_view kMixKey = "rates";
inline constexpr std::string_view kMixFaultKey = "fault";
inline constexpr std::string_view kMixProbabilityKey = "p";
inline constexpr std::string_view kSeedKey = "seed";
inline constexpr std::string_view kPathPrefixKey = "path_prefix";

// A fault met with a probability of its own.
struct WeightedFault {
  Fault fault;
  double probability = 0.0;
  bool operator==(const WeightedFault&) const = default;
};

// A script of faults applied to the next API requests, one each, in order; once it is used up,
// each request meets `rateFault` with probability `rate`, or one of the `mix` faults with its
// own probability; the probabilities together are at most 1 (the draws come from `seed`, so a
// run can be repeated).
struct FaultPlan {
  std::deque<Fault> script;
  double rate = 0.0;
  Fault rateFault{Fault::Kind::status, 500, {}, {}};
  std::vector<WeightedFault> mix;
  std::uint64_t seed = 1;
  // When not empty, only requests whose path begins with it meet faults (or use up the
  // script); the others pass.
  std::string pathPrefix;

  bool appliesTo(std::string_view path) const { return path.starts_with(pathPrefix); }

  // A comma-separated script, e.g. "500,drop,delay:1500,pass".
  static Result<std::deque<Fault>> parseScript(std::string_view text);
  // A comma-separated mix of FAULT=PROBABILITY, e.g. "500=0.15,503=0.15,drop=0.03,delay:2500=0.02";
  // refused when a probability is outside 0...1 or they add up to more than 1.
  static Result<std::vector<WeightedFault>> parseMix(std::string_view text);
  // {"script": ["503", "drop"] or "503,drop", "rate": 0.1, "rate_fault": "503",
  //  "rates": [{"fault": "500", "p": 0.15}, ...] or "500=0.15,...", "seed": 7,
  //  "path_prefix": "/api/v1.3/ingest/"}; every member is optional.
  static Result<FaultPlan> fromJson(const nlohmann::json& json);
  nlohmann::json toJson() const;
  // Why the rate and the mix cannot be drawn from (together above 1), or nothing.
  std::optional<Error> probabilityError() const;
};

// The plan in force and its random source. Not thread-safe: the server guards it with a mutex.
class FaultInjector {
 public:
  explicit FaultInjector(FaultPlan plan = {}) { reset(std::move(plan)); }
  void reset(FaultPlan plan);
  const FaultPlan& plan() const { return plan_; }
  // The fault for the next API request.
  Fault next();

 private:
  FaultPlan plan_;
  std::mt19937_64 random_;
};

}  // namespace kestrova::server
