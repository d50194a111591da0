// What a user runs, measured: a generated export of N years imported with `kestrova import` into
// a fresh data directory and delivered with `kestrova sync` to `kestrova-server` on loopback (the
// full sync), then one more day imported and synced (the incremental sync). Every command is a
// process of its own, measured through wait4(): its wall time, processor time and peak RSS, and
// nothing of this one. Prints each run, the data points the server received more than once, a
// baseline of process start beside, and a table of every N with the ratios and the targets:
//   kestrova-e2e-bench [--years N]... [--dir D]      (default: --years 1)
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "datapoints/schema_id.h"
#include "export_generator.h"
#include "server/server.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using nlohmann::json;

constexpr const char* kCli = KESTROVA_CLI;
constexpr const char* kServer = KESTROVA_SERVER;
constexpr const char* kSince = "2021-01-01";  // the generator's first day
constexpr const char* kProfile = "bench";
constexpr const char* kSyncTimeoutSeconds = "3600";
// Process start is a few milliseconds: the median of a few runs says more than one.
constexpr int kBaselineRuns = 5;

// The statistics the library computes and uploads; every other schema is a sample's
// (workouts, sleep, mindful sessions, electrocardiograms, body measurements).
constexpr std::array kStatisticsSchemas = {
    kestrova::kSchemaHeartRateSample, kestrova::kSchemaDailyDetail, kestrova::kSchemaDailySummary,
    kestrova::kSchemaDailySummaryWithHeartRate};

// The targets the figures are printed against; never asserted.
constexpr double kIncrementalCpuTarget = 0.5;  // seconds
constexpr double kIncrementalRatioTarget = 1.2;
constexpr double kIncrementalRssTarget = 64;  // MB
constexpr double kFullRssTarget = 128;        // MB
constexpr double kRepeatedShareTarget = 1;    // percent of all data points

struct Measured {
  int exitCode = -1;  // -1 when it did not exit by itself
  double wallSeconds = 0;
  double cpuSeconds = 0;  // user + system, of all its threads
  double peakRssMegabytes = 0;
  std::string out;  // its standard output
};

double seconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) + time.tv_usec / 1e6;
}

struct FileActions {
  FileActions() { posix_spawn_file_actions_init(&actions); }
  ~FileActions() { posix_spawn_file_actions_destroy(&actions); }
  FileActions(const FileActions&) = delete;
  FileActions& operator=(const FileActions&) = delete;
  posix_spawn_file_actions_t actions;
};

struct Descriptor {
  explicit Descriptor(int fd) : fd(fd) {}
  ~Descriptor() {
    if (fd >= 0) {
      ::close(fd);
    }
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int fd;
};

// Starts `arguments` with `environment` added to this process's, its standard output into a
// pipe whose reading end is returned and its standard error appended to `log`.
std::optional<std::pair<pid_t, int>> spawn(const std::vector<std::string>& arguments,
                                           const fs::path& log,
                                           const std::vector<std::string>& environment) {
  std::array<int, 2> pipe{};
  if (::pipe2(pipe.data(), O_CLOEXEC) != 0) {
    return std::nullopt;
  }
  Descriptor writing(pipe[1]);
  FileActions file;
  posix_spawn_file_actions_adddup2(&file.actions, pipe[1], STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&file.actions, STDERR_FILENO, log.c_str(),
                                   O_WRONLY | O_CREAT | O_APPEND, 0644);
  std::vector<char*> argv;
  for (const auto& argument : arguments) {
    argv.push_back(const_cast<char*>(argument.c_str()));
  }
  argv.push_back(nullptr);
  std::vector<char*> envp;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    envp.push_back(*variable);
  }
  for (const auto& variable : environment) {
    envp.push_back(const_cast<char*>(variable.c_str()));
  }
  envp.push_back(nullptr);
  pid_t pid = 0;
  if (posix_spawn(&pid, argv[0], &file.actions, nullptr, argv.data(), envp.data()) != 0) {
    ::close(pipe[0]);
    return std::nullopt;
  }
  return std::pair{pid, pipe[0]};
}

