// Bearer tokens of the reference back end: HS256 JSON Web Tokens whose payload names the
// profile in "id". Pure functions of their arguments; no shared state.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "platform/result.h"

namespace kestrova::server {

inline constexpr std::string_view kTokenErrorDomain = "KestrovaServerToken";

// Why a token was refused; the error's code is the enumerator's value.
enum class TokenProblem : std::int64_t {
  malformed = 1,         // not three base64url parts of JSON objects
  unsupportedAlgorithm,  // anything but "HS256", "none" included
  badSignature,          // signed with another secret, or altered after signing
  missingProfile,        // no text "id" in the payload
  expired,               // "exp" in the past
};

// base64url without padding, as tokens carry it.
std::string base64UrlEncode(std::string_view bytes);
// Empty when the text holds a character outside the base64url alphabet or padding.
std::optional<std::string> base64UrlDecode(std::string_view text);

// A token of any header and payload, signed with HS256 whatever the header says: what tests
// use to make tokens that are signed but not acceptable.
std::string signToken(std::string_view secret, const nlohmann::json& header,
                      const nlohmann::json& payload);

// A token for `profileId` signed with `secret`; `issuedAt` (seconds since 1970) goes into
// "iat" so that two tokens for the same profile may differ.
std::string mintToken(std::string_view secret, std::string_view profileId,
                      std::int64_t issuedAt = 0);

// The profile id of a token that `secret` signed; the signature is compared in constant time.
// "exp", when present, is compared with `now` (seconds since 1970).
Result<std::string> verifyToken(std::string_view token, std::string_view secret, std::int64_t now);

}  // namespace kestrova::server
