#include "server/jwt.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace kestrova::server {
namespace {

constexpr std::int64_t kNow = 1'700'000'000;

std::int64_t problem(TokenProblem value) {
  return static_cast<std::int64_t>(value);
}

std::string part(const nlohmann::json& json) {
  return base64UrlEncode(json.dump());
}

// The three parts of a token.
std::vector<std::string> split(const std::string& token) {
  std::vector<std::string> parts;
  size_t start = 0;
  for (size_t dot; (dot = token.find('.', start)) != std::string::npos; start = dot + 1) {
    parts.push_back(token.substr(start, dot - start));
  }
  parts.push_back(token.substr(start));
  return parts;
}

TEST(Base64Url, EncodesAndDecodesTheStandardVectorsWithoutPadding) {
  const std::vector<std::pair<std::string, std::string>> vectors = {
      {"", ""},           {"f", "Zg"},          {"fo", "Zm8"},          {"foo", "Zm9v"},
      {"foob", "Zm9vYg"}, {"fooba", "Zm9vYmE"}, {"foobar", "Zm9vYmFy"}, {"\xfb\xff", "-_8"}};
  for (const auto& [plain, encoded] : vectors) {
    EXPECT_EQ(base64UrlEncode(plain), encoded);
    EXPECT_EQ(base64UrlDecode(encoded), plain) << encoded;
  }
  for (const char* bad : {"Zg==", "Z", "Zm9v+", "Zm9v/", "Zm 9"}) {
    EXPECT_FALSE(base64UrlDecode(bad)) << bad;
  }
}

TEST(Token, MintedTokenVerifiesAndCarriesTheProfileAsTheClientReadsIt) {
  const std::string token = mintToken("s3cret", "profile-1", kNow);
  auto verified = verifyToken(token, "s3cret", kNow);
  ASSERT_TRUE(verified) << verified.error().text();
  EXPECT_EQ(*verified, "profile-1");

  // The client reads "id" from the base64url payload without checking the signature.
  const auto parts = split(token);
  ASSERT_EQ(parts.size(), 3u);
  const auto payload = nlohmann::json::parse(*base64UrlDecode(parts[1]));
  EXPECT_EQ(payload.at("id"), "profile-1");
  EXPECT_EQ(payload.at("iat"), kNow);
  EXPECT_EQ(nlohmann::json::parse(*base64UrlDecode(parts[0])).at("alg"), "HS256");
}

TEST(Token, SignatureMatchesAnIndependentlyPublishedHs256Token) {
  // The widely published example token, signed with "your-256-bit-secret". Its payload has no
  // "id", so reaching that check proves the signature was computed as everyone computes it.
  const std::string published =
      "eyJhbGciOiJIUzI1NiIsInR5cCI6IkpXVCJ9."
      "eyJzdWIiOiIxMjM0NTY3ODkwIiwibmFtZSI6IkpvaG4gRG9lIiwiaWF0IjoxNTE2MjM5MDIyfQ."
      "SflKxwRJSMeKKF2QT4fwpMeJf36POk6yJV_adQssw5c";
  auto verified = verifyToken(published, "your-256-bit-secret", kNow);
  ASSERT_FALSE(verified);
  EXPECT_EQ(verified.error().code, problem(TokenProblem::missingProfile));
  EXPECT_EQ(verifyToken(published, "another-secret", kNow).error().code,
            problem(TokenProblem::badSignature));
}

TEST(Token, RefusesEveryTokenItDidNotSignOrCannotUse) {
  const std::string secret = "s3cret";
  const std::string good = mintToken(secret, "p1");
  const auto parts = split(good);
  const std::string& header = parts[0];
  const nlohmann::json hs256 = {{"alg", "HS256"}, {"typ", "JWT"}};

  std::string flippedSignature = good;
  flippedSignature.back() = flippedSignature.back() == 'A' ? 'B' : 'A';

  struct Case {
    std::string name;
    std::string token;
    std::string secret;
    TokenProblem expected;
  };
  const std::vector<Case> cases = {
      {"tampered signature", flippedSignature, secret, TokenProblem::badSignature},
      {"payload swapped after signing", header + "." + part({{"id", "p2"}}) + "." + parts[2],
       secret, TokenProblem::badSignature},
      {"wrong secret", good, "not-the-secret", TokenProblem::badSignature},
      {"alg none, unsigned", part({{"alg", "none"}}) + "." + parts[1] + ".", secret,
       TokenProblem::unsupportedAlgorithm},
      {"alg none, signed anyway", signToken(secret, {{"alg", "none"}}, {{"id", "p1"}}), secret,
       TokenProblem::unsupportedAlgorithm},
      {"alg HS512", signToken(secret, {{"alg", "HS512"}}, {{"id", "p1"}}), secret,
       TokenProblem::unsupportedAlgorithm},
      {"header without alg", signToken(secret, {{"typ", "JWT"}}, {{"id", "p1"}}), secret,
       TokenProblem::unsupportedAlgorithm},
      {"two parts", header + "." + parts[1], secret, TokenProblem::malformed},
      {"four parts", good + ".x", secret, TokenProblem::malformed},
      {"empty", "", secret, TokenProblem::malformed},
      {"payload not base64url", header + ".a+b." + parts[2], secret, TokenProblem::malformed},
      {"payload not an object", header + "." + base64UrlEncode("[1]") + "." + parts[2], secret,
       TokenProblem::malformed},
      {"payload not JSON", header + "." + base64UrlEncode("{id:") + "." + parts[2], secret,
       TokenProblem::malformed},
      {"id missing", signToken(secret, hs256, {{"sub", "p1"}}), secret,
       TokenProblem::missingProfile},
      {"id a number", signToken(secret, hs256, {{"id", 42}}), secret, TokenProblem::missingProfile},
      {"id empty", signToken(secret, hs256, {{"id", ""}}), secret, TokenProblem::missingProfile},
      {"expired", signToken(secret, hs256, {{"id", "p1"}, {"exp", kNow - 1}}), secret,
       TokenProblem::expired},
  };
  for (const auto& c : cases) {
    auto verified = verifyToken(c.token, c.secret, kNow);
    ASSERT_FALSE(verified) << c.name;
    EXPECT_EQ(verified.error().domain, kTokenErrorDomain) << c.name;
    EXPECT_EQ(verified.error().code, problem(c.expected))
        << c.name << ": " << verified.error().description;
  }
  auto unexpired =
      verifyToken(signToken(secret, hs256, {{"id", "p1"}, {"exp", kNow + 60}}), secret, kNow);
  ASSERT_TRUE(unexpired);
  EXPECT_EQ(*unexpired, "p1");
}

}  // namespace
}  // namespace kestrova::server
