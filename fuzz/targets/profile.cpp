// The connected profile as the defaults store hands it back.
#include "entries.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  return kestrova::fuzz::runFuzzTarget("profile", data, size);
}
