// Small text helpers for wire values (headers, fault texts). Pure functions; thread-safe.
#pragma once

#include <algorithm>
#include <cctype>
#include <string_view>

namespace kestrova {

// `text` without the spaces at either end.
inline std::string_view trimmed(std::string_view text) {
  while (!text.empty() && text.front() == ' ') {
    text.remove_prefix(1);
  }
  while (!text.empty() && text.back() == ' ') {
    text.remove_suffix(1);
  }
  return text;
}

// ASCII case-insensitive equality, as header names compare.
inline bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

}  // namespace kestrova
