#include "server/jwt.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <array>
#include <nlohmann/json.hpp>

namespace kestrova::server {
namespace {

constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

Error tokenError(TokenProblem problem, std::string description) {
  return Error{std::string(kTokenErrorDomain), static_cast<std::int64_t>(problem),
               std::move(description)};
}

std::string hmacSha256(std::string_view key, std::string_view message) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int length = 0;
  HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
       reinterpret_cast<const unsigned char*>(message.data()), message.size(), digest.data(),
       &length);
  return std::string(reinterpret_cast<const char*>(digest.data()), length);
}

// The JSON object a token part encodes, or nothing.
std::optional<nlohmann::json> decodePart(std::string_view part) {
  auto bytes = base64UrlDecode(part);
  if (!bytes) {
    return std::nullopt;
  }
  auto parsed = nlohmann::json::parse(*bytes, nullptr, /*allow_exceptions=*/false);
  if (!parsed.is_object()) {
    return std::nullopt;
  }
  return parsed;
}

}  // namespace

std::string base64UrlEncode(std::string_view bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  std::uint32_t buffer = 0;
  int bits = 0;
  for (unsigned char byte : bytes) {
    buffer = (buffer << 8) | byte;
    bits += 8;
    while (bits >= 6) {
      bits -= 6;
      out += kAlphabet[(buffer >> bits) & 0x3F];
    }
  }
  if (bits > 0) {
    out += kAlphabet[(buffer << (6 - bits)) & 0x3F];
  }
  return out;
}

std::optional<std::string> base64UrlDecode(std::string_view text) {
  // One leftover character cannot carry a whole byte.
  if (text.size() % 4 == 1) {
    return std::nullopt;
  }
  std::string out;
  out.reserve(text.size() * 3 / 4);
  std::uint32_t buffer = 0;
  int bits = 0;
  for (char c : text) {
    const auto index = kAlphabet.find(c);
    if (index == std::string_view::npos) {
      return std::nullopt;
    }
    buffer = (buffer << 6) | static_cast<std::uint32_t>(index);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out += static_cast<char>((buffer >> bits) & 0xFF);
    }
  }
  return out;
}

std::string signToken(std::string_view secret, const nlohmann::json& header,
                      const nlohmann::json& payload) {
  const auto dump = [](const nlohmann::json& json) {
    return json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  };
  std::string signingInput = base64UrlEncode(dump(header)) + "." + base64UrlEncode(dump(payload));
  const std::string signature = base64UrlEncode(hmacSha256(secret, signingInput));
  return signingInput + "." + signature;
}

std::string mintToken(std::string_view secret, std::string_view profileId, std::int64_t issuedAt) {
  nlohmann::json payload = {{"id", std::string(profileId)}};
  if (issuedAt != 0) {
    payload["iat"] = issuedAt;
  }
  return signToken(secret, {{"alg", "HS256"}, {"typ", "JWT"}}, payload);
}

Result<std::string> verifyToken(std::string_view token, std::string_view secret, std::int64_t now) {
  const auto firstDot = token.find('.');
  const auto secondDot =
      firstDot == std::string_view::npos ? firstDot : token.find('.', firstDot + 1);
  if (secondDot == std::string_view::npos ||
      token.find('.', secondDot + 1) != std::string_view::npos) {
    return tokenError(TokenProblem::malformed, "a token has three dot-separated parts");
  }
  const auto header = decodePart(token.substr(0, firstDot));
  const auto payload = decodePart(token.substr(firstDot + 1, secondDot - firstDot - 1));
  const auto signature = base64UrlDecode(token.substr(secondDot + 1));
  if (!header || !payload || !signature) {
    return tokenError(TokenProblem::malformed, "token part is not base64url JSON");
  }
  const auto alg = header->find("alg");
  if (alg == header->end() || !alg->is_string() || alg->get<std::string>() != "HS256") {
    return tokenError(TokenProblem::unsupportedAlgorithm, "only HS256 tokens are accepted");
  }
  const std::string expected = hmacSha256(secret, token.substr(0, secondDot));
  if (signature->size() != expected.size() ||
      CRYPTO_memcmp(signature->data(), expected.data(), expected.size()) != 0) {
    return tokenError(TokenProblem::badSignature, "signature does not match");
  }
  const auto id = payload->find("id");
  if (id == payload->end() || !id->is_string() || id->get<std::string>().empty()) {
    return tokenError(TokenProblem::missingProfile, "payload has no text \"id\"");
  }
  const auto exp = payload->find("exp");
  if (exp != payload->end() &&
      (!exp->is_number() || exp->get<double>() <= static_cast<double>(now))) {
    return tokenError(TokenProblem::expired, "token has expired");
  }
  return id->get<std::string>();
}

}  // namespace kestrova::server
