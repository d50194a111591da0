#include "server/server.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <chrono>
#include <thread>

#include "server/jwt.h"
#include "support/test_support.h"

namespace kestrova::server {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

constexpr const char* kSecret = "test-secret";
constexpr const char* kBulk = "/api/v1.3/ingest/bulk/";
constexpr const char* kSingle = "/api/v1.3/ingest/";

json dataPoint(const std::string& id, const std::string& name = "ks-heart-rate-sample",
               const std::string& nameSpace = "ks") {
  return {{"header",
           {{"id", id},
            {"creation_date_time", "2021-01-01T10:00:00.000"},
            {"schema_id", {{"namespace", nameSpace}, {"name", name}, {"version", "1.0"}}}}},
          {"body",
           {{"effective_time_frame",
             {{"time_interval",
               {{"start_date_time", "2021-01-01T10:00:00.000"},
                {"end_date_time", "2021-01-01T10:15:00.000"}}}}},
            {"avg", 72}}}};
}

class ReferenceServer : public ::testing::Test {
 protected:
  void SetUp() override {
    ServerOptions options;
    options.secret = kSecret;
    options.database = directory_.path() / "server.sqlite";
    auto started = KestrovaServer::start(std::move(options));
    ASSERT_TRUE(started) << started.error().text();
    server_ = std::move(started).value();
    ASSERT_GT(server_->port(), 0);
  }

  httplib::Client client(std::chrono::milliseconds timeout = 10'000ms) const {
    httplib::Client http("127.0.0.1", server_->port());
    http.set_read_timeout(timeout);
    http.set_connection_timeout(timeout);
    return http;
  }

  httplib::Headers headers(const std::string& profile, const std::string& source = "Apple",
                           const std::string& version = "0.1.0") const {
    return {{"Authorization", "Bearer " + server_->tokenFor(profile)},
            {"Source", source},
            {"Version", version}};
  }

  httplib::Result post(const std::string& path, const json& body, const httplib::Headers& fields) {
    return client().Post(path, fields, body.dump(), "application/json");
  }

  std::int64_t requests(const std::string& path, const std::string& outcome) const {
    const auto stats = server_->stats();
    const auto byPath = stats.requests.find(path);
    if (byPath == stats.requests.end()) {
      return 0;
    }
    const auto count = byPath->second.find(outcome);
    return count == byPath->second.end() ? 0 : count->second;
  }