// Runs `arguments` to its end and measures it.
Measured run(const std::vector<std::string>& arguments, const fs::path& log,
             const std::vector<std::string>& environment = {}) {
  Measured measured;
  const auto start = Clock::now();
  const auto spawned = spawn(arguments, log, environment);
  if (!spawned) {
    std::fprintf(stderr, "e2e-bench: cannot start %s\n", arguments.front().c_str());
    return measured;
  }
  const Descriptor reading(spawned->second);
  std::array<char, 4096> buffer{};
  for (;;) {
    const ssize_t read = ::read(reading.fd, buffer.data(), buffer.size());
    if (read <= 0) {
      break;
    }
    measured.out.append(buffer.data(), static_cast<std::size_t>(read));
  }
  int status = 0;
  rusage usage{};
  ::wait4(spawned->first, &status, 0, &usage);
  measured.wallSeconds = std::chrono::duration<double>(Clock::now() - start).count();
  measured.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  measured.cpuSeconds = seconds(usage.ru_utime) + seconds(usage.ru_stime);
  measured.peakRssMegabytes = static_cast<double>(usage.ru_maxrss) / 1024;  // KB on Linux
  if (measured.exitCode != 0) {
    std::fprintf(stderr, "e2e-bench: %s %s exited with %d; see %s\n", arguments.front().c_str(),
                 arguments.size() > 1 ? arguments[1].c_str() : "", measured.exitCode, log.c_str());
  }
  return measured;
}

// The median by wall time of a few runs of a short command.
Measured baseline(const std::vector<std::string>& arguments, const fs::path& log) {
  std::vector<Measured> runs;
  for (int i = 0; i < kBaselineRuns; ++i) {
    runs.push_back(run(arguments, log));
  }
  std::sort(runs.begin(), runs.end(),
            [](const Measured& a, const Measured& b) { return a.wallSeconds < b.wallSeconds; });
  return runs[runs.size() / 2];
}

// `kestrova-server serve` on an ephemeral loopback port, stopped with SIGTERM when this ends.
class ServerProcess {
 public:
  static std::unique_ptr<ServerProcess> start(const fs::path& database, const fs::path& log,
                                              const std::string& secretVariable) {
    auto spawned =
        spawn({kServer, "serve", "--host", "127.0.0.1", "--port", "0", "--db", database.string()},
              log, {secretVariable});
    if (!spawned) {
      return nullptr;
    }
    std::unique_ptr<ServerProcess> server(new ServerProcess(spawned->first, spawned->second));
    // The first line gives the base URL: "kestrova-server listening on http://HOST:PORT/api/".
    std::string line;
    char c = 0;
    while (::read(server->output_.fd, &c, 1) == 1 && c != '\n') {
      line += c;
    }
    const auto url = line.find("http://");
    const auto port = line.rfind(':');
    if (url == std::string::npos || port == std::string::npos || port < url) {
      return nullptr;
    }
    server->url_ = line.substr(url);
    server->port_ = std::to_string(std::atoi(line.c_str() + port + 1));
    return server;
  }

  ~ServerProcess() {
    ::kill(pid_, SIGTERM);
    ::waitpid(pid_, nullptr, 0);
  }
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

  const std::string& url() const { return url_; }
  const std::string& port() const { return port_; }

 private:
  ServerProcess(pid_t pid, int output) : pid_(pid), output_(output) {}
  pid_t pid_;
  Descriptor output_;  // kept open: the server must never write into a closed pipe
  std::string url_;
  std::string port_;
};

std::string randomSecret() {
  std::random_device random;
  std::string secret;
  for (int i = 0; i < 32; ++i) {
    char hex[3];
    std::snprintf(hex, sizeof hex, "%02x", random() & 0xff);
    secret += hex;
  }
  return secret;
}

bool isStatistics(const std::string& schemaKey) {
  return std::any_of(kStatisticsSchemas.begin(), kStatisticsSchemas.end(), [&](const auto& id) {
    return schemaKey == std::string(id.schemaNamespace) + ":" + std::string(id.name) + ":" +
                            std::string(id.version);
  });
}

// What the server holds: data points, and how many of them arrived more than once.
struct Receipts {
  std::int64_t samples = 0;
  std::int64_t samplesRepeated = 0;
  std::int64_t statistics = 0;
  std::int64_t statisticsRepeated = 0;
  json bySchema;
  json repeatedBySchema;

  std::int64_t all() const { return samples + statistics; }
  std::int64_t allRepeated() const { return samplesRepeated + statisticsRepeated; }
};

