// The reference server as the end-to-end tests and the benchmark use it: tokens, and ingest with
// duplicates counted by id (its statistics serve the fuzzing script only). Its faults (statuses,
// Retry-After, drops, held answers) are what the upload network tests run against; the soak test
// drives its admin endpoint.
#include "server/server.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include "server/jwt.h"

namespace kestrova::server {
namespace {

using nlohmann::json;

constexpr const char* kBulk = "/api/v1.3/ingest/bulk/";

json dataPoint(const std::string& id, const std::string& name = "heart-rate") {
  return {{"header",
           {{"id", id},
            {"creation_date_time", "2021-01-01T10:00:00.000"},
            {"schema_id", {{"namespace", "ks"}, {"name", name}, {"version", "1.0"}}}}},
          {"body",
           {{"effective_time_frame", {{"date_time", "2021-01-01T10:00:00.000"}}}, {"avg", 72}}}};
}

class ReferenceServer : public ::testing::Test {
 protected:
  void SetUp() override {
    ServerOptions options;
    options.secret = "test-secret";
    auto started = KestrovaServer::start(std::move(options));
    ASSERT_TRUE(started) << started.error().text();
    server_ = std::move(started).value();
  }

  httplib::Client client() const { return httplib::Client("127.0.0.1", server_->port()); }
  httplib::Headers headers(const std::string& profile, const std::string& version = "0.1.0") {
    return {{"Authorization", "Bearer " + server_->tokenFor(profile)},
            {"Source", "Apple"},
            {"Version", version}};
  }
  httplib::Result post(const json& body, const httplib::Headers& fields, const char* path = kBulk) {
    return client().Post(path, fields, body.dump(), "application/json");
  }

  std::unique_ptr<KestrovaServer> server_;
};

TEST_F(ReferenceServer, ProfileIsAnsweredOnlyForTheTokensOwnProfile) {
  auto own = client().Get("/api/v1.3/profile/team%2Fp1/", headers("team/p1"));
  ASSERT_TRUE(own);
  EXPECT_EQ(own->status, 200);
  EXPECT_EQ(json::parse(own->body), (json{{"id", "team/p1"}}));

  for (const auto& fields : std::vector<httplib::Headers>{
           headers("p2"), {{"Authorization", "Bearer " + mintToken("another-secret", "p1")}}}) {
    auto answer = client().Get("/api/v1.3/profile/p1/", fields);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->status, 403);
    EXPECT_EQ(json::parse(answer->body).at("error"), "forbidden");
  }
  // No token at all, and checked before the body.
  EXPECT_EQ(client().Post(kBulk, "not json", "application/json")->status, 403);
}

TEST_F(ReferenceServer, ADuplicateReplacesTheStoredDataPointAndIsCounted) {
  auto first = post(json::array({dataPoint("A"), dataPoint("B", "sleep")}), headers("p1"));
  ASSERT_TRUE(first);
  EXPECT_EQ(first->body, R"({"duplicates":0,"stored":2})");
  json changed = dataPoint("A");
  changed["body"]["avg"] = 80;
  EXPECT_EQ(post(json::array({changed, dataPoint("C")}), headers("p1", "2.0"))->body,
            R"({"duplicates":1,"stored":1})");
  // The same id under another profile is another data point; one data point alone goes to the
  // single ingest.
  EXPECT_EQ(post(dataPoint("A"), headers("p2"), "/api/v1.3/ingest/")->body,
            R"({"duplicates":0,"stored":1})");

  const auto replaced = server_->dataPoint("p1", "A");
  ASSERT_TRUE(replaced);
  EXPECT_EQ(replaced->dataPoint, changed);
  EXPECT_EQ(replaced->version, "2.0");
  EXPECT_EQ(replaced->receipts, 2);
  EXPECT_EQ(server_->dataPoints("p1").size(), 3u);
}

}  // namespace
}  // namespace kestrova::server
