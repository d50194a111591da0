#include "healthstore/import/export_source.h"

#include <zip.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <system_error>

#include "healthstore/import/export_vocabulary.h"
#include "platform/log.h"

namespace kestrova {
namespace {

namespace fs = std::filesystem;
using namespace exportxml;

// Enough for the prolog and the opening of the DOCTYPE of every export seen.
constexpr std::size_t kSniffSize = 1024;
constexpr std::string_view kZipMagic = "PK\x03\x04";
constexpr std::string_view kReadBinary = "rb";
// Real exports inflate 10 to 30 times, deflate at most about 1030 times: a main document that
// claims more is a bomb, refused before a byte of it is inflated.
constexpr std::uint64_t kMaximumInflation = 200;

// Error texts; placeholders are filled in order.
constexpr std::string_view kCannotOpen = "Cannot open %@: %@";
constexpr std::string_view kCannotRead = "Cannot read %@: %@";
constexpr std::string_view kCannotList = "Cannot list %@: %@";
constexpr std::string_view kCannotOpenArchive = "Cannot open the archive %@: %@";
constexpr std::string_view kCannotOpenEntry = "Cannot open %@ in the archive: %@";
constexpr std::string_view kCannotReadEntry = "Cannot read %@ from the archive: %@";
constexpr std::string_view kNoDocument = "No Apple Health export document in %@";
constexpr std::string_view kNoDocumentInArchive =
    "No Apple Health export document in the archive %@";
constexpr std::string_view kNoEntry = "No entry %@ in the archive";
constexpr std::string_view kTooLarge = "%@ is larger than %@ bytes";
constexpr std::string_view kNotAnExport = "%@ is not an Apple Health export document";
constexpr std::string_view kMissing = "%@ does not exist";
constexpr std::string_view kInflatesTooFar =
    "%@ would inflate from %@ to %@ bytes: an archive that inflates this far is no export";
constexpr std::string_view kLargerThanDeclared =
    "%@ inflates past the %@ bytes the archive declares for it";

std::string message(std::string_view text, std::initializer_list<std::string_view> args) {
  return logging::format(text, args);
}

bool endsWithIgnoringCase(std::string_view text, std::string_view suffix) {
  if (text.size() < suffix.size()) {
    return false;
  }
  return std::equal(suffix.begin(), suffix.end(), text.end() - static_cast<long>(suffix.size()),
                    [](char a, char b) {
                      const auto lower = [](char c) {
                        return static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
                      };
                      return lower(a) == lower(b);
                    });
}

bool looksLikeMainDocument(std::string_view head) {
  return head.find(kDoctypeMarker) != std::string_view::npos ||
         head.find(kRootMarker) != std::string_view::npos;
}

// Path components of an entry or file name, separated by '/'.
std::vector<std::string_view> components(std::string_view name) {
  std::vector<std::string_view> parts;
  while (!name.empty()) {
    const std::size_t slash = name.find('/');
    parts.push_back(name.substr(0, slash));
    name = slash == std::string_view::npos ? std::string_view() : name.substr(slash + 1);
  }
  return parts;
}

bool isMacArtefact(std::string_view name) {
  for (std::string_view part : components(name)) {
    if (part == kMacResourceFolder || part.starts_with(kAppleDoublePrefix)) {
      return true;
    }
  }
  return false;
}

bool isElectrocardiogram(std::string_view name) {
  const std::vector<std::string_view> parts = components(name);
  return parts.size() >= 2 && parts[parts.size() - 2] == kElectrocardiogramFolder &&
         parts.back().starts_with(kElectrocardiogramPrefix) &&
         endsWithIgnoringCase(parts.back(), kCsvSuffix);
}

std::string errnoText(int code) {
  return std::error_code(code, std::generic_category()).message();
}

// ---- Files on disk --------------------------------------------------------------------------

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using FileHandle = std::unique_ptr<std::FILE, FileCloser>;

Result<FileHandle> openFile(const fs::path& path) {
  FileHandle file(std::fopen(path.c_str(), kReadBinary.data()));
  if (!file) {
    return importError(kImportErrorCannotOpen,
                       message(kCannotOpen, {path.string(), errnoText(errno)}));
  }
  return file;
}

std::string readHead(const fs::path& path) {
  Result<FileHandle> file = openFile(path);
  if (!file) {
    return {};
  }
  std::string head(kSniffSize, '\0');
  head.resize(std::fread(head.data(), 1, head.size(), file.value().get()));
  return head;
}

class FileStream final : public InputStream {
 public:
  FileStream(FileHandle file, std::string name) : file_(std::move(file)), name_(std::move(name)) {}

