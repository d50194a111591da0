// The kestrova command as a user runs it, in child processes on one data directory: the token
// in their environment only, and each run's output in files beside the data directory, named
// for its subcommand (an import must not truncate what a running watch writes).
#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/child_process.h"

namespace kestrova::testing {

struct CommandRun {
  int exitCode = -1;  // 128 + the signal when killed; -1 when still running at the deadline
  std::string out;
  std::string err;

  nlohmann::json json() const { return nlohmann::json::parse(out); }
};

class KestrovaCommand {
 public:
  // An empty `token` still sets the variable, hiding one the test's own environment may hold.
  KestrovaCommand(std::filesystem::path program, std::filesystem::path dataDirectory,
                  std::string token = "");

  std::unique_ptr<ChildProcess> start(std::vector<std::string> arguments) const;
  CommandRun run(std::vector<std::string> arguments, std::chrono::milliseconds deadline) const;

 private:
  std::filesystem::path program_;
  std::filesystem::path dataDirectory_;
  std::string token_;
};

}  // namespace kestrova::testing
