#include "api/api.h"

#include "api/api_constants.h"
#include "platform/log.h"

namespace kestrova {
namespace {

constexpr std::string_view kProfileNotAccessible = "Profile not accessible";
constexpr std::string_view kHTTPStatusDescription = "HTTP status ";
constexpr int kFirstSuccess = 200;
constexpr int kLastSuccess = 299;

std::shared_ptr<OperationQueue> makeQueue(Dispatcher& dispatcher, std::string_view name,
                                          QualityOfService qos) {
  return OperationQueue::make(std::string(name), qos,
                              dispatcher.makeSerialQueue(std::string(name), qos), 1);
}

URLSessionConfiguration sessionConfiguration() {
  URLSessionConfiguration configuration;
  configuration.httpMaximumConnectionsPerHost = 1;
  return configuration;
}

Error httpStatusError(int statusCode) {
  return Error{std::string(kHTTPStatusErrorDomain), statusCode,
               std::string(kHTTPStatusDescription) + std::to_string(statusCode)};
}

}  // namespace

API::API(URLComponents baseComponents, const Platform& platform, const SessionFactory& makeSession,
         DeliveryRecorder::Listener listener)
    : session_(makeSession(sessionConfiguration())),
      baseComponents_(std::move(baseComponents)),
      tokenQueue_(
          makeQueue(*platform.dispatcher, kTokenQueueName, QualityOfService::userInteractive)),
      apiQueue_(makeQueue(*platform.dispatcher, kApiQueueName, QualityOfService::background)),
      fileServer_(platform.files, FileServer::sharedWriteQueue(*platform.dispatcher)),
      tokenStore_(
          std::make_shared<const TokenStore>(platform.secureStore, platform.applicationIdentifier)),
      recorder_(std::make_shared<DeliveryRecorder>(
          platform.defaults, platform.clock,
          platform.dispatcher->sharedSerialQueue(DeliveryRecorder::kQueueLabel,
                                                 QualityOfService::utility),
          fileServer_, std::move(listener))) {}

void API::validateProfile(URLRequestInfo info, Token token, ValidationCompletion completion) const {
  apiQueue_->setSuspended(true);
  // Weak: the queue belongs to the API, and the session that runs this callback may outlive
  // it.
  auto onResponse = [apiQueue = std::weak_ptr<OperationQueue>(apiQueue_),
                     completion = std::move(completion)](std::optional<Bytes> data,
                                                         std::optional<HTTPURLResponse> response,
                                                         std::optional<Error> error) {
    const auto queue = apiQueue.lock();
    if (response && response->statusCode == kHTTPStatusForbidden) {
      logError(kApiLogCategory, kProfileNotAccessible);
      if (queue) {
        queue->cancelAllOperations();
      }
      if (completion) {
        completion(std::move(data), httpStatusError(kHTTPStatusForbidden));
      }
      return;
    }
    if (queue) {
      queue->setSuspended(false);
    }
    if (!completion) {
      return;
    }
    if (!error && response &&
        (response->statusCode < kFirstSuccess || response->statusCode > kLastSuccess)) {
      error = httpStatusError(response->statusCode);
    }
    completion(std::move(data), std::move(error));
  };
  tokenQueue_->addOperation(std::make_shared<ApiOperation>(
      std::move(info), session_, std::move(token), baseComponents_, *this, std::move(onResponse)));
}

void API::enqueue(URLRequestInfo info, ApiOperation::CompletionHandler completion) const {
  apiQueue_->addOperation(std::make_shared<ApiOperation>(
      std::move(info), session_, std::nullopt, baseComponents_, *this, std::move(completion)));
}

}  // namespace kestrova
