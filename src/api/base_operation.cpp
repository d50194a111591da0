#include "api/base_operation.h"

#include <exception>

#include "api/api_constants.h"
#include "platform/log.h"

namespace kestrova {
namespace {

constexpr std::string_view kUncaught = "Exception escaped an API operation: %{public}@";
constexpr std::string_view kUnknownException = "unknown exception";

}  // namespace

void BaseOperation::start() {
  // NOTE: a queue never starts an operation twice; a second start by hand must not send a
  // request again, as the platform's own operations refuse it.
  if (isFinished()) {
    return;
  }
  if (!isCancelled()) {
    setExecuting(true);
    // An operation whose main threw would hold its queue's only slot for ever.
    try {
      main();
    } catch (const std::exception& error) {
      logError(kApiLogCategory, kUncaught, {error.what()});
      setExecuting(false);
      setFinished(true);
    } catch (...) {
      logError(kApiLogCategory, kUncaught, {kUnknownException});
      setExecuting(false);
      setFinished(true);
    }
    return;
  }
  if (isExecuting()) {
    setExecuting(false);
    setFinished(true);
  }
}

void BaseOperation::setExecuting(bool executing) {
  if (executing_.load() == executing) {
    return;
  }
  willChangeValueForKey(kIsExecutingKey);
  executing_.store(executing);
  didChangeValueForKey(kIsExecutingKey);
}

void BaseOperation::setFinished(bool finished) {
  if (finished_.load() == finished) {
    return;
  }
  willChangeValueForKey(kIsFinishedKey);
  finished_.store(finished);
  didChangeValueForKey(kIsFinishedKey);
}

}  // namespace kestrova
