#include "healthstore/import/apple_health_importer.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <tuple>
#include <unordered_map>
#include <variant>

#include "healthstore/import/ecg_csv.h"
#include "healthstore/import/export_reader.h"
#include "healthstore/import/export_source.h"
#include "healthstore/import/gpx_route.h"
#include "platform/log.h"

namespace kestrova {
namespace {

constexpr std::string_view kLogCategory = "import";
constexpr std::string_view kLogStarted = "Importing %{public}@ from %{public}@";
constexpr std::string_view kLogFinished =
    "Import of %{public}@ finished: read %{public}@, added %{public}@, skipped %{public}@";
constexpr std::string_view kLogFailed = "Import of %{public}@ failed: %{public}@";
constexpr std::string_view kLogUnreadableFile = "Skipped %{public}@: %{public}@";
constexpr std::string_view kStoreFailed = "The store refused a chunk: ";

// ECG files are about 120 KB; anything far larger is not one.
constexpr std::size_t kElectrocardiogramLimit = 16 * 1024 * 1024;
// Chunks waiting for the writer: parsing runs ahead by this many, and no more, so memory stays
// flat when the store is the slower side (it is: it takes two thirds of the work).
constexpr std::size_t kQueueDepth = 1;
// Routes per transaction when their files are read: each holds thousands of points.
constexpr std::size_t kRouteBatch = 16;
// Kinds of the summary that are files rather than elements.
constexpr std::string_view kRouteFileKind = "route file";
constexpr std::string_view kElectrocardiogramKind = "electrocardiogram file";

// Route files of a year's workouts are a few MB each at most.
constexpr std::size_t kRouteFileLimit = 64 * 1024 * 1024;

using Job = std::variant<ImportBatch, ParsedElectrocardiogram>;

// Saves chunks on a thread of its own, in the order submitted.
class ChunkWriter {
 public:
  explicit ChunkWriter(EmbeddedHealthStore& store) : store_(store), thread_([this] { run(); }) {}

  ~ChunkWriter() { finish(); }

  // Waits while the queue is full. Dropped once a write failed.
  void submit(Job job) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return queue_.size() < kQueueDepth || failure_; });
    if (failure_) {
      return;
    }
    queue_.push_back(std::move(job));
    changed_.notify_all();
  }

  // Waits until everything submitted is written, and ends the thread.
  void finish() {
    {
      std::lock_guard lock(mutex_);
      closed_ = true;
      changed_.notify_all();
    }
    if (thread_.joinable()) {
      thread_.join();
    }
  }

  bool failed() const { return failedFlag_.load(std::memory_order_relaxed); }
  std::uint64_t added() const { return added_.load(std::memory_order_relaxed); }
  std::uint64_t alreadyPresent() const { return alreadyPresent_.load(std::memory_order_relaxed); }
  Status failure() const {
    std::lock_guard lock(mutex_);
    return failure_;
  }

 private:
  void run() {
    for (;;) {
      Job job;
      {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return !queue_.empty() || closed_; });
        if (queue_.empty()) {
          return;
        }
        job = std::move(queue_.front());
        queue_.pop_front();
        changed_.notify_all();
      }
      Result<BatchOutcome> saved = std::visit(
          [&](auto& item) -> Result<BatchOutcome> {
            using T = std::decay_t<decltype(item)>;
            if constexpr (std::is_same_v<T, ImportBatch>) {
              // In type and start order, a chunk's identities are checked and inserted where
              // the store's identity index already has the type's latest rows, instead of all
              // over it. Sorted here: the reading thread is the busier one.
              std::sort(item.samples.begin(), item.samples.end(),
                        [](const SampleRow& a, const SampleRow& b) {
                          // Types by the address of their static identifier: grouped, in no
                          // meaningful order between them.
                          return std::tuple(a.type.data(), a.start, a.uuid) <
                                 std::tuple(b.type.data(), b.start, b.uuid);
                        });
              return store_.saveBatch(item);
            } else {
              Result<std::size_t> added =
                  store_.saveElectrocardiogram(item.sample, std::move(item.volts));
              if (!added) {
                return added.error();
              }
              return BatchOutcome{added.value(), 1 - added.value()};
            }
          },
          job);
      if (!saved) {
        std::lock_guard lock(mutex_);
        failure_ = importError(kImportErrorStore, std::string(kStoreFailed) + saved.error().text());
        failedFlag_ = true;
        queue_.clear();
        changed_.notify_all();
        return;
      }
      added_ += saved.value().added;
      alreadyPresent_ += saved.value().alreadyPresent;
    }
  }

  EmbeddedHealthStore& store_;
  mutable std::mutex mutex_;  // owns queue_, closed_, failure_
  std::condition_variable changed_;
  std::deque<Job> queue_;
  bool closed_ = false;
  Status failure_;
  // Mirrors of the writer thread's progress, for the reading thread's progress reports.
  std::atomic<bool> failedFlag_{false};
  std::atomic<std::uint64_t> added_{0};
  std::atomic<std::uint64_t> alreadyPresent_{0};
  std::thread thread_;  // last: starts after the members it uses exist
};

