// Small POSIX helpers shared by the Linux implementations: errno as an Error that keeps its
// number, and an owned file descriptor. No shared state.
#pragma once

#include <filesystem>
#include <string_view>

#include "platform/result.h"

namespace kestrova {

inline constexpr std::string_view kPosixErrorDomain = "POSIX";

// "<what>: <message of number>", domain "POSIX", code `number`.
Error posixError(int number, std::string_view what);
// "<what> <path>: <message of number>".
Error posixError(int number, std::string_view what, const std::filesystem::path& path);

// Owns one file descriptor; closes it on destruction.
class FileDescriptor {
 public:
  explicit FileDescriptor(int fd) : fd_(fd) {}
  ~FileDescriptor();
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  // Closes now and returns the errno of a failed close, 0 otherwise: some file systems report
  // write errors only there.
  int close();

 private:
  int fd_;
};

}  // namespace kestrova
