#include "server/faults.h"

#include <gtest/gtest.h>

namespace kestrova::server {
namespace {

using namespace std::chrono_literals;

Fault status(int code, std::optional<int> retryAfter = std::nullopt) {
  return Fault{Fault::Kind::status, code, {}, retryAfter};
}

TEST(FaultText, ParsesEveryKindAndRefusesTheRest) {
  const std::vector<std::pair<std::string, Fault>> good = {
      {"pass", Fault{}},
      {"drop", Fault{Fault::Kind::drop, 0, {}, {}}},
      {"delay:1500", Fault{Fault::Kind::delay, 0, 1500ms, {}}},
      {" 429 ", status(429)},
      {"503:retry-after=2", status(503, 2)},
  };
  for (const auto& [text, expected] : good) {
    auto parsed = Fault::parse(text);
    ASSERT_TRUE(parsed) << text << ": " << parsed.error().description;
    EXPECT_EQ(*parsed, expected) << text;
  }
  for (const char* bad : {"", "delay:", "delay:-5", "delay:1s", "99", "600", "5o3", "dropped",
                          "503:retry-after=", "503:retry-after=-1"}) {
    EXPECT_FALSE(Fault::parse(bad)) << bad;
  }
  // A script keeps its order and fails as a whole.
  EXPECT_EQ(FaultPlan::parseScript("500,drop,503:retry-after=0").value(),
            (std::deque<Fault>{status(500), Fault{Fault::Kind::drop, 0, {}, {}}, status(503, 0)}));
  EXPECT_FALSE(FaultPlan::parseScript("500,,503"));
}

TEST(FaultPlanJson, ReadsEveryMemberAndRefusesBadValues) {
  auto plan = FaultPlan::fromJson(nlohmann::json::parse(
      R"({"script": [500, "drop"], "rate": 0.25, "rate_fault": "429", "seed": 7,
          "rates": [{"fault": "delay:2500", "p": 0.02}], "path_prefix": "/api/v1.3/ingest/"})"));
  ASSERT_TRUE(plan) << plan.error().description;
  EXPECT_EQ(plan->script, (std::deque<Fault>{status(500), Fault{Fault::Kind::drop, 0, {}, {}}}));
  EXPECT_EQ(plan->rate, 0.25);
  EXPECT_EQ(plan->rateFault, status(429));
  EXPECT_EQ(plan->mix,
            (std::vector<WeightedFault>{{Fault{Fault::Kind::delay, 0, 2500ms, {}}, 0.02}}));
  EXPECT_EQ(plan->seed, 7u);
  EXPECT_TRUE(plan->appliesTo("/api/v1.3/ingest/bulk/"));
  EXPECT_FALSE(plan->appliesTo("/api/v1.3/profile/p/"));
  for (const char* bad : {R"([])", R"({"rate": 1.5})", R"({"script": ["nope"]})", R"({"seed": -1})",
                          R"({"rate": 0.6, "rates": "503=0.5"})", R"({"rates": "500=nan"})"}) {
    EXPECT_FALSE(FaultPlan::fromJson(nlohmann::json::parse(bad))) << bad;
  }
}

}  // namespace
}  // namespace kestrova::server
