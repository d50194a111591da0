#include "server/faults.h"

#include <gtest/gtest.h>

namespace kestrova::server {
namespace {

using namespace std::chrono_literals;

TEST(FaultText, ParsesEveryKindAndRefusesTheRest) {
  const std::vector<std::pair<std::string, Fault>> good = {
      {"pass", Fault{}},
      {"drop", Fault{Fault::Kind::drop, 0, {}}},
      {"delay:1500", Fault{Fault::Kind::delay, 0, 1500ms}},
      {"delay:0", Fault{Fault::Kind::delay, 0, 0ms}},
      {"503", Fault{Fault::Kind::status, 503, {}}},
      {" 429 ", Fault{Fault::Kind::status, 429, {}}},
  };
  for (const auto& [text, expected] : good) {
    auto parsed = Fault::parse(text);
    ASSERT_TRUE(parsed) << text << ": " << parsed.error().description;
    EXPECT_EQ(*parsed, expected) << text;
    // What a plan reports parses back to the same fault.
    EXPECT_EQ(*Fault::parse(parsed->text()), expected) << text;
  }
  for (const char* bad : {"", "delay:", "delay:-5", "delay:1s", "99", "600", "5o3", "dropped"}) {
    EXPECT_FALSE(Fault::parse(bad)) << bad;
  }
}

TEST(FaultText, ScriptKeepsItsOrderAndFailsAsAWhole) {
  auto script = FaultPlan::parseScript("500,drop,delay:20,pass,403");
  ASSERT_TRUE(script);
  std::vector<std::string> texts;
  for (const auto& fault : *script) {
    texts.push_back(fault.text());
  }
  EXPECT_EQ(texts, (std::vector<std::string>{"500", "drop", "delay:20", "pass", "403"}));
  EXPECT_TRUE(FaultPlan::parseScript("")->empty());
  EXPECT_FALSE(FaultPlan::parseScript("500,,503"));
  EXPECT_FALSE(FaultPlan::parseScript("500,oops"));
}

TEST(FaultPlanJson, ReadsEveryMemberAndRefusesBadValues) {
  auto plan = FaultPlan::fromJson(
      nlohmann::json::parse(R"({"script": [500, "drop"], "rate": 0.25, "rate_fault": "429",
                                "seed": 7})"));
  ASSERT_TRUE(plan) << plan.error().description;
  ASSERT_EQ(plan->script.size(), 2u);
  EXPECT_EQ(plan->script[0], (Fault{Fault::Kind::status, 500, {}}));
  EXPECT_EQ(plan->script[1].kind, Fault::Kind::drop);
  EXPECT_EQ(plan->rate, 0.25);
  EXPECT_EQ(plan->rateFault, (Fault{Fault::Kind::status, 429, {}}));
  EXPECT_EQ(plan->seed, 7u);
  // Its own report reads back as the same plan.
  auto again = FaultPlan::fromJson(plan->toJson());
  ASSERT_TRUE(again);
  EXPECT_EQ(again->toJson(), plan->toJson());

  EXPECT_TRUE(FaultPlan::fromJson(nlohmann::json::parse(R"({"script": "503,pass"})")));
  for (const char* bad :
       {R"([])", R"({"rate": 1.5})", R"({"rate": "half"})", R"({"script": 503})",
        R"({"script": ["nope"]})", R"({"rate_fault": "later"})", R"({"seed": -1})"}) {
    EXPECT_FALSE(FaultPlan::fromJson(nlohmann::json::parse(bad))) << bad;
  }
}

TEST(FaultInjectorOrder, ScriptFirstThenTheRateWithRepeatableDraws) {
  FaultPlan plan;
  plan.script = *FaultPlan::parseScript("500,drop");
  plan.rate = 0.5;
  plan.rateFault = Fault{Fault::Kind::status, 503, {}};
  plan.seed = 42;
  FaultInjector first(plan);
  FaultInjector second(plan);
  EXPECT_EQ(first.next(), (Fault{Fault::Kind::status, 500, {}}));
  EXPECT_EQ(first.next().kind, Fault::Kind::drop);
  second.next();
  second.next();
  int hits = 0;
  for (int i = 0; i < 400; ++i) {
    const Fault drawn = first.next();
    EXPECT_EQ(drawn, second.next()) << "draw " << i;
    if (drawn.kind == Fault::Kind::status) {
      ++hits;
    } else {
      EXPECT_EQ(drawn.kind, Fault::Kind::pass);
    }
  }
  EXPECT_GT(hits, 120);
  EXPECT_LT(hits, 280);

  FaultInjector never(FaultPlan{});
  FaultPlan alwaysPlan;
  alwaysPlan.rate = 1.0;
  alwaysPlan.rateFault = Fault{Fault::Kind::drop, 0, {}};
  FaultInjector always(alwaysPlan);
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ(never.next().kind, Fault::Kind::pass);
    EXPECT_EQ(always.next().kind, Fault::Kind::drop);
  }
}

}  // namespace
}  // namespace kestrova::server
