#include "storage/file_server.h"

#include <atomic>
#include <cstdint>
#include <nlohmann/json.hpp>

#include "facade/formatters.h"
#include "platform/log.h"

namespace kestrova {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kCategory = "files";
constexpr std::string_view kUploadDirectory = "Kestrova/Upload";
constexpr std::string_view kUploadBulkDirectory = "Kestrova/UploadBulk";

constexpr std::string_view kNoDirectory =
    "Trying to get the directory URL to fails with error: %{public}@";
constexpr std::string_view kWriteFailed =
    "Trying to create a file handle for writing fails with error: %{public}@";
constexpr std::string_view kWritten = "Data written to file: %{public}@";
constexpr std::string_view kWriteDropped =
    "Could not write file %{public}@ after %{public}@ attempts, its data points are dropped";
constexpr std::string_view kReadFailed =
    "Trying to create a file handle for reading fails with error: %{public}@";
constexpr std::string_view kLoaded = "Data loaded from file: %{public}@";
constexpr std::string_view kNotJson = "Non-json data found, file will be removed: %{public}@";
constexpr std::string_view kCannotFind = "Cannot find file: %{public}@";
constexpr std::string_view kDeleted = "Deleted file %{public}@";
constexpr std::string_view kDeleteFailed = "Cannot delete file, error: %{public}@";
constexpr std::string_view kCannotOpenDirectory = "Cannot open directory %{public}@";
constexpr std::string_view kUnfinishedRemoved =
    "Removed the unfinished file of an interrupted write: %{public}@";
constexpr std::string_view kUnfinishedNotRemoved =
    "Cannot remove the unfinished files of interrupted writes: %{public}@";

// Free of FileServer so that work left on the write queue never needs the server itself.
std::optional<fs::path> uploadDirectory(FileSystem& files, bool bulk) {
  auto documents = files.documentsDirectory();
  if (!documents) {
    logError(kCategory, kNoDirectory, {documents.error().text()});
    return std::nullopt;
  }
  auto directory = *documents / (bulk ? kUploadBulkDirectory : kUploadDirectory);
  if (auto error = files.createDirectories(directory)) {
    logError(kCategory, kNoDirectory, {error->text()});
    return std::nullopt;
  }
  return directory;
}

std::optional<fs::path> uploadFile(FileSystem& files, const FileNameComponents& components,
                                   bool bulk) {
  auto directory = uploadDirectory(files, bulk);
  if (!directory) {
    return std::nullopt;
  }
  return *directory / components.fileName();
}

// How often a write looks for a free name before it counts as failed.
constexpr int kMaximumNameAttempts = 8;

// "-" and the next number of the name sequence: one counter for the process (an atomic is its
// own owner), so names made on different queues, or with a clock that went back, never meet.
void appendSequenceNumber(std::string& sampleId) {
  static std::atomic<std::uint64_t> sequence{0};
  sampleId += '-';
  sampleId += std::to_string(sequence.fetch_add(1) + 1);
}

}  // namespace

std::string FileNameComponents::fileName() const {
  std::string name = timestampString(timestamp);
  name += FileServer::kSeparator;
  name += sampleId;
  name += FileServer::kSeparator;
  name += profileId;
  return name;
}

std::optional<FileNameComponents> FileNameComponents::parse(std::string_view name) {
  const auto first = name.find(FileServer::kSeparator);
  if (first == std::string_view::npos) {
    return std::nullopt;
  }
  const auto secondStart = first + FileServer::kSeparator.size();
  const auto second = name.find(FileServer::kSeparator, secondStart);
  if (second == std::string_view::npos) {
    return std::nullopt;
  }
  const auto thirdStart = second + FileServer::kSeparator.size();
  // A fourth part would make the name differ from the one the components give back, so the
  // file could never be read or deleted through them: such a name is not ours.
  if (name.find(FileServer::kSeparator, thirdStart) != std::string_view::npos) {
    return std::nullopt;
  }
  const auto timestamp = dateFromTimestampString(name.substr(0, first));
  if (!timestamp) {
    return std::nullopt;
  }
  return FileNameComponents{std::string(name.substr(secondStart, second - secondStart)),
                            std::string(name.substr(thirdStart)), *timestamp};
}

FileServer::FileServer(std::shared_ptr<FileSystem> files, std::shared_ptr<DispatchQueue> writeQueue)
    : files_(std::move(files)), writeQueue_(std::move(writeQueue)) {}

std::shared_ptr<DispatchQueue> FileServer::sharedWriteQueue(Dispatcher& dispatcher) {
  return dispatcher.sharedSerialQueue(kWriteQueueLabel, QualityOfService::utility);
}

std::optional<fs::path> FileServer::directoryURL(bool bulk) const {
  return uploadDirectory(*files_, bulk);
}

