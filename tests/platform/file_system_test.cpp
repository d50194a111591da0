#include "platform/file_system.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "support/test_support.h"

namespace kestrova {
namespace {

TEST(LocalFileSystem, AtomicCreationsNeverReplaceAFileAndListingsHideTemporaries) {
  testing::TempDir dir;
  auto files = makeLocalFileSystem(dir.path());
  const auto sub = dir.path() / "a" / "b";
  ASSERT_FALSE(files->createDirectories(sub));
  ASSERT_FALSE(files->createDirectories(sub));  // existing: no error

  const auto path = sub / "file";
  ASSERT_FALSE(files->createFileAtomically(path, toBytes("first, longer content")));
  const auto taken = files->createFileAtomically(path, toBytes("second"));
  ASSERT_TRUE(taken);
  EXPECT_TRUE(isNameTaken(*taken));
  EXPECT_EQ(toString(files->readFile(path).value()), "first, longer content");

  // Health data: the file is the owner's alone.
  struct stat info {};
  ASSERT_EQ(::stat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);

  // What a write interrupted before its rename leaves behind is hidden and never listed.
  std::ofstream(sub / ".file.AbC123") << "half a paylo";
  EXPECT_EQ(files->listDirectory(sub).value(), std::vector<std::string>{"file"});
}

TEST(LocalFileSystem, FailuresCarryTheirErrno) {
  testing::TempDir dir;
  auto files = makeLocalFileSystem(dir.path());
  const auto missing = dir.path() / "missing";

  auto read = files->readFile(missing);
  ASSERT_FALSE(read);
  EXPECT_EQ(read.error().domain, "POSIX");
  EXPECT_EQ(read.error().code, ENOENT);
  const auto noDirectory = files->createFileAtomically(missing / "x", toBytes("x"));
  EXPECT_EQ(noDirectory->code, ENOENT);
  EXPECT_FALSE(isNameTaken(*noDirectory));
  // A refused creation keeps the file there and leaves no temporary file behind.
  ASSERT_FALSE(files->createDirectories(dir.path() / "d"));
  std::ofstream(dir.path() / "d" / "keep") << "old";
  EXPECT_TRUE(files->createFileAtomically(dir.path() / "d" / "keep", toBytes("new")));
  EXPECT_EQ(toString(files->readFile(dir.path() / "d" / "keep").value()), "old");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path() / "d"),
                          std::filesystem::directory_iterator()),
            1);
}

}  // namespace
}  // namespace kestrova
