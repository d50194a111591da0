// The entry functions of the fuzz targets, shared by the libFuzzer targets (targets/*.cpp) and
// by the replay test that runs every saved input in the normal builds. Each entry feeds one
// input to one parser of outside input, must never crash, and checks what the parser promises
// of what it accepts. Entries keep process-wide scratch state (a temporary directory, stores
// opened once): call them from one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrova::fuzz {

// None when every promise held; otherwise what was broken.
using Finding = std::optional<std::string>;
using EntryFunction = Finding (*)(std::string_view input);

struct Entry {
  // Also the name of the folders of its inputs: fuzz/corpus/<name>, fuzz/regressions/<name>.
  std::string_view name;
  EntryFunction run;
};

const std::vector<Entry>& entries();
// None for a name that has no entry.
std::optional<Entry> entryNamed(std::string_view name);

// The body of every LLVMFuzzerTestOneInput: a finding is printed and aborts, so that libFuzzer
// keeps the input as a crash.
int runFuzzTarget(std::string_view name, const std::uint8_t* data, std::size_t size);

}  // namespace kestrova::fuzz
