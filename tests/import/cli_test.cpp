// The built `kestrova import` command on real export excerpts: its JSON and text summaries and
// its exit codes.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>

#include "support/test_support.h"

namespace kestrova::testing {
namespace {

struct CommandRun {
  int exitCode = -1;
  std::string out;
};

// `import <arguments> --data-dir <dir>`, standard output only.
CommandRun import(const std::string& arguments, const TempDir& dir) {
  const std::filesystem::path out = dir.path() / "out.txt";
  const int status =
      std::system((std::string(KESTROVA_CLI) + " import " + arguments + " --data-dir '" +
                   dir.path().string() + "' >'" + out.string() + "' 2>/dev/null")
                      .c_str());
  std::ifstream in(out);
  return CommandRun{WIFEXITED(status) ? WEXITSTATUS(status) : -1,
                    std::string(std::istreambuf_iterator<char>(in), {})};
}

TEST(CliImport, SummariesExitCodesAndRepeatedImport) {
  TempDir dir;
  const std::string data = KESTROVA_APPLE_HEALTH_DATA;
  const CommandRun first = import("'" + data + "/healthkit-to-sqlite/export.xml' --json", dir);
  ASSERT_EQ(first.exitCode, 0) << first.out;
  const nlohmann::json summary = nlohmann::json::parse(first.out);
  EXPECT_EQ(summary["read"], 6);
  EXPECT_EQ(summary["added"], 6);
  EXPECT_EQ(summary["samplesByType"]["HKWorkoutTypeIdentifier"], 1);
  const nlohmann::json again = nlohmann::json::parse(
      import("'" + data + "/healthkit-to-sqlite/export.xml' --json", dir).out);
  EXPECT_EQ(again["added"], 0);
  EXPECT_EQ(again["alreadyPresent"], 6);

  // A truncated file: what was read is kept, and the summary says where it stopped.
  std::ofstream(dir.path() / "export.xml")
      << "<HealthData locale=\"en_US\">\n <Record type=\"HKQuantityTypeIdentifierStepCount\" "
         "sourceName=\"Phone\" unit=\"count\" startDate=\"2020-01-01 00:00:00 +0000\" "
         "endDate=\"2020-01-01 00:01:00 +0000\" value=\"5\"/>\n <Record type=\"HKQua";
  const CommandRun failed = import("'" + (dir.path() / "export.xml").string() + "' --json", dir);
  EXPECT_EQ(failed.exitCode, 1);
  const nlohmann::json stopped = nlohmann::json::parse(failed.out);
  EXPECT_EQ(stopped["added"], 1);
  EXPECT_EQ(stopped["line"], 3);

  EXPECT_NE(import("/nonexistent.zip", dir).exitCode, 0);
  const CommandRun text = import("'" + data + "/apple-health-parser/export.xml'", dir);
  EXPECT_EQ(text.exitCode, 0);
  EXPECT_NE(text.out.find("read 9, added 9"), std::string::npos) << text.out;
}

}  // namespace
}  // namespace kestrova::testing
