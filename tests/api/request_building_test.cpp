#include <gtest/gtest.h>

#include <set>
#include <tuple>

#include "api/profile_request.h"
#include "api/request_builder.h"
#include "api/units.h"
#include "api/upload.h"
#include "kestrova/version.h"
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
      {"https://h/api", info("v1.3/profile/", ab), "https://h/api/v1.3/profile?a=b"},
      {"https://h/api/", info("v1.3/profile/", std::vector<URLQueryItem>{}),
       "https://h/api/v1.3/profile?"},
      {"http://127.0.0.1:8080/api/", info("v1.3/ingest/bulk/"),
       "http://127.0.0.1:8080/api/v1.3/ingest/bulk/"},
      {"https://h/api/", info(""), "https://h/api/"},
      {"https://h/", info("v1.3/ingest/"), "https://h/v1.3/ingest/"},
      {"https://h//api//", info("//v1.3//ingest//"), "https://h/api/v1.3/ingest/"},
      // Only scheme, host and port come from the base.
      {"https://u:p@h/api/?x=1#frag", info("v1.3/ingest/"), "https://h/api/v1.3/ingest/"},
      // Characters a path cannot carry are encoded; escapes already there are kept.
      {"https://h/api/", info("v1.3/profile/a b/"), "https://h/api/v1.3/profile/a%20b/"},
      {"https://h/api/", info("v1.3/profile/a%2Fb/"), "https://h/api/v1.3/profile/a%2Fb/"},
      // A host with a path that does not start with "/" forms no URL.
      {"https://h", info("v1.3/ingest/"), std::nullopt},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(composeURL(components(c.base), c.info), c.expected) << c.base << " + " << c.info.path;
  }
}

class RequestBuildingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    test_ = testing::makeTestPlatform(dir_.path());
    log_ = testing::CapturedLog::install();
    files_ = std::make_unique<FileServer>(
        test_.platform->files, FileServer::sharedWriteQueue(*test_.platform->dispatcher));
    tokens_ = std::make_unique<TokenStore>(test_.platform->secureStore,
                                           test_.platform->applicationIdentifier);
  }
  void TearDown() override {
    log_->uninstall();
    installPlatform(nullptr);
  }

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

TEST_F(RequestBuildingTest, FileOfAProfileWithoutStoredTokenFailsWithNoTokenAvailable) {
  const FileNameComponents orphan{"sample", "gone", utc(2024, 3, 1, 8)};
  putFile(orphan, true, "[]");
  auto request = info("v1.3/ingest/bulk/");
  request.fileName = orphan;
  request.bulk = true;
  const auto built = build(request, std::nullopt);
  ASSERT_FALSE(built);
  EXPECT_TRUE(isNoTokenAvailableFor(built.error(), "gone"));
  EXPECT_FALSE(isNoTokenAvailableFor(built.error(), "other"));
  EXPECT_EQ(built.error().domain, KestrovaHealthKitError::kDomain);
  // The file stays: whether it goes is the upload's decision.
  EXPECT_TRUE(fileExists(orphan, true));
}

TEST_F(RequestBuildingTest, HeadersKeepTheirOrderAndDuplicates) {
  tokens_->saveToken("token-of-p1", "p1");
  auto request = info("v1.3/ingest/");
  request.httpMethod = HttpMethod::POST;
  request.body = toBytes("[1]");
  request.extraHeaders =
      HTTPHeaders{{"Source", "Apple"}, {"Content-Type", "text/plain"}, {"X-A", "1"}, {"X-A", "2"}};
  const auto built = build(request, Token{true, "p1"});
  ASSERT_TRUE(built);
  EXPECT_EQ(built->url, "https://back.example/api/v1.3/ingest/");
  EXPECT_EQ(built->httpMethod, "POST");
  EXPECT_EQ(built->httpBody, toBytes("[1]"));
  const HTTPHeaders expected = {{"Content-Type", "application/json"},
                                {"Authorization", "Bearer token-of-p1"},
                                {"Source", "Apple"},
                                {"Content-Type", "text/plain"},
                                {"X-A", "1"},
                                {"X-A", "2"}};
  EXPECT_EQ(built->headers, expected);

  // An empty map and an absent one give the same request.
  request.extraHeaders = HTTPHeaders{};
  const auto empty = build(request, std::nullopt);
  request.extraHeaders.reset();
  const auto absent = build(request, std::nullopt);
  ASSERT_TRUE(empty && absent);
  EXPECT_EQ(empty->headers, absent->headers);
  EXPECT_EQ(empty->headers.size(), 1u);
}

