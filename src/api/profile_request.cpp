#include "api/profile_request.h"

#include "api/api_constants.h"
#include "platform/log.h"

namespace kestrova {
namespace {

constexpr std::string_view kProfilePath = "v1.3/profile/";
constexpr std::string_view kRequestFailed = "Error executing profile request: %{public}@";

}  // namespace

URLRequestInfo profileRequestInfo(std::string_view profileId) {
  URLRequestInfo info;
  info.path = std::string(kProfilePath);
  info.path += percentEncode(profileId, URLCharacterSet::pathSegment);
  info.path += '/';
  info.httpMethod = HttpMethod::GET;
  return info;
}

void requestProfile(const API* api, const std::string& profileId,
                    ProfileValidationCompletion completion) {
  if (api == nullptr) {
    if (completion) {
      completion(false, KestrovaHealthKitError::bridgeCouldNotBeSetUp());
    }
    return;
  }
  api->validateProfile(profileRequestInfo(profileId), Token{true, profileId},
                       [profileId, completion = std::move(completion)](std::optional<Bytes>,
                                                                       std::optional<Error> error) {
                         if (!completion) {
                           return;
                         }
                         if (error) {
                           logError(kApiLogCategory, kRequestFailed, {error->text()});
                           completion(false,
                                      KestrovaHealthKitError::failedToValidateProfile(profileId));
                           return;
                         }
                         completion(true, std::nullopt);
                       });
}

}  // namespace kestrova
