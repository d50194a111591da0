#include "api/request_builder.h"

#include <algorithm>
#include <cctype>

#include "kestrova/version.h"

namespace kestrova {
namespace {

constexpr std::string_view kVersion = KESTROVA_VERSION_STRING;
static_assert(!kVersion.empty(), "the build sets the library's version");

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
    return std::tolower(static_cast<unsigned char>(x)) ==
           std::tolower(static_cast<unsigned char>(y));
  });
}

}  // namespace

std::optional<std::string> composeURL(const URLComponents& base, const URLRequestInfo& info) {
  // Scheme, host and port only: the base's user, query and fragment are not the request's.
  URLComponents components = base;
  components.setUser(std::nullopt);
  components.setPassword(std::nullopt);
  components.setQueryItems(std::nullopt);
  components.setFragment(std::nullopt);

  const auto requestPath = percentEncodePreservingEscapes(info.path, URLCharacterSet::path);
  const auto path =
      appendingPathComponent(appendingPathComponent(base.percentEncodedPath(), requestPath), "");
  if (!components.setPercentEncodedPath(path)) {
    return std::nullopt;
  }
  if (info.queryItems) {
    components.setQueryItems(info.queryItems);
    return components.url();
  }
  auto url = components.url();
  if (url && !url->ends_with('/')) {
    *url += '/';
  }
  return url;
}

Result<URLRequest> buildRequest(const URLRequestInfo& info, const URLComponents& base,
                                const std::optional<Token>& token, FileServer& fileServer,
                                const TokenStore& tokenStore) {
  auto url = composeURL(base, info);
  if (!url) {
    return urlError(URLErrorCode::badURL, {});
  }
  URLRequest request;
  request.url = std::move(*url);

  if (info.fileName) {
    auto data = fileServer.read(*info.fileName, info.bulk.value_or(false));
    if (!data) {
      return urlError(URLErrorCode::cannotOpenFile, {});
    }
    request.httpBody = std::move(*data);
  } else {
    request.httpBody = info.body;
  }

  request.httpMethod = std::string(rawValue(info.httpMethod));
  request.addValue(std::string(kJsonContentType), std::string(kContentTypeHeader));

  if (token || info.fileName) {
    auto bearer = tokenStore.tokenForProfile(token ? token->profileId : info.fileName->profileId);
    // A secure store that fails is no answer about the token: the request is not sent, so an
    // upload keeps its file for the next sweep rather than treating its profile as gone.
    if (!bearer) {
      return bearer.error();
    }
    if (!token && !bearer->has_value()) {
      return kestrovaError(KestrovaHealthKitError::noTokenAvailableFor(info.fileName->profileId));
    }
    if (bearer->has_value()) {
      request.addValue(std::string(kBearerPrefix) + **bearer, std::string(kAuthorizationHeader));
    }
  }

  if (info.extraHeaders) {
    for (const auto& [name, value] : *info.extraHeaders) {
      request.addValue(value, name);
    }
  }
  return request;
}

std::string_view versionText() {
  return kVersion;
}

Error kestrovaError(const KestrovaHealthKitError& error) {
  return Error{std::string(KestrovaHealthKitError::kDomain),
               static_cast<std::int64_t>(error.code()), error.localizedDescription()};
}

bool isNoTokenAvailableFor(const Error& error, std::string_view profileId) {
  const auto expected =
      kestrovaError(KestrovaHealthKitError::noTokenAvailableFor(std::string(profileId)));
  return error.domain == expected.domain && error.code == expected.code &&
         error.description == expected.description;
}

std::string describeHeaders(const HTTPHeaders& headers) {
  if (headers.empty()) {
    return "[:]";
  }
  std::string out = "[";
  for (const auto& [name, value] : headers) {
    if (out.size() > 1) {
      out += ", ";
    }
    out += '"';
    out += name;
    out += "\": \"";
    out += equalsIgnoringCase(name, kAuthorizationHeader) ? std::string(kRedactedBearer) : value;
    out += '"';
  }
  out += ']';
  return out;
}

}  // namespace kestrova
