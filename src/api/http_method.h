// The request methods the back end is called with, and their wire texts.
// Plain values: no state.
#pragma once

#include <string_view>

namespace kestrova {

enum class HttpMethod { GET, POST };

inline constexpr std::string_view rawValue(HttpMethod method) {
  switch (method) {
    case HttpMethod::GET:
      return "GET";
    case HttpMethod::POST:
      return "POST";
  }
  return "GET";
}

}  // namespace kestrova
