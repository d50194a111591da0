#include "api/api_operation.h"

#include "api/api.h"
#include "api/api_constants.h"
#include "api/request_builder.h"
#include "platform/log.h"

namespace kestrova {
namespace {

constexpr std::string_view kUnauthorized = "Unauthorized access, invalid token - %{public}@";

}  // namespace

ApiOperation::ApiOperation(URLRequestInfo requestInfo, std::shared_ptr<URLSession> session,
                           std::optional<Token> token, URLComponents baseComponents, const API& api,
                           CompletionHandler completionHandler)
    : completionHandler_(std::move(completionHandler)),
      requestInfo_(std::move(requestInfo)),
      baseComponents_(std::move(baseComponents)),
      session_(std::move(session)),
      fileServer_(api.fileServer()),
      tokenStore_(api.tokenStore()),
      token_(std::move(token)) {}

void ApiOperation::main() {
  BaseOperation::main();
  // Moved out: the handler belongs to this run, and the operation may be released before
  // the response arrives.
  auto completion = std::move(completionHandler_);
  auto request = buildRequest(requestInfo_, baseComponents_, token_, fileServer_, *tokenStore_);
  if (!request) {
    if (completion) {
      completion(std::nullopt, std::nullopt, request.error());
    }
  } else {
    CompletionHandler onResponse = [headers = request->headers, completion = std::move(completion)](
                                       std::optional<Bytes> data,
                                       std::optional<HTTPURLResponse> response,
                                       std::optional<Error> error) {
      if (response && response->statusCode == kHTTPStatusForbidden) {
        logInfo(kApiLogCategory, kUnauthorized, {describeHeaders(headers)});
      }
      if (completion) {
        completion(std::move(data), std::move(response), std::move(error));
      }
    };
    // A session that could not be made, or takes no more tasks, still owes this run its one
    // completion.
    auto task = session_ ? session_->dataTask(std::move(request).value(), onResponse) : nullptr;
    if (task) {
      task->resume();
    } else {
      onResponse(std::nullopt, std::nullopt, urlError(URLErrorCode::cancelled, {}));
    }
  }
  if (isExecuting()) {
    setExecuting(false);
    setFinished(true);
  }
}

}  // namespace kestrova
