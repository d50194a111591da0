#include "server/faults.h"

#include <gtest/gtest.h>

namespace kestrova::server {
namespace {

using namespace std::chrono_literals;

Fault status(int code, std::optional<int> retryAfter = std::nullopt) {
  return Fault{Fault::Kind::status, code, {}, retryAfter};
}

TEST(FaultPlan, ParsesEveryKindInOrderAndRefusesBadTextsAndValues) {
  const Fault drop{Fault::Kind::drop, 0, {}, {}};
  EXPECT_EQ(FaultPlan::parseScript("pass,drop,delay:1500, 429 ,503:retry-after=2").value(),
            (std::deque<Fault>{Fault{}, drop, Fault{Fault::Kind::delay, 0, 1500ms, {}}, status(429),
                               status(503, 2)}));
  for (const char* bad : {"", "delay:", "delay:-5", "delay:1s", "99", "600", "5o3", "dropped",
                          "503:retry-after=", "503:retry-after=-1"}) {
    EXPECT_FALSE(Fault::parse(bad)) << bad;
  }
  EXPECT_FALSE(FaultPlan::parseScript("500,,503"));

  auto plan = FaultPlan::fromJson(nlohmann::json::parse(
      R"({"script": [500, "drop"], "rate": 0.25, "rate_fault": "429", "seed": 7,
          "rates": [{"fault": "delay:2500", "p": 0.02}], "path_prefix": "/api/v1.3/ingest/"})"));
  ASSERT_TRUE(plan) << plan.error().description;
  EXPECT_EQ(plan->script, (std::deque<Fault>{status(500), drop}));
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
