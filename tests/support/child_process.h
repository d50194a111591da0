// A program the test starts in the background (a built binary such as kestrova watch), its
// standard output and error going to files the test reads while it runs. Owned by the test's
// thread; a child still running when the object goes away is killed.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kestrova::testing {

class ChildProcess {
 public:
  // `arguments[0]` is the program's path; `environment` entries ("NAME=value") replace the
  // inherited variables of the same name.
  ChildProcess(std::vector<std::string> arguments, std::filesystem::path out,
               std::filesystem::path err, const std::vector<std::string>& environment = {});
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  bool started() const { return pid_ > 0; }
  // The exit code (128 + the signal when killed) once the child has ended; nothing when it
  // still runs after `timeout`.
  std::optional<int> wait(std::chrono::milliseconds timeout);
  // Sends `signal`, then waits as wait() does.
  std::optional<int> stop(int signal, std::chrono::milliseconds timeout);
  std::string out() const;
  std::string err() const;

 private:
  std::filesystem::path out_;
  std::filesystem::path err_;
  pid_t pid_ = -1;
  std::optional<int> exitCode_;
};

std::string readFile(const std::filesystem::path& path);

// Polls `condition` until it holds (true) or `timeout` has passed (false).
bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout);

}  // namespace kestrova::testing
