// Files on the local disk through POSIX calls, so that every failure keeps its errno.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "platform/file_system.h"
#include "platform/linux/posix.h"

namespace kestrova {
namespace {

namespace fs = std::filesystem;

// A write's temporary file: "." + the target's name + a suffix that mkstemp makes unique.
constexpr std::string_view kTemporaryPrefix = ".";
constexpr std::string_view kTemporarySuffix = ".XXXXXX";

bool isTemporaryName(std::string_view name) {
  return name.size() > kTemporaryPrefix.size() + kTemporarySuffix.size() &&
         name.starts_with(kTemporaryPrefix) &&
         name[name.size() - kTemporarySuffix.size()] == kTemporarySuffix.front();
}

bool isVisibleName(std::string_view name) {
  return !name.starts_with('.');
}

// The names in the directory that `keep` accepts, in the file system's order.
Result<std::vector<std::string>> namesIn(const fs::path& path,
                                         bool (*keep)(std::string_view name)) {
  DIR* directory = ::opendir(path.c_str());
  if (directory == nullptr) {
    return posixError(errno, "Cannot open directory", path);
  }
  std::vector<std::string> names;
  errno = 0;
  while (const dirent* entry = ::readdir(directory)) {
    if (keep(entry->d_name)) {
      names.emplace_back(entry->d_name);
    }
  }
  const int code = errno;
  ::closedir(directory);
  if (code != 0) {
    return posixError(code, "Cannot list directory", path);
  }
  return names;
}

int writeAll(int fd, const Bytes& data) {
  std::size_t written = 0;
  while (written < data.size()) {
    const auto n = ::write(fd, data.data() + written, data.size() - written);
    if (n < 0) {
      if (errno == EINTR) {
        continue;
      }
      return errno;
    }
    written += static_cast<std::size_t>(n);
  }
  return 0;
}

// Gives `from` the name `to` unless a file has that name; the errno of the failure, or 0.
int renameWithoutReplacing(const fs::path& from, const fs::path& to) {
  if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) {
    return 0;
  }
  if (errno != EINVAL && errno != ENOSYS) {
    return errno;
  }
  // A file system without that kind of rename: a hard link refuses an existing name alike.
  if (::link(from.c_str(), to.c_str()) != 0) {
    return errno;
  }
  ::unlink(from.c_str());
  return 0;
}

// A rename must reach the disk for the file to survive a power loss under its new name.
void syncDirectory(const fs::path& path) {
  FileDescriptor directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (directory.valid()) {
    ::fsync(directory.get());
  }
}

class LocalFileSystem : public FileSystem {
 public:
  explicit LocalFileSystem(fs::path root) : root_(std::move(root)) {}

  Result<fs::path> documentsDirectory() const override { return root_; }

  Status createDirectories(const fs::path& path) override {
    std::error_code error;
    fs::create_directories(path, error);
    if (error) {
      return posixError(error.value(), "Cannot create directory", path);
    }
    return std::nullopt;
  }

  Status createFileAtomically(const fs::path& path, const Bytes& data) override {
    // Hidden, so that listings never show a half-written file; mkstemp makes it owner-only,
    // which suits health data.
    std::string pattern =
        (path.parent_path() /
         (std::string(kTemporaryPrefix) + path.filename().string() + std::string(kTemporarySuffix)))
            .string();
    FileDescriptor file(::mkstemp(pattern.data()));
    if (!file.valid()) {
      return posixError(errno, "Cannot create temporary file for", path);
    }
    const fs::path temporary(pattern);
    auto fail = [&](int code, std::string_view what) {
      ::unlink(temporary.c_str());
      return posixError(code, what, path);
    };
    if (int code = writeAll(file.get(), data); code != 0) {
      return fail(code, "Cannot write");
    }
    if (::fsync(file.get()) != 0) {
      return fail(errno, "Cannot flush");
    }
    if (int code = file.close(); code != 0) {
      return fail(code, "Cannot close");
    }
    if (int code = renameWithoutReplacing(temporary, path); code != 0) {
      return fail(code, "Cannot rename into");
    }
    syncDirectory(path.parent_path());
    return std::nullopt;
  }

  Status moveFile(const fs::path& from, const fs::path& to) override {
    if (int code = renameWithoutReplacing(from, to); code != 0) {
      return posixError(code, "Cannot move to", to);
    }
    syncDirectory(to.parent_path());
    syncDirectory(from.parent_path());
    return std::nullopt;
  }

  Result<Bytes> readFile(const fs::path& path) const override {
    FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.valid()) {
      return posixError(errno, "Cannot open", path);
    }
    Bytes data;
    struct stat info {};
    if (::fstat(file.get(), &info) == 0 && info.st_size > 0) {
      data.reserve(static_cast<std::size_t>(info.st_size));
    }
    std::uint8_t buffer[64 * 1024];
    for (;;) {
      const auto n = ::read(file.get(), buffer, sizeof buffer);
      if (n < 0) {
        if (errno == EINTR) {
          continue;
        }
        return posixError(errno, "Cannot read", path);
      }
      if (n == 0) {
        break;
      }
      data.insert(data.end(), buffer, buffer + n);
    }
    return data;
  }

  Status removeFile(const fs::path& path) override {
    if (::unlink(path.c_str()) != 0) {
      return posixError(errno, "Cannot remove", path);
    }
    return std::nullopt;
  }

  Result<std::vector<std::string>> listDirectory(const fs::path& path) const override {
    return namesIn(path, isVisibleName);
  }

  Result<std::vector<std::string>> removeUnfinishedWrites(const fs::path& directory) override {
    auto unfinished = namesIn(directory, isTemporaryName);
    if (!unfinished) {
      return unfinished.error();
    }
    for (const auto& name : unfinished.value()) {
      const auto path = directory / name;
      if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
        return posixError(errno, "Cannot remove", path);
      }
    }
    return unfinished;
  }

  Result<std::uintmax_t> fileSize(const fs::path& path) const override {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) {
      return posixError(errno, "Cannot read size of", path);
    }
    return static_cast<std::uintmax_t>(info.st_size);
  }

 private:
  const fs::path root_;
};

}  // namespace

bool isNameTaken(const Error& error) {
  return error.domain == kPosixErrorDomain && error.code == EEXIST;
}

std::shared_ptr<FileSystem> makeLocalFileSystem(fs::path root) {
  return std::make_shared<LocalFileSystem>(std::move(root));
}

}  // namespace kestrova
