#include "storage/file_server.h"

#include <gtest/gtest.h>

#include <fstream>
#include <future>
#include <set>

#include "support/test_support.h"

namespace kestrova {
namespace {

namespace fs = std::filesystem;
using testing::utc;

class FileServerTest : public ::testing::Test {
 protected:
  void TearDown() override {
    log_->uninstall();
    installPlatform(nullptr);
  }

  std::optional<FileNameComponents> writeAndWait(const std::string& data,
                                                 const FileNameComponents& components, bool bulk) {
    std::promise<std::optional<FileNameComponents>> done;
    server_.write(toBytes(data), components, bulk,
                  [&](std::optional<FileNameComponents> result) { done.set_value(result); });
    return done.get_future().get();
  }

  testing::TempDir dir_;
  testing::TestPlatform test_ = testing::makeTestPlatform(dir_.path());
  std::shared_ptr<testing::CapturedLog> log_ = testing::CapturedLog::install();
  FileServer server_{test_.platform->files, test_.platform->dispatcher->makeSerialQueue(
                                                "test.write", QualityOfService::utility)};
};

TEST(FileNameComponents, OurNamesParseAndForeignOnesDoNot) {
  EXPECT_EQ(FileNameComponents::parse("2024-03-01T08:15:30.250---workout-1---p1"),
            (FileNameComponents{"workout-1", "p1", utc(2024, 3, 1, 8, 15, 30, 250)}));
  // Empty identifiers are still a name of ours.
  EXPECT_EQ(FileNameComponents::parse("2024-03-01T08:15:30.250------")->sampleId, "");
  for (const char* foreign :
       {"", "readme.txt", "2024-03-01T08:15:30.250", "2024-03-01T08:15:30.250---s",
        "yesterday---s---p", "2024-03-01---s---p", "2024-03-01T08:15:30.250---s---p---extra"}) {
    EXPECT_FALSE(FileNameComponents::parse(foreign)) << foreign;
  }
}

TEST_F(FileServerTest, BulkAndSingleFilesAreApartAndFailuresAreLoggedNotFatal) {
  const FileNameComponents a{"body-1", "p1", utc(2024, 3, 1)};
  ASSERT_EQ(writeAndWait("[2,3]", a, true), a);
  ASSERT_EQ(writeAndWait("{\"single\":true}", a, false), a);
  EXPECT_EQ(server_.read(a, false), toBytes("{\"single\":true}"));
  server_.remove(a, true);
  EXPECT_EQ(server_.list(false), std::vector<FileNameComponents>{a});
  EXPECT_TRUE(server_.list(true).empty());
  EXPECT_FALSE(server_.read(a, true));
  // A file where the upload directory should be makes every write fail.
  ASSERT_TRUE(fs::remove(dir_.path() / "Kestrova" / "UploadBulk"));
  std::ofstream(dir_.path() / "Kestrova" / "UploadBulk") << "in the way";
  EXPECT_FALSE(writeAndWait("[]", a, true));
  EXPECT_TRUE(log_->contains("Trying to get the directory URL to fails with error: "));
}

TEST_F(FileServerTest, BatchNamesNeverRepeatAndNoWriteReplacesAPendingFile) {
  // The same millisecond, and a wall clock that steps back to it: every name is new.
  const auto now = utc(2024, 3, 1, 8, 0, 0, 1);
  const auto later = utc(2024, 3, 1, 8, 0, 0, 2);
  std::set<std::string> names;
  for (const auto time : {now, now, later, now, later}) {
    const auto components = server_.makeBatchComponents("body-", "p1", time);
    names.insert(components.fileName());
  }
  EXPECT_EQ(names.size(), 5u);

  // A name that is taken all the same (another process, a restart with the clock set back)
  // makes the write choose another; the pending file keeps its data points.
  const FileNameComponents taken{"sleep-x", "p1", now};
  ASSERT_EQ(writeAndWait("[1]", taken, true), taken);
  const auto moved = writeAndWait("[2]", taken, true);
  ASSERT_TRUE(moved);
  EXPECT_NE(moved->fileName(), taken.fileName());
  EXPECT_EQ(moved->profileId, "p1");
  EXPECT_EQ(server_.read(taken, true), toBytes("[1]"));
  EXPECT_EQ(server_.read(*moved, true), toBytes("[2]"));
}

// The CLI tests set bulk files aside and back; a single file must go back to its own
// directory, and a file whose record a crash lost must still be listed, as a bulk file.
TEST_F(FileServerTest, RefusedFilesGoBackWhereTheyCameFromAlsoWithoutTheirRecord) {
  const FileNameComponents single{"sample-1", "p1", utc(2024, 3, 2)};
  ASSERT_TRUE(writeAndWait("{\"one\":1}", single, false));
  ASSERT_TRUE(server_.setAside(RejectedFile{single, false, 422, 7, "bad", utc(2024, 3, 4)}));
  EXPECT_TRUE(server_.list(false).empty());
  const FileNameComponents orphan{"body-9", "p1", utc(2024, 3, 5)};
  std::ofstream(dir_.path() / "Kestrova" / "Rejected" / orphan.fileName()) << "[9]";
  // A file that is no longer there cannot be set aside, and leaves no record behind.
  EXPECT_FALSE(server_.setAside(RejectedFile{FileNameComponents{"body-0", "p1", utc(2024, 1, 1)},
                                             true, 400, 5, "", utc(2024, 1, 1)}));
  const auto listed = server_.listRejected();
  ASSERT_EQ(listed.size(), 2u);
  EXPECT_EQ(listed[0].components, single);
  EXPECT_EQ(listed[0].reason, "bad");
  EXPECT_EQ(listed[1].components, orphan);
  EXPECT_TRUE(listed[1].bulk);

  EXPECT_EQ(server_.restoreRejected().size(), 2u);
  EXPECT_EQ(server_.read(orphan, true), toBytes("[9]"));
  EXPECT_EQ(server_.read(single, false), toBytes("{\"one\":1}"));
  EXPECT_TRUE(
      test_.platform->files->listDirectory(dir_.path() / "Kestrova" / "Rejected").value().empty());
}

}  // namespace
}  // namespace kestrova