std::optional<fs::path> FileServer::fileURL(const FileNameComponents& components, bool bulk) const {
  return uploadFile(*files_, components, bulk);
}

void FileServer::write(Bytes data, FileNameComponents components, bool bulk,
                       WriteCompletion completion) {
  writeQueue_->async([files = files_, data = std::move(data), components = std::move(components),
                      bulk, completion = std::move(completion)]() mutable {
    // NOTE: a name can still be taken: by another process on the same directory, or by a file
    // of an earlier run when the clock was set back. Replacing it would lose a pending file
    // whose anchor has moved on.
    auto written = components;
    for (int attempt = 1;; ++attempt) {
      const auto url = uploadFile(*files, written, bulk);
      if (!url) {
        completion(std::nullopt);
        return;
      }
      auto error = files->createFileAtomically(*url, data);
      if (!error) {
        logInfo(kCategory, kWritten, {url->string()});
        completion(std::move(written));
        return;
      }
      if (!isNameTaken(*error) || attempt == kMaximumNameAttempts) {
        logError(kCategory, kWriteFailed, {error->text()});
        completion(std::nullopt);
        return;
      }
      written.sampleId = components.sampleId;
      appendSequenceNumber(written.sampleId);
    }
  });
}

void FileServer::writeWithRetry(Bytes data, FileNameComponents components, bool bulk, int attempt,
                                WriteCompletion done) {
  // The retry needs the bytes again, so the write gets a copy.
  auto copy = data;
  write(std::move(copy), components, bulk,
        [self = FileServer(files_, writeQueue_), data = std::move(data), components, bulk, attempt,
         done = std::move(done)](std::optional<FileNameComponents> result) mutable {
          if (result) {
            done(std::move(result));
            return;
          }
          if (attempt + 1 > kMaximumWriteAttempts) {
            logError(kCategory, kWriteDropped,
                     {components.fileName(), std::to_string(kMaximumWriteAttempts)});
            done(std::nullopt);
            return;
          }
          self.writeWithRetry(std::move(data), std::move(components), bulk, attempt + 1,
                              std::move(done));
        });
}

std::optional<Bytes> FileServer::read(const FileNameComponents& components, bool bulk) {
  const auto url = fileURL(components, bulk);
  if (!url) {
    return std::nullopt;
  }
  auto data = files_->readFile(*url);
  if (!data) {
    logError(kCategory, kReadFailed, {data.error().text()});
    return std::nullopt;
  }
  if (!nlohmann::json::accept(data.value())) {
    // Retrying a damaged file would fail forever and hold up the files behind it.
    logError(kCategory, kNotJson, {url->string()});
    remove(components, bulk);
    return std::nullopt;
  }
  logInfo(kCategory, kLoaded, {url->string()});
  return std::move(data).value();
}

void FileServer::remove(const FileNameComponents& components, bool bulk) {
  const auto url = fileURL(components, bulk);
  if (!url) {
    logError(kCategory, kCannotFind, {components.fileName()});
    return;
  }
  if (auto error = files_->removeFile(*url)) {
    logError(kCategory, kDeleteFailed, {error->text()});
    return;
  }
  logInfo(kCategory, kDeleted, {url->string()});
}

std::vector<FileNameComponents> FileServer::list(bool bulk) const {
  std::vector<FileNameComponents> components;
  const auto directory = directoryURL(bulk);
  if (!directory) {
    return components;
  }
  const auto names = files_->listDirectory(*directory);
  if (!names) {
    logError(kCategory, kCannotOpenDirectory, {directory->string()});
    return components;
  }
  for (const auto& name : names.value()) {
    if (auto parsed = FileNameComponents::parse(name)) {
      components.push_back(std::move(*parsed));
    }
  }
  return components;
}

void FileServer::removeUnfinishedWrites() const {
  writeQueue_->async([files = files_] {
    for (bool bulk : {false, true}) {
      const auto directory = uploadDirectory(*files, bulk);
      if (!directory) {
        continue;
      }
      auto removed = files->removeUnfinishedWrites(*directory);
      if (!removed) {
        logError(kCategory, kUnfinishedNotRemoved, {removed.error().text()});
        continue;
      }
      for (const auto& name : removed.value()) {
        logInfo(kCategory, kUnfinishedRemoved, {(*directory / name).string()});
      }
    }
  });
}

FileNameComponents FileServer::makeBatchComponents(std::string_view prefix, std::string profileId,
                                                   Date now) {
  std::string sampleId(prefix);
  sampleId += timestampString(now);
  appendSequenceNumber(sampleId);
  return FileNameComponents{std::move(sampleId), std::move(profileId), now};
}

}  // namespace kestrova