  Result<std::size_t> read(char* buffer, std::size_t size) override {
    const std::size_t count = std::fread(buffer, 1, size, file_.get());
    if (count == 0 && std::ferror(file_.get())) {
      return importError(kImportErrorRead, message(kCannotRead, {name_, errnoText(errno)}));
    }
    read_ += count;
    return count;
  }
  std::uint64_t storedBytesRead() const override { return read_; }

 private:
  FileHandle file_;  // owned by the reading thread, as the stream
  std::string name_;
  std::uint64_t read_ = 0;
};

// An unpacked folder, or the main XML file alone with the folder around it. Owned, with all
// its state, by the importing thread.
class FolderSource final : public ExportSource {
 public:
  static Result<std::unique_ptr<ExportSource>> open(const fs::path& path) {
    std::error_code error;
    auto source = std::unique_ptr<FolderSource>(new FolderSource());
    if (fs::is_directory(path, error)) {
      source->root_ = path;
      std::uintmax_t largest = 0;
      for (auto it = fs::recursive_directory_iterator(path, error);
           !error && it != fs::recursive_directory_iterator(); it.increment(error)) {
        const std::string relative = fs::relative(it->path(), path, error).generic_string();
        if (isMacArtefact(relative)) {
          if (it->is_directory(error)) {
            it.disable_recursion_pending();
          }
          continue;
        }
        if (!it->is_regular_file(error)) {
          continue;
        }
        if (isElectrocardiogram(relative)) {
          source->electrocardiograms_.push_back(relative);
        } else if (endsWithIgnoringCase(relative, kXmlSuffix) &&
                   looksLikeMainDocument(readHead(it->path()))) {
          // Several candidates happen when two exports share a folder: the largest holds most.
          const std::uintmax_t size = it->file_size(error);
          if (source->main_.empty() || size > largest) {
            source->main_ = relative;
            largest = size;
          }
        }
      }
      if (error) {
        return importError(kImportErrorCannotOpen,
                           message(kCannotList, {path.string(), error.message()}));
      }
    } else {
      if (!looksLikeMainDocument(readHead(path))) {
        return importError(kImportErrorNotAnExport, message(kNotAnExport, {path.string()}));
      }
      source->root_ = path.parent_path();
      source->main_ = path.filename().string();
      const fs::path folder = source->root_ / kElectrocardiogramFolder;
      for (auto it = fs::directory_iterator(folder, error);
           !error && it != fs::directory_iterator(); it.increment(error)) {
        const std::string relative =
            fs::relative(it->path(), source->root_, error).generic_string();
        if (it->is_regular_file(error) && isElectrocardiogram(relative)) {
          source->electrocardiograms_.push_back(relative);
        }
      }
    }
    if (source->main_.empty()) {
      return importError(kImportErrorNotAnExport, message(kNoDocument, {path.string()}));
    }
    std::sort(source->electrocardiograms_.begin(), source->electrocardiograms_.end());
    source->mainSize_ = fs::file_size(source->root_ / source->main_, error);
    return std::unique_ptr<ExportSource>(std::move(source));
  }

  const std::string& mainDocumentName() const override { return main_; }
  std::uint64_t mainDocumentStoredSize() const override { return mainSize_; }
  const std::vector<std::string>& electrocardiogramNames() const override {
    return electrocardiograms_;
  }

  Result<std::unique_ptr<InputStream>> openMainDocument() override {
    Result<FileHandle> file = openFile(root_ / main_);
    if (!file) {
      return file.error();
    }
    return std::unique_ptr<InputStream>(new FileStream(std::move(file).value(), main_));
  }

  Result<std::string> readSmallFile(const std::string& name, std::size_t limit) override {
    Result<FileHandle> file = openFile(root_ / name);
    if (!file) {
      return file.error();
    }
    // In pieces: the limit is far above what files hold, and reserving it would cost its size.
    std::string content;
    std::array<char, 65536> buffer{};
    for (;;) {
      const std::size_t count = std::fread(buffer.data(), 1, buffer.size(), file.value().get());
      if (std::ferror(file.value().get())) {
        return importError(kImportErrorRead, message(kCannotRead, {name, errnoText(errno)}));
      }
      content.append(buffer.data(), count);
      if (content.size() > limit) {
        return importError(kImportErrorRead, message(kTooLarge, {name, std::to_string(limit)}));
      }
      if (count < buffer.size()) {
        return content;
      }
    }
  }

