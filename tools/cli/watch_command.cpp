#include "tools/cli/watch_command.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <future>
#include <nlohmann/json.hpp>
#include <random>

#include "facade/host_hooks.h"
#include "storage/file_server.h"
#include "tools/cli/library_session.h"

namespace kestrova::cli {
namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr std::string_view kName = "watch";
constexpr std::string_view kDescription =
    "Stay running and deliver what is added to the health store (by `kestrova import` in "
    "another process, for instance) as it arrives. Upload files the back end did not take stay "
    "on disk and are sent again with exponential backoff, never sooner than the back end's "
    "Retry-After asks; files it refuses again and again are set aside (see `kestrova "
    "rejected`). SIGINT (Ctrl-C) or SIGTERM stops it cleanly with exit code 0.";
constexpr std::string_view kJsonHelp =
    "Print events as JSON on standard output, one object per line: connected, progress, retry, "
    "stopped";
constexpr std::string_view kMaxDelayHelp =
    "The longest wait before sending the files the back end did not take again";

constexpr std::string_view kSignalsFailed = "kestrova: cannot set up signal handling: %s\n";
constexpr std::string_view kWritesNotDone =
    "kestrova: file writes did not finish within %lld s; what they held is fetched again next "
    "time\n";

// Events: the "event" member names the kind, the rest are the figures so far.
constexpr std::string_view kEventKey = "event";
constexpr std::string_view kEventConnected = "connected";
constexpr std::string_view kEventProgress = "progress";
constexpr std::string_view kEventRetry = "retry";
constexpr std::string_view kEventStopped = "stopped";

constexpr std::string_view kConnectedText =
    "watch: connected as %s to %s, watching %s (Ctrl-C stops)\n";
constexpr std::string_view kProgressText =
    "watch: %d files delivered (data points: %s), %d statistics uploads, %zu pending, %zu set "
    "aside, %d failed uploads, %d retries";
constexpr std::string_view kNothingDelivered = "none";
constexpr std::string_view kRetryText = "watch: retry %d after %.1f s: sending %zu files again\n";
constexpr std::string_view kStoppedText =
    "watch: stopped by %s after %.0f s: %d files delivered, %zu pending\n";
constexpr std::string_view kRedraw = "\r";
constexpr std::string_view kClearToEnd = "\033[K";

// How often the loop looks at the upload directories and the library's upload lines.
constexpr auto kTick = std::chrono::milliseconds(250);
// Progress is said at most this often.
constexpr auto kProgressInterval = std::chrono::seconds(1);
constexpr auto kConnectTimeout = std::chrono::seconds(120);
constexpr auto kFirstRetryDelay = std::chrono::seconds(1);
constexpr double kDefaultMaximumRetryDelaySeconds = 300;
// A retry whose answers have not all come by then no longer holds back the next one.
constexpr auto kRetryAnswerLimit = std::chrono::minutes(2);
// How long the stop waits for the file writes under way.
constexpr auto kWriteDrainLimit = std::chrono::seconds(30);
// Far longer than the exit that follows the stop takes.
constexpr auto kWriteHoldLimit = std::chrono::minutes(1);

struct WatchArguments {
  ConnectionArguments connection;
  double maximumRetryDelaySeconds = kDefaultMaximumRetryDelaySeconds;
  bool json = false;
};

// The write end of the signal pipe, for the handler; set before the handlers are installed.
std::atomic<int> signalPipeWrite{-1};
static_assert(std::atomic<int>::is_always_lock_free, "read from a signal handler");

void forwardSignal(int signal) {
  const int savedErrno = errno;
  const auto number = static_cast<unsigned char>(signal);
  [[maybe_unused]] const auto written = ::write(signalPipeWrite.load(), &number, 1);
  errno = savedErrno;
}

// SIGINT and SIGTERM end up in a pipe: the handler only writes the signal's number to it, which
// is async-signal-safe, and the watch loop waits on the pipe, so a signal also cuts its wait
// short. Owned by the main thread; the previous dispositions come back on destruction.
class StopSignals {
 public:
  StopSignals() = default;
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

  ~StopSignals() {
    if (installed_) {
      ::sigaction(SIGINT, &previousInterrupt_, nullptr);
      ::sigaction(SIGTERM, &previousTerminate_, nullptr);
      signalPipeWrite.store(-1);
    }
    for (int end : pipe_) {
      if (end >= 0) {
        ::close(end);
      }
    }
  }

