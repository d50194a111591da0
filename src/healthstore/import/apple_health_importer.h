// Imports an Apple Health export (export.zip, its unpacked folder, or export.xml) into the
// embedded health store. The calling thread reads and maps; a writer thread of the importer
// saves chunks, each in one transaction, so a failed import keeps what it committed and a
// repeated one adds only what is missing (identities are name-based). Progress is reported on
// the calling thread. One importer runs one import at a time.
//
//   AppleHealthImporter importer(store);
//   ImportSummary summary = importer.importExport("export.zip");
//   if (!summary.ok()) { ... summary.failure, summary.stoppedAt ... }
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>

#include "healthstore/embedded_health_store.h"
#include "healthstore/import/import_summary.h"

namespace kestrova {

struct ImportProgress {
  // Of the main document as stored (compressed in an archive).
  std::uint64_t storedBytesRead = 0;
  std::uint64_t storedBytesTotal = 0;
  std::uint64_t read = 0;
  std::uint64_t added = 0;
};

struct ImportOptions {
  // Samples per transaction. Larger chunks write faster and hold more memory (about 1 KB a
  // sample, three chunks at a time: one filling, one waiting, one being written).
  std::size_t chunkSize = 10000;
  // Called on the importing thread, at most every progressInterval and once at the end.
  std::function<void(const ImportProgress&)> progress;
  std::chrono::milliseconds progressInterval{100};
};

class AppleHealthImporter {
 public:
  explicit AppleHealthImporter(std::shared_ptr<EmbeddedHealthStore> store,
                               ImportOptions options = {});

  // Never throws. A summary without failure means every element was read; skipped ones are
  // listed in it with their reasons.
  ImportSummary importExport(const std::filesystem::path& path);

 private:
  std::shared_ptr<EmbeddedHealthStore> store_;
  ImportOptions options_;
};

}  // namespace kestrova