  testing::TempDir directory_;
  std::unique_ptr<KestrovaServer> server_;
};

TEST_F(ReferenceServer, ProfileIsAnsweredOnlyForTheTokensOwnProfile) {
  auto own = client().Get("/api/v1.3/profile/p1/", headers("p1"));
  ASSERT_TRUE(own);
  EXPECT_EQ(own->status, 200);
  EXPECT_EQ(json::parse(own->body), (json{{"id", "p1"}}));

  // A profile id with a slash arrives as one percent-encoded path segment.
  auto encoded = client().Get("/api/v1.3/profile/team%2Fp1/", headers("team/p1"));
  ASSERT_TRUE(encoded);
  EXPECT_EQ(encoded->status, 200);
  EXPECT_EQ(json::parse(encoded->body).at("id"), "team/p1");

  const std::string otherSecret = mintToken("another-secret", "p1");
  struct Case {
    std::string name;
    httplib::Headers fields;
  };
  const std::vector<Case> refused = {
      {"no token", {}},
      {"another profile's token", headers("p2")},
      {"token of another secret", {{"Authorization", "Bearer " + otherSecret}}},
      {"not a bearer credential", {{"Authorization", "Basic " + server_->tokenFor("p1")}}},
      {"bearer without token", {{"Authorization", "Bearer "}}},
      {"garbage token", {{"Authorization", "Bearer a.b.c"}}},
  };
  for (const auto& c : refused) {
    auto answer = client().Get("/api/v1.3/profile/p1/", c.fields);
    ASSERT_TRUE(answer) << c.name;
    EXPECT_EQ(answer->status, 403) << c.name;
    EXPECT_EQ(json::parse(answer->body).at("error"), "forbidden") << c.name;
  }
  EXPECT_EQ(requests("/api/v1.3/profile/p1/", "200"), 1);
  EXPECT_EQ(requests("/api/v1.3/profile/p1/", "403"), static_cast<std::int64_t>(refused.size()));
}

TEST_F(ReferenceServer, BulkIngestStoresEachDataPointWithSourceAndVersion) {
  const json batch = json::array(
      {dataPoint("A"), dataPoint("B", "ks-daily-detail"), dataPoint("C", "hk-workout", "granola")});
  auto answer = post(kBulk, batch, headers("p1", "Apple", "1.2.3"));
  ASSERT_TRUE(answer);
  ASSERT_EQ(answer->status, 200) << answer->body;
  EXPECT_EQ(json::parse(answer->body), (json{{"stored", 3}, {"duplicates", 0}}));

  const auto stored = server_->dataPoints("p1");
  ASSERT_EQ(stored.size(), 3u);
  EXPECT_EQ(stored[0].id, "A");
  EXPECT_EQ(stored[0].dataPoint, batch[0]);
  EXPECT_EQ(stored[0].source, "Apple");
  EXPECT_EQ(stored[0].version, "1.2.3");
  EXPECT_EQ(stored[0].receipts, 1);
  EXPECT_EQ(stored[2].schemaNamespace, "granola");
  EXPECT_EQ(stored[2].schemaName, "hk-workout");
  EXPECT_EQ(stored[2].schemaVersion, "1.0");
  EXPECT_TRUE(server_->dataPoints("p2").empty());

  // Missing headers are stored as empty, not refused.
  auto bare = post(kBulk, json::array({dataPoint("D")}),
                   {{"Authorization", "Bearer " + server_->tokenFor("p1")}});
  ASSERT_TRUE(bare);
  EXPECT_EQ(bare->status, 200);
  EXPECT_EQ(server_->dataPoint("p1", "D")->source, "");
}

TEST_F(ReferenceServer, ADuplicateReplacesTheStoredDataPointAndIsCounted) {
  ASSERT_EQ(post(kBulk, json::array({dataPoint("A"), dataPoint("B")}), headers("p1"))->status, 200);
  json changed = dataPoint("A");
  changed["body"]["avg"] = 80;
  auto again = post(kBulk, json::array({changed, dataPoint("C")}), headers("p1", "Apple", "2.0"));
  ASSERT_TRUE(again);
  EXPECT_EQ(json::parse(again->body), (json{{"stored", 1}, {"duplicates", 1}}));
  // The same id under another profile is another data point.
  EXPECT_EQ(json::parse(post(kBulk, json::array({dataPoint("A")}), headers("p2"))->body),
            (json{{"stored", 1}, {"duplicates", 0}}));

  const auto replaced = server_->dataPoint("p1", "A");
  ASSERT_TRUE(replaced);
  EXPECT_EQ(replaced->dataPoint.at("body").at("avg"), 80);
  EXPECT_EQ(replaced->version, "2.0");
  EXPECT_EQ(replaced->receipts, 2);
  EXPECT_EQ(server_->dataPoints("p1").size(), 3u);

  const auto stats = server_->stats();
  EXPECT_EQ(stats.store.dataPoints, 4);
  EXPECT_EQ(stats.store.duplicates, 1);
  EXPECT_EQ(stats.store.byProfile.at("p1"), 3);
  EXPECT_EQ(stats.store.bySchema.at("ks:ks-heart-rate-sample:1.0"), 4);
}

TEST_F(ReferenceServer, MalformedRequestsAreRefusedWith400AndNothingIsStored) {
  auto without = [](std::initializer_list<std::string> path) {
    json point = dataPoint("X");
    json* parent = &point;
    std::vector<std::string> keys(path);
    for (size_t i = 0; i + 1 < keys.size(); ++i) {
      parent = &(*parent)[keys[i]];
    }
    parent->erase(keys.back());
    return point;
  };
  json numericVersion = dataPoint("X");
  numericVersion["header"]["schema_id"]["version"] = 1.0;
  json frameAsText = dataPoint("X");
  frameAsText["body"]["effective_time_frame"] = "2021-01-01";
  json numericId = dataPoint("X");
  numericId["header"]["id"] = 7;

  struct Case {
    std::string name;
    std::string body;
  };
  const std::vector<Case> cases = {
      {"not JSON", "[{\"header\":"},
      {"an object where an array is due", dataPoint("X").dump()},
      {"a number", "42"},
      {"an element that is not an object", "[1]"},
      {"no header", json::array({without({"header"})}).dump()},
      {"no header id", json::array({without({"header", "id"})}).dump()},
      {"header id not text", json::array({numericId}).dump()},
      {"no creation date", json::array({without({"header", "creation_date_time"})}).dump()},
      {"no schema", json::array({without({"header", "schema_id"})}).dump()},
      {"no schema name", json::array({without({"header", "schema_id", "name"})}).dump()},
      {"no schema namespace", json::array({without({"header", "schema_id", "namespace"})}).dump()},
      {"schema version a number", json::array({numericVersion}).dump()},
      {"no body", json::array({without({"body"})}).dump()},
      {"body without time frame or date",
       json::array({without({"body", "effective_time_frame"})}).dump()},
      {"time frame that is text", json::array({frameAsText}).dump()},
      // One bad data point spoils the whole request: nothing of it is kept.
      {"good then bad", json::array({dataPoint("G"), without({"header", "id"})}).dump()},
  };
  for (const auto& c : cases) {
    auto answer = client().Post(kBulk, headers("p1"), c.body, "application/json");
    ASSERT_TRUE(answer) << c.name;
    EXPECT_EQ(answer->status, 400) << c.name;
    const auto body = json::parse(answer->body, nullptr, false);
    ASSERT_TRUE(body.is_object()) << c.name << ": " << answer->body;
    EXPECT_EQ(body.at("error"), "malformed request") << c.name;
  }
  EXPECT_TRUE(server_->dataPoints("p1").empty());
  const auto problems =
      json::parse(client().Post(kBulk, headers("p1"), cases.back().body, "application/json")->body);
  EXPECT_EQ(problems.at("problems").at(0).at("index"), 1);

  // The token is checked before the body.
  auto unauthorised = client().Post(kBulk, "not json", "application/json");
  ASSERT_TRUE(unauthorised);
  EXPECT_EQ(unauthorised->status, 403);
}

TEST_F(ReferenceServer, SingleIngestTakesOneDataPointOrAnArrayAndSummariesWithADate) {
  json summary = {
      {"header",
       {{"id", "p1---2021-01-01"},
        {"creation_date_time", "2021-01-02T08:00:00.000"},
        {"schema_id", {{"namespace", "ks"}, {"name", "daily-summary"}, {"version", "1.0"}}}}},
      {"body", {{"date", "2021-01-01"}, {"step_count", 0}}}};
  auto one = post(kSingle, summary, headers("p1"));
  ASSERT_TRUE(one);
  EXPECT_EQ(one->status, 200) << one->body;
  auto many = post(kSingle, json::array({dataPoint("A"), dataPoint("B")}), headers("p1"));
  ASSERT_TRUE(many);
  EXPECT_EQ(json::parse(many->body), (json{{"stored", 2}, {"duplicates", 0}}));
  EXPECT_EQ(post(kSingle, json("text"), headers("p1"))->status, 400);
  EXPECT_EQ(server_->dataPoint("p1", "p1---2021-01-01")->schemaName, "daily-summary");
  EXPECT_EQ(server_->dataPoints("p1").size(), 3u);
}

TEST_F(ReferenceServer, StatsEndpointReportsWhatTheServerSaw) {
  post(kBulk, json::array({dataPoint("A"), dataPoint("A"), dataPoint("B", "sleep-episode", "omh")}),
       headers("p1"));
  post(kBulk, json::array({dataPoint("A"), dataPoint("C")}), headers("p1"));
  post(kBulk, json::array(), {});
  client().Get("/nowhere");
  auto answer = client().Get("/api/v1.3/_stats");
  ASSERT_TRUE(answer);
  ASSERT_EQ(answer->status, 200);
  const auto stats = json::parse(answer->body);
  EXPECT_EQ(stats.at("data_points"), 3);
  EXPECT_EQ(stats.at("duplicates"), 2);
  EXPECT_EQ(stats.at("by_schema").at("omh:sleep-episode:1.0"), 1);
  // A arrived three times: one data point received again, two extra arrivals.
  EXPECT_EQ(stats.at("repeated_by_schema").at("ks:ks-heart-rate-sample:1.0"), 1);
  EXPECT_EQ(stats.at("repeated_by_schema").at("omh:sleep-episode:1.0"), 0);
  EXPECT_EQ(stats.at("by_profile").at("p1"), 3);
  EXPECT_EQ(stats.at("requests").at(kBulk).at("200"), 2);
  EXPECT_EQ(stats.at("requests").at(kBulk).at("403"), 1);
  EXPECT_EQ(stats.at("requests").at("/nowhere").at("404"), 1);
  EXPECT_EQ(stats.at("request_count"), 4);
}

TEST_F(ReferenceServer, ScriptedStatusesAreAnsweredInOrderThenRequestsPass) {
  auto plan = FaultPlan::parseScript("500,503,403,429,pass,500");
  ASSERT_TRUE(plan);
  FaultPlan faults;
  faults.script = *plan;
  server_->setFaults(faults);
  std::vector<int> statuses;
  for (int i = 0; i < 7; ++i) {
    auto answer = post(kBulk, json::array({dataPoint("A" + std::to_string(i))}), headers("p1"));
    ASSERT_TRUE(answer);
    statuses.push_back(answer->status);
    if (answer->status == 429 || answer->status == 503) {
      EXPECT_EQ(answer->get_header_value("Retry-After"), "1");
    }
  }
  EXPECT_EQ(statuses, (std::vector<int>{500, 503, 403, 429, 200, 500, 200}));
  // Only the requests that passed were stored.
  const auto stored = server_->dataPoints("p1");
  ASSERT_EQ(stored.size(), 2u);
  EXPECT_EQ(stored[0].id, "A4");
  EXPECT_EQ(stored[1].id, "A6");
  EXPECT_EQ(requests(kBulk, "500"), 2);
  EXPECT_TRUE(server_->faults().script.empty());
}

TEST_F(ReferenceServer, DropClosesTheConnectionWithoutAnAnswer) {
  FaultPlan faults;
  faults.script = *FaultPlan::parseScript("drop");
  server_->setFaults(faults);
  auto dropped = post(kBulk, json::array({dataPoint("A")}), headers("p1"));
  EXPECT_FALSE(dropped);
  EXPECT_EQ(dropped.error(), httplib::Error::Read);
  EXPECT_TRUE(server_->dataPoints("p1").empty());
  EXPECT_EQ(requests(kBulk, "dropped"), 1);

  auto next = post(kBulk, json::array({dataPoint("A")}), headers("p1"));
  ASSERT_TRUE(next);
  EXPECT_EQ(next->status, 200);
}

TEST_F(ReferenceServer, DelayOutlastsAShortClientTimeOutAndStillStores) {
  FaultPlan faults;
  faults.script = *FaultPlan::parseScript("delay:500");
  server_->setFaults(faults);
  auto impatient = client(150ms).Post(kBulk, headers("p1"), json::array({dataPoint("A")}).dump(),
                                      "application/json");
  EXPECT_FALSE(impatient);
  // The request goes on after the client left, so a retry would be a duplicate.
  const auto deadline = std::chrono::steady_clock::now() + 10s;
  while (!server_->dataPoint("p1", "A") && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(10ms);
  }
  EXPECT_TRUE(server_->dataPoint("p1", "A"));
}

TEST_F(ReferenceServer, StoppingDuringALongDelayDoesNotWaitForIt) {
  FaultPlan faults;
  faults.script = *FaultPlan::parseScript("delay:60000");
  server_->setFaults(faults);
  std::thread caller(
      [this] { client(100ms).Post(kBulk, headers("p1"), "[]", "application/json"); });
  caller.join();
  const auto started = std::chrono::steady_clock::now();
  server_->stop();
  EXPECT_LT(std::chrono::steady_clock::now() - started, 5s);
}

TEST_F(ReferenceServer, AdminEndpointReplacesShowsAndClearsTheFaultPlan) {
  auto set = client().Post("/_admin/faults",
                           R"({"script": [503, "pass"], "rate": 1.0, "rate_fault": "429"})",
                           "application/json");
  ASSERT_TRUE(set);
  ASSERT_EQ(set->status, 200) << set->body;
  EXPECT_EQ(json::parse(set->body).at("script"), (json{"503", "pass"}));

  auto get = [&] { return client().Get("/api/v1.3/profile/p1/", headers("p1"))->status; };
  EXPECT_EQ(get(), 503);
  EXPECT_EQ(get(), 200);
  EXPECT_EQ(get(), 429);
  EXPECT_EQ(get(), 429);
  const auto shown = json::parse(client().Get("/_admin/faults")->body);
  EXPECT_EQ(shown.at("rate"), 1.0);
  EXPECT_EQ(shown.at("rate_fault"), "429");

  auto bad = client().Post("/_admin/faults", R"({"rate": 3})", "application/json");
  ASSERT_TRUE(bad);
  EXPECT_EQ(bad->status, 400);
  EXPECT_EQ(get(), 429) << "a refused plan must leave the old one in force";

  ASSERT_EQ(client().Delete("/_admin/faults")->status, 200);
  EXPECT_EQ(get(), 200);
  // Admin and statistics requests never meet faults.
  server_->setFaults(FaultPlan::fromJson(json{{"rate", 1.0}}).value());
  EXPECT_EQ(client().Get("/api/v1.3/_stats")->status, 200);
  EXPECT_EQ(client().Get("/_admin/faults")->status, 200);
}

TEST(ReferenceServerStart, RefusesAnEmptySecretAndAPortInUse) {
  EXPECT_FALSE(KestrovaServer::start(ServerOptions{}));
  ServerOptions options;
  options.secret = kSecret;
  auto first = KestrovaServer::start(options);
  ASSERT_TRUE(first);
  options.port = (*first)->port();
  EXPECT_FALSE(KestrovaServer::start(options));
  EXPECT_EQ((*first)->baseUrl(), "http://127.0.0.1:" + std::to_string(options.port) + "/api/");
}

TEST(ReferenceServerStart, StoredDataPointsSurviveARestart) {
  testing::TempDir directory;
  ServerOptions options;
  options.secret = kSecret;
  options.database = directory.path() / "server.sqlite";
  {
    auto server = KestrovaServer::start(options);
    ASSERT_TRUE(server);
    httplib::Client http("127.0.0.1", (*server)->port());
    auto answer = http.Post(kBulk, {{"Authorization", "Bearer " + (*server)->tokenFor("p1")}},
                            json::array({dataPoint("A")}).dump(), "application/json");
    ASSERT_TRUE(answer);
    ASSERT_EQ(answer->status, 200);
  }
  auto restarted = KestrovaServer::start(options);
  ASSERT_TRUE(restarted);
  EXPECT_TRUE((*restarted)->dataPoint("p1", "A"));
}

}  // namespace
}  // namespace kestrova::server