  // False, with errno set, when the pipe or a handler cannot be set up.
  bool install() {
    if (::pipe2(pipe_, O_CLOEXEC | O_NONBLOCK) != 0) {
      return false;
    }
    signalPipeWrite.store(pipe_[1]);
    struct sigaction action = {};
    action.sa_handler = forwardSignal;
    action.sa_flags = SA_RESTART;
    ::sigemptyset(&action.sa_mask);
    if (::sigaction(SIGINT, &action, &previousInterrupt_) != 0) {
      return false;
    }
    if (::sigaction(SIGTERM, &action, &previousTerminate_) != 0) {
      ::sigaction(SIGINT, &previousInterrupt_, nullptr);
      return false;
    }
    installed_ = true;
    return true;
  }

  // Waits at most `timeout` for a signal; once one has come, its number, at once.
  std::optional<int> wait(std::chrono::milliseconds timeout) {
    if (received_) {
      return received_;
    }
    pollfd readable{pipe_[0], POLLIN, 0};
    if (::poll(&readable, 1, static_cast<int>(timeout.count())) > 0) {
      unsigned char number = 0;
      if (::read(pipe_[0], &number, 1) == 1) {
        received_ = number;
      }
    }
    return received_;
  }

  bool requested() { return wait(std::chrono::milliseconds(0)).has_value(); }

 private:
  int pipe_[2] = {-1, -1};
  struct sigaction previousInterrupt_ = {};
  struct sigaction previousTerminate_ = {};
  bool installed_ = false;
  std::optional<int> received_;
};

std::string_view signalName(int signal) {
  return signal == SIGINT ? "SIGINT" : signal == SIGTERM ? "SIGTERM" : "a signal";
}

// Exponential backoff with full jitter: the n-th wait since the last success is drawn uniformly
// from [0, min(maximum, first * 2^n)), so that hosts that failed together do not come back
// together.
class Backoff {
 public:
  Backoff(Seconds first, Seconds maximum)
      : first_(first), maximum_(maximum), random_(std::random_device{}()) {}

  Seconds next() {
    const Seconds ceiling = std::min(maximum_, first_ * std::pow(2.0, attempts_));
    if (ceiling < maximum_) {
      ++attempts_;
    }
    ++retries_;
    return Seconds(std::uniform_real_distribution<double>(0.0, ceiling.count())(random_));
  }
  void reset() {
    attempts_ = 0;
    retries_ = 0;
  }
  // Retries since the last success.
  int retries() const { return retries_; }

 private:
  const Seconds first_;
  const Seconds maximum_;
  std::mt19937_64 random_;
  int attempts_ = 0;
  int retries_ = 0;
};

// Holds the file store's write queue for the rest of the process: returns once every write
// queued before it has finished (with its anchor saved), and no write queued later starts
// before the exit, so the exit never cuts one off and leaves a temporary file behind. A write
// that never starts loses nothing: its anchor did not move, so the next run fetches it again.
bool holdFileWrites(const Platform& platform) {
  auto reached = std::make_shared<std::promise<void>>();
  std::future<void> held = reached->get_future();
  FileServer::sharedWriteQueue(*platform.dispatcher)->async([reached] {
    reached->set_value();
    std::promise<void> release;
    release.get_future().wait_for(kWriteHoldLimit);
  });
  return held.wait_for(kWriteDrainLimit) == std::future_status::ready;
}

struct Totals {
  DeliveryCounts::Counts counts;
  std::size_t pending = 0;
  std::size_t rejected = 0;
  int retries = 0;

  bool operator==(const Totals& other) const {
    return counts.outcomes() == other.counts.outcomes() && pending == other.pending &&
           rejected == other.rejected && retries == other.retries;
  }
};

nlohmann::json event(std::string_view kind, const Totals& totals) {
  auto json = uploadJson(totals.counts, totals.pending, totals.rejected);
  json[kEventKey] = kind;
  json["retries"] = totals.retries;
  return json;
}

// Says what happens on standard output: JSON lines, plain lines, or on a terminal a progress
// line redrawn in place. Used from the main thread only.
class Reporter {
 public:
  Reporter(bool json, bool quiet)
      : json_(json), quiet_(quiet), terminal_(::isatty(STDOUT_FILENO) == 1) {}

