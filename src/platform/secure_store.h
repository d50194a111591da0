// A keychain: secret items keyed by service and account, with the platform's status codes.
// Each implementation owns its items behind its own lock and may be called from any thread.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/result.h"

namespace kestrova {

using OSStatus = std::int32_t;

inline constexpr OSStatus errSecSuccess = 0;
inline constexpr OSStatus errSecIO = -36;
inline constexpr OSStatus errSecParam = -50;
inline constexpr OSStatus errSecAllocate = -108;
inline constexpr OSStatus errSecNotAvailable = -25291;
inline constexpr OSStatus errSecAuthFailed = -25293;
inline constexpr OSStatus errSecDuplicateItem = -25299;
inline constexpr OSStatus errSecItemNotFound = -25300;
inline constexpr OSStatus errSecInteractionNotAllowed = -25308;
inline constexpr OSStatus errSecDecode = -26275;

// The message of a status, as the keychain words it; none for a status it does not know.
std::optional<std::string> secCopyErrorMessageString(OSStatus status);

struct SecureItem {
  std::string service;
  std::string account;
  Bytes data;
};

class SecureStore {
 public:
  virtual ~SecureStore() = default;

  // errSecItemNotFound when there is no such item.
  virtual OSStatus copyMatching(std::string_view service, std::string_view account,
                                SecureItem& result) const = 0;
  // errSecDuplicateItem when the item exists already.
  virtual OSStatus add(const SecureItem& item) = 0;
  // errSecItemNotFound when there is no such item.
  virtual OSStatus update(std::string_view service, std::string_view account,
                          const Bytes& data) = 0;
  virtual OSStatus remove(std::string_view service, std::string_view account) = 0;
};

// The store kept in an SQLite database at `path`. Its directory is made (and kept) readable by
// the owner only (0700), and so are the database file and its journals (0600). A damaged
// database is moved aside and replaced, as for the defaults store. Failures after opening are
// logged and reported as errSecIO.
Result<std::shared_ptr<SecureStore>> openSqliteSecureStore(const std::filesystem::path& path);

}  // namespace kestrova
