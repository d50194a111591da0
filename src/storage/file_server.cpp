#include "storage/file_server.h"

#include <algorithm>
#include <atomic>
#include <chrono>
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
constexpr std::string_view kRejectedDirectory = "Kestrova/Rejected";
// The record beside a set-aside file: its name and this suffix.
constexpr std::string_view kRecordSuffix = ".rejected.json";
constexpr std::string_view kRecordBulk = "bulk";
constexpr std::string_view kRecordHttpStatus = "httpStatus";
constexpr std::string_view kRecordAttempts = "attempts";
constexpr std::string_view kRecordReason = "reason";
constexpr std::string_view kRecordAt = "at";

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
constexpr std::string_view kSetAside =
    "File %{public}@ was refused %{public}@ times and is set aside in %{public}@";
constexpr std::string_view kNotSetAside = "Cannot set file %{public}@ aside: %{public}@";
constexpr std::string_view kRestored = "File %{public}@ goes back to %{public}@ for the next sweep";
constexpr std::string_view kNotRestored = "Cannot move file %{public}@ back: %{public}@";

// Free of FileServer so that work left on the write queue never needs the server itself.
std::optional<fs::path> directoryUnderDocuments(FileSystem& files, std::string_view name);

std::optional<fs::path> uploadDirectory(FileSystem& files, bool bulk) {
  return directoryUnderDocuments(files, bulk ? kUploadBulkDirectory : kUploadDirectory);
}

std::optional<fs::path> directoryUnderDocuments(FileSystem& files, std::string_view name) {
  auto documents = files.documentsDirectory();
  if (!documents) {
    logError(kCategory, kNoDirectory, {documents.error().text()});
    return std::nullopt;
  }
  auto directory = *documents / name;
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

using Milliseconds = std::chrono::milliseconds;

Bytes recordBytes(const RejectedFile& record) {
  nlohmann::json json = {
      {kRecordBulk, record.bulk},
      {kRecordHttpStatus,
       record.httpStatus ? nlohmann::json(*record.httpStatus) : nlohmann::json()},
      {kRecordAttempts, record.attempts},
      {kRecordReason, record.reason},
      {kRecordAt, std::chrono::duration_cast<Milliseconds>(record.at.time_since_epoch()).count()}};
  return toBytes(json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
}

// What the record says; a missing or damaged one leaves the defaults (a bulk file, as every
// batch is).
RejectedFile readRecord(const FileSystem& files, const fs::path& path,
                        FileNameComponents components) {
  RejectedFile record;
  record.components = std::move(components);
  record.at = record.components.timestamp;
  auto bytes = files.readFile(path);
  if (!bytes) {
    return record;
  }
  const auto json = nlohmann::json::parse(bytes.value(), nullptr, false);
  if (!json.is_object()) {
    return record;
  }
  record.bulk = json.value(kRecordBulk, true);
  if (const auto status = json.find(kRecordHttpStatus);
      status != json.end() && status->is_number_integer()) {
    record.httpStatus = status->get<int>();
  }
  record.attempts = json.value(kRecordAttempts, 0);
  record.reason = json.value(kRecordReason, std::string());
  record.at = Date(Milliseconds(json.value(kRecordAt, std::int64_t{0})));
  return record;
}

std::string recordName(const FileNameComponents& components) {
  return components.fileName() + std::string(kRecordSuffix);
}

}  // namespace

std::string_view familyOfFile(const FileNameComponents& components) {
  for (auto prefix : kBatchPrefixes) {
    if (components.sampleId.starts_with(prefix)) {
      return familyOfPrefix(prefix);
    }
  }
  return kSingleSampleFamily;
}

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

bool FileServer::setAside(const RejectedFile& record) {
  const auto name = record.components.fileName();
  const auto from = uploadFile(*files_, record.components, record.bulk);
  const auto rejected = directoryUnderDocuments(*files_, kRejectedDirectory);
  if (!from || !rejected) {
    return false;
  }
  const auto recordPath = *rejected / recordName(record.components);
  // A record left by a set-aside that a crash cut short.
  files_->removeFile(recordPath);
  if (auto error = files_->createFileAtomically(recordPath, recordBytes(record))) {
    logError(kCategory, kNotSetAside, {name, error->text()});
    return false;
  }
  if (auto error = files_->moveFile(*from, *rejected / name)) {
    logError(kCategory, kNotSetAside, {name, error->text()});
    files_->removeFile(recordPath);
    return false;
  }
  logError(kCategory, kSetAside, {name, std::to_string(record.attempts), rejected->string()});
  return true;
}

std::vector<RejectedFile> FileServer::listRejected() const {
  std::vector<RejectedFile> records;
  const auto rejected = directoryUnderDocuments(*files_, kRejectedDirectory);
  if (!rejected) {
    return records;
  }
  auto names = files_->listDirectory(*rejected);
  if (!names) {
    logError(kCategory, kCannotOpenDirectory, {rejected->string()});
    return records;
  }
  std::sort(names.value().begin(), names.value().end());
  for (const auto& name : names.value()) {
    if (auto components = FileNameComponents::parse(name);
        components && !name.ends_with(kRecordSuffix)) {
      records.push_back(readRecord(*files_, *rejected / recordName(*components), *components));
    }
  }
  return records;
}

std::vector<RejectedFile> FileServer::restoreRejected() {
  std::vector<RejectedFile> restored;
  const auto rejected = directoryUnderDocuments(*files_, kRejectedDirectory);
  if (!rejected) {
    return restored;
  }
  for (auto& record : listRejected()) {
    const auto name = record.components.fileName();
    const auto to = uploadFile(*files_, record.components, record.bulk);
    if (!to) {
      continue;
    }
    if (auto error = files_->moveFile(*rejected / name, *to)) {
      logError(kCategory, kNotRestored, {name, error->text()});
      continue;
    }
    files_->removeFile(*rejected / recordName(record.components));
    logInfo(kCategory, kRestored, {name, to->parent_path().string()});
    restored.push_back(std::move(record));
  }
  return restored;
}

FileNameComponents FileServer::makeBatchComponents(std::string_view prefix, std::string profileId,
                                                   Date now) {
  std::string sampleId(prefix);
  sampleId += timestampString(now);
  appendSequenceNumber(sampleId);
  return FileNameComponents{std::move(sampleId), std::move(profileId), now};
}

}  // namespace kestrova
