// The upload file store: one file per payload in "Kestrova/Upload" or "Kestrova/UploadBulk"
// under the documents directory, named timestamp "---" sample id "---" profile id, and the
// files the back end refused for good, set aside in "Kestrova/Rejected". Writes are
// serialised on the write queue "com.kestrova.queue.fileserver.write"; reads, deletes, moves
// and listings run on the caller's thread. A file becomes known only once it is complete (its
// write completion, or a listing), so they need no lock.
#pragma once

#include <array>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/clock.h"
#include "platform/dispatch.h"
#include "platform/file_system.h"

namespace kestrova {

struct FileNameComponents {
  std::string sampleId;
  std::string profileId;
  Date timestamp;

  // timestamp text "---" sampleId "---" profileId.
  std::string fileName() const;
  // None unless the name is three parts separated by "---" whose first is a timestamp text.
  static std::optional<FileNameComponents> parse(std::string_view name);

  friend bool operator==(const FileNameComponents&, const FileNameComponents&) = default;
};

// The families of upload files: a batch's sample id begins with its family's prefix. The
// statistics are uploaded without files; a file of neither kind holds a single sample.
inline constexpr std::string_view kWorkoutPrefix = "workout-";
inline constexpr std::string_view kSleepPrefix = "sleep-";
inline constexpr std::string_view kMindfulPrefix = "mindful-";
inline constexpr std::string_view kEcgPrefix = "ecg-";
inline constexpr std::string_view kBodyPrefix = "body-";
inline constexpr std::string_view kStatisticsFamily = "statistics";
inline constexpr std::string_view kSingleSampleFamily = "sample";
inline constexpr std::array<std::string_view, 5> kBatchPrefixes = {
    kWorkoutPrefix, kSleepPrefix, kMindfulPrefix, kEcgPrefix, kBodyPrefix};
// A batch family's name: its prefix without the final "-".
constexpr std::string_view familyOfPrefix(std::string_view prefix) {
  return prefix.substr(0, prefix.size() - 1);
}
// Every family the delivery state follows, in the order reports show them.
inline constexpr std::array<std::string_view, 6> kDeliveryFamilies = {
    familyOfPrefix(kWorkoutPrefix), familyOfPrefix(kSleepPrefix), familyOfPrefix(kMindfulPrefix),
    familyOfPrefix(kEcgPrefix),     familyOfPrefix(kBodyPrefix),  kStatisticsFamily};

// "workout", ..., "body" by the sample id's prefix, or kSingleSampleFamily.
std::string_view familyOfFile(const FileNameComponents& components);

// A file the back end refused for good, and the record kept beside it in "Kestrova/Rejected".
struct RejectedFile {
  FileNameComponents components;
  // The upload directory it came from, and goes back to.
  bool bulk = true;
  std::optional<int> httpStatus;
  int attempts = 0;
  // The back end's answer, cut to kMaximumReasonBytes.
  std::string reason;
  Date at;
};

class FileServer {
 public:
  static constexpr std::size_t kMaximumReasonBytes = 512;

  static constexpr std::string_view kWriteQueueLabel = "com.kestrova.queue.fileserver.write";
  static constexpr std::string_view kSeparator = "---";
  static constexpr int kMaximumWriteAttempts = 3;

  using WriteCompletion = std::function<void(std::optional<FileNameComponents>)>;

  // `writeQueue` must be a serial queue; normally the process-wide one of sharedWriteQueue().
  FileServer(std::shared_ptr<FileSystem> files, std::shared_ptr<DispatchQueue> writeQueue);

  // The write queue of the dispatcher, made on first use; one per process in practice.
  static std::shared_ptr<DispatchQueue> sharedWriteQueue(Dispatcher& dispatcher);

  // Created, with its parents, every time it is asked for.
  std::optional<std::filesystem::path> directoryURL(bool bulk) const;
  std::optional<std::filesystem::path> fileURL(const FileNameComponents& components,
                                               bool bulk) const;

  // Writes the whole file on the write queue; the completion runs there, with the components
  // on success and none on failure. A pending file is never replaced: when the name is taken,
  // the file is written under the sample id with a number of the name sequence added, and the
  // completion receives those components.
  void write(Bytes data, FileNameComponents components, bool bulk, WriteCompletion completion);
  // Writes, and tries again up to three attempts in all; `done` runs once on the write queue,
  // with the components when the file is complete, or with none when the last attempt failed
  // and the payload is dropped (with an error line).
  void writeWithRetry(Bytes data, FileNameComponents components, bool bulk, int attempt,
                      WriteCompletion done);
  // The file's bytes when they are JSON; a file that is not JSON is deleted.
  std::optional<Bytes> read(const FileNameComponents& components, bool bulk);
  void remove(const FileNameComponents& components, bool bulk);
  std::vector<FileNameComponents> list(bool bulk) const;
  // Removes, on the write queue, the temporary files of writes that a crash cut short, each
  // with a log line: their payloads were never complete, so their batches were never marked
  // as collected and are fetched again.
  // NOTE: another process writing into the same data directory at that moment loses its
  // temporary file, and so that write attempt; its retry writes the file again.
  void removeUnfinishedWrites() const;

  // Moves the file from its upload directory to "Kestrova/Rejected", with `record` beside it
  // (written first, so that a crash in between leaves the file where it was and an unused
  // record); false, logged, when it stays where it is. Listings of the upload directories no
  // longer see it.
  bool setAside(const RejectedFile& record);
  // The set-aside files in name order, each with its record (or a record of what the name
  // says when its own is missing or unreadable).
  std::vector<RejectedFile> listRejected() const;
  // Moves every set-aside file back to the upload directory it came from, for the next sweep,
  // and returns those moved; their records go.
  std::vector<RejectedFile> restoreRejected();

  // Components for a batch of one family: the sample id is `prefix`, the GMT timestamp of
  // `now`, "-" and the next number of the process's name sequence, so that no two batches get
  // the same name, whatever the wall clock does.
  FileNameComponents makeBatchComponents(std::string_view prefix, std::string profileId, Date now);

 private:
  const std::shared_ptr<FileSystem> files_;
  const std::shared_ptr<DispatchQueue> writeQueue_;
};

}  // namespace kestrova