std::optional<Receipts> receipts(const ServerProcess& server, const fs::path& log) {
  const auto stats = run({kServer, "stats", "--port", server.port()}, log);
  const auto parsed = json::parse(stats.out, nullptr, false);
  if (stats.exitCode != 0 || !parsed.is_object() ||
      !parsed.contains(kestrova::server::kBySchemaKey) ||
      !parsed.contains(kestrova::server::kRepeatedBySchemaKey)) {
    std::fprintf(stderr, "e2e-bench: no statistics from kestrova-server; see %s\n", log.c_str());
    return std::nullopt;
  }
  Receipts receipts;
  receipts.bySchema = parsed.at(kestrova::server::kBySchemaKey);
  receipts.repeatedBySchema = parsed.at(kestrova::server::kRepeatedBySchemaKey);
  for (const auto& [schema, count] : receipts.bySchema.items()) {
    const auto repeated = receipts.repeatedBySchema.value(schema, std::int64_t{0});
    if (isStatistics(schema)) {
      receipts.statistics += count.get<std::int64_t>();
      receipts.statisticsRepeated += repeated;
    } else {
      receipts.samples += count.get<std::int64_t>();
      receipts.samplesRepeated += repeated;
    }
  }
  return receipts;
}

double percent(std::int64_t part, std::int64_t whole) {
  return whole > 0 ? 100.0 * static_cast<double>(part) / static_cast<double>(whole) : 0.0;
}

std::string loadAverage() {
  std::ifstream file("/proc/loadavg");
  std::string one, five, fifteen;
  file >> one >> five >> fifteen;
  return one + " " + five + " " + fifteen;
}

void printMeasured(const char* what, const Measured& measured) {
  std::printf("%-34s %7.2f s wall %7.2f s CPU %7.1f MB peak RSS%s\n", what, measured.wallSeconds,
              measured.cpuSeconds, measured.peakRssMegabytes,
              measured.exitCode == 0 ? "" : "  (FAILED)");
}

// Whether `kestrova sync --json` reported a complete delivery.
bool complete(const Measured& sync) {
  const auto report = json::parse(sync.out, nullptr, false);
  return sync.exitCode == 0 && report.is_object() && report.value("complete", false);
}

struct YearsFigures {
  int years = 0;
  std::uint64_t records = 0;
  Measured bareStart;
  Measured storeOpen;
  Measured full;
  Measured incremental;
  Receipts afterFull;
  bool complete = false;  // both syncs reported a complete delivery
};

// Generates an export into `out` and imports it with `kestrova import`; the records written, or
// nothing when either failed.
std::optional<std::uint64_t> generateAndImport(const fs::path& out,
                                               const kestrova::bench::GeneratorOptions& options,
                                               const fs::path& data, const fs::path& log) {
  const auto started = Clock::now();
  const auto generated = kestrova::bench::generateExport(out, options);
  if (!generated) {
    std::fprintf(stderr, "e2e-bench: %s\n", generated.error().text().c_str());
    return std::nullopt;
  }
  std::printf("generated %llu records (%.1f MB) in %.1f s\n",
              static_cast<unsigned long long>(generated->records), generated->bytes / 1e6,
              std::chrono::duration<double>(Clock::now() - started).count());
  const auto imported = run(
      {kCli, "import", generated->folder.string(), "--data-dir", data.string(), "--quiet"}, log);
  printMeasured("kestrova import", imported);
  if (imported.exitCode != 0) {
    return std::nullopt;
  }
  return generated->records;
}

// Runs `kestrova sync` and reads what the server then holds.
std::optional<std::pair<Measured, Receipts>> measureSync(const std::string& what,
                                                         const std::vector<std::string>& sync,
                                                         const std::string& tokenVariable,
                                                         const ServerProcess& server,
                                                         const fs::path& log) {
  std::printf("load average before the %s: %s\n", what.c_str(), loadAverage().c_str());
  const auto measured = run(sync, log, {tokenVariable});
  printMeasured((what + ": kestrova sync").c_str(), measured);
  auto received = receipts(server, log);
  if (!received) {
    return std::nullopt;
  }
  return std::pair{measured, std::move(*received)};
}