// A route whose points are in a file of the export, to be read once the main document is.
struct RouteFile {
  WorkoutRouteRow route;
  std::string path;
};

// Collects mapped rows into chunks and keeps the counts. Owned by the reading thread.
class ImportSink final : public ExportReaderSink {
 public:
  ImportSink(ChunkWriter& writer, ImportSummary& summary, const ImportOptions& options,
             std::uint64_t storedTotal)
      : writer_(writer), summary_(summary), options_(options), storedTotal_(storedTotal) {}

  ImportBatch& batch() override { return chunk_; }

  void kept(std::string_view kind) override {
    ++summary_.read;
    countKind(kind, 1);
    if (chunk_.samples.size() + chunk_.keptElements.size() + chunk_.activitySummaries.size() >=
        options_.chunkSize) {
      flush();
    }
  }

  void part(std::string_view kind, std::size_t count) override { countKind(kind, count); }

  void skipped(const Skip& skip, std::uint64_t line) override {
    ++summary_.read;
    summary_.addSkip(skip, line);
  }

  bool afterBuffer(std::uint64_t storedBytesRead) override {
    storedRead_ = storedBytesRead;
    const auto now = std::chrono::steady_clock::now();
    if (options_.progress && now - lastReport_ >= options_.progressInterval) {
      lastReport_ = now;
      report();
    }
    return !writer_.failed();
  }

  void flush() {
    if (chunk_.empty()) {
      return;
    }
    for (std::size_t i = 0; i < chunk_.samples.size();) {
      // Exports write the records of one type together: count runs.
      const std::string_view type = chunk_.samples[i].type;
      const std::size_t first = i;
      while (i < chunk_.samples.size() && chunk_.samples[i].type.data() == type.data()) {
        ++i;
      }
      samplesByType_[type] += i - first;
    }
    for (WorkoutRouteRow& route : chunk_.workoutRoutes) {
      if (route.filePath && route.locations.empty()) {
        routeFiles_.push_back(RouteFile{route, *route.filePath});
      }
    }
    writer_.submit(std::move(chunk_));
    chunk_ = ImportBatch();
  }

  std::vector<RouteFile>& routeFiles() { return routeFiles_; }

  // Adds the per-type counts to the summary; once, at the end.
  void countTypes() {
    for (const auto& [type, count] : samplesByType_) {
      summary_.samplesByType[std::string(type)] += count;
    }
    samplesByType_.clear();
  }

  void report() {
    if (options_.progress) {
      options_.progress(ImportProgress{storedRead_, storedTotal_, summary_.read, writer_.added()});
    }
  }

 private:
  void countKind(std::string_view kind, std::size_t count) {
    // Element names repeat: the last kind is nearly always the same.
    if (kind != lastKind_) {
      lastKind_.assign(kind);
      lastCount_ = &summary_.keptByKind[lastKind_];
    }
    *lastCount_ += count;
  }

  ChunkWriter& writer_;
  ImportSummary& summary_;
  const ImportOptions& options_;
  std::uint64_t storedTotal_;
  std::uint64_t storedRead_ = 0;
  ImportBatch chunk_;
  std::vector<RouteFile> routeFiles_;
  std::unordered_map<std::string_view, std::uint64_t> samplesByType_;
  std::string lastKind_;
  std::uint64_t* lastCount_ = nullptr;
  std::chrono::steady_clock::time_point lastReport_{};
};

