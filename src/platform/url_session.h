// URL loading: a session runs data tasks asynchronously and completes each exactly once, on
// the session's own thread, with (data, response, error). Sessions are thread-safe; a task's
// state is owned by its session's thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/result.h"

namespace kestrova {

// Codes of URL loading errors (domain kURLErrorDomain), numbered as the platform numbers them.
enum class URLErrorCode : std::int64_t {
  unknown = -1,
  cancelled = -999,
  badURL = -1000,
  timedOut = -1001,
  unsupportedURL = -1002,
  cannotFindHost = -1003,
  cannotConnectToHost = -1004,
  networkConnectionLost = -1005,
  badServerResponse = -1011,
  fileDoesNotExist = -1100,
  secureConnectionFailed = -1200,
  serverCertificateUntrusted = -1202,
  cannotOpenFile = -3000,
};

inline constexpr std::string_view kURLErrorDomain = "NSURLErrorDomain";

Error urlError(URLErrorCode code, std::string description);

using HTTPHeaders = std::vector<std::pair<std::string, std::string>>;

struct URLRequest {
  std::string url;  // absolute
  std::string httpMethod = "GET";
  // In the order they were added; a field added twice is sent twice.
  HTTPHeaders headers;
  std::optional<Bytes> httpBody;

  void addValue(std::string value, std::string field) {
    headers.emplace_back(std::move(field), std::move(value));
  }
};

struct HTTPURLResponse {
  std::string url;
  int statusCode = 0;
  HTTPHeaders headerFields;
};

using DataTaskCompletion =
    std::function<void(std::optional<Bytes> data, std::optional<HTTPURLResponse> response,
                       std::optional<Error> error)>;

class URLSessionDataTask {
 public:
  virtual ~URLSessionDataTask() = default;
  // Starts the task; it then completes exactly once.
  virtual void resume() = 0;
  // Completes a task that has not completed yet with a "cancelled" error.
  virtual void cancel() = 0;
};

struct URLSessionConfiguration {
  // Requests beyond this many to one scheme, host and port wait, in the order they were
  // resumed, for a connection to come free; connections are kept alive and reused.
  int httpMaximumConnectionsPerHost = 1;
  // How long a request may go without moving a byte either way, once it has its connection
  // (time spent waiting for one does not count), and how long connecting may take; reported
  // as timedOut. A slow but steady upload is never cut short by it.
  std::chrono::milliseconds timeoutIntervalForRequest{60'000};
  // Limit of one request as a whole, from the moment it gets its connection to the end of the
  // response, however steadily it moves; reported as timedOut.
  std::chrono::milliseconds timeoutIntervalForResource{3'600'000};
};

class URLSession {
 public:
  virtual ~URLSession() = default;

  // A task that sends `request` once resumed. `completion` runs exactly once, on the session's
  // thread: (body, response, nothing) for every HTTP status, or (nothing, nothing, error) in
  // kURLErrorDomain. Only http and https URLs are sent (others: unsupportedURL); a header field
  // with a line break or a bad name is refused (badURL); redirects are reported, not followed.
  virtual std::shared_ptr<URLSessionDataTask> dataTask(URLRequest request,
                                                       DataTaskCompletion completion) = 0;
  // Completes every task not yet completed with a "cancelled" error and accepts no more.
  virtual void invalidateAndCancel() = 0;
};

// The Linux session on libcurl: one thread per session running a multi handle, HTTP/1.1
// keep-alive, TLS peer and host verification always on. Null (and logged) only when curl
// cannot be initialised.
std::shared_ptr<URLSession> makeURLSession(URLSessionConfiguration configuration = {});

}  // namespace kestrova
