#include "tools/cli/library_session.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <future>

#include "storage/file_server.h"
#include "tools/cli/cli_context.h"

namespace kestrova::cli {
namespace {

// The batch prefixes the collector gives bulk files; anything else is a single sample.
constexpr std::array<std::string_view, 5> kFamilies = {"workout", "sleep", "mindful", "ecg",
                                                       "body"};
constexpr std::string_view kSingleSample = "sample";

std::optional<Outcome> waitFor(const std::function<void(Kestrova::GenericCompletion)>& start,
                               std::chrono::milliseconds timeout) {
  auto done = std::make_shared<std::promise<Outcome>>();
  std::future<Outcome> outcome = done->get_future();
  start([done](bool success, std::optional<kestrova::GenericError> error) {
    done->set_value(Outcome{success, std::move(error)});
  });
  if (outcome.wait_for(timeout) != std::future_status::ready) {
    return std::nullopt;
  }
  return outcome.get();
}

}  // namespace

Result<std::shared_ptr<const Platform>> installLibraryPlatform(const CommonOptions& options) {
  PlatformOptions platformOptions;
  platformOptions.dataDirectory = options.dataDirectory;
  Result<std::shared_ptr<const Platform>> platform = makeLinuxPlatform(platformOptions);
  if (platform) {
    installPlatform(platform.value());
  }
  return platform;
}

std::string familyOfFile(std::string_view fileName) {
  auto components = FileNameComponents::parse(fileName);
  if (components) {
    for (std::string_view family : kFamilies) {
      if (components->sampleId.starts_with(family) && components->sampleId.size() > family.size() &&
          components->sampleId[family.size()] == '-') {
        return std::string(family);
      }
    }
  }
  return std::string(kSingleSample);
}

std::vector<PendingFile> pendingFiles(const Platform& platform) {
  std::vector<PendingFile> files;
  FileServer server(platform.files, FileServer::sharedWriteQueue(*platform.dispatcher));
  const auto now = std::filesystem::file_time_type::clock::now();
  for (bool bulk : {false, true}) {
    auto directory = server.directoryURL(bulk);
    std::error_code error;
    if (!directory || !std::filesystem::is_directory(*directory, error)) {
      continue;
    }
    std::vector<PendingFile> found;
    for (const auto& entry : std::filesystem::directory_iterator(*directory, error)) {
      std::error_code statError;
      if (!entry.is_regular_file(statError)) {
        continue;
      }
      PendingFile file;
      file.name = entry.path().filename().string();
      file.family = familyOfFile(file.name);
      if (auto components = FileNameComponents::parse(file.name)) {
        file.profileId = components->profileId;
      }
      file.bulk = bulk;
      file.bytes = entry.file_size(statError);
      const auto written = entry.last_write_time(statError);
      if (!statError) {
        file.age = std::max(std::chrono::seconds(0),
                            std::chrono::duration_cast<std::chrono::seconds>(now - written));
      }
      found.push_back(std::move(file));
    }
    std::sort(found.begin(), found.end(),
              [](const PendingFile& a, const PendingFile& b) { return a.name < b.name; });
    files.insert(files.end(), found.begin(), found.end());
  }
  return files;
}

std::optional<Outcome> configureAndWait(const KestrovaConfig& config,
                                        std::chrono::milliseconds timeout) {
  return waitFor(
      [&config](Kestrova::GenericCompletion completion) {
        Kestrova::_configure(config, std::move(completion));
      },
      timeout);
}

std::optional<Outcome> connectAndWait(std::chrono::milliseconds timeout) {
  return waitFor(
      [](Kestrova::GenericCompletion completion) { Kestrova::_connect(std::move(completion)); },
      timeout);
}

std::string_view statusName(Kestrova::Status::Case status) {
  switch (status) {
    case Kestrova::Status::Case::connected:
      return "connected";
    case Kestrova::Status::Case::disconnected:
      return "disconnected";
    case Kestrova::Status::Case::notConfigured:
      return "not configured";
  }
  return "not configured";
}

}  // namespace kestrova::cli
