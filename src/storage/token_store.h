// The bearer token store: reads the profile id out of a token and keeps the token in the
// secure store under an account derived from that id. Holds no mutable state of its own (the
// secure store is thread-safe), so it may be used from any thread.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/secure_store.h"

namespace kestrova {

// The facade's view of the configured token.
struct Token {
  bool isValid = false;
  std::optional<std::string> profileId;
};

// The "id" claim of a token's payload; none for a token that is not three dot-separated
// parts, whose payload is not base64url of a JSON object with a string "id", or whose id
// could not safely name files, keychain accounts and URL paths.
std::optional<std::string> profileIdFromToken(std::string_view token);

// Ids name upload files, and a file name may not pass 255 bytes: the timestamp, the sample id
// and the separators take up to 80 of them.
inline constexpr std::size_t kMaximumProfileIdLength = 128;

// False for an empty id, one longer than kMaximumProfileIdLength bytes, ".", "..", and ids
// containing "/", "\", "---" or a control character.
bool isUsableProfileId(std::string_view profileId);

inline constexpr std::string_view kKeychainErrorDomain = "NSOSStatusErrorDomain";

class TokenStore {
 public:
  // The keychain service is `applicationIdentifier` followed by ".Kestrova".
  TokenStore(std::shared_ptr<SecureStore> secureStore, std::string_view applicationIdentifier);

  // Parses the token and, when it is usable, saves it; the profile id on success.
  std::optional<std::string> takeToken(std::string_view token);
  void saveToken(std::string_view token, const std::optional<std::string>& profileId);
  // The stored token; none only when the secure store has no item for the profile
  // (errSecItemNotFound). Any other failure (a busy or broken store, a stored value that is
  // not text) is logged and returned as an error in kKeychainErrorDomain with the status, for
  // it says nothing about whether the profile still has a token.
  Result<std::optional<std::string>> tokenForProfile(
      const std::optional<std::string>& profileId) const;

  const std::string& service() const { return service_; }
  static std::string account(const std::optional<std::string>& profileId);

 private:
  const std::shared_ptr<SecureStore> secureStore_;
  const std::string service_;
};

}  // namespace kestrova
