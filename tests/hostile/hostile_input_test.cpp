// Hostile inputs, each checked for a clear error or log line and for keeping what the library
// had accepted before it:
// - a token whose "id" is 1 MB or holds "../", an API URL without host: configure fails
//   (invalidToken, invalidHost); the stored token and the connected profile stay;
// - an upload file of invalid UTF-8: the sweep logs "Non-json data found, file will be removed:
//   <path>" and removes it, as it removes every file that can never be sent; the others go;
// - garbage bytes in defaults.sqlite: moved to defaults.sqlite.corrupt-<seconds> with an error
//   line; the new store works; the token and the upload files stay;
// - a full disk on every upload file write: three attempts, each logged with "No space left on
//   device", then "Could not write file ... after 3 attempts"; earlier files keep their bytes;
// - an export whose DOCTYPE nests entities (billion laughs), also with "<HealthData" hidden in an
//   entity to move the cut: expat never sees the DOCTYPE, the import fails as malformed; the
//   store keeps its samples;
// - a zip whose export.xml claims to inflate from 1 MB to 4 GB: refused before inflating; one
//   that inflates past the size it declares: reading stops at that size.
#include <gtest/gtest.h>
#include <zip.h>

#include <cerrno>
#include <future>
#include <thread>

#include "api/api.h"
#include "e2e/library_harness.h"
#include "facade/kestrova_testing.h"
#include "import/import_fixture.h"
#include "kestrova/facade.h"
#include "platform/linux/posix.h"
#include "server/jwt.h"
#include "server/server.h"
#include "storage/file_server.h"
#include "storage/profile_store.h"
#include "storage/token_store.h"

namespace kestrova::testing {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr std::string_view kSecret = "hostile-secret";
constexpr std::string_view kURL = "https://back.example/api/";
constexpr auto kPatience = 20s;

std::string dataPoints(std::string_view name) {
  return readText(fs::path(KESTROVA_TEST_DATA) / "datapoints" / name);
}

TEST(HostileInput, RefusedTokensAndUrlsLeaveTheConnectionAsItWas) {
  TempDir dir;
  auto log = CapturedLog::install();
  auto test = makeTestPlatform(dir.path());
  resetSharedInstanceForTesting();
  const std::string accepted = server::mintToken(kSecret, "p1");
  TokenStore tokens(test.platform->secureStore, test.platform->applicationIdentifier);
  ASSERT_EQ(tokens.takeToken(accepted), "p1");
  ProfileStore(test.platform->defaults).store(Profile{"p1"});

  using Code = KestrovaHealthKitError::Code;
  const struct {
    std::string token;
    std::string url;
    Code expected;
  } cases[] = {
      {server::mintToken(kSecret, std::string(1 << 20, 'a')), std::string(kURL),
       Code::invalidToken},
      {server::mintToken(kSecret, "../../keychain"), std::string(kURL), Code::invalidToken},
      {server::mintToken(kSecret, ".."), std::string(kURL), Code::invalidToken},
      {accepted, "https:///api/", Code::invalidHost},
      {accepted, "api.example.com/api/", Code::invalidHost},
  };
  for (const auto& hostile : cases) {
    const auto [ok, error] = configureAndWait(KestrovaConfig(hostile.token, hostile.url));
    ASSERT_FALSE(ok) << hostile.url;
    ASSERT_TRUE(error) << hostile.url;
    EXPECT_EQ(error->code(), hostile.expected) << hostile.url;
    EXPECT_EQ(Kestrova::currentStatus(),
              (Kestrova::Status{Kestrova::Status::Case::connected, "p1"}));
    EXPECT_EQ(tokens.tokenForProfile("p1").value(), accepted);
  }
  installPlatform(nullptr);
  resetSharedInstanceForTesting();
  log->uninstall();
}

TEST(HostileInput, UploadFileOfInvalidUtf8IsReportedAndTheOthersStillGo) {
  TempDir dir;
  auto log = CapturedLog::install();
  auto test = makeTestPlatform(dir.path());
  auto server = testing::startServer(std::string(kSecret));
  ASSERT_TRUE(server);
  TokenStore tokens(test.platform->secureStore, test.platform->applicationIdentifier);
  ASSERT_EQ(tokens.takeToken(server->tokenFor("p1")), "p1");

  const fs::path bulk = dir.path() / "Kestrova" / "UploadBulk";
  const fs::path broken = bulk / "2024-03-01T08:00:01.000---body-2---p1";
  writeText(bulk / "2024-03-01T08:00:00.000---body-1---p1", dataPoints("body_measurements.json"));
  writeText(broken, "[{\"header\": \"\xC3\x28\xFF\xFE\"}]");
  writeText(bulk / "2024-03-01T08:00:02.000---sleep-3---p1", dataPoints("sleep_night.json"));
  const auto expected = nlohmann::json::parse(dataPoints("body_measurements.json")).size() +
                        nlohmann::json::parse(dataPoints("sleep_night.json")).size();

  API api(*URLComponents::parse(server->baseUrl()), *test.platform);
  api.uploadPending();
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!fs::is_empty(bulk) && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(10ms);
  }
  EXPECT_TRUE(fs::is_empty(bulk));
  EXPECT_TRUE(log->contains("Non-json data found, file will be removed: " + broken.string()));
  EXPECT_EQ(server->dataPoints("p1").size(), expected);
  log->uninstall();
  installPlatform(nullptr);
}