  void connected(const Connection& connection, const Totals& totals) {
    auto json = event(kEventConnected, totals);
    json["profileId"] = connection.profileId;
    json["url"] = connection.url;
    json["dataDirectory"] = connection.platform->dataDirectory.string();
    emit(json, [&] {
      std::printf(kConnectedText.data(), connection.profileId.c_str(), connection.url.c_str(),
                  connection.platform->dataDirectory.c_str());
    });
  }

  void progress(const Totals& totals) {
    if (json_) {
      emit(event(kEventProgress, totals), [] {});
      return;
    }
    if (quiet_) {
      return;
    }
    std::string families;
    for (const auto& [family, points] : totals.counts.deliveredPoints) {
      families += (families.empty() ? "" : ", ") + family + " " + std::to_string(points);
    }
    if (terminal_) {
      std::printf("%s", kRedraw.data());
    }
    std::printf(kProgressText.data(), totals.counts.deliveredFiles,
                families.empty() ? kNothingDelivered.data() : families.c_str(),
                totals.counts.statisticsUploads, totals.pending, totals.rejected,
                totals.counts.failedUploads, totals.retries);
    std::printf("%s", terminal_ ? kClearToEnd.data() : "\n");
    drawn_ = terminal_;
    std::fflush(stdout);
  }

  void retry(const Totals& totals, int attempt, Seconds delay) {
    auto json = event(kEventRetry, totals);
    json["attempt"] = attempt;
    json["delaySeconds"] = delay.count();
    emit(json, [&] { std::printf(kRetryText.data(), attempt, delay.count(), totals.pending); });
  }

  void stopped(const Totals& totals, int signal, Seconds elapsed) {
    auto json = event(kEventStopped, totals);
    json["signal"] = signalName(signal);
    json["seconds"] = elapsed.count();
    emit(json, [&] {
      std::printf(kStoppedText.data(), signalName(signal).data(), elapsed.count(),
                  totals.counts.deliveredFiles, totals.pending);
    });
  }

 private:
  template <class Text>
  void emit(const nlohmann::json& json, const Text& text) {
    if (json_) {
      std::printf("%s\n", json.dump().c_str());
    } else if (!quiet_) {
      if (drawn_) {
        std::printf("\n");
        drawn_ = false;
      }
      text();
    }
    std::fflush(stdout);
  }

  const bool json_;
  const bool quiet_;
  const bool terminal_;
  bool drawn_ = false;
};

// Decides when what the back end did not take is sent again: after failed uploads (the
// library's own or a retry's) with files left, or after failed statistics uploads (whose
// records stay in the store, not in files), once the answers to the previous retry are in,
// after a backoff wait, and never before the time the back end's Retry-After named; anything
// delivered resets the backoff. Used from the watch loop only.
class KeptFileRetries {
 public:
  struct Sent {
    int attempt = 0;  // since the last delivered file
    Seconds delay{0};
  };

  explicit KeptFileRetries(Seconds maximumDelay) : backoff_(kFirstRetryDelay, maximumDelay) {}

  // When the next retry is due, if one is.
  std::optional<Clock::time_point> due() const { return due_; }

  // Looks at what the library reported; sends the retry that is due, if any.
  std::optional<Sent> update(const Totals& totals, Clock::time_point now) {
    if (const int delivered = totals.counts.deliveredFiles + totals.counts.statisticsUploads;
        delivered > delivered_) {
      delivered_ = delivered;
      backoff_.reset();
    }
    if (inFlight_ && (totals.counts.fileOutcomes() >= inFlight_->answersAwaited ||
                      now - inFlight_->sent >= kRetryAnswerLimit)) {
      inFlight_.reset();
    }
    const bool filesFailed = totals.pending > 0 && totals.counts.failedUploads > failed_;
    const bool statisticsFailed = totals.counts.failedStatisticsUploads > failedStatistics_;
    if (!inFlight_ && !due_ && (filesFailed || statisticsFailed)) {
      failed_ = totals.counts.failedUploads;
      failedStatistics_ = totals.counts.failedStatisticsUploads;
      delay_ = backoff_.next();
      if (const auto notBefore = totals.counts.retryNotBefore) {
        delay_ = std::max(delay_, Seconds(*notBefore - std::chrono::system_clock::now()));
      }
      due_ = now + std::chrono::duration_cast<Clock::duration>(delay_);
    }
    if (!due_ || now < *due_) {
      return std::nullopt;
    }
    due_.reset();
    if (!host::retryPendingUploads()) {
      return std::nullopt;
    }
    inFlight_ = InFlight{totals.counts.fileOutcomes() + static_cast<int>(totals.pending), now};
    return Sent{backoff_.retries(), delay_};
  }

