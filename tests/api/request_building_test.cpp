#include <gtest/gtest.h>

#include <tuple>

#include "api/request_builder.h"
#include "api/units.h"
#include "support/test_support.h"

namespace kestrova {
namespace {

using testing::utc;

URLComponents components(std::string_view text) {
  auto parsed = URLComponents::parse(text);
  EXPECT_TRUE(parsed) << text;
  return parsed.value_or(URLComponents());
}

URLRequestInfo info(std::string path,
                    std::optional<std::vector<URLQueryItem>> queryItems = std::nullopt) {
  URLRequestInfo request;
  request.path = std::move(path);
  request.queryItems = std::move(queryItems);
  return request;
}

TEST(ComposeURL, JoinsBaseAndPathWithTheTrailingSlashOnlyWithoutQuery) {
  struct Case {
    std::string base;
    URLRequestInfo info;
    std::optional<std::string> expected;
  };
  const std::vector<URLQueryItem> ab = {{"a", "b"}};
  const std::vector<Case> cases = {
      {"https://h/api/", info("v1.3/profile/"), "https://h/api/v1.3/profile/"},
      {"https://h/api/", info("v1.3/profile/", ab), "https://h/api/v1.3/profile?a=b"},
      {"https://h/api", info("v1.3/profile/"), "https://h/api/v1.3/profile/"},
      {"https://h/api/", info("v1.3/profile/", std::vector<URLQueryItem>{}),
       "https://h/api/v1.3/profile?"},
      {"https://h/api/", info(""), "https://h/api/"},
      {"https://h/", info("v1.3/ingest/"), "https://h/v1.3/ingest/"},
      {"https://h//api//", info("//v1.3//ingest//"), "https://h/api/v1.3/ingest/"},
      // Only scheme, host and port come from the base.
      {"https://u:p@h/api/?x=1#frag", info("v1.3/ingest/"), "https://h/api/v1.3/ingest/"},
      // Characters a path cannot carry are encoded; escapes already there are kept.
      {"https://h/api/", info("v1.3/profile/a b/"), "https://h/api/v1.3/profile/a%20b/"},
      {"https://h/api/", info("v1.3/profile/a%2Fb/"), "https://h/api/v1.3/profile/a%2Fb/"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(composeURL(components(c.base), c.info), c.expected) << c.base << " + " << c.info.path;
  }
}

class RequestBuildingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    test_ = testing::makeTestPlatform(dir_.path());
    log_ = testing::CapturedLog::install();  // keeps the file server's lines out of the output
    files_ = std::make_unique<FileServer>(
        test_.platform->files, FileServer::sharedWriteQueue(*test_.platform->dispatcher));
    tokens_ = std::make_unique<TokenStore>(test_.platform->secureStore,
                                           test_.platform->applicationIdentifier);
  }
  void TearDown() override { installPlatform(nullptr); }

  void putFile(const FileNameComponents& name, bool bulk, std::string_view contents) {
    const auto url = files_->fileURL(name, bulk);
    ASSERT_TRUE(url);
    ASSERT_FALSE(test_.platform->files->createFileAtomically(*url, toBytes(contents)));
  }
  bool fileExists(const FileNameComponents& name, bool bulk) {
    const auto url = files_->fileURL(name, bulk);
    return url && test_.platform->files->readFile(*url).ok();
  }

  Result<URLRequest> build(const URLRequestInfo& request, const std::optional<Token>& token) {
    return buildRequest(request, base_, token, *files_, *tokens_);
  }