std::optional<YearsFigures> measureYears(int years, const fs::path& dir) {
  std::printf("== %d year(s) ==\n", years);
  fs::remove_all(dir);
  fs::create_directories(dir);
  const auto log = dir / "commands.log";
  const auto data = dir / "data";
  YearsFigures figures;
  figures.years = years;

  kestrova::bench::GeneratorOptions generator;
  generator.years = years;
  const auto records = generateAndImport(dir / "export", generator, data, log);
  if (!records) {
    return std::nullopt;
  }
  figures.records = *records;

  const std::string secretVariable = "KESTROVA_SERVER_SECRET=" + randomSecret();
  const auto server =
      ServerProcess::start(dir / "server.sqlite", dir / "server.log", secretVariable);
  if (!server) {
    std::fprintf(stderr, "e2e-bench: kestrova-server did not start; see %s\n",
                 (dir / "server.log").c_str());
    return std::nullopt;
  }
  // In the environment only, as a user keeps it out of the shell history.
  const auto token = run({kServer, "token", "--profile", kProfile}, log, {secretVariable});
  const std::string tokenVariable =
      "KESTROVA_TOKEN=" + token.out.substr(0, token.out.find_last_not_of("\r\n") + 1);
  const std::vector<std::string> sync = {
      kCli,         "sync",        "--url",     server->url(),       "--since", kSince,
      "--data-dir", data.string(), "--timeout", kSyncTimeoutSeconds, "--json"};

  const auto full = measureSync("full sync", sync, tokenVariable, *server, log);
  if (!full) {
    return std::nullopt;
  }
  std::tie(figures.full, figures.afterFull) = *full;
  std::printf("  %-50s %9s %9s\n", "schema", "received", "twice");
  for (const auto& [schema, count] : figures.afterFull.bySchema.items()) {
    std::printf("  %-50s %9lld %9lld\n", schema.c_str(), count.get<long long>(),
                figures.afterFull.repeatedBySchema.value(schema, 0LL));
  }

  // After the full sync, so that the store opened is the one the incremental sync opens.
  figures.bareStart = baseline({kCli, "--version"}, log);
  figures.storeOpen = baseline({kCli, "pending", "--data-dir", data.string()}, log);
  printMeasured("baseline: kestrova --version", figures.bareStart);
  printMeasured("baseline: kestrova pending", figures.storeOpen);

  std::printf("one more day, the export's next part:\n");
  generator.firstDay = kestrova::bench::kDaysPerYear * years;
  generator.days = 1;
  if (!generateAndImport(dir / "export-next", generator, data, log)) {
    return std::nullopt;
  }
  const auto incremental = measureSync("incremental sync", sync, tokenVariable, *server, log);
  if (!incremental) {
    return std::nullopt;
  }
  figures.incremental = incremental->first;
  const Receipts& afterIncremental = incremental->second;
  std::printf(
      "  %lld data points new on the server, %lld more received again\n",
      static_cast<long long>(afterIncremental.all() - figures.afterFull.all()),
      static_cast<long long>(afterIncremental.allRepeated() - figures.afterFull.allRepeated()));
  figures.complete = complete(figures.full) && complete(figures.incremental);
  if (!figures.complete) {
    std::printf("  NOTE: a sync did not report a complete delivery; see %s (kept)\n", log.c_str());
  }
  std::printf("\n");
  return figures;
}

// A figure of the table, at every number of years, with the ratio of the last to the first and
// the target beside.
struct Row {
  const char* label;
  double (*figure)(const YearsFigures&);
  const char* format;
  std::string target;
};

// Data points received twice in the full sync, each with its share of `total`.
struct RepeatedRow {
  const char* label;
  std::int64_t (*repeated)(const Receipts&);
  std::int64_t (*total)(const Receipts&);
  std::string target;
};

void printRows(const std::vector<Row>& rows, const std::vector<YearsFigures>& all) {
  for (const auto& row : rows) {
    std::printf("%-30s", row.label);
    for (const auto& figures : all) {
      char cell[32];
      std::snprintf(cell, sizeof cell, row.format, row.figure(figures));
      std::printf(" %14s", cell);
    }
    if (all.size() > 1 && row.figure(all.front()) > 0) {
      std::printf(" %9.2fx", row.figure(all.back()) / row.figure(all.front()));
    } else {
      std::printf(" %10s", "-");
    }
    std::printf("   %s\n", row.target.c_str());
  }
}

void printRows(const std::vector<RepeatedRow>& rows, const std::vector<YearsFigures>& all) {
  for (const auto& row : rows) {
    std::printf("%-30s", row.label);
    for (const auto& figures : all) {
      char cell[48];
      const auto twice = row.repeated(figures.afterFull);
      std::snprintf(cell, sizeof cell, "%lld (%.1f%%)", static_cast<long long>(twice),
                    percent(twice, row.total(figures.afterFull)));
      std::printf(" %14s", cell);
    }
    std::printf(" %10s   %s\n", "", row.target.c_str());
  }
}

std::string atMost(double value, const char* unit) {
  char text[48];
  std::snprintf(text, sizeof text, "<= %g%s", value, unit);
  return text;
}