TEST(HostileInput, CorruptDefaultsDatabaseIsMovedAsideAndNothingElseIsLost) {
  TempDir dir;
  const std::string token = server::mintToken(kSecret, "p1");
  const fs::path upload =
      dir.path() / "Kestrova" / "UploadBulk" / "2024-03-01T08:00:00.000---s---p1";
  {
    auto test = makeTestPlatform(dir.path());
    TokenStore(test.platform->secureStore, test.platform->applicationIdentifier).takeToken(token);
    ProfileStore(test.platform->defaults).store(Profile{"p1"});
    ASSERT_FALSE(test.platform->files->createDirectories(upload.parent_path()));
    ASSERT_FALSE(test.platform->files->createFileAtomically(upload, toBytes("[1]")));
    installPlatform(nullptr);
  }
  std::string garbage(64 * 1024, '\0');
  for (std::size_t i = 0; i < garbage.size(); ++i) {
    garbage[i] = static_cast<char>(i * 7919 % 251);
  }
  writeText(dir.path() / "defaults.sqlite", garbage);

  auto log = CapturedLog::install();
  auto test = makeTestPlatform(dir.path());
  ASSERT_TRUE(test.platform);
  EXPECT_TRUE(log->contains("is damaged"));
  std::size_t asideCopies = 0;
  for (const auto& entry : fs::directory_iterator(dir.path())) {
    if (entry.path().filename().string().starts_with("defaults.sqlite.corrupt-") &&
        readText(entry.path()) == garbage) {
      ++asideCopies;
    }
  }
  EXPECT_EQ(asideCopies, 1u);
  ProfileStore profiles(test.platform->defaults);
  profiles.store(Profile{"p2"});
  EXPECT_EQ(profiles.storedProfile()->id, "p2");
  TokenStore tokens(test.platform->secureStore, test.platform->applicationIdentifier);
  EXPECT_EQ(tokens.tokenForProfile("p1").value(), token);
  EXPECT_EQ(readText(upload), "[1]");
  log->uninstall();
  installPlatform(nullptr);
}

// The local disk, but while `full` is set every write fails as a full disk makes it fail.
class FullDisk final : public FileSystem {
 public:
  explicit FullDisk(std::shared_ptr<FileSystem> disk) : disk_(std::move(disk)) {}

  std::atomic<bool> full{false};

  Result<fs::path> documentsDirectory() const override { return disk_->documentsDirectory(); }
  Status createDirectories(const fs::path& path) override { return disk_->createDirectories(path); }
  Status createFileAtomically(const fs::path& path, const Bytes& data) override {
    if (full) {
      return posixError(ENOSPC, "Cannot write", path);
    }
    return disk_->createFileAtomically(path, data);
  }
  Result<Bytes> readFile(const fs::path& path) const override { return disk_->readFile(path); }
  Status removeFile(const fs::path& path) override { return disk_->removeFile(path); }
  Status moveFile(const fs::path& from, const fs::path& to) override {
    return disk_->moveFile(from, to);
  }
  Result<std::vector<std::string>> listDirectory(const fs::path& path) const override {
    return disk_->listDirectory(path);
  }
  Result<std::uintmax_t> fileSize(const fs::path& path) const override {
    return disk_->fileSize(path);
  }

 private:
  std::shared_ptr<FileSystem> disk_;
};

TEST(HostileInput, FullDiskDuringUploadFileWritesIsReportedAndKeepsEarlierFiles) {
  TempDir dir;
  auto log = CapturedLog::install();
  auto dispatcher = makeDispatcher(DispatcherOptions{1, std::nullopt});
  auto disk = std::make_shared<FullDisk>(makeLocalFileSystem(dir.path()));
  FileServer files(disk, FileServer::sharedWriteQueue(*dispatcher));
  const auto write = [&](const FileNameComponents& components) {
    std::promise<std::optional<FileNameComponents>> done;
    files.writeWithRetry(
        toBytes("[\"" + components.sampleId + "\"]"), components, true, 1,
        [&](std::optional<FileNameComponents> written) { done.set_value(written); });
    return done.get_future().get();
  };
  const FileNameComponents earlier{"body-1", "p1", utc(2024, 3, 1)};
  const FileNameComponents during{"body-2", "p1", utc(2024, 3, 2)};
  ASSERT_TRUE(write(earlier));

  disk->full = true;
  EXPECT_FALSE(write(during));
  EXPECT_EQ(log->matching("No space left on device").size(), 3u);
  EXPECT_TRUE(log->contains("Could not write file " + during.fileName() + " after 3 attempts"));
  EXPECT_EQ(files.list(true), std::vector<FileNameComponents>{earlier});
  EXPECT_EQ(toString(files.read(earlier, true).value()), "[\"body-1\"]");

  disk->full = false;
  EXPECT_EQ(write(during), during);
  log->uninstall();
}

