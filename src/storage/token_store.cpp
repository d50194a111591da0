#include "storage/token_store.h"

#include <array>
#include <nlohmann/json.hpp>

#include "platform/log.h"

namespace kestrova {
namespace {

constexpr std::string_view kCategory = "keychain";
constexpr std::string_view kServiceSuffix = ".Kestrova";
constexpr std::string_view kAccount = "User";
constexpr std::string_view kAccountPrefix = "User+";
constexpr std::string_view kIdClaim = "id";
constexpr std::string_view kStatusCodePrefix = "Error code: ";
constexpr std::string_view kFileNameSeparator = "---";

constexpr std::string_view kUpdateFailed =
    "Error keychain token delete for %{public}@ with error: %{public}@";
constexpr std::string_view kAddFailed =
    "Error keychain add token for %{public}@ with error: %{public}@";
constexpr std::string_view kLookupFailed =
    "Error keychain token lookup for %{public}@ with error: %{public}@";
constexpr std::string_view kExtractionFailed =
    "Error keychain token data extraction for %{public}@";

constexpr std::array<std::int8_t, 256> makeBase64Table() {
  std::array<std::int8_t, 256> table{};
  table.fill(-1);
  constexpr std::string_view alphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  for (std::size_t i = 0; i < alphabet.size(); ++i) {
    table[static_cast<unsigned char>(alphabet[i])] = static_cast<std::int8_t>(i);
  }
  return table;
}

// Strict base64 with padding, as the platform decodes it: anything else gives none.
std::optional<std::string> decodeBase64(std::string_view text) {
  static constexpr auto kTable = makeBase64Table();
  if (text.size() % 4 != 0) {
    return std::nullopt;
  }
  std::size_t padding = 0;
  while (padding < 2 && padding < text.size() && text[text.size() - 1 - padding] == '=') {
    ++padding;
  }
  std::string out;
  out.reserve(text.size() / 4 * 3);
  std::uint32_t buffer = 0;
  int bits = 0;
  for (std::size_t i = 0; i < text.size() - padding; ++i) {
    const auto value = kTable[static_cast<unsigned char>(text[i])];
    if (value < 0) {
      return std::nullopt;
    }
    buffer = (buffer << 6) | static_cast<std::uint32_t>(value);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out.push_back(static_cast<char>((buffer >> bits) & 0xFF));
    }
  }
  // A group of one character cannot encode a byte.
  if ((text.size() - padding) % 4 == 1) {
    return std::nullopt;
  }
  return out;
}

// Well-formed UTF-8: no stray continuation bytes, no overlong forms, no surrogates, nothing
// past U+10FFFF.
bool isValidUtf8(std::string_view text) {
  std::size_t i = 0;
  while (i < text.size()) {
    const auto lead = static_cast<unsigned char>(text[i]);
    std::size_t length = 0;
    std::uint32_t codePoint = 0;
    if (lead < 0x80) {
      ++i;
      continue;
    } else if ((lead & 0xE0) == 0xC0) {
      length = 2;
      codePoint = lead & 0x1F;
    } else if ((lead & 0xF0) == 0xE0) {
      length = 3;
      codePoint = lead & 0x0F;
    } else if ((lead & 0xF8) == 0xF0) {
      length = 4;
      codePoint = lead & 0x07;
    } else {
      return false;
    }
    if (i + length > text.size()) {
      return false;
    }
    for (std::size_t k = 1; k < length; ++k) {
      const auto next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xC0) != 0x80) {
        return false;
      }
      codePoint = (codePoint << 6) | (next & 0x3F);
    }
    constexpr std::uint32_t kShortest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (codePoint < kShortest[length] || codePoint > 0x10FFFF ||
        (codePoint >= 0xD800 && codePoint <= 0xDFFF)) {
      return false;
    }
    i += length;
  }
  return true;
}

std::string statusText(OSStatus status) {
  if (auto message = secCopyErrorMessageString(status)) {
    return *message;
  }
  return std::string(kStatusCodePrefix) + std::to_string(status);
}

}  // namespace

