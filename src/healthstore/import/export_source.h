// Where an export's files come from: an export.zip read in place (entries inflated as streams,
// ZIP64 included), an unpacked export folder, or the main XML file alone. The main document is
// found by its content, not by its name, which the phone localises; Mac resource forks are
// ignored. One source is used by one import on one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/result.h"

namespace kestrova {

inline constexpr std::string_view kImportErrorDomain = "AppleHealthImport";
enum ImportErrorCode : std::int64_t {
  kImportErrorCannotOpen = 1,
  kImportErrorNotAnExport = 2,
  kImportErrorRead = 3,
  kImportErrorMalformed = 4,
  kImportErrorStore = 5,
  kImportErrorInternal = 6,
};
Error importError(std::int64_t code, std::string description);

// A sequential reader of one file or archive entry.
class InputStream {
 public:
  virtual ~InputStream() = default;
  // Up to `size` bytes into `buffer`; 0 at the end. Errors: reading or inflating failed.
  virtual Result<std::size_t> read(char* buffer, std::size_t size) = 0;
  // How far into the stored (compressed, for an archive) bytes reading has come.
  virtual std::uint64_t storedBytesRead() const = 0;
};

class ExportSource {
 public:
  virtual ~ExportSource() = default;

  // Errors: the path cannot be read, or holds no Apple Health export document.
  static Result<std::unique_ptr<ExportSource>> open(const std::filesystem::path& path);

  // The main document's name inside the source ("apple_health_export/导出.xml").
  virtual const std::string& mainDocumentName() const = 0;
  virtual Result<std::unique_ptr<InputStream>> openMainDocument() = 0;
  // Stored size of the main document: the scale of import progress.
  virtual std::uint64_t mainDocumentStoredSize() const = 0;

  // Electrocardiogram CSV files, in name order.
  virtual const std::vector<std::string>& electrocardiogramNames() const = 0;
  // The name under which readSmallFile finds a file the main document refers to by a path
  // relative to its own folder ("/workout-routes/route_2019-06-11_3.00pm.gpx"); none for a path
  // that leaves the export.
  std::optional<std::string> referencedName(std::string_view path) const;
  // A whole small file (an electrocardiogram CSV, a route), at most `limit` bytes.
  virtual Result<std::string> readSmallFile(const std::string& name, std::size_t limit) = 0;
};

}  // namespace kestrova
