// Apple Health export documents imported into a store that lives as long as the process.
#include "entries.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  return kestrova::fuzz::runFuzzTarget("export_xml", data, size);
}
