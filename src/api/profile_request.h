// The profile request of the connection flow: GET "v1.3/profile/<id>/" on the API's token queue,
// with the API queue held until the answer. No state; the completion runs on the session's
// thread (or the token queue's when the request cannot be built), never on the main queue.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "api/api.h"
#include "api/url_request_info.h"
#include "kestrova/error.h"

namespace kestrova {

using ProfileValidationCompletion =
    std::function<void(bool success, std::optional<KestrovaHealthKitError> error)>;

// The id is percent-encoded as one path segment, so no id can reach another resource.
URLRequestInfo profileRequestInfo(std::string_view profileId);

// Validates `profileId` with the bearer token stored for it. Success whatever the body says
// when the back end answers 2xx; otherwise the error "Error executing profile request" is
// logged and the completion gets failedToValidateProfile(profileId). Without an API the
// completion gets bridgeCouldNotBeSetUp at once, on the calling thread.
void requestProfile(const API* api, const std::string& profileId,
                    ProfileValidationCompletion completion);

}  // namespace kestrova
