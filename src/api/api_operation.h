// ApiOperation: sends one back-end request. It finishes as soon as its data task has been
// started, so the queue's limit of one operation orders the starts of requests while their
// responses may overlap. State as BaseOperation; main runs on the queue's dispatch queue.
#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "api/base_operation.h"
#include "api/url_request_info.h"
#include "platform/url_components.h"
#include "platform/url_session.h"
#include "storage/file_server.h"
#include "storage/token_store.h"

namespace kestrova {

class API;

class ApiOperation : public BaseOperation {
 public:
  // Called exactly once per run: on the session's thread with (data, response, none) or
  // (none, none, transport error); on the queue's dispatch queue with (none, none, error)
  // when the request could not be built (see buildRequest).
  using CompletionHandler = DataTaskCompletion;

  // `token` authorises the request through the bearer value stored for its profile; uploads
  // carry none and use the file's profile instead. The operation keeps the session, the
  // API's file store and token store, never the API's queues.
  ApiOperation(URLRequestInfo requestInfo, std::shared_ptr<URLSession> session,
               std::optional<Token> token, URLComponents baseComponents, const API& api,
               CompletionHandler completionHandler);

 protected:
  void main() override;

 private:
  CompletionHandler completionHandler_;
  const URLRequestInfo requestInfo_;
  const URLComponents baseComponents_;
  const std::shared_ptr<URLSession> session_;
  FileServer fileServer_;
  const std::shared_ptr<const TokenStore> tokenStore_;
  const std::optional<Token> token_;
};

}  // namespace kestrova
