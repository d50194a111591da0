// API: the back-end client: one URL session, the token and API operation queues, the upload
// file store, the token store and the delivery recorder. Copies share all of them (each
// thread-safe); the base
// components belong to whoever holds the value, on that holder's queue (the facade's).
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string_view>

#include "api/api_operation.h"
#include "api/delivery_recorder.h"
#include "api/url_request_info.h"
#include "platform/operation_queue.h"
#include "platform/platform.h"
#include "platform/url_components.h"
#include "platform/url_session.h"
#include "storage/file_server.h"
#include "storage/token_store.h"

namespace kestrova {

class API {
 public:
  static constexpr std::string_view kTokenQueueName = "com.kestrova.queue.token";
  static constexpr std::string_view kApiQueueName = "com.kestrova.queue.api";

  using SessionFactory = std::function<std::shared_ptr<URLSession>(URLSessionConfiguration)>;
  // Where the validation's outcome lands: `error` is present when the profile was not
  // accepted (transport error, request not built, or an HTTP status outside 200...299, 403
  // included); `data` is the response body, not interpreted.
  using ValidationCompletion =
      std::function<void(std::optional<Bytes> data, std::optional<Error> error)>;

  // The session comes from `makeSession` with at most one connection per host; the queues run
  // on serial queues of the platform's dispatcher; files and tokens live in the platform's
  // data directory and secure store. `listener` hears every upload's outcome (see
  // DeliveryRecorder).
  API(URLComponents baseComponents, const Platform& platform,
      const SessionFactory& makeSession = &makeURLSession,
      DeliveryRecorder::Listener listener = {});

  const std::shared_ptr<URLSession>& session() const { return session_; }
  const URLComponents& baseComponents() const { return baseComponents_; }
  void setBaseComponents(URLComponents baseComponents) {
    baseComponents_ = std::move(baseComponents);
  }
  const std::shared_ptr<OperationQueue>& tokenQueue() const { return tokenQueue_; }
  const std::shared_ptr<OperationQueue>& apiQueue() const { return apiQueue_; }
  const FileServer& fileServer() const { return fileServer_; }
  const std::shared_ptr<const TokenStore>& tokenStore() const { return tokenStore_; }
  const std::shared_ptr<DeliveryRecorder>& recorder() const { return recorder_; }

  // Suspends the API queue and sends `info` on the token queue, authorised by `token`. A 403
  // logs "Profile not accessible", cancels everything on the API queue and leaves it
  // suspended; any other outcome releases it before `completion` runs. `completion` runs on
  // the session's thread, or on the token queue's dispatch queue when the request could not
  // be built.
  void validateProfile(URLRequestInfo info, Token token, ValidationCompletion completion) const;

  // Adds an operation without token for `info` to the API queue; see ApiOperation for where
  // `completion` runs.
  void enqueue(URLRequestInfo info, ApiOperation::CompletionHandler completion) const;

  // Sends one upload file to the ingest endpoint of its directory, once the pause a Retry-After
  // asked for is over; status 200 deletes it, so does a profile without a stored token; a file
  // refused again and again is set aside; anything else keeps it for the next sweep.
  void upload(FileNameComponents fileName, bool bulk) const;
  // Uploads every file of the single-upload directory, then of the bulk one, in listing order,
  // after removing the unfinished files of writes that a crash cut short.
  void uploadPending() const;

 private:
  std::shared_ptr<URLSession> session_;
  URLComponents baseComponents_;
  std::shared_ptr<OperationQueue> tokenQueue_;
  std::shared_ptr<OperationQueue> apiQueue_;
  FileServer fileServer_;
  std::shared_ptr<const TokenStore> tokenStore_;
  std::shared_ptr<DeliveryRecorder> recorder_;
};

}  // namespace kestrova
