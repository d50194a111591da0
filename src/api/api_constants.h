// Texts and status codes shared by the files of the back-end client: its log category and the
// HTTP statuses it acts on. Constants only.
#pragma once

#include <string_view>

namespace kestrova {

inline constexpr std::string_view kApiLogCategory = "api";
inline constexpr int kHTTPStatusOK = 200;
inline constexpr int kHTTPStatusForbidden = 403;
// The domain of errors that stand for an HTTP status; the code is the status.
inline constexpr std::string_view kHTTPStatusErrorDomain = "KestrovaLib.HTTPStatus";

}  // namespace kestrova
