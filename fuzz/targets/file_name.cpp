// Names found in the upload directories, parsed back into upload file components.
#include "entries.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  return kestrova::fuzz::runFuzzTarget("file_name", data, size);
}