 private:
  FolderSource() = default;

  fs::path root_;
  std::string main_;
  std::uint64_t mainSize_ = 0;
  std::vector<std::string> electrocardiograms_;
};

// ---- Zip archives ---------------------------------------------------------------------------

struct ArchiveCloser {
  // Read-only: nothing to write back.
  void operator()(zip_t* archive) const { zip_discard(archive); }
};
using ArchiveHandle = std::unique_ptr<zip_t, ArchiveCloser>;

struct EntryCloser {
  void operator()(zip_file_t* entry) const { zip_fclose(entry); }
};
using EntryHandle = std::unique_ptr<zip_file_t, EntryCloser>;

std::string zipErrorText(int code) {
  zip_error_t error;
  zip_error_init_with_code(&error, code);
  std::string text = zip_error_strerror(&error);
  zip_error_fini(&error);
  return text;
}

class ZipEntryStream final : public InputStream {
 public:
  ZipEntryStream(EntryHandle entry, std::string name, std::uint64_t size, std::uint64_t storedSize)
      : entry_(std::move(entry)), name_(std::move(name)), size_(size), storedSize_(storedSize) {}

  Result<std::size_t> read(char* buffer, std::size_t size) override {
    const zip_int64_t count = zip_fread(entry_.get(), buffer, size);
    if (count < 0) {
      return importError(kImportErrorRead,
                         message(kCannotReadEntry, {name_, zip_file_strerror(entry_.get())}));
    }
    read_ += static_cast<std::uint64_t>(count);
    // libzip compares the size with the declared one only at the end: a stream that lies
    // about its size would otherwise inflate for as long as it likes.
    if (read_ > size_) {
      return importError(kImportErrorMalformed,
                         message(kLargerThanDeclared, {name_, std::to_string(size_)}));
    }
    return static_cast<std::size_t>(count);
  }

  // libzip does not say how much compressed input it consumed: scale by the entry's ratio.
  std::uint64_t storedBytesRead() const override {
    if (size_ == 0) {
      return storedSize_;
    }
    return static_cast<std::uint64_t>(static_cast<double>(read_) / static_cast<double>(size_) *
                                      static_cast<double>(storedSize_));
  }

 private:
  EntryHandle entry_;  // owned by the reading thread, as the stream
  std::string name_;
  std::uint64_t size_;
  std::uint64_t storedSize_;
  std::uint64_t read_ = 0;
};

// Owned, with all its state, by the importing thread.
class ZipSource final : public ExportSource {
 public:
  static Result<std::unique_ptr<ExportSource>> open(const fs::path& path) {
    int code = 0;
    ArchiveHandle archive(zip_open(path.c_str(), ZIP_RDONLY, &code));
    if (!archive) {
      return importError(kImportErrorCannotOpen,
                         message(kCannotOpenArchive, {path.string(), zipErrorText(code)}));
    }
    auto source = std::unique_ptr<ZipSource>(new ZipSource(std::move(archive)));
    const zip_int64_t count = zip_get_num_entries(source->archive_.get(), 0);
    std::uint64_t largest = 0;
    for (zip_int64_t index = 0; index < count; ++index) {
      zip_stat_t stat;
      zip_stat_init(&stat);
      const auto at = static_cast<zip_uint64_t>(index);
      if (zip_stat_index(source->archive_.get(), at, ZIP_FL_ENC_GUESS, &stat) != 0 ||
          stat.name == nullptr) {
        continue;
      }
      const std::string name = stat.name;
      if (name.ends_with('/') || isMacArtefact(name)) {
        continue;
      }
      // Any file can be asked for by name: electrocardiograms, the route files workouts name.
      source->indexes_.emplace_back(name, at);
      if (isElectrocardiogram(name)) {
        source->electrocardiograms_.push_back(name);
      } else if (endsWithIgnoringCase(name, kXmlSuffix) &&
                 looksLikeMainDocument(source->head(at))) {
        if (source->main_.empty() || stat.size > largest) {
          source->main_ = name;
          source->mainIndex_ = at;
          source->mainSize_ = stat.size;
          source->mainStoredSize_ = stat.comp_size;
          largest = stat.size;
        }
      }
    }
    if (source->main_.empty()) {
      return importError(kImportErrorNotAnExport, message(kNoDocumentInArchive, {path.string()}));
    }
    if (source->mainSize_ / kMaximumInflation > source->mainStoredSize_) {
      return importError(
          kImportErrorMalformed,
          message(kInflatesTooFar, {source->main_, std::to_string(source->mainStoredSize_),
                                    std::to_string(source->mainSize_)}));
    }
    std::sort(source->electrocardiograms_.begin(), source->electrocardiograms_.end());
    std::sort(source->indexes_.begin(), source->indexes_.end());
    return std::unique_ptr<ExportSource>(std::move(source));
  }