  testing::TempDir dir_;
  testing::TestPlatform test_;
  std::shared_ptr<testing::CapturedLog> log_;
  std::unique_ptr<FileServer> files_;
  std::unique_ptr<TokenStore> tokens_;
  URLComponents base_ = components("https://back.example/api/");
  const FileNameComponents file_{"sample", "p1", utc(2024, 3, 1, 8)};
};

TEST_F(RequestBuildingTest, AuthorizationFollowsTheTokenRules) {
  tokens_->saveToken("token-of-p1", "p1");
  struct Case {
    std::string name;
    std::optional<Token> token;
    bool namesFile;
    std::optional<std::string> authorization;  // none: no header
  };
  const std::vector<Case> cases = {
      {"operation token, stored", Token{true, "p1"}, false, "Bearer token-of-p1"},
      {"operation token, nothing stored", Token{true, "p2"}, false, std::nullopt},
      {"operation token wins over the file's profile", Token{true, "p2"}, true, std::nullopt},
      {"no token, file with stored token", std::nullopt, true, "Bearer token-of-p1"},
      {"no token, no file", std::nullopt, false, std::nullopt},
  };
  putFile(file_, false, "[]");
  for (const auto& c : cases) {
    auto request = info("v1.3/ingest/");
    if (c.namesFile) {
      request.fileName = file_;
    }
    const auto built = build(request, c.token);
    ASSERT_TRUE(built) << c.name << ": " << built.error().text();
    HTTPHeaders expected = {{"Content-Type", "application/json"}};
    if (c.authorization) {
      expected.emplace_back("Authorization", *c.authorization);
    }
    EXPECT_EQ(built->headers, expected) << c.name;
  }
}

TEST_F(RequestBuildingTest, FailuresNameTheirCause) {
  putFile(file_, true, "[]");
  const FileNameComponents orphan{"sample", "gone", utc(2024, 3, 1, 8)};
  putFile(orphan, true, "[]");
  struct Case {
    std::string base;
    FileNameComponents file;
    std::optional<bool> bulk;
    std::string error;
  };
  const std::vector<Case> cases = {
      // "v1.3/..." cannot follow a host without a path; nothing else is looked at.
      {"https://h", {"missing", "nobody", utc(2024, 3, 1)}, true, "NSURLErrorDomain -1000"},
      // An absent flag, like false, names the single directory, where the file is not.
      {"https://h/api/", file_, std::nullopt, "NSURLErrorDomain -3000"},
      {"https://h/api/", file_, false, "NSURLErrorDomain -3000"},
      {"https://h/api/", orphan, true,
       "KestrovaLib.KestrovaHealthKitError 1: No token available for profile ID: gone"},
  };
  for (const auto& c : cases) {
    base_ = components(c.base);
    auto request = info("v1.3/ingest/");
    request.fileName = c.file;
    request.bulk = c.bulk;
    const auto built = build(request, std::nullopt);
    ASSERT_FALSE(built) << c.error;
    EXPECT_EQ(built.error().text(), c.error);
  }
  // The file stays: whether it goes is the upload's decision.
  EXPECT_TRUE(fileExists(orphan, true));
}

TEST(DescribeHeaders, RedactsEveryAuthorizationValue) {
  EXPECT_EQ(describeHeaders({}), "[:]");
  EXPECT_EQ(describeHeaders({{"Content-Type", "application/json"},
                             {"Authorization", "Bearer eyJ.secret.sig"},
                             {"authorization", "Basic dXNlcg=="},
                             {"Version", "1"}}),
            R"(["Content-Type": "application/json", "Authorization": "Bearer <redacted>", )"
            R"("authorization": "Bearer <redacted>", "Version": "1"])");
}

TEST(UnitsTable, EachUnitHasItsTextAndDecimals) {
  // Unit, the text data points carry, and 1.5 written with the unit's decimals.
  const std::vector<std::tuple<Units, std::string_view, std::string>> table = {
      {Units::cm, "cm", "2 cm"},
      {Units::m, "m", "2 m"},
      {Units::kcal, "kcal", "1.5000000000 kcal"},
      {Units::kg, "kg", "1.5000000000 kg"},
      {Units::l, "l", "1.5000000000 l"},
      {Units::Pa, "Pa", "1.5000000000 Pa"},
      {Units::sec, "sec", "1.5000000000 sec"},
      {Units::C, "C", "1.5000000000 C"},
      {Units::F, "F", "1.5000000000 F"},
      {Units::count, "", "2 "},
      {Units::percent, "%", "2 %"},
      {Units::bpm, "beats/min", "2 beats/min"},
      {Units::bmi, "kg/m^2", "2 kg/m^2"},
      {Units::mgdL, "mg/dL", "1.5000000000 mg/dL"},
      {Units::mmHg, "mmHg", "1.5000000000 mmHg"},
      {Units::mlPerKgMin, "mL/(kg*min)", "1.5000000000 mL/(kg*min)"},
      {Units::ms, "ms", "1.5000000000 ms"},
  };
  for (const auto& [unit, text, formatted] : table) {
    EXPECT_EQ(rawValue(unit), text);
    EXPECT_EQ(unitsFromRawValue(text), unit) << text;
    EXPECT_EQ(formatWithUnit(1.5, unit), formatted);
  }
  EXPECT_EQ(formatWithUnit(72.4, Units::bpm), "72 beats/min");
  EXPECT_EQ(formatWithUnit(-0.25, Units::C), "-0.2500000000 C");
  for (const std::string_view unknown : {"bpm", "KG", " kg", "count", "mmhg"}) {
    EXPECT_EQ(unitsFromRawValue(unknown), std::nullopt) << unknown;
  }
}

TEST(UnitsTable, IdentifiersMapToTheirUnits) {
  EXPECT_EQ(unitForIdentifier("HKQuantityTypeIdentifierHeartRate"), Units::bpm);
  EXPECT_EQ(unitForIdentifier("HKQuantityTypeIdentifierBodyTemperature"), Units::F);
  EXPECT_EQ(unitForIdentifier("HKQuantityTypeIdentifierStepCount"), Units::count);
  EXPECT_EQ(unitForIdentifier("HKQuantityTypeIdentifierVO2Max"), Units::mlPerKgMin);
  for (const char* unknown : {"HKQuantityTypeIdentifierFlightsClimbed",
                              "HKQuantityTypeIdentifierHeartRate ", "heartRate", ""}) {
    EXPECT_EQ(unitForIdentifier(unknown), std::nullopt) << unknown;
  }
}

}  // namespace
}  // namespace kestrova
