// URLRequestInfo: the description of one back-end request, turned into a URL request only when
// its operation runs. A plain value, copied freely between threads.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "api/http_method.h"
#include "platform/result.h"
#include "platform/url_components.h"
#include "platform/url_session.h"
#include "storage/file_server.h"

namespace kestrova {

struct URLRequestInfo {
  // Relative to the base URL's path, e.g. "v1.3/ingest/bulk/". Characters a path cannot carry
  // are percent-encoded when the URL is composed; escapes already present are kept, so a part
  // encoded with percentEncode(..., URLCharacterSet::pathSegment) stays one segment.
  std::string path;
  HttpMethod httpMethod = HttpMethod::GET;
  // When present the URL gets them as its query and no trailing slash.
  std::optional<std::vector<URLQueryItem>> queryItems;
  // Used only when `fileName` is absent.
  std::optional<Bytes> body;
  // Added after the standard headers, in this order; a name already used is added again.
  std::optional<HTTPHeaders> extraHeaders;
  // The upload file whose contents are the body.
  std::optional<FileNameComponents> fileName;
  // The directory `fileName` lives in: true the bulk one; false or absent the single one.
  std::optional<bool> bulk;
};

}  // namespace kestrova
