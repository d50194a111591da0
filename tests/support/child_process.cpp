#include "support/child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <sstream>
#include <thread>

namespace kestrova::testing {
namespace {

constexpr auto kPoll = std::chrono::milliseconds(20);

std::vector<char*> pointers(std::vector<std::string>& strings) {
  std::vector<char*> result;
  for (auto& text : strings) {
    result.push_back(text.data());
  }
  result.push_back(nullptr);
  return result;
}

}  // namespace

ChildProcess::ChildProcess(std::vector<std::string> arguments, std::filesystem::path out,
                           std::filesystem::path err, const std::vector<std::string>& environment)
    : out_(std::move(out)), err_(std::move(err)) {
  std::vector<std::string> variables = environment;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string_view inherited(*entry);
    const auto name = inherited.substr(0, inherited.find('=') + 1);
    if (std::none_of(environment.begin(), environment.end(),
                     [&](const std::string& given) { return given.starts_with(name); })) {
      variables.emplace_back(inherited);
    }
  }
  auto argv = pointers(arguments);
  auto envp = pointers(variables);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out_.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err_.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (::posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), envp.data()) != 0) {
    pid_ = -1;
  }
  posix_spawn_file_actions_destroy(&actions);
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0 && !exitCode_) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
}

std::optional<int> ChildProcess::wait(std::chrono::milliseconds timeout) {
  if (pid_ <= 0 || exitCode_) {
    return exitCode_;
  }
  eventually(
      [this] {
        int status = 0;
        const pid_t done = ::waitpid(pid_, &status, WNOHANG);
        if (done == pid_) {
          exitCode_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        } else if (done < 0 && errno != EINTR) {
          exitCode_ = -1;
        }
        return exitCode_.has_value();
      },
      timeout);
  return exitCode_;
}

std::optional<int> ChildProcess::stop(int signal, std::chrono::milliseconds timeout) {
  if (pid_ > 0 && !exitCode_) {
    ::kill(pid_, signal);
  }
  return wait(timeout);
}

std::string ChildProcess::out() const {
  return readFile(out_);
}
std::string ChildProcess::err() const {
  return readFile(err_);
}

std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) {
      return false;
    }
    std::this_thread::sleep_for(kPoll);
  }
  return true;
}

}  // namespace kestrova::testing