TEST_F(RequestBuildingTest, BodyComesFromTheFileOfTheNamedDirectory) {
  tokens_->saveToken("token-of-p1", "p1");
  putFile(file_, true, R"([{"bulk":true}])");
  struct Case {
    std::string name;
    std::optional<bool> bulk;
    std::optional<Bytes> expectedBody;  // none: cannotOpenFile
  };
  const std::vector<Case> cases = {
      {"bulk directory", true, toBytes(R"([{"bulk":true}])")},
      {"absent flag means the single directory", std::nullopt, std::nullopt},
      {"single directory", false, std::nullopt},
  };
  for (const auto& c : cases) {
    auto request = info("v1.3/ingest/bulk/");
    request.fileName = file_;
    request.bulk = c.bulk;
    request.body = toBytes("inline, ignored when a file is named");
    const auto built = build(request, std::nullopt);
    if (c.expectedBody) {
      ASSERT_TRUE(built) << c.name;
      EXPECT_EQ(built->httpBody, c.expectedBody) << c.name;
    } else {
      ASSERT_FALSE(built) << c.name;
      EXPECT_EQ(built.error().domain, kURLErrorDomain) << c.name;
      EXPECT_EQ(built.error().code, static_cast<std::int64_t>(URLErrorCode::cannotOpenFile));
      EXPECT_EQ(built.error().description, "") << c.name;
    }
  }
}

TEST_F(RequestBuildingTest, UncomposableUrlFailsWithBadURLBeforeAnythingElse) {
  base_ = components("https://h");  // no path: "v1.3/..." cannot follow the host
  auto request = info("v1.3/ingest/");
  request.fileName = FileNameComponents{"missing", "nobody", utc(2024, 3, 1)};
  const auto built = build(request, std::nullopt);
  ASSERT_FALSE(built);
  EXPECT_EQ(built.error().domain, kURLErrorDomain);
  EXPECT_EQ(built.error().code, static_cast<std::int64_t>(URLErrorCode::badURL));
  EXPECT_EQ(built.error().description, "");
}

TEST_F(RequestBuildingTest, UploadRequestsCarryTheFileAndTheFourHeaders) {
  tokens_->saveToken("token-of-p1", "p1");
  putFile(file_, true, "[1]");
  putFile(file_, false, "[2]");
  for (const bool bulk : {true, false}) {
    const auto request = uploadRequestInfo(file_, bulk);
    EXPECT_EQ(request.bulk, bulk ? std::optional<bool>(true) : std::nullopt);
    const auto built = build(request, std::nullopt);
    ASSERT_TRUE(built);
    EXPECT_EQ(built->url, bulk ? "https://back.example/api/v1.3/ingest/bulk/"
                               : "https://back.example/api/v1.3/ingest/");
    EXPECT_EQ(built->httpMethod, "POST");
    EXPECT_EQ(built->httpBody, toBytes(bulk ? "[1]" : "[2]"));
    const HTTPHeaders expected = {{"Content-Type", "application/json"},
                                  {"Authorization", "Bearer token-of-p1"},
                                  {"Source", "Apple"},
                                  {"Version", KESTROVA_VERSION_STRING}};
    EXPECT_EQ(built->headers, expected);
  }
}

TEST_F(RequestBuildingTest, ProfileRequestKeepsTheIdOneSegment) {
  tokens_->saveToken("token-of-p1", "p 1/../x?y#z%");
  const auto request = profileRequestInfo("p 1/../x?y#z%");
  EXPECT_EQ(request.httpMethod, HttpMethod::GET);
  EXPECT_FALSE(request.queryItems || request.body || request.extraHeaders || request.fileName ||
               request.bulk);
  const auto built = build(request, Token{true, "p 1/../x?y#z%"});
  ASSERT_TRUE(built);
  EXPECT_EQ(built->url, "https://back.example/api/v1.3/profile/p%201%2F..%2Fx%3Fy%23z%25/");
  EXPECT_EQ(built->httpMethod, "GET");
  EXPECT_EQ(built->httpBody, std::nullopt);
  EXPECT_EQ(profileRequestInfo("abc").path, "v1.3/profile/abc/");
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

TEST(UnitsTable, RawValuesRoundTripAndUnknownTextsGiveNothing) {
  std::set<std::string_view> texts;
  for (const auto unit : kAllUnits) {
    EXPECT_EQ(unitsFromRawValue(rawValue(unit)), unit) << rawValue(unit);
    EXPECT_TRUE(texts.insert(rawValue(unit)).second) << "duplicate " << rawValue(unit);
  }
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

TEST(UnitsFormat, UsesTheDecimalsOfTheUnit) {
  const std::vector<std::tuple<double, Units, std::string>> cases = {
      {72, Units::bpm, "72 beats/min"},
      {72.6, Units::bpm, "73 beats/min"},
      {1.5, Units::kg, "1.5000000000 kg"},
      {3, Units::count, "3 "},
      {98.6, Units::F, "98.6000000000 F"},
      {-0.25, Units::C, "-0.2500000000 C"},
      {42.2, Units::mlPerKgMin, "42.2000000000 mL/(kg*min)"},
      {97, Units::percent, "97 %"},
  };
  for (const auto& [value, unit, expected] : cases) {
    EXPECT_EQ(formatWithUnit(value, unit), expected);
  }
}

}  // namespace
}  // namespace kestrova
