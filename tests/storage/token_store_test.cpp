#include "storage/token_store.h"

#include <gtest/gtest.h>

#include "support/test_support.h"

namespace kestrova {
namespace {

std::string base64url(std::string_view bytes) {
  constexpr std::string_view alphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
  std::string out;
  std::uint32_t buffer = 0;
  int bits = 0;
  for (unsigned char c : bytes) {
    buffer = (buffer << 8) | c;
    bits += 8;
    while (bits >= 6) {
      bits -= 6;
      out.push_back(alphabet[(buffer >> bits) & 0x3F]);
    }
  }
  if (bits > 0) {
    out.push_back(alphabet[(buffer << (6 - bits)) & 0x3F]);
  }
  return out;  // unpadded, as in a JSON Web Token
}

std::string makeToken(std::string_view payload) {
  return "eyJhbGciOiJIUzI1NiJ9." + base64url(payload) + ".c2lnbmF0dXJl";
}

TEST(TokenParsing, ReadsTheIdClaimOfWellFormedTokens) {
  // Payloads whose unpadded lengths leave remainders 2, 3 and 0: two, one and no "=" added.
  EXPECT_EQ(base64url(R"({"id":"a"})").size() % 4, 2u);
  EXPECT_EQ(profileIdFromToken(makeToken(R"({"id":"a"})")), "a");
  EXPECT_EQ(base64url(R"({"id":"ab"})").size() % 4, 3u);
  EXPECT_EQ(profileIdFromToken(makeToken(R"({"id":"ab"})")), "ab");
  EXPECT_EQ(base64url(R"({"id":"abc"})").size() % 4, 0u);
  EXPECT_EQ(profileIdFromToken(makeToken(R"({"id":"abc"})")), "abc");
  // The url-safe characters "-" and "_" stand for "+" and "/".
  const auto urlSafe = makeToken(R"({"id":"p~~~>>>","exp":1})");
  ASSERT_NE(urlSafe.find_first_of("-_", 21), std::string::npos);
  EXPECT_EQ(profileIdFromToken(urlSafe), "p~~~>>>");
  // Extra claims and further dots in the signature are no concern of ours.
  EXPECT_EQ(profileIdFromToken(makeToken(R"({"sub":"x","id":"4711"})") + ".more"), "4711");
}

TEST(TokenParsing, RejectsEverythingElse) {
  const std::vector<std::string> rejected = {
      "",
      "abc",
      "eyJhbGciOiJIUzI1NiJ9." + base64url(R"({"id":"a"})"),  // two parts only
      makeToken(R"({"id":4711})"),                           // numeric id
      makeToken(R"({"ID":"a"})"),
      makeToken(R"(["id","a"])"),
      makeToken(R"("id")"),
      makeToken(R"({"id":"a")"),  // truncated JSON
      makeToken(R"({"id":null})"),
      "h.e$$$.s",   // not base64
      "h.abcde.s",  // a dangling sixth bit group cannot be a byte
      // Profile ids that would escape file names, keychain accounts or URL paths.
      makeToken(R"({"id":""})"),
      makeToken(R"({"id":"."})"),
      makeToken(R"({"id":".."})"),
      makeToken(R"({"id":"../etc"})"),
      makeToken(R"({"id":"a\\b"})"),
      makeToken(R"({"id":"a---b"})"),
      makeToken(R"({"id":"a\nb"})"),
      makeToken(R"({"id":"a\u007fb"})"),
  };
  for (const auto& token : rejected) {
    EXPECT_FALSE(profileIdFromToken(token)) << token;
  }
  EXPECT_TRUE(isUsableProfileId("a-b_c.d"));
  EXPECT_TRUE(isUsableProfileId("--"));
  EXPECT_TRUE(isUsableProfileId("..."));
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

TEST(TokenStore, KeepsOneItemPerProfileInTheSecureStore) {
  testing::TempDir dir;
  auto test = testing::makeTestPlatform(dir.path());
  auto log = testing::CapturedLog::install();
  TokenStore store(test.platform->secureStore, test.platform->applicationIdentifier);
  EXPECT_EQ(store.service(), "com.example.host.Kestrova");
  EXPECT_EQ(TokenStore::account("p1"), "User+p1");
  EXPECT_EQ(TokenStore::account(std::nullopt), "User");

  // Nothing stored: none, and nothing logged.
  EXPECT_EQ(store.tokenForProfile("p1").value(), std::nullopt);
  EXPECT_TRUE(log->lines().empty());

  const auto first = makeToken(R"({"id":"p1","n":1})");
  const auto second = makeToken(R"({"id":"p1","n":2})");
  EXPECT_EQ(store.takeToken(first), "p1");
  EXPECT_EQ(store.takeToken(second), "p1");
  EXPECT_EQ(store.tokenForProfile("p1").value(), second);
  // One item: adding another for the account is a duplicate.
  EXPECT_EQ(test.platform->secureStore->add(SecureItem{store.service(), "User+p1", toBytes("x")}),
            errSecDuplicateItem);
  EXPECT_TRUE(log->lines().empty());

  // A rejected token stores nothing, and a token never shows in the log.
  EXPECT_FALSE(store.takeToken(makeToken(R"({"id":"p/2"})")));
  EXPECT_EQ(store.tokenForProfile("p/2").value(), std::nullopt);
  logInfo("test", "configured with %@", {second});
  EXPECT_EQ(log->lines().back().message, "configured with <redacted>");

  // Another application's tokens are apart from ours.
  TokenStore other(test.platform->secureStore, "org.example.other");
  EXPECT_EQ(other.tokenForProfile("p1").value(), std::nullopt);
  log->uninstall();
  installPlatform(nullptr);
}

TEST(TokenStore, SecureStoreFailuresAreLoggedWithTheirStatusText) {
  auto log = testing::CapturedLog::install();
  auto keychain = std::make_shared<FailingSecureStore>();
  TokenStore store(keychain, "app");

  keychain->writeStatus = errSecIO;
  store.saveToken("token-value-1", std::string("p1"));  // not found, so it adds
  keychain->copyStatus = errSecSuccess;
  keychain->storedData = toBytes("x");
  keychain->writeStatus = -12345;                       // a status without a message
  store.saveToken("token-value-2", std::string("p1"));  // found, so it updates
  ASSERT_EQ(log->lines().size(), 2u);
  EXPECT_EQ(log->lines()[0].message, "Error keychain add token for User+p1 with error: " +
                                         *secCopyErrorMessageString(errSecIO));
  EXPECT_EQ(log->lines()[1].message,
            "Error keychain token delete for User+p1 with error: Error code: -12345");

  // A failed lookup is an error with its status, never "no token".
  log->clear();
  keychain->copyStatus = errSecInteractionNotAllowed;
  const auto busy = store.tokenForProfile("p1");
  ASSERT_FALSE(busy);
  EXPECT_EQ(busy.error().domain, kKeychainErrorDomain);
  EXPECT_EQ(busy.error().code, errSecInteractionNotAllowed);
  EXPECT_EQ(log->lines().at(0).message,
            "Error keychain token lookup for User+p1 with error: " +
                *secCopyErrorMessageString(errSecInteractionNotAllowed));

  log->clear();
  keychain->copyStatus = errSecSuccess;
  keychain->storedData = Bytes{0xC3, 0x28};  // not UTF-8
  const auto damaged = store.tokenForProfile(std::nullopt);
  ASSERT_FALSE(damaged);
  EXPECT_EQ(damaged.error().code, errSecDecode);
  EXPECT_EQ(log->lines().at(0).message, "Error keychain token data extraction for User");
  // A damaged item is still an item: saving updates it rather than adding a duplicate.
  log->clear();
  keychain->writeStatus = errSecSuccess;
  keychain->addStatus = errSecDuplicateItem;
  store.saveToken("token-value-3", std::nullopt);
  EXPECT_FALSE(log->contains("Error keychain add token"));
  EXPECT_FALSE(log->contains("Error keychain token delete"));
  log->uninstall();
}

}  // namespace
}  // namespace kestrova