bool isUsableProfileId(std::string_view profileId) {
  if (profileId.empty() || profileId.size() > kMaximumProfileIdLength || profileId == "." ||
      profileId == ".." || profileId.find_first_of("/\\") != std::string_view::npos ||
      profileId.find(kFileNameSeparator) != std::string_view::npos) {
    return false;
  }
  for (unsigned char c : profileId) {
    if (c < 0x20 || c == 0x7F) {
      return false;
    }
  }
  return true;
}

std::optional<std::string> profileIdFromToken(std::string_view token) {
  const auto firstDot = token.find('.');
  if (firstDot == std::string_view::npos) {
    return std::nullopt;
  }
  const auto secondDot = token.find('.', firstDot + 1);
  if (secondDot == std::string_view::npos) {
    return std::nullopt;
  }
  std::string payload(token.substr(firstDot + 1, secondDot - firstDot - 1));
  for (auto& c : payload) {
    if (c == '-') {
      c = '+';
    } else if (c == '_') {
      c = '/';
    }
  }
  if (const auto remainder = payload.size() % 4; remainder != 0) {
    payload.append(4 - remainder, '=');
  }
  const auto decoded = decodeBase64(payload);
  if (!decoded) {
    return std::nullopt;
  }
  const auto json = nlohmann::json::parse(*decoded, nullptr, /*allow_exceptions=*/false);
  if (!json.is_object()) {
    return std::nullopt;
  }
  const auto id = json.find(kIdClaim);
  if (id == json.end() || !id->is_string()) {
    return std::nullopt;
  }
  auto profileId = id->get<std::string>();
  if (!isUsableProfileId(profileId)) {
    return std::nullopt;
  }
  return profileId;
}

TokenStore::TokenStore(std::shared_ptr<SecureStore> secureStore,
                       std::string_view applicationIdentifier)
    : secureStore_(std::move(secureStore)),
      service_(std::string(applicationIdentifier) + std::string(kServiceSuffix)) {}

std::string TokenStore::account(const std::optional<std::string>& profileId) {
  return profileId ? std::string(kAccountPrefix) + *profileId : std::string(kAccount);
}

std::optional<std::string> TokenStore::takeToken(std::string_view token) {
  // Before anything can log: the token must never appear in a log line.
  logging::registerSecret(token);
  auto profileId = profileIdFromToken(token);
  if (profileId) {
    saveToken(token, profileId);
  }
  return profileId;
}

void TokenStore::saveToken(std::string_view token, const std::optional<std::string>& profileId) {
  const auto accountName = account(profileId);
  const Bytes data = toBytes(token);
  // An item that cannot be read is there all the same: updating it repairs a damaged value,
  // where adding would only be refused as a duplicate.
  if (const auto stored = tokenForProfile(profileId); !stored || *stored) {
    if (const auto status = secureStore_->update(service_, accountName, data);
        status != errSecSuccess) {
      logError(kCategory, kUpdateFailed, {accountName, statusText(status)});
    }
    return;
  }
  if (const auto status = secureStore_->add(SecureItem{service_, accountName, data});
      status != errSecSuccess) {
    logError(kCategory, kAddFailed, {accountName, statusText(status)});
  }
}

Result<std::optional<std::string>> TokenStore::tokenForProfile(
    const std::optional<std::string>& profileId) const {
  const auto accountName = account(profileId);
  SecureItem item;
  const auto status = secureStore_->copyMatching(service_, accountName, item);
  if (status == errSecItemNotFound) {
    return std::optional<std::string>();
  }
  if (status != errSecSuccess) {
    const auto text = statusText(status);
    logError(kCategory, kLookupFailed, {accountName, text});
    return Error{std::string(kKeychainErrorDomain), status, text};
  }
  auto token = toString(item.data);
  if (!isValidUtf8(token)) {
    logError(kCategory, kExtractionFailed, {accountName});
    return Error{std::string(kKeychainErrorDomain), errSecDecode, statusText(errSecDecode)};
  }
  return std::optional<std::string>(std::move(token));
}

}  // namespace kestrova
