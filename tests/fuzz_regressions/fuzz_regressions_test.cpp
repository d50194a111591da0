// Every saved fuzz input, the seeds of fuzz/corpus/ and the inputs that once broke a target in
// fuzz/regressions/, run through the fuzz targets' own entry functions in the normal builds, so
// a fixed crash stays fixed without a fuzzing toolchain.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "entries.h"

namespace kestrova {
namespace {

namespace fs = std::filesystem;

const fs::path kFuzzDirectory = KESTROVA_FUZZ_DIRECTORY;
constexpr const char* kInputKinds[] = {"corpus", "regressions"};

std::string readInput(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

TEST(FuzzInputFolders, EachNamesAnEntryAndEachEntryHasSeeds) {
  for (const char* kind : kInputKinds) {
    std::error_code error;
    for (const auto& folder : fs::directory_iterator(kFuzzDirectory / kind, error)) {
      if (folder.is_directory()) {
        EXPECT_TRUE(fuzz::entryNamed(folder.path().filename().string())) << folder.path();
      }
    }
  }
  for (const fuzz::Entry& entry : fuzz::entries()) {
    const fs::path seeds = kFuzzDirectory / "corpus" / entry.name;
    EXPECT_TRUE(fs::is_directory(seeds) && !fs::is_empty(seeds)) << seeds;
  }
}

class FuzzInputs : public ::testing::TestWithParam<fuzz::Entry> {};

TEST_P(FuzzInputs, KeepEveryPromise) {
  const fuzz::Entry entry = GetParam();
  for (const char* kind : kInputKinds) {
    std::error_code error;
    for (const auto& input : fs::directory_iterator(kFuzzDirectory / kind / entry.name, error)) {
      if (!input.is_regular_file()) {
        continue;
      }
      const fuzz::Finding finding = entry.run(readInput(input.path()));
      EXPECT_FALSE(finding) << input.path() << ": " << finding.value_or("");
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Targets, FuzzInputs, ::testing::ValuesIn(fuzz::entries()),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace kestrova
