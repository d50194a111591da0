#include "server/faults.h"

#include <gtest/gtest.h>

#include <cmath>
#include <map>

namespace kestrova::server {
namespace {

using namespace std::chrono_literals;

TEST(FaultText, ParsesEveryKindAndRefusesTheRest) {
  const std::vector<std::pair<std::string, Fault>> good = {
      {"pass", Fault{}},
      {"drop", Fault{Fault::Kind::drop, 0, {}, {}}},
      {"delay:1500", Fault{Fault::Kind::delay, 0, 1500ms, {}}},
      {"delay:0", Fault{Fault::Kind::delay, 0, 0ms, {}}},
      {"503", Fault{Fault::Kind::status, 503, {}, {}}},
      {" 429 ", Fault{Fault::Kind::status, 429, {}, {}}},
      {"503:retry-after=2", Fault{Fault::Kind::status, 503, {}, 2}},
  };
  for (const auto& [text, expected] : good) {
    auto parsed = Fault::parse(text);
    ASSERT_TRUE(parsed) << text << ": " << parsed.error().description;
    EXPECT_EQ(*parsed, expected) << text;
    // What a plan reports parses back to the same fault.
    EXPECT_EQ(*Fault::parse(parsed->text()), expected) << text;
  }
  for (const char* bad : {"", "delay:", "delay:-5", "delay:1s", "99", "600", "5o3", "dropped",
                          "503:retry-after=", "503:retry-after=-1", "503:retry-after=2s"}) {
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
                                "seed": 7, "path_prefix": "/api/v1.3/ingest/"})"));
  ASSERT_TRUE(plan) << plan.error().description;
  ASSERT_EQ(plan->script.size(), 2u);
  EXPECT_EQ(plan->script[0], (Fault{Fault::Kind::status, 500, {}, {}}));
  EXPECT_EQ(plan->script[1].kind, Fault::Kind::drop);
  EXPECT_EQ(plan->rate, 0.25);
  EXPECT_EQ(plan->rateFault, (Fault{Fault::Kind::status, 429, {}, {}}));
  EXPECT_EQ(plan->seed, 7u);
  EXPECT_TRUE(plan->appliesTo("/api/v1.3/ingest/bulk/"));
  EXPECT_FALSE(plan->appliesTo("/api/v1.3/profile/p/"));
  // Its own report reads back as the same plan.
  auto again = FaultPlan::fromJson(plan->toJson());
  ASSERT_TRUE(again);
  EXPECT_EQ(again->toJson(), plan->toJson());

  EXPECT_TRUE(FaultPlan::fromJson(nlohmann::json::parse(R"({"script": "503,pass"})")));
  for (const char* bad : {R"([])", R"({"rate": 1.5})", R"({"rate": "half"})", R"({"script": 503})",
                          R"({"script": ["nope"]})", R"({"rate_fault": "later"})",
                          R"({"seed": -1})", R"({"path_prefix": 1})"}) {
    EXPECT_FALSE(FaultPlan::fromJson(nlohmann::json::parse(bad))) << bad;
  }
}

TEST(FaultInjectorOrder, ScriptFirstThenTheRateWithRepeatableDraws) {
  FaultPlan plan;
  plan.script = *FaultPlan::parseScript("500,drop");
  plan.rate = 0.5;
  plan.rateFault = Fault{Fault::Kind::status, 503, {}, {}};
  plan.seed = 42;
  FaultInjector first(plan);
  FaultInjector second(plan);
  EXPECT_EQ(first.next(), (Fault{Fault::Kind::status, 500, {}, {}}));
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
  alwaysPlan.rateFault = Fault{Fault::Kind::drop, 0, {}, {}};
  FaultInjector always(alwaysPlan);
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ(never.next().kind, Fault::Kind::pass);
    EXPECT_EQ(always.next().kind, Fault::Kind::drop);
  }
}

TEST(FaultMix, EachFaultIsDrawnAtItsOwnRateAndMalformedMixesAreRefused) {
  auto mix = FaultPlan::parseMix("500=0.15, 503=0.15,403=0.05,drop=0.03,delay:2500=0.02");
  ASSERT_TRUE(mix) << mix.error().description;
  FaultPlan plan;
  plan.mix = *mix;
  plan.seed = 9;
  // The JSON forms, array and text, read as the same plan, and its report reads back.
  auto fromArray = FaultPlan::fromJson(nlohmann::json::parse(
      R"({"rates": [{"fault": "500", "p": 0.15}, {"fault": 503, "p": 0.15},
                    {"fault": "403", "p": 0.05}, {"fault": "drop", "p": 0.03},
                    {"fault": "delay:2500", "p": 0.02}], "seed": 9})"));
  ASSERT_TRUE(fromArray) << fromArray.error().description;
  EXPECT_EQ(fromArray->mix, plan.mix);
  EXPECT_EQ(FaultPlan::fromJson(plan.toJson())->mix, plan.mix);
  EXPECT_EQ(
      FaultPlan::fromJson({{"rates", "500=0.15,503=0.15,403=0.05,drop=0.03,delay:2500=0.02"}})->mix,
      plan.mix);

  FaultInjector injector(plan);
  std::map<std::string, int> drawn;
  constexpr int kDraws = 20000;
  for (int i = 0; i < kDraws; ++i) {
    ++drawn[injector.next().text()];
  }
  // Within about five standard deviations of each expected count.
  const std::map<std::string, double> expected = {{"500", 0.15},        {"503", 0.15},
                                                  {"403", 0.05},        {"drop", 0.03},
                                                  {"delay:2500", 0.02}, {"pass", 0.60}};
  EXPECT_EQ(drawn.size(), expected.size());
  for (const auto& [fault, probability] : expected) {
    const double mean = kDraws * probability;
    EXPECT_NEAR(drawn[fault], mean, 5 * std::sqrt(mean * (1 - probability)) + 1) << fault;
  }

  // The single rate fault still works beside a mix, and together they may not exceed 1.
  FaultPlan both;
  both.rate = 0.5;
  both.mix = *FaultPlan::parseMix("503=0.5");
  EXPECT_FALSE(both.probabilityError());
  FaultInjector always(both);
  for (int i = 0; i < 50; ++i) {
    EXPECT_NE(always.next().kind, Fault::Kind::pass);
  }
  EXPECT_FALSE(FaultPlan::fromJson({{"rate", 0.6}, {"rates", "503=0.5"}}));
  EXPECT_TRUE(FaultPlan::parseMix("")->empty());
  for (const char* bad : {"500", "500=", "=0.1", "500=1.5", "500=-0.1", "500=0.1x", "oops=0.1",
                          "500=0.6,503=0.6", "500=0.1,", "500:0.1", "500=nan"}) {
    EXPECT_FALSE(FaultPlan::parseMix(bad)) << bad;
  }
  for (const char* bad : {R"({"rates": 5})", R"({"rates": [{"fault": "500"}]})",
                          R"({"rates": [{"p": 0.1}]})", R"({"rates": [{"fault": "x", "p": 0.1}]})",
                          R"({"rates": [{"fault": "500", "p": "0.1"}]})"}) {
    EXPECT_FALSE(FaultPlan::fromJson(nlohmann::json::parse(bad))) << bad;
  }
}

}  // namespace
}  // namespace kestrova::server
