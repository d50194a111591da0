// Import benchmark: a generated export imported by the importer (from export.xml and from
// export.zip), the same XML parsed bare by expat with empty handlers (the ceiling of a design
// built on expat), and a Python baseline (iterparse feeding batched sqlite3 inserts). Each run
// is a child process, so every peak resident size is that run's own. Prints figures only.
#include <expat.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "export_generator.h"
#include "healthstore/embedded_health_store.h"
#include "healthstore/import/apple_health_importer.h"
#include "healthstore/import/export_reader.h"
#include "platform/log.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using kestrova::bench::GeneratedExport;

struct Figures {
  bool ok = false;
  double seconds = 0;
  unsigned long long records = 0;
  long peakKilobytes = 0;
  // User and system time of all the run's threads: on a shared machine the wall time also
  // counts the waits for a core.
  double cpuSeconds = 0;
};

double cpuSeconds(const struct rusage& usage) {
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Everything until the writer closes its end.
std::string readAll(int fd) {
  std::string text;
  char buffer[256];
  for (;;) {
    const ssize_t count = ::read(fd, buffer, sizeof buffer);
    if (count > 0) {
      text.append(buffer, static_cast<std::size_t>(count));
    } else if (count == 0 || errno != EINTR) {
      return text;
    }
  }
}

// Runs `work` in a child; it returns (seconds, records) through a pipe.
Figures inChild(const std::function<std::pair<double, unsigned long long>()>& work) {
  int fds[2];
  if (::pipe(fds) != 0) {
    return {};
  }
  const pid_t child = ::fork();
  if (child == 0) {
    ::close(fds[0]);
    const auto [seconds, records] = work();
    char line[64];
    const int length = std::snprintf(line, sizeof line, "%.6f %llu\n", seconds, records);
    if (::write(fds[1], line, static_cast<std::size_t>(length)) != length) {
      ::_exit(1);
    }
    ::_exit(0);
  }
  ::close(fds[1]);
  Figures figures;
  const std::string line = readAll(fds[0]);
  ::close(fds[0]);
  int status = 0;
  struct rusage usage {};
  ::wait4(child, &status, 0, &usage);
  figures.peakKilobytes = usage.ru_maxrss;
  figures.cpuSeconds = cpuSeconds(usage);
  figures.ok = WIFEXITED(status) && WEXITSTATUS(status) == 0 &&
               std::sscanf(line.c_str(), "%lf %llu", &figures.seconds, &figures.records) == 2;
  return figures;
}

void XMLCALL onStart(void*, const XML_Char*, const XML_Char**) {}
void XMLCALL onEnd(void*, const XML_Char*) {}

struct ParserDeleter {
  void operator()(XML_ParserStruct* parser) const { XML_ParserFree(parser); }
};
struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

std::pair<double, unsigned long long> bareExpat(const fs::path& xml) {
  const auto start = std::chrono::steady_clock::now();
  std::unique_ptr<std::FILE, FileCloser> file(std::fopen(xml.c_str(), "rb"));
  std::unique_ptr<XML_ParserStruct, ParserDeleter> parser(XML_ParserCreate(nullptr));
  if (!file || !parser) {
    ::_exit(1);
  }
  XML_SetElementHandler(parser.get(), onStart, onEnd);
  constexpr int kBuffer = 256 * 1024;
  for (bool done = false; !done;) {
    void* buffer = XML_GetBuffer(parser.get(), kBuffer);
    const std::size_t count = std::fread(buffer, 1, kBuffer, file.get());
    done = count == 0;
    if (XML_ParseBuffer(parser.get(), static_cast<int>(count), done) != XML_STATUS_OK) {
      ::_exit(1);
    }
  }
  return {secondsSince(start), 0};
}

// The importer's reading thread alone: expat, the export grammars and sample making, with the
// samples dropped instead of stored. The gap to a full import is the store's share.
class CountingSink final : public kestrova::ExportReaderSink {
 public:
  kestrova::ImportBatch& batch() override { return batch_; }
  void kept(std::string_view) override {
    ++count;
    if (batch_.samples.size() >= 10000) {
      batch_ = {};
    }
  }
  void part(std::string_view, std::size_t) override {}
  void skipped(const kestrova::Skip&, std::uint64_t) override { ++count; }
  bool afterBuffer(std::uint64_t) override { return true; }
  unsigned long long count = 0;

 private:
  kestrova::ImportBatch batch_;
};

std::pair<double, unsigned long long> readAndMap(const fs::path& xml) {
  const auto start = std::chrono::steady_clock::now();
  auto source = kestrova::ExportSource::open(xml);
  if (!source) {
    ::_exit(1);
  }
  auto input = source.value()->openMainDocument();
  if (!input) {
    ::_exit(1);
  }
  CountingSink sink;
  const kestrova::ReadOutcome outcome = kestrova::readExport(*input.value(), sink);
  if (outcome.failure) {
    ::_exit(1);
  }
  return {secondsSince(start), sink.count};
}

// `fresh`: into a new store; otherwise into what an earlier import left there.
std::pair<double, unsigned long long> importInto(const fs::path& input, const fs::path& storeDir,
                                                 bool fresh = true) {
  if (fresh) {
    fs::remove_all(storeDir);
  }
  fs::create_directories(storeDir);
  kestrova::EmbeddedHealthStoreOptions options;
  options.path = storeDir / "healthstore.sqlite";
  options.dispatcher = kestrova::makeDispatcher(kestrova::DispatcherOptions{1, std::nullopt});
  auto store = kestrova::EmbeddedHealthStore::open(std::move(options));
  if (!store) {
    std::fprintf(stderr, "%s\n", store.error().text().c_str());
    ::_exit(1);
  }
  const auto start = std::chrono::steady_clock::now();
  kestrova::AppleHealthImporter importer(store.value());
  const kestrova::ImportSummary summary = importer.importExport(input);
  const double seconds = secondsSince(start);
  if (!summary.ok()) {
    std::fprintf(stderr, "%s", kestrova::summaryText(summary).c_str());
    ::_exit(1);
  }
  return {seconds, summary.read};
}

Figures python(const fs::path& xml, const fs::path& database) {
  fs::remove(database);
  int fds[2];
  if (::pipe(fds) != 0) {
    return {};
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
  posix_spawn_file_actions_addclose(&actions, fds[0]);
  const std::string script = KESTROVA_BASELINE_SCRIPT;
  std::string pythonName = "python3";
  std::string xmlText = xml.string();
  std::string databaseText = database.string();
  char* argv[] = {pythonName.data(), const_cast<char*>(script.c_str()), xmlText.data(),
                  databaseText.data(), nullptr};
  const auto start = std::chrono::steady_clock::now();
  pid_t child = 0;
  const int spawned = posix_spawnp(&child, "python3", &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(fds[1]);
  Figures figures;
  if (spawned != 0) {
    ::close(fds[0]);
    return figures;
  }
  const std::string line = readAll(fds[0]);
  ::close(fds[0]);
  int status = 0;
  struct rusage usage {};
  ::wait4(child, &status, 0, &usage);
  figures.seconds = secondsSince(start);
  figures.peakKilobytes = usage.ru_maxrss;
  figures.cpuSeconds = cpuSeconds(usage);
  figures.ok = WIFEXITED(status) && WEXITSTATUS(status) == 0 &&
               std::sscanf(line.c_str(), "%llu", &figures.records) == 1;
  return figures;
}

void print(const char* name, const Figures& figures, unsigned long long records) {
  if (!figures.ok) {
    std::printf("%-34s failed\n", name);
    return;
  }
  const unsigned long long counted = figures.records != 0 ? figures.records : records;
  std::printf("%-36s %8.2f s %10.0f records/s %8.2f s CPU %10.0f records/CPU-s %7.1f MB peak RSS\n",
              name, figures.seconds, static_cast<double>(counted) / figures.seconds,
              figures.cpuSeconds, static_cast<double>(counted) / figures.cpuSeconds,
              static_cast<double>(figures.peakKilobytes) / 1024.0);
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Import benchmark: importer vs bare expat vs a Python baseline",
               "kestrova-import-bench");
  int years = 1;
  std::string work = "/tmp/kestrova-import-bench";
  bool skipPython = false;
  bool xmlOnly = false;
  bool reimport = false;
  app.add_option("--years", years, "Years of generated data")->capture_default_str();
  app.add_option("--work-dir", work, "Where the export and the stores go (not kept in git)")
      ->capture_default_str();
  app.add_flag("--no-python", skipPython, "Leave out the Python baseline");
  app.add_flag("--xml-only", xmlOnly, "Leave out the zip import");
  app.add_flag("--reimport", reimport,
               "Also import a newer export of the same history (one more day) into the store "
               "the export.xml import made");
  CLI11_PARSE(app, argc, argv);
  kestrova::logging::setMinimumLevel(kestrova::LogLevel::error);

  const fs::path root = fs::path(work) / (std::to_string(years) + "y");
  kestrova::bench::GeneratorOptions generatorOptions;
  generatorOptions.years = years;
  generatorOptions.zip = true;
  auto generated = kestrova::bench::generateExport(root / "export", generatorOptions);
  if (!generated) {
    std::fprintf(stderr, "%s\n", generated.error().text().c_str());
    return 1;
  }
  const GeneratedExport& data = generated.value();
  std::printf("generated %d year(s): %s, %.1f MB XML, %.1f MB zip, %llu records, %d ECG files\n",
              years, data.xml.c_str(), static_cast<double>(data.bytes) / 1048576.0,
              static_cast<double>(fs::file_size(data.zip)) / 1048576.0,
              static_cast<unsigned long long>(data.records), data.electrocardiograms);

  const Figures bare = inChild([&] { return bareExpat(data.xml); });
  const Figures mapped = inChild([&] { return readAndMap(data.xml); });
  const Figures xmlImport = inChild([&] { return importInto(data.xml, root / "store-xml"); });
  Figures plusDay;
  if (reimport) {
    kestrova::bench::GeneratorOptions newer = generatorOptions;
    newer.zip = false;
    newer.days = 365 * years + 1;
    auto generatedNewer = kestrova::bench::generateExport(root / "export-plus-day", newer);
    if (!generatedNewer) {
      std::fprintf(stderr, "%s\n", generatedNewer.error().text().c_str());
      return 1;
    }
    const fs::path newerXml = generatedNewer.value().xml;
    plusDay = inChild([&] { return importInto(newerXml, root / "store-xml", false); });
  }
  const Figures zipImport =
      xmlOnly ? Figures{} : inChild([&] { return importInto(data.zip, root / "store-zip"); });
  const Figures baseline = skipPython ? Figures{} : python(data.xml, root / "baseline.sqlite");

  print("bare expat, empty handlers", bare, data.records);
  print("read + map export.xml, no store", mapped, data.records);
  print("import export.xml", xmlImport, data.records);
  if (reimport) {
    print("re-import export.xml + 1 day", plusDay, data.records);
  }
  if (!xmlOnly) {
    print("import export.zip (with ECG files)", zipImport, data.records);
  }
  if (!skipPython) {
    print("python iterparse + sqlite3", baseline, data.records);
  }
  if (bare.ok && xmlImport.ok) {
    std::printf("import time / bare expat time: %.2f wall, %.2f CPU (target at most 2)\n",
                xmlImport.seconds / bare.seconds, xmlImport.cpuSeconds / bare.cpuSeconds);
  }
  if (bare.ok && plusDay.ok) {
    std::printf("re-import time / bare expat time: %.2f wall, %.2f CPU (target at most 1.5)\n",
                plusDay.seconds / bare.seconds, plusDay.cpuSeconds / bare.cpuSeconds);
  }
  if (baseline.ok && xmlImport.ok) {
    std::printf("import records/s / baseline records/s: %.2f wall, %.2f CPU (target at least 3)\n",
                (static_cast<double>(xmlImport.records) / xmlImport.seconds) /
                    (static_cast<double>(baseline.records) / baseline.seconds),
                (static_cast<double>(xmlImport.records) / xmlImport.cpuSeconds) /
                    (static_cast<double>(baseline.records) / baseline.cpuSeconds));
  }
  return 0;
}