 private:
  // The retry sent last: done once the outcomes count has reached `answersAwaited`.
  struct InFlight {
    int answersAwaited = 0;
    Clock::time_point sent;
  };

  Backoff backoff_;
  std::optional<Clock::time_point> due_;
  Seconds delay_{0};
  std::optional<InFlight> inFlight_;
  int failed_ = 0;            // failed uploads already answered with a retry
  int failedStatistics_ = 0;  // the same for statistics uploads
  int delivered_ = 0;         // files and statistics delivered when the backoff was last reset
};

int runWatch(const WatchArguments& arguments, const CommonOptions& common) {
  const auto started = Clock::now();
  StopSignals signals;
  if (!signals.install()) {
    std::fprintf(stderr, kSignalsFailed.data(), std::strerror(errno));
    return kExitFailed;
  }
  Connection connection;
  if (int failed = connectLibrary(arguments.connection, common, kConnectTimeout, connection,
                                  [&signals] { return signals.requested(); });
      failed != kExitOk) {
    return failed;
  }
  Reporter reporter(arguments.json, common.quiet);
  Totals totals;
  if (!connection.interrupted) {
    totals.pending = pendingFiles(*connection.platform).size();
    totals.rejected = rejectedFileCount(*connection.platform);
    reporter.connected(connection, totals);
  }

  KeptFileRetries retries(Seconds(arguments.maximumRetryDelaySeconds));
  Totals reported = totals;
  auto lastReport = Clock::now();
  while (!signals.requested()) {
    auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(kTick);
    if (auto due = retries.due()) {
      wait = std::clamp(std::chrono::duration_cast<std::chrono::milliseconds>(*due - Clock::now()),
                        std::chrono::milliseconds(0), wait);
    }
    if (signals.wait(wait)) {
      break;
    }
    const auto now = Clock::now();
    totals.counts = connection.deliveries->counts();
    totals.pending = pendingFiles(*connection.platform).size();
    totals.rejected = rejectedFileCount(*connection.platform);
    if (auto sent = retries.update(totals, now)) {
      ++totals.retries;
      reporter.retry(totals, sent->attempt, sent->delay);
    }
    if (!(totals == reported) && now - lastReport >= kProgressInterval) {
      reporter.progress(totals);
      reported = totals;
      lastReport = now;
    }
  }

  // Nothing new starts; what is being written is finished, and the exit cannot cut it off.
  host::stopCollection();
  const bool writesDone = holdFileWrites(*connection.platform);
  totals.counts = connection.deliveries->counts();
  totals.pending = pendingFiles(*connection.platform).size();
  totals.rejected = rejectedFileCount(*connection.platform);
  reporter.stopped(totals, signals.wait(std::chrono::milliseconds(0)).value_or(0),
                   Clock::now() - started);
  if (!writesDone) {
    std::fprintf(stderr, kWritesNotDone.data(), static_cast<long long>(kWriteDrainLimit.count()));
    return kExitFailed;
  }
  return kExitOk;
}

}  // namespace

void addWatchCommand(CLI::App& app, const CommonOptions& common, int* exitCode) {
  auto arguments = std::make_shared<WatchArguments>();
  CLI::App* command = app.add_subcommand(std::string(kName), std::string(kDescription));
  addConnectionOptions(*command, arguments->connection);
  command
      ->add_option("--max-retry-delay", arguments->maximumRetryDelaySeconds,
                   std::string(kMaxDelayHelp))
      ->check(CLI::PositiveNumber)
      ->capture_default_str()
      ->type_name("SECONDS");
  command->add_flag("--json", arguments->json, std::string(kJsonHelp));
  command->callback([arguments, &common, exitCode] { *exitCode = runWatch(*arguments, common); });
}

}  // namespace kestrova::cli
