#include <gtest/gtest.h>

#include <array>
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

URLRequestInfo info(std::string path, std::optional<FileNameComponents> file = std::nullopt,
                    std::optional<bool> bulk = std::nullopt) {
  URLRequestInfo request;
  request.path = std::move(path);
  request.fileName = std::move(file);
  request.bulk = bulk;
  return request;
}

TEST(ComposeURL, JoinsBaseAndPathWithTheTrailingSlashOnlyWithoutQuery) {
  // Base, request path, URL.
  const std::vector<std::array<std::string, 3>> cases = {
      {"https://h/api/", "v1.3/profile/", "https://h/api/v1.3/profile/"},
      {"https://h/api", "v1.3/profile/", "https://h/api/v1.3/profile/"},
      {"https://h//api//", "//v1.3//ingest//", "https://h/api/v1.3/ingest/"},
      // Only scheme, host and port come from the base.
      {"https://u:p@h/api/?x=1#frag", "v1.3/ingest/", "https://h/api/v1.3/ingest/"},
      // Characters a path cannot carry are encoded; escapes already there are kept.
      {"https://h/api/", "v1.3/profile/a b/", "https://h/api/v1.3/profile/a%20b/"},
      {"https://h/api/", "v1.3/profile/a%2Fb/", "https://h/api/v1.3/profile/a%2Fb/"},
  };
  for (const auto& [base, path, url] : cases) {
    EXPECT_EQ(composeURL(components(base), info(path)), url) << base << path;
  }
  auto query = info("v1.3/profile/");
  query.queryItems = std::vector<URLQueryItem>{{"a", "b"}};
  EXPECT_EQ(composeURL(components("https://h/api/"), query), "https://h/api/v1.3/profile?a=b");
}

TEST(BuildRequest, AuthorizationFollowsTheTokenRulesAndFailuresNameTheirCause) {
  testing::TempDir dir;
  const auto test = testing::makeTestPlatform(dir.path());
  const auto log = testing::CapturedLog::install();  // keeps the file server's lines out
  FileServer files(test.platform->files, FileServer::sharedWriteQueue(*test.platform->dispatcher));
  TokenStore tokens(test.platform->secureStore, test.platform->applicationIdentifier);
  tokens.saveToken("token-of-p1", "p1");
  const FileNameComponents file{"sample", "p1", utc(2024, 3, 1, 8)};
  const FileNameComponents orphan{"sample", "gone", utc(2024, 3, 1, 8)};
  const FileNameComponents damaged{"damaged", "p1", utc(2024, 3, 1, 8)};
  for (const auto& [name, contents] : std::vector<std::pair<FileNameComponents, std::string>>{
           {file, "[]"}, {orphan, "[]"}, {damaged, "{not json"}}) {
    ASSERT_FALSE(
        test.platform->files->createFileAtomically(*files.fileURL(name, true), toBytes(contents)));
  }
  struct Case {
    std::string base;
    std::optional<Token> token;
    std::optional<FileNameComponents> file;
    std::optional<bool> bulk;
    std::string expected;  // the Authorization header, "" for none, or the error's text
  };
  const std::vector<Case> cases = {
      {"https://h/api/", Token{true, "p1"}, std::nullopt, std::nullopt, "Bearer token-of-p1"},
      // The operation's token wins over the file's profile, also when nothing is stored for it.
      {"https://h/api/", Token{true, "p2"}, file, true, ""},
      {"https://h/api/", std::nullopt, file, true, "Bearer token-of-p1"},
      {"https://h/api/", std::nullopt, std::nullopt, std::nullopt, ""},
      // "v1.3/..." cannot follow a host without a path; nothing else is looked at.
      {"https://h", std::nullopt, FileNameComponents{"missing", "nobody", utc(2024, 3, 1)}, true,
       "NSURLErrorDomain -1000"},
      // Not JSON: unreadable, and dropped, as sending it again would fail for ever.
      {"https://h/api/", std::nullopt, damaged, true, "NSURLErrorDomain -3000"},
      {"https://h/api/", std::nullopt, orphan, true,
       "KestrovaLib.KestrovaHealthKitError 1: No token available for profile ID: gone"},
  };
  for (const auto& c : cases) {
    const auto built = buildRequest(info("v1.3/ingest/", c.file, c.bulk), components(c.base),
                                    c.token, files, tokens);
    HTTPHeaders expected = {{"Content-Type", "application/json"}};
    if (!c.expected.empty()) {
      expected.emplace_back("Authorization", c.expected);
    }
    if (built) {
      EXPECT_EQ(built->headers, expected) << c.expected;
    } else {
      EXPECT_EQ(built.error().text(), c.expected);
    }
  }
  EXPECT_FALSE(test.platform->files->readFile(*files.fileURL(damaged, true)).ok());
  // The orphan stays: whether it goes is the upload's decision.
  EXPECT_TRUE(files.read(orphan, true));
  installPlatform(nullptr);
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
  EXPECT_EQ(unitsFromRawValue("bpm"), std::nullopt);
  // Fahrenheit on purpose: the back end expects body temperature in it.
  EXPECT_EQ(unitForIdentifier("HKQuantityTypeIdentifierBodyTemperature"), Units::F);
  EXPECT_EQ(unitForIdentifier("HKQuantityTypeIdentifierFlightsClimbed"), std::nullopt);
}

}  // namespace
}  // namespace kestrova
