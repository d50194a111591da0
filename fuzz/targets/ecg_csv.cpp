// Electrocardiogram CSV files of an export.
#include "entries.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  return kestrova::fuzz::runFuzzTarget("ecg_csv", data, size);
}
