// The built `kestrova import` command on real export excerpts: its JSON summary, its exit codes,
// and the store it leaves in the data directory.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

#include "support/test_support.h"

namespace kestrova::testing {
namespace {

struct CommandRun {
  int exitCode = -1;
  std::string out;
};

CommandRun run(const std::string& arguments) {
  const std::string command = std::string(KESTROVA_CLI) + " " + arguments + " 2>/dev/null";
  CommandRun result;
  std::FILE* pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) {
    return result;
  }
  std::array<char, 4096> buffer{};
  std::size_t count = 0;
  while ((count = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0) {
    result.out.append(buffer.data(), count);
  }
  const int status = ::pclose(pipe);
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

std::string fixture(std::string_view relative) {
  return std::string(KESTROVA_APPLE_HEALTH_DATA) + "/" + std::string(relative);
}

TEST(CliImportTest, JsonSummaryAndRepeatedImport) {
  TempDir dir;
  const std::string arguments = "import '" + fixture("healthkit-to-sqlite/export.xml") +
                                "' --json --data-dir '" + dir.path().string() + "'";
  const CommandRun first = run(arguments);
  ASSERT_EQ(first.exitCode, 0) << first.out;
  const nlohmann::json summary = nlohmann::json::parse(first.out);
  EXPECT_EQ(summary["ok"], true);
  EXPECT_EQ(summary["read"], 6);
  EXPECT_EQ(summary["added"], 6);
  EXPECT_EQ(summary["exportDate"], "2019-07-19 10:36:11 -0700");
  EXPECT_EQ(summary["samplesByType"]["HKWorkoutTypeIdentifier"], 1);
  EXPECT_EQ(summary["keptByKind"]["ActivitySummary"], 2);
  EXPECT_EQ(summary["keptByKind"]["WorkoutRoute"], 1);
  EXPECT_EQ(summary["skippedCount"], 0);
  EXPECT_TRUE(std::filesystem::exists(dir.path() / "healthstore.sqlite"));

  const CommandRun second = run(arguments);
  ASSERT_EQ(second.exitCode, 0) << second.out;
  const nlohmann::json again = nlohmann::json::parse(second.out);
  EXPECT_EQ(again["added"], 0);
  EXPECT_EQ(again["alreadyPresent"], 6);
}

TEST(CliImportTest, FailedImportExitsNonZeroWithThePosition) {
  TempDir dir;
  const std::filesystem::path truncated = dir.path() / "export.xml";
  {
    std::FILE* file = std::fopen(truncated.c_str(), "wb");
    ASSERT_NE(file, nullptr);
    std::fputs(
        "<HealthData locale=\"en_US\">\n <Record type=\"HKQuantityTypeIdentifierStepCount\" "
        "sourceName=\"Phone\" unit=\"count\" startDate=\"2020-01-01 00:00:00 +0000\" "
        "endDate=\"2020-01-01 00:01:00 +0000\" value=\"5\"/>\n <Record type=\"HKQua",
        file);
    std::fclose(file);
  }
  const CommandRun failed =
      run("import '" + truncated.string() + "' --json --data-dir '" + dir.path().string() + "'");
  EXPECT_EQ(failed.exitCode, 1);
  const nlohmann::json summary = nlohmann::json::parse(failed.out);
  EXPECT_EQ(summary["ok"], false);
  EXPECT_EQ(summary["added"], 1);
  EXPECT_EQ(summary["line"], 3);

  const CommandRun missing =
      run("import --data-dir '" + dir.path().string() + "' /nonexistent.zip");
  EXPECT_NE(missing.exitCode, 0);
  const CommandRun text = run("import '" + fixture("apple-health-parser/export.xml") +
                              "' --data-dir '" + dir.path().string() + "'");
  EXPECT_EQ(text.exitCode, 0);
  EXPECT_NE(text.out.find("read 9, added 9"), std::string::npos) << text.out;
  EXPECT_NE(text.out.find("kept Record: 8"), std::string::npos) << text.out;
}

}  // namespace
}  // namespace kestrova::testing
