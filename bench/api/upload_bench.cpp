// Uploads per second that the client sustains against the reference back end on loopback:
// upload files of about 1 KB and 1 MB swept by API::uploadPending (one connection, the real
// curl session, the server storing every data point in SQLite), and the bare session posting
// the same bodies, to show what the layers above it cost. Prints figures; asserts nothing.
//
//   upload_bench [--small N] [--large N]     (defaults 1000 and 40)
#include <stdlib.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>

#include "api/api.h"
#include "platform/log.h"
#include "platform/platform.h"
#include "server/server.h"
#include "storage/file_server.h"
#include "storage/token_store.h"

namespace {

using namespace kestrova;
using Clock = std::chrono::steady_clock;

constexpr const char* kProfile = "bench-profile";

// A JSON array of data points of about `bytes` bytes; ids are unique across the whole run.
std::string batch(size_t bytes, int file) {
  std::string out = "[";
  for (int point = 0; out.size() < bytes; ++point) {
    if (point > 0) {
      out += ',';
    }
    out += R"({"header":{"id":"f)" + std::to_string(file) + "-p" + std::to_string(point) +
           R"(","creation_date_time":"2024-03-01T08:00:00.000","schema_id":{"namespace":"ks",)"
           R"("name":"ks-heart-rate-sample","version":"1.0"}},"body":{"effective_time_frame":)"
           R"({"time_interval":{"start_date_time":"2024-03-01T08:00:00.000","end_date_time":)"
           R"("2024-03-01T08:15:00.000"}},"avg":72.5,"min":60,"max":91}})";
  }
  out += ']';
  return out;
}

struct Figures {
  int count = 0;
  size_t bytesEach = 0;
  double seconds = 0;
};

void print(const char* what, const Figures& figures) {
  const double perSecond = figures.count / figures.seconds;
  std::printf("%-34s %6d x %8zu B  %8.3f s  %9.1f uploads/s  %8.2f MB/s\n", what, figures.count,
              figures.bytesEach, figures.seconds, perSecond,
              perSecond * static_cast<double>(figures.bytesEach) / 1e6);
}

// Writes `count` bulk upload files, sweeps them with uploadPending and waits until every one
// was accepted and deleted.
Figures sweep(const API& api, const Platform& platform, int count, size_t bytes, int& nextFile) {
  Figures figures{count, 0, 0};
  for (int i = 0; i < count; ++i) {
    const int file = nextFile++;
    FileNameComponents name{"body-" + std::to_string(file), kProfile,
                            Date(std::chrono::milliseconds(1'700'000'000'000LL + file))};
    const std::string body = batch(bytes, file);
    figures.bytesEach = body.size();
    if (auto failed = platform.files->createFileAtomically(*api.fileServer().fileURL(name, true),
                                                           toBytes(body))) {
      std::fprintf(stderr, "cannot write an upload file: %s\n", failed->text().c_str());
      std::exit(1);
    }
  }
  const auto started = Clock::now();
  api.uploadPending();
  const auto deadline = started + std::chrono::minutes(5);
  while (!api.fileServer().list(true).empty()) {
    if (Clock::now() > deadline) {
      std::fprintf(stderr, "uploads did not finish within 5 minutes\n");
      std::exit(1);
    }
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  figures.seconds = std::chrono::duration<double>(Clock::now() - started).count();
  return figures;
}

// The same bodies posted straight through a session, all started at once.
Figures session(const std::string& url, const std::string& token, int count, size_t bytes,
                int& nextFile) {
  auto urlSession = makeURLSession();
  std::mutex mutex;  // owns done and failures
  std::condition_variable changed;
  int done = 0;
  int failures = 0;
  std::vector<URLRequest> requests;
  Figures figures{count, 0, 0};
  for (int i = 0; i < count; ++i) {
    URLRequest request;
    request.url = url;
    request.httpMethod = "POST";
    request.addValue("application/json", "Content-Type");
    request.addValue("Bearer " + token, "Authorization");
    request.httpBody = toBytes(batch(bytes, nextFile++));
    figures.bytesEach = request.httpBody->size();
    requests.push_back(std::move(request));
  }
  const auto started = Clock::now();
  for (auto& request : requests) {
    urlSession
        ->dataTask(std::move(request),
                   [&](std::optional<Bytes>, std::optional<HTTPURLResponse> response,
                       std::optional<Error>) {
                     std::lock_guard lock(mutex);
                     ++done;
                     failures += (!response || response->statusCode != 200) ? 1 : 0;
                     changed.notify_all();
                   })
        ->resume();
  }
  std::unique_lock lock(mutex);
  changed.wait(lock, [&] { return done == count; });
  figures.seconds = std::chrono::duration<double>(Clock::now() - started).count();
  if (failures > 0) {
    std::fprintf(stderr, "%d posts failed\n", failures);
  }
  return figures;
}

int option(int argc, char** argv, const char* name, int fallback) {
  for (int i = 1; i + 1 < argc; ++i) {
    if (std::strcmp(argv[i], name) == 0) {
      return std::max(1, std::atoi(argv[i + 1]));
    }
  }
  return fallback;
}

}  // namespace

int main(int argc, char** argv) {
  const int small = option(argc, argv, "--small", 1000);
  const int large = option(argc, argv, "--large", 40);
  logging::setMinimumLevel(LogLevel::error);

  std::string pattern =
      (std::filesystem::temp_directory_path() / "kestrova-upload-bench-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) {
    std::perror("mkdtemp");
    return 1;
  }
  const std::filesystem::path directory = pattern;
  int status = 0;
  {
    server::ServerOptions options;
    options.secret = "bench-secret";
    options.database = directory / "server.sqlite";
    auto started = server::KestrovaServer::start(options);
    if (!started) {
      std::fprintf(stderr, "server: %s\n", started.error().text().c_str());
      return 1;
    }
    auto& backEnd = *started.value();
    PlatformOptions platformOptions;
    platformOptions.dataDirectory = directory / "client";
    auto platform = makeLinuxPlatform(platformOptions);
    if (!platform) {
      std::fprintf(stderr, "platform: %s\n", platform.error().text().c_str());
      return 1;
    }
    installPlatform(*platform);
    const std::string token = backEnd.tokenFor(kProfile);
    TokenStore((*platform)->secureStore, (*platform)->applicationIdentifier)
        .saveToken(token, kProfile);
    {
      API api(*URLComponents::parse(backEnd.baseUrl()), **platform);
      int nextFile = 0;
      std::printf("client -> kestrova-server on 127.0.0.1, one connection, SQLite (WAL)\n");
      print("API uploadPending, 1 KB files", sweep(api, **platform, small, 1024, nextFile));
      print("API uploadPending, 1 MB files", sweep(api, **platform, large, 1 << 20, nextFile));
      const std::string url = backEnd.baseUrl() + "v1.3/ingest/bulk/";
      print("URLSession POST, 1 KB bodies", session(url, token, small, 1024, nextFile));
      print("URLSession POST, 1 MB bodies", session(url, token, large, 1 << 20, nextFile));
      api.session()->invalidateAndCancel();
    }
    const auto stats = backEnd.stats();
    std::printf("server stored %lld data points, %lld duplicates\n",
                static_cast<long long>(stats.store.dataPoints),
                static_cast<long long>(stats.store.duplicates));
    status = stats.store.duplicates == 0 ? 0 : 1;
    installPlatform(nullptr);
  }
  std::error_code ignored;
  std::filesystem::remove_all(directory, ignored);
  return status;
}
