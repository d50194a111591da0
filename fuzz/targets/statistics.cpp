// Stored statistics maps as the defaults store hands them back.
#include "entries.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  return kestrova::fuzz::runFuzzTarget("statistics", data, size);
}
