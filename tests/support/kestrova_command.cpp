#include "support/kestrova_command.h"

#include <gtest/gtest.h>

namespace kestrova::testing {

KestrovaCommand::KestrovaCommand(std::filesystem::path program, std::filesystem::path dataDirectory,
                                 std::string token)
    : program_(std::move(program)),
      dataDirectory_(std::move(dataDirectory)),
      token_(std::move(token)) {}

std::unique_ptr<ChildProcess> KestrovaCommand::start(std::vector<std::string> arguments) const {
  const auto output = dataDirectory_.string() + "-" + arguments.front();
  arguments.insert(arguments.begin(), program_.string());
  arguments.insert(arguments.end(), {"--data-dir", dataDirectory_.string()});
  auto child =
      std::make_unique<ChildProcess>(std::move(arguments), output + ".out", output + ".err",
                                     std::vector<std::string>{"KESTROVA_TOKEN=" + token_});
  EXPECT_TRUE(child->started()) << program_;
  return child;
}

CommandRun KestrovaCommand::run(std::vector<std::string> arguments,
                                std::chrono::milliseconds deadline) const {
  auto child = start(std::move(arguments));
  const auto exitCode = child->wait(deadline);
  EXPECT_TRUE(exitCode) << "still running after " << deadline.count() << " ms";
  return CommandRun{exitCode.value_or(-1), child->out(), child->err()};
}

}  // namespace kestrova::testing
