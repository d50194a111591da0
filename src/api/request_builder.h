// Turning a URLRequestInfo into a URL request: URL composition against the base components,
// the body, the standard headers and the bearer token lookup. Pure functions apart from the
// file read and the token lookup; callable from any thread (the stores are thread-safe).
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "api/url_request_info.h"
#include "kestrova/error.h"
#include "platform/result.h"
#include "platform/url_components.h"
#include "platform/url_session.h"
#include "storage/file_server.h"
#include "storage/token_store.h"

namespace kestrova {

inline constexpr std::string_view kContentTypeHeader = "Content-Type";
inline constexpr std::string_view kAuthorizationHeader = "Authorization";
inline constexpr std::string_view kJsonContentType = "application/json";
inline constexpr std::string_view kBearerPrefix = "Bearer ";
inline constexpr std::string_view kRedactedBearer = "Bearer <redacted>";

// Scheme, host and port of `base`; its path joined with the request's path. With query items
// the URL carries them and no trailing slash; without, it ends in "/". None when the parts do
// not form a URL.
std::optional<std::string> composeURL(const URLComponents& base, const URLRequestInfo& info);

// The request an operation sends. Errors: the URL error badURL when no URL can be composed,
// cannotOpenFile when the upload file cannot be read (or was not JSON),
// noTokenAvailableFor(profile id) (see kestrovaError) when a file names a profile without a
// stored token and the operation carries no token of its own, and the secure store's error
// when the token lookup fails.
Result<URLRequest> buildRequest(const URLRequestInfo& info, const URLComponents& base,
                                const std::optional<Token>& token, FileServer& fileServer,
                                const TokenStore& tokenStore);

// The library's version, sent as the "Version" header.
std::string_view versionText();

// A KestrovaHealthKitError in the form that operation completions carry.
Error kestrovaError(const KestrovaHealthKitError& error);
bool isNoTokenAvailableFor(const Error& error, std::string_view profileId);

// The header map as log lines show it, in order, with every Authorization value written as
// "Bearer <redacted>": ["Content-Type": "application/json", "Authorization": ...].
std::string describeHeaders(const HTTPHeaders& headers);

}  // namespace kestrova
