// What the subcommands that drive the library share: the library's platform installed in the
// chosen data directory, the upload files still waiting in it, and a blocking wait for the
// facade's completions (which arrive on the library's main queue, not on the command's
// thread).
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kestrova/facade.h"
#include "platform/platform.h"
#include "platform/result.h"

namespace kestrova::cli {

struct CommonOptions;

// An upload file the back end has not accepted yet.
struct PendingFile {
  std::string name;
  std::string family;  // "body", "sleep", ..., or "sample" for single uploads
  std::string profileId;
  bool bulk = false;
  std::uintmax_t bytes = 0;
  std::chrono::seconds age{0};
};

// Installs the Linux platform in the chosen data directory for the facade. Errors: the
// directory cannot be set up.
Result<std::shared_ptr<const Platform>> installLibraryPlatform(const CommonOptions& options);

// Both upload directories, single uploads first, each in name (and so time) order.
std::vector<PendingFile> pendingFiles(const Platform& platform);

// The family of an upload file name: the batch prefix of its sample id.
std::string familyOfFile(std::string_view fileName);

struct Outcome {
  bool success = false;
  std::optional<kestrova::GenericError> error;
};

// Blocks until the facade's completion arrives; none after `timeout`.
std::optional<Outcome> configureAndWait(const KestrovaConfig& config,
                                        std::chrono::milliseconds timeout);
std::optional<Outcome> connectAndWait(std::chrono::milliseconds timeout);

// "connected", "disconnected" or "not configured".
std::string_view statusName(Kestrova::Status::Case status);

}  // namespace kestrova::cli
