// Portable parts of URL loading: the error values every implementation reports.
#include "platform/url_session.h"

namespace kestrova {

Error urlError(URLErrorCode code, std::string description) {
  return Error{std::string(kURLErrorDomain), static_cast<std::int64_t>(code),
               std::move(description)};
}

}  // namespace kestrova
