#include "api/upload.h"

#include "api/api.h"
#include "api/api_constants.h"
#include "api/request_builder.h"
#include "platform/log.h"

namespace kestrova {
namespace {

constexpr std::string_view kBulkIngestPath = "v1.3/ingest/bulk/";
constexpr std::string_view kIngestPath = "v1.3/ingest/";
constexpr std::string_view kUploaded = "File %{public}@ has been uploaded successfully";
constexpr std::string_view kNotUploaded = "File %{public}@ has NOT been uploaded successfully";
constexpr std::string_view kTokenGone =
    "No token found anymore for profile %{public}@, going to delete file";
constexpr std::string_view kUploadFailed = "Error executing upload request: %{public}@";

}  // namespace

URLRequestInfo uploadRequestInfo(const FileNameComponents& fileName, bool bulk) {
  URLRequestInfo info;
  info.path = std::string(bulk ? kBulkIngestPath : kIngestPath);
  info.httpMethod = HttpMethod::POST;
  info.extraHeaders = HTTPHeaders{{std::string(kSourceHeader), std::string(kSourceValue)},
                                  {std::string(kVersionHeader), std::string(versionText())}};
  info.fileName = fileName;
  if (bulk) {
    info.bulk = true;
  }
  return info;
}

bool isAccepted(const std::optional<HTTPURLResponse>& response, const std::optional<Error>& error) {
  return !error && (!response || response->statusCode == kHTTPStatusOK);
}

bool handleUploadOutcome(FileServer& fileServer, const FileNameComponents& fileName, bool bulk,
                         const std::optional<HTTPURLResponse>& response,
                         const std::optional<Error>& error) {
  if (!error) {
    if (!isAccepted(response, error)) {
      logInfo(kApiLogCategory, kNotUploaded, {fileName.fileName()});
      return false;
    }
    logInfo(kApiLogCategory, kUploaded, {fileName.fileName()});
    fileServer.remove(fileName, bulk);
    return true;
  }
  // The profile was disconnected: its data is dropped rather than kept for ever.
  if (isNoTokenAvailableFor(*error, fileName.profileId)) {
    logError(kApiLogCategory, kTokenGone, {fileName.profileId});
    fileServer.remove(fileName, bulk);
    return true;
  }
  logError(kApiLogCategory, kUploadFailed, {error->text()});
  return false;
}

void API::upload(FileNameComponents fileName, bool bulk) const {
  // A copy of the API: a deferred send outlives this call.
  recorder_->sendWhenAllowed(
      std::move(fileName), bulk, [api = *this](FileNameComponents fileName, bool bulk) {
        auto info = uploadRequestInfo(fileName, bulk);
        api.enqueue(std::move(info),
                    [recorder = api.recorder_, fileName = std::move(fileName), bulk](
                        std::optional<Bytes> data, std::optional<HTTPURLResponse> response,
                        std::optional<Error> error) mutable {
                      recorder->fileAnswered(std::move(fileName), bulk, std::move(data),
                                             std::move(response), std::move(error));
                    });
      });
}

void API::uploadPending() const {
  // A restart also finds the writes that a crash cut short: nothing would ever remove them.
  fileServer_.removeUnfinishedWrites();
  for (auto& fileName : fileServer_.list(false)) {
    upload(std::move(fileName), false);
  }
  for (auto& fileName : fileServer_.list(true)) {
    upload(std::move(fileName), true);
  }
}

}  // namespace kestrova
