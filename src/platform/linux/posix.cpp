#include "platform/linux/posix.h"

#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace kestrova {

Error posixError(int number, std::string_view what) {
  return Error{std::string(kPosixErrorDomain), number,
               std::string(what) + ": " + std::generic_category().message(number)};
}

Error posixError(int number, std::string_view what, const std::filesystem::path& path) {
  return posixError(number, std::string(what) + " " + path.string());
}

FileDescriptor::~FileDescriptor() {
  if (fd_ >= 0) {
    ::close(fd_);
  }
}

int FileDescriptor::close() {
  const int result = ::close(fd_);
  fd_ = -1;
  return result == 0 ? 0 : errno;
}

}  // namespace kestrova
