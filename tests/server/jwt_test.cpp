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

TEST(Token, MintedTokenIsTheStandardHs256TokenAndOnlyTokensItSignedVerify) {
  // The client reads "id" from the base64url payload without checking the signature.
  EXPECT_EQ(mintToken(kSecret, "profile-1", kNow), kMinted);
  EXPECT_EQ(verifyToken(kMinted, kSecret, kNow).value(), "profile-1");
  const nlohmann::json hs256 = {{"alg", "HS256"}, {"typ", "JWT"}};
  EXPECT_EQ(
      verifyToken(signToken(kSecret, hs256, {{"id", "p1"}, {"exp", kNow + 60}}), kSecret, kNow)
          .value(),
      "p1");

  const std::string header(kMinted.substr(0, kMinted.find('.')));
  const std::string payload = base64UrlEncode(R"({"id":"p1"})");
  const std::string signature(kMinted.substr(kMinted.rfind('.')));
  const std::vector<std::pair<std::string, TokenProblem>> refused = {
      {header + "." + payload + signature, TokenProblem::badSignature},
      {base64UrlEncode(R"({"alg":"none"})") + "." + payload + ".",
       TokenProblem::unsupportedAlgorithm},
      {header + ".a+b" + signature, TokenProblem::malformed},
      {signToken(kSecret, hs256, {{"id", "p1"}, {"exp", kNow - 1}}), TokenProblem::expired},
  };
  for (const auto& [token, expected] : refused) {
    auto verified = verifyToken(token, kSecret, kNow);
    ASSERT_FALSE(verified) << token;
    EXPECT_EQ(verified.error().domain, kTokenErrorDomain);
    EXPECT_EQ(verified.error().code, static_cast<std::int64_t>(expected)) << token;
  }
}

}  // namespace
}  // namespace kestrova::server