  const std::string& mainDocumentName() const override { return main_; }
  std::uint64_t mainDocumentStoredSize() const override { return mainStoredSize_; }
  const std::vector<std::string>& electrocardiogramNames() const override {
    return electrocardiograms_;
  }

  Result<std::unique_ptr<InputStream>> openMainDocument() override {
    Result<EntryHandle> entry = openEntry(mainIndex_, main_);
    if (!entry) {
      return entry.error();
    }
    return std::unique_ptr<InputStream>(
        new ZipEntryStream(std::move(entry).value(), main_, mainSize_, mainStoredSize_));
  }

  Result<std::string> readSmallFile(const std::string& name, std::size_t limit) override {
    const auto found =
        std::lower_bound(indexes_.begin(), indexes_.end(), name,
                         [](const std::pair<std::string, zip_uint64_t>& entry,
                            const std::string& wanted) { return entry.first < wanted; });
    if (found == indexes_.end() || found->first != name) {
      return importError(kImportErrorCannotOpen, message(kNoEntry, {name}));
    }
    Result<EntryHandle> entry = openEntry(found->second, name);
    if (!entry) {
      return entry.error();
    }
    std::string content;
    std::array<char, 65536> buffer{};
    for (;;) {
      const zip_int64_t count = zip_fread(entry.value().get(), buffer.data(), buffer.size());
      if (count < 0) {
        return importError(
            kImportErrorRead,
            message(kCannotReadEntry, {name, zip_file_strerror(entry.value().get())}));
      }
      if (count == 0) {
        return content;
      }
      content.append(buffer.data(), static_cast<std::size_t>(count));
      if (content.size() > limit) {
        return importError(kImportErrorRead, message(kTooLarge, {name, std::to_string(limit)}));
      }
    }
  }

 private:
  explicit ZipSource(ArchiveHandle archive) : archive_(std::move(archive)) {}

  Result<EntryHandle> openEntry(zip_uint64_t index, const std::string& name) {
    EntryHandle entry(zip_fopen_index(archive_.get(), index, 0));
    if (!entry) {
      return importError(kImportErrorRead,
                         message(kCannotOpenEntry, {name, zip_strerror(archive_.get())}));
    }
    return entry;
  }

  std::string head(zip_uint64_t index) {
    Result<EntryHandle> entry = openEntry(index, {});
    if (!entry) {
      return {};
    }
    std::string head(kSniffSize, '\0');
    const zip_int64_t count = zip_fread(entry.value().get(), head.data(), head.size());
    head.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return head;
  }

  ArchiveHandle archive_;  // owned by the importing thread, as the source
  std::string main_;
  zip_uint64_t mainIndex_ = 0;
  std::uint64_t mainSize_ = 0;
  std::uint64_t mainStoredSize_ = 0;
  std::vector<std::string> electrocardiograms_;
  std::vector<std::pair<std::string, zip_uint64_t>> indexes_;
};

bool startsWithZipMagic(const fs::path& path) {
  const std::string head = readHead(path);
  return std::string_view(head).starts_with(kZipMagic);
}

}  // namespace

Error importError(std::int64_t code, std::string description) {
  return Error{std::string(kImportErrorDomain), code, std::move(description)};
}

std::optional<std::string> ExportSource::referencedName(std::string_view path) const {
  while (path.starts_with('/')) {
    path.remove_prefix(1);
  }
  const fs::path relative(path);
  if (path.empty() || relative.is_absolute()) {
    return std::nullopt;
  }
  for (const fs::path& part : relative) {
    if (part == "..") {
      return std::nullopt;
    }
  }
  return (fs::path(mainDocumentName()).parent_path() / relative).generic_string();
}

Result<std::unique_ptr<ExportSource>> ExportSource::open(const std::filesystem::path& path) {
  std::error_code error;
  if (!fs::exists(path, error)) {
    return importError(kImportErrorCannotOpen, message(kMissing, {path.string()}));
  }
  if (!fs::is_directory(path, error) && startsWithZipMagic(path)) {
    return ZipSource::open(path);
  }
  return FolderSource::open(path);
}

}  // namespace kestrova