// ---- Exports --------------------------------------------------------------------------------

constexpr std::string_view kHostileRecordLine =
    "<Record type=\"HKQuantityTypeIdentifierStepCount\" sourceName=\"&lol9;\" unit=\"count\" "
    "value=\"1\" startDate=\"2024-03-01 08:00:00 +0100\" endDate=\"2024-03-01 08:10:00 +0100\"/>";

// Nine levels of ten references each: 10^9 "lol"s once expanded.
std::string laughs() {
  std::string entities = "<!ENTITY lol \"lol\">\n";
  for (int level = 1; level <= 9; ++level) {
    std::string previous = level == 1 ? "lol" : "lol" + std::to_string(level - 1);
    entities += "<!ENTITY lol" + std::to_string(level) + " \"";
    for (int i = 0; i < 10; ++i) {
      entities += "&" + previous + ";";
    }
    entities += "\">\n";
  }
  return entities;
}

struct ZipDiscarder {
  void operator()(zip_t* archive) const { zip_discard(archive); }
};

// An archive of one export.xml whose declared uncompressed size is then set to `declared`, in
// the local header and in the central directory alike.
void zipDeclaring(const fs::path& path, const std::string& document, std::uint32_t declared) {
  int error = 0;
  std::unique_ptr<zip_t, ZipDiscarder> archive(
      zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error));
  EXPECT_NE(archive, nullptr) << error;
  zip_source_t* source = zip_source_buffer(archive.get(), document.data(), document.size(), 0);
  EXPECT_GE(zip_file_add(archive.get(), "apple_health_export/export.xml", source, 0), 0);
  EXPECT_EQ(zip_close(archive.get()), 0) << zip_strerror(archive.get());
  archive.release();

  std::string bytes = readText(path);
  const auto patch = [&](std::string_view signature, std::size_t offset) {
    const auto at = bytes.find(signature);
    EXPECT_NE(at, std::string::npos);
    for (int i = 0; i < 4; ++i) {
      bytes[at + offset + static_cast<std::size_t>(i)] = static_cast<char>(declared >> (8 * i));
    }
  };
  patch(std::string_view("PK\x03\x04", 4), 22);
  patch(std::string_view("PK\x01\x02", 4), 24);
  writeText(path, bytes);
}

using HostileExport = ImportFixture;

TEST_F(HostileExport, BillionLaughsAndZipBombsFailClearlyAndTheStoreKeepsItsSamples) {
  const auto before = import(fixturePath("healthkit-to-sqlite/export.xml"));
  ASSERT_TRUE(before.ok()) << summaryText(before);
  ASSERT_GT(before.added, 0u);

  const std::string head = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE HealthData [\n";
  const std::string body =
      "]>\n<HealthData locale=\"en_US\">\n" + std::string(kHostileRecordLine) + "\n</HealthData>\n";
  const std::string tricked = "<!ENTITY trick \"<HealthData>\">\n";
  for (const auto& document : {head + laughs() + body, head + tricked + laughs() + body}) {
    writeText(dir_.path() / "laughs.xml", document);
    const ImportSummary laughed = import(dir_.path() / "laughs.xml");
    ASSERT_FALSE(laughed.ok());
    EXPECT_EQ(laughed.failure->code, kImportErrorMalformed) << laughed.failure->text();
    EXPECT_EQ(laughed.added, 0u);
  }

  std::string document = "<?xml version=\"1.0\"?>\n<HealthData locale=\"en_US\">\n";
  document.append(1 << 20, ' ');
  document += "</HealthData>\n";
  zipDeclaring(dir_.path() / "bomb.zip", document, 4'000'000'000U);
  const ImportSummary bomb = import(dir_.path() / "bomb.zip");
  ASSERT_FALSE(bomb.ok());
  EXPECT_EQ(bomb.failure->code, kImportErrorMalformed);
  EXPECT_NE(bomb.failure->description.find("would inflate from"), std::string::npos)
      << bomb.failure->text();

  zipDeclaring(dir_.path() / "liar.zip", document, 64 * 1024);
  const ImportSummary liar = import(dir_.path() / "liar.zip");
  ASSERT_FALSE(liar.ok());
  EXPECT_NE(liar.failure->description.find("inflates past the 65536 bytes"), std::string::npos)
      << liar.failure->text();

  const auto after = import(fixturePath("healthkit-to-sqlite/export.xml"));
  ASSERT_TRUE(after.ok());
  EXPECT_EQ(after.alreadyPresent, before.added);
  EXPECT_EQ(after.added, 0u);
}

}  // namespace
}  // namespace kestrova::testing
