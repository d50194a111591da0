#include "storage/token_store.h"

#include <gtest/gtest.h>

#include "server/jwt.h"
#include "support/test_support.h"

namespace kestrova {
namespace {

std::string makeToken(std::string_view payload) {
  return "eyJhbGciOiJIUzI1NiJ9." + server::base64UrlEncode(payload) + ".c2lnbmF0dXJl";
}

TEST(TokenParsing, ReadsTheIdClaimOfWellFormedTokens) {
  // Payloads whose unpadded lengths leave remainders 2, 3 and 0: two, one and no "=" added.
  for (const std::string id : {"a", "ab", "abc"}) {
    EXPECT_EQ(profileIdFromToken(makeToken(R"({"id":")" + id + R"("})")), id);
  }
  // The url-safe characters "-" and "_" stand for "+" and "/".
  const auto urlSafe = makeToken(R"({"id":"p~~~>>>","exp":1})");
  ASSERT_NE(urlSafe.find_first_of("-_", 21), std::string::npos);
  EXPECT_EQ(profileIdFromToken(urlSafe), "p~~~>>>");
  // Extra claims and further dots in the signature are no concern of ours.
  EXPECT_EQ(profileIdFromToken(makeToken(R"({"sub":"x","id":"4711"})") + ".more"), "4711");
}

TEST(TokenParsing, RejectsEverythingElse) {
  // Not three parts, not base64 (a dangling sixth bit group cannot be a byte), no string "id"
  // in a JSON object, and ids that would escape file names, keychain accounts or URL paths.
  std::vector<std::string> rejected = {
      "", "abc", "h.e$$$.s", "h.abcde.s",
      "eyJhbGciOiJIUzI1NiJ9." + server::base64UrlEncode(R"({"id":"a"})")};
  for (const char* payload :
       {R"({"id":4711})", R"({"ID":"a"})", R"(["id","a"])", R"("id")", R"({"id":"a")",
        R"({"id":null})", R"({"id":""})", R"({"id":"."})", R"({"id":".."})", R"({"id":"../etc"})",
        R"({"id":"a\\b"})", R"({"id":"a---b"})", R"({"id":"a\nb"})", R"({"id":"a\u007fb"})"}) {
    rejected.push_back(makeToken(payload));
  }
  for (const auto& token : rejected) {
    EXPECT_FALSE(profileIdFromToken(token)) << token;
  }
  EXPECT_TRUE(isUsableProfileId("a-b_c.d") && isUsableProfileId("--") && isUsableProfileId("..."));
}

// A keychain that fails the way a real one can, to reach the logging paths.
class FailingSecureStore : public SecureStore {
 public:
  OSStatus copyStatus = errSecItemNotFound;
  OSStatus writeStatus = errSecIO;
  OSStatus addStatus = errSecSuccess;  // when set, add answers this instead of writeStatus
  Bytes storedData;

  OSStatus copyMatching(std::string_view service, std::string_view account,
                        SecureItem& result) const override {
    result = SecureItem{std::string(service), std::string(account), storedData};
    return copyStatus;
  }
  OSStatus add(const SecureItem&) override {
    return addStatus == errSecSuccess ? writeStatus : addStatus;
  }
  OSStatus update(std::string_view, std::string_view, const Bytes&) override { return writeStatus; }
  OSStatus remove(std::string_view, std::string_view) override { return writeStatus; }
};

TEST(TokenStore, SecureStoreFailuresAreErrorsAndLoggedWithTheirStatusText) {
  auto log = testing::CapturedLog::install();
  auto keychain = std::make_shared<FailingSecureStore>();
  TokenStore store(keychain, "app");
  store.saveToken("token-value-1", std::string("p1"));  // not found, so it adds
  keychain->copyStatus = errSecSuccess;
  keychain->writeStatus = -12345;                       // a status without a message
  store.saveToken("token-value-2", std::string("p1"));  // found, so it updates
  // A failed lookup is an error with its status, never "no token" (which deletes the files).
  keychain->copyStatus = errSecInteractionNotAllowed;
  const auto busy = store.tokenForProfile("p1");
  ASSERT_FALSE(busy);
  EXPECT_EQ(busy.error().domain, "NSOSStatusErrorDomain");
  EXPECT_EQ(busy.error().code, errSecInteractionNotAllowed);
  keychain->copyStatus = errSecSuccess;
  keychain->storedData = Bytes{0xC3, 0x28};  // not UTF-8
  const auto damaged = store.tokenForProfile(std::nullopt);
  ASSERT_FALSE(damaged);
  EXPECT_EQ(damaged.error().code, errSecDecode);
  // A damaged item is still an item: saving updates it rather than adding a duplicate.
  keychain->writeStatus = errSecSuccess;
  keychain->addStatus = errSecDuplicateItem;
  store.saveToken("token-value-3", std::nullopt);
  std::string messages;
  for (const auto& line : log->lines()) {
    messages += line.message + "\n";
  }
  EXPECT_EQ(messages,
            "Error keychain add token for User+p1 with error: I/O error (bummers)\n"
            "Error keychain token delete for User+p1 with error: Error code: -12345\n"
            "Error keychain token lookup for User+p1 with error: User interaction is not allowed.\n"
            "Error keychain token data extraction for User\n"
            "Error keychain token data extraction for User\n");
  log->uninstall();
}

}  // namespace
}  // namespace kestrova
