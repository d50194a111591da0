// Files of the library's data directory, which stands for the documents directory of a phone
// application. Implementations are thread-safe; operations on one path are not ordered against
// each other, so each caller owns the files it names.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "platform/result.h"

namespace kestrova {

class FileSystem {
 public:
  virtual ~FileSystem() = default;

  virtual Result<std::filesystem::path> documentsDirectory() const = 0;
  // Creates the directory and any missing parent; an existing directory is no error.
  virtual Status createDirectories(const std::filesystem::path& path) = 0;
  // Makes a new file as a whole: the bytes go to a hidden temporary file in the same directory
  // that then takes the name, so a reader or a crash sees the whole file or none. A file that
  // has the name already is never replaced: that failure is one isNameTaken recognises.
  virtual Status createFileAtomically(const std::filesystem::path& path, const Bytes& data) = 0;
  virtual Result<Bytes> readFile(const std::filesystem::path& path) const = 0;
  virtual Status removeFile(const std::filesystem::path& path) = 0;
  // Gives the file `from` the name `to` in one step (a crash leaves it under one of the two),
  // unless a file has that name already: that failure is one isNameTaken recognises.
  virtual Status moveFile(const std::filesystem::path& from, const std::filesystem::path& to) = 0;
  // The names in a directory, without hidden names (those that begin with "."), in the
  // file system's order.
  virtual Result<std::vector<std::string>> listDirectory(
      const std::filesystem::path& path) const = 0;
  virtual Result<std::uintmax_t> fileSize(const std::filesystem::path& path) const = 0;
  // Removes the temporary files of writes into `directory` that never finished, because the
  // process was killed or the machine stopped mid-write, and returns their names. Must not
  // run while a write into the directory is under way. Implementations that write in place
  // leave none.
  virtual Result<std::vector<std::string>> removeUnfinishedWrites(
      const std::filesystem::path& directory) {
    (void)directory;
    return std::vector<std::string>{};
  }
};

// True for the failure of createFileAtomically whose target existed already.
bool isNameTaken(const Error& error);

// Files on the local disk, with `root` as the documents directory.
std::shared_ptr<FileSystem> makeLocalFileSystem(std::filesystem::path root);

}  // namespace kestrova