// Routes whose points are in files: read after the main document, written with their workout's
// identity. A file that cannot be read leaves the route without points, and is reported.
void importRouteFiles(ExportSource& source, std::vector<RouteFile>& files, ChunkWriter& writer,
                      ImportSummary& summary) {
  ImportBatch batch;
  for (RouteFile& file : files) {
    if (writer.failed()) {
      return;
    }
    const std::optional<std::string> name = source.referencedName(file.path);
    Result<std::string> text =
        name ? source.readSmallFile(*name, kRouteFileLimit)
             : Result<std::string>(importError(kImportErrorCannotOpen, file.path));
    Result<std::vector<RouteLocation>> points =
        text ? parseGpxRoute(text.value(), file.path)
             : Result<std::vector<RouteLocation>>(text.error());
    if (!points) {
      logError(kLogCategory, kLogUnreadableFile, {file.path, points.error().text()});
      ++summary.read;
      summary.addSkip(Skip{SkipReason::unreadableFile, file.path}, 0);
      continue;
    }
    file.route.locations = std::move(points).value();
    ++summary.keptByKind[std::string(kRouteFileKind)];
    batch.workoutRoutes.push_back(std::move(file.route));
    if (batch.workoutRoutes.size() >= kRouteBatch) {
      writer.submit(std::move(batch));
      batch = ImportBatch();
    }
  }
  if (!batch.empty()) {
    writer.submit(std::move(batch));
  }
}

void importElectrocardiograms(ExportSource& source, ChunkWriter& writer, ImportSummary& summary) {
  for (const std::string& name : source.electrocardiogramNames()) {
    if (writer.failed()) {
      return;
    }
    ++summary.read;
    Result<std::string> text = source.readSmallFile(name, kElectrocardiogramLimit);
    Result<ParsedElectrocardiogram> parsed = text ? parseElectrocardiogramCsv(text.value(), name)
                                                  : Result<ParsedElectrocardiogram>(text.error());
    if (!parsed) {
      logError(kLogCategory, kLogUnreadableFile, {name, parsed.error().text()});
      summary.addSkip(Skip{SkipReason::unreadableFile, name}, 0);
      continue;
    }
    ++summary.electrocardiograms;
    ++summary.samplesByType[std::string(kElectrocardiogramTypeIdentifier)];
    ++summary.keptByKind[std::string(kElectrocardiogramKind)];
    writer.submit(std::move(parsed).value());
  }
}

void runImport(EmbeddedHealthStore& store, const ImportOptions& options,
               const std::filesystem::path& path, ImportSummary& summary) {
  Result<std::unique_ptr<ExportSource>> source = ExportSource::open(path);
  if (!source) {
    summary.failure = source.error();
    return;
  }
  ExportSource& export_ = *source.value();
  summary.mainDocument = export_.mainDocumentName();
  logInfo(kLogCategory, kLogStarted, {summary.mainDocument, summary.input});

  Result<std::unique_ptr<InputStream>> input = export_.openMainDocument();
  if (!input) {
    summary.failure = input.error();
    return;
  }
  ChunkWriter writer(store);
  ImportSink sink(writer, summary, options, export_.mainDocumentStoredSize());
  ReadOutcome outcome = readExport(*input.value(), sink);
  summary.exportDate = outcome.exportDate;
  summary.locale = outcome.locale;
  // What was read before a failure is as good as the rest: it is committed too.
  sink.flush();
  sink.countTypes();
  if (outcome.failure) {
    summary.failure = outcome.failure->error;
    summary.stoppedAt = outcome.failure->position;
  } else {
    importRouteFiles(export_, sink.routeFiles(), writer, summary);
    importElectrocardiograms(export_, writer, summary);
  }
  writer.finish();
  if (Status failed = writer.failure()) {
    summary.failure = std::move(failed);
  }
  summary.added = writer.added();
  summary.alreadyPresent = writer.alreadyPresent();
  sink.report();
}

}  // namespace

AppleHealthImporter::AppleHealthImporter(std::shared_ptr<EmbeddedHealthStore> store,
                                         ImportOptions options)
    : store_(std::move(store)), options_(std::move(options)) {
  if (options_.chunkSize == 0) {
    options_.chunkSize = 1;
  }
}

ImportSummary AppleHealthImporter::importExport(const std::filesystem::path& path) {
  const auto started = std::chrono::steady_clock::now();
  ImportSummary summary;
  summary.input = path.string();
  try {
    runImport(*store_, options_, path, summary);
  } catch (const std::exception& exception) {
    summary.failure = importError(kImportErrorInternal, exception.what());
  }
  summary.seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  if (summary.failure) {
    logError(kLogCategory, kLogFailed, {summary.input, summary.failure->text()});
  } else {
    logInfo(kLogCategory, kLogFinished,
            {summary.input, std::to_string(summary.read), std::to_string(summary.added),
             std::to_string(summary.skippedCount())});
  }
  return summary;
}

}  // namespace kestrova
