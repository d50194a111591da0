// The upload request of one file and the handling of its outcome (API::upload and uploadPending
// are defined beside them). No state: outcomes run on the delivery queue (DeliveryRecorder)
// and need no lock, since nothing else writes an upload file once it is complete.
#pragma once

#include <optional>

#include "api/url_request_info.h"
#include "platform/result.h"
#include "platform/url_session.h"
#include "storage/file_server.h"

namespace kestrova {

inline constexpr std::string_view kSourceHeader = "Source";
inline constexpr std::string_view kVersionHeader = "Version";
inline constexpr std::string_view kSourceValue = "Apple";

// POST of the file to "v1.3/ingest/bulk/" (bulk) or "v1.3/ingest/", with the headers
// "Source" and "Version"; `bulk` is set only for the bulk directory.
URLRequestInfo uploadRequestInfo(const FileNameComponents& fileName, bool bulk);

// Status 200, or an answer that is not HTTP: the back end took the data.
bool isAccepted(const std::optional<HTTPURLResponse>& response, const std::optional<Error>& error);

// Deletes the file when accepted and when its profile has no stored token any more, and then
// returns true; keeps it on every other outcome. Each case is logged.
bool handleUploadOutcome(FileServer& fileServer, const FileNameComponents& fileName, bool bulk,
                         const std::optional<HTTPURLResponse>& response,
                         const std::optional<Error>& error);

}  // namespace kestrova
