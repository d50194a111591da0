#include "platform/result.h"

namespace kestrova {

std::string Error::text() const {
  std::string out = domain;
  out += ' ';
  out += std::to_string(code);
  if (!description.empty()) {
    out += ": ";
    out += description;
  }
  return out;
}

}  // namespace kestrova
