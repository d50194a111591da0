// Bearer tokens as a host configures them: the profile id claim and the names it makes.
#include "entries.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  return kestrova::fuzz::runFuzzTarget("token", data, size);
}