void printTable(const std::vector<YearsFigures>& all) {
  std::printf(
      "Summary: each kestrova command a process of its own; CPU is user + system time, RSS the "
      "peak resident set (MB of 2^20 bytes); data points received twice are counted after the "
      "full sync.\n");
  std::printf("%-30s", "");
  for (const auto& figures : all) {
    std::printf(
        " %14s",
        (std::to_string(figures.years) + (figures.years == 1 ? " year" : " years")).c_str());
  }
  const std::string ratio = all.size() > 1 ? std::to_string(all.back().years) + "y/" +
                                                 std::to_string(all.front().years) + "y"
                                           : "ratio";
  std::printf(" %10s   target\n", ratio.c_str());
  using F = const YearsFigures&;
  using R = const Receipts&;
  const std::string ratioTarget = ", " + ratio + " " + atMost(kIncrementalRatioTarget, "x");
  printRows(
      std::vector<Row>{
          {"records in the export", [](F f) { return static_cast<double>(f.records); }, "%.0f", ""},
          {"full sync: wall s", [](F f) { return f.full.wallSeconds; }, "%.2f", ""},
          {"full sync: CPU s", [](F f) { return f.full.cpuSeconds; }, "%.2f", ""},
          {"full sync: peak RSS MB", [](F f) { return f.full.peakRssMegabytes; }, "%.1f",
           atMost(kFullRssTarget, " MB")},
          {"incremental sync: wall s", [](F f) { return f.incremental.wallSeconds; }, "%.2f", ""},
          {"incremental sync: CPU s", [](F f) { return f.incremental.cpuSeconds; }, "%.2f",
           atMost(kIncrementalCpuTarget, " s") + ratioTarget},
          {"incremental sync: peak RSS MB", [](F f) { return f.incremental.peakRssMegabytes; },
           "%.1f", atMost(kIncrementalRssTarget, " MB")},
          {"full sync: data points", [](F f) { return static_cast<double>(f.afterFull.all()); },
           "%.0f", ""},
          {"  of them samples", [](F f) { return static_cast<double>(f.afterFull.samples); },
           "%.0f", ""}},
      all);
  printRows(
      std::vector<RepeatedRow>{
          {"  samples received twice", [](R r) { return r.samplesRepeated; },
           [](R r) { return r.samples; }, "none"},
          {"  statistics received twice", [](R r) { return r.statisticsRepeated; },
           [](R r) { return r.statistics; }, ""},
          {"  all received twice", [](R r) { return r.allRepeated(); }, [](R r) { return r.all(); },
           atMost(kRepeatedShareTarget, "% of all")}},
      all);
  printRows(
      std::vector<Row>{
          {"baseline: kestrova --version", [](F f) { return f.bareStart.wallSeconds; }, "%.3f",
           "s wall: process start"},
          {"", [](F f) { return f.bareStart.cpuSeconds; }, "%.3f", "s CPU"},
          {"baseline: kestrova pending", [](F f) { return f.storeOpen.wallSeconds; }, "%.3f",
           "s wall: process start + store open"},
          {"", [](F f) { return f.storeOpen.cpuSeconds; }, "%.3f", "s CPU"},
          {"", [](F f) { return f.storeOpen.peakRssMegabytes; }, "%.1f", "MB peak RSS"}},
      all);
}

}  // namespace

int main(int argc, char** argv) {
  // Line by line, so that a run of many minutes shows where it is through a pipe too.
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  std::vector<int> years;
  fs::path dir = fs::temp_directory_path() / "kestrova-e2e-bench";
  for (int i = 1; i < argc; i += 2) {
    const std::string option = argv[i];
    if (i + 1 == argc) {
      std::fprintf(stderr, "e2e-bench: %s wants a value\n", option.c_str());
      return 2;
    }
    if (option == "--years") {
      years.push_back(std::atoi(argv[i + 1]));
      if (years.back() < 1) {
        std::fprintf(stderr, "e2e-bench: --years wants a whole number of at least 1\n");
        return 2;
      }
    } else if (option == "--dir") {
      dir = argv[i + 1];
    } else {
      std::fprintf(stderr, "e2e-bench: unknown option %s\n", option.c_str());
      return 2;
    }
  }
  if (years.empty()) {
    years.push_back(1);
  }
  std::vector<YearsFigures> all;
  for (int count : years) {
    const auto yearsDir = dir / ("years-" + std::to_string(count));
    auto figures = measureYears(count, yearsDir);
    if (!figures) {
      return 1;
    }
    if (figures->complete) {
      fs::remove_all(yearsDir);
    }
    all.push_back(std::move(*figures));
  }
  printTable(all);
  return 0;
}
