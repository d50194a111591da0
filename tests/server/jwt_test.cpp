#include "server/jwt.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace kestrova::server {
namespace {

constexpr std::int64_t kNow = 1'700'000'000;
constexpr std::string_view kSecret = "s3cret";
// {"alg":"HS256","typ":"JWT"}.{"iat":1700000000,"id":"profile-1"}, signed with kSecret by an
// independent HS256 implementation.
constexpr std::string_view kMinted =
    "eyJhbGciOiJIUzI1NiIsInR5cCI6IkpXVCJ9.eyJpYXQiOjE3MDAwMDAwMDAsImlkIjoicHJvZmlsZS0xIn0."
    "2atXg2UJzIeWdLEIy-4KafXKgmoytcFp2Pe4pn3PJc0";

std::int64_t problem(TokenProblem value) {
  return static_cast<std::int64_t>(value);
}

TEST(Token, MintedTokenIsTheStandardHs256TokenAndVerifies) {
  // The client reads "id" from the base64url payload without checking the signature.
  EXPECT_EQ(mintToken(kSecret, "profile-1", kNow), kMinted);
  EXPECT_EQ(verifyToken(kMinted, kSecret, kNow).value(), "profile-1");
  EXPECT_EQ(base64UrlDecode("eyJpZCI6InAxIn0"), R"({"id":"p1"})");
  for (const char* bad : {"Zg==", "Z", "Zm9v+", "Zm9v/", "Zm 9"}) {
    EXPECT_FALSE(base64UrlDecode(bad)) << bad;
  }
}

TEST(Token, RefusesEveryTokenItDidNotSignOrCannotUse) {
  const std::string header(kMinted.substr(0, kMinted.find('.')));
  const std::string payload = base64UrlEncode(R"({"id":"p1"})");
  const std::string signature(kMinted.substr(kMinted.rfind('.')));
  const nlohmann::json hs256 = {{"alg", "HS256"}, {"typ", "JWT"}};
  std::string flipped(kMinted);
  flipped.back() = 'A';
  struct Case {
    std::string name;
    std::string token;
    TokenProblem expected;
  };
  const std::vector<Case> cases = {
      {"tampered signature", flipped, TokenProblem::badSignature},
      {"payload swapped after signing", header + "." + payload + signature,
       TokenProblem::badSignature},
      {"alg none, unsigned", base64UrlEncode(R"({"alg":"none"})") + "." + payload + ".",
       TokenProblem::unsupportedAlgorithm},
      {"alg HS512", signToken(kSecret, {{"alg", "HS512"}}, {{"id", "p1"}}),
       TokenProblem::unsupportedAlgorithm},
      {"two parts", header + "." + payload, TokenProblem::malformed},
      {"payload not base64url", header + ".a+b" + signature, TokenProblem::malformed},
      {"payload not JSON", header + "." + base64UrlEncode("{id:") + signature,
       TokenProblem::malformed},
      {"id a number", signToken(kSecret, hs256, {{"id", 42}}), TokenProblem::missingProfile},
      {"expired", signToken(kSecret, hs256, {{"id", "p1"}, {"exp", kNow - 1}}),
       TokenProblem::expired},
  };
  for (const auto& c : cases) {
    auto verified = verifyToken(c.token, kSecret, kNow);
    ASSERT_FALSE(verified) << c.name;
    EXPECT_EQ(verified.error().domain, kTokenErrorDomain) << c.name;
    EXPECT_EQ(verified.error().code, problem(c.expected))
        << c.name << ": " << verified.error().description;
  }
  EXPECT_EQ(
      verifyToken(signToken(kSecret, hs256, {{"id", "p1"}, {"exp", kNow + 60}}), kSecret, kNow)
          .value(),
      "p1");
}

}  // namespace
}  // namespace kestrova::server
