// Security properties of the library end to end: the facade over the embedded store, the curl
// client and the reference server on 127.0.0.1. The bearer token stays in an owner-only store
// and out of every log line; a profile id can move neither files nor the URL path; and TLS
// certificates are verified whatever the configuration says.
#include <gtest/gtest.h>
#include <httplib.h>
#include <openssl/evp.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <future>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <thread>

#include "e2e/library_harness.h"
#include "healthstore/import/apple_health_importer.h"
#include "platform/activity.h"
#include "platform/url_session.h"
#include "server/jwt.h"
#include "server/server.h"
#include "storage/anchor_store.h"
#include "storage/file_server.h"
#include "storage/token_store.h"
#include "support/child_process.h"
#include "support/test_support.h"

namespace kestrova {
namespace {

namespace fs = std::filesystem;
using testing::configureAndWait;
using testing::connectAndWait;
using testing::Outcome;
using Code = KestrovaHealthKitError::Code;

constexpr auto kWait = std::chrono::seconds(20);

constexpr std::string_view kProfile = "security-profile";
constexpr std::string_view kExport =
    KESTROVA_TEST_DATA "/apple-health/healthkit-to-sqlite/export.xml";
constexpr std::string_view kProfilePath = "/api/v1.3/profile/";
const std::set<std::string> kIngestPaths = {"/api/v1.3/ingest/bulk/", "/api/v1.3/ingest/"};
// The directories of a data directory (inside the test's own) that hold no store.
const std::set<std::string> kKnownPaths = {"data", "data/Kestrova", "data/Kestrova/Upload",
                                           "data/Kestrova/UploadBulk"};
constexpr std::array<std::string_view, 2> kUploadDirectories = {"Kestrova/Upload",
                                                                "Kestrova/UploadBulk"};

mode_t permissions(const fs::path& path) {
  struct stat status {};
  EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777;
}

// Every path under `root`, relative to it.
std::set<std::string> tree(const fs::path& root) {
  std::set<std::string> paths;
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    // Lexically: a temporary file of a write under way may be gone by now.
    paths.insert(entry.path().lexically_relative(root).string());
  }
  return paths;
}

class SecurityTest : public ::testing::Test {
 protected:
  void SetUp() override {
    startServer();
    log_ = testing::CapturedLog::install();
  }

  // A server of its own, with a fresh secret, replacing the one before.
  void startServer(server::FaultPlan faults = {}) {
    server_ = testing::startServer("security-secret-" + std::to_string(std::random_device{}()),
                                   std::move(faults));
    ASSERT_TRUE(server_);
  }

  void TearDown() override {
    testing::stopLibrary();
    log_->uninstall();
  }

  // The library on data() with the export's workouts and body measurements in its store.
  void startWithSamples() {
    process_ = testing::startLibrary(data());
    ASSERT_TRUE(process_.platform);
    ASSERT_TRUE(AppleHealthImporter(process_.store).importExport(kExport).ok());
  }

  fs::path data() const { return dir_.path() / "data"; }

  KestrovaConfig config(const std::string& profile) const {
    return KestrovaConfig(server_->tokenFor(profile), server_->baseUrl(), testing::utc(2010, 1, 1));
  }

  // Upload files waiting, as (directory, name).
  std::vector<std::pair<std::string, std::string>> uploadFiles() const {
    std::vector<std::pair<std::string, std::string>> files;
    for (auto directory : kUploadDirectories) {
      if (fs::exists(data() / directory)) {
        for (const auto& entry : fs::directory_iterator(data() / directory)) {
          files.emplace_back(directory, entry.path().filename().string());
        }
      }
    }
    return files;
  }

  bool uploadsDone() const { return uploadFiles().empty(); }

  // Until the library is idle (no statistics upload timer left either) and neither the upload
  // files nor the server's requests have changed for a second: no write or upload of the
  // current configuration is under way any more.
  void waitForQuiet() const {
    auto last = std::make_pair(uploadFiles(), server_->stats().requestCount);
    auto since = std::chrono::steady_clock::now();
    EXPECT_TRUE(testing::eventually(
        [&] {
          auto now = std::make_pair(uploadFiles(), server_->stats().requestCount);
          if (now != last) {
            last = std::move(now);
            since = std::chrono::steady_clock::now();
          }
          return activity::idle() &&
                 std::chrono::steady_clock::now() - since > std::chrono::seconds(1);
        },
        kWait));
  }

  // Configures again once nothing is under way: the files kept by failed uploads are sent
  // again, as after a restart.
  void configureAgain(const std::string& profile) {
    waitForQuiet();
    ASSERT_EQ(configureAndWait(config(profile)), Outcome(true, std::nullopt)) << profile;
    EXPECT_TRUE(testing::eventually([&] { return uploadsDone(); }, kWait)) << profile;
    EXPECT_FALSE(server_->dataPoints(profile).empty()) << profile;
  }

  testing::TempDir dir_;
  std::unique_ptr<server::KestrovaServer> server_;
  std::shared_ptr<testing::CapturedLog> log_;
  testing::LibraryProcess process_;
};

TEST_F(SecurityTest, AnEndToEndRunKeepsTheTokenOwnerOnlyAndOutOfEveryLogLine) {
  // Narrow modes must come from the library itself, not from a friendly umask.
  const mode_t umask = ::umask(0);
  startWithSamples();
  // Refused uploads first, so that the error paths log too (a 403 logs the request's
  // headers); configuring again sends what they kept.
  server::FaultPlan faults;
  faults.script = server::FaultPlan::parseScript("pass,403,500").value();
  server_->setFaults(faults);
  const std::string token = server_->tokenFor(std::string(kProfile));
  ASSERT_EQ(configureAndWait(config(std::string(kProfile))), Outcome(true, std::nullopt));
  ASSERT_EQ(connectAndWait(), Outcome(true, std::nullopt));
  EXPECT_TRUE(testing::eventually(
      [&] { return server_->faults().script.empty() && !uploadsDone(); }, kWait));
  configureAgain(std::string(kProfile));
  ::umask(umask);

  EXPECT_EQ(permissions(data()), 0700u);
  EXPECT_EQ(permissions(data() / "keychain"), 0700u);
  for (auto suffix : {"", "-wal", "-shm"}) {
    const auto file = data() / ("keychain/keychain.sqlite" + std::string(suffix));
    ASSERT_TRUE(fs::exists(file)) << file;
    EXPECT_EQ(permissions(file), 0600u) << file;
  }

  EXPECT_TRUE(log_->contains("has NOT been uploaded successfully"));
  EXPECT_TRUE(log_->contains("Unauthorized access"));
  const std::string signature = token.substr(token.rfind('.') + 1);
  ASSERT_GE(signature.size(), 32u);
  for (const auto& line : log_->lines()) {
    for (const auto* text : {&line.category, &line.message}) {
      EXPECT_EQ(text->find(token), std::string::npos) << *text;
      EXPECT_EQ(text->find(signature), std::string::npos) << *text;
    }
  }
}

// Configure (at every start) resumes a stored profile once the back end has validated it again;
// a disconnect while that validation is under way must stop collection for good, or data would
// be read and sent for a profile the user has just disconnected.
TEST_F(SecurityTest, NothingIsCollectedForAProfileDisconnectedWhileItIsRevalidated) {
  startWithSamples();
  ASSERT_EQ(configureAndWait(config(std::string(kProfile))), Outcome(true, std::nullopt));
  ASSERT_EQ(connectAndWait(), Outcome(true, std::nullopt));
  waitForQuiet();
  ASSERT_TRUE(uploadsDone());

  server::FaultPlan slow;
  slow.script = server::FaultPlan::parseScript("delay:1000").value();
  server_->setFaults(slow);
  // Requests of a path answered with 200 so far.
  const auto accepted = [](auto requests, const std::string& path) {
    return requests[path]["200"];
  };
  const auto profilePath = std::string(kProfilePath) + std::string(kProfile) + "/";
  const auto before = server_->stats().requests;
  ASSERT_EQ(configureAndWait(config(std::string(kProfile))), Outcome(true, std::nullopt));
  Kestrova::disconnect();
  // The validation's answer, and time for what it would start.
  EXPECT_TRUE(testing::eventually(
      [&] {
        return accepted(server_->stats().requests, profilePath) > accepted(before, profilePath);
      },
      kWait));
  waitForQuiet();
  for (const auto& path : kIngestPaths) {
    EXPECT_EQ(accepted(server_->stats().requests, path), accepted(before, path)) << path;
  }
  EXPECT_TRUE(uploadsDone());
  EXPECT_FALSE(AnchorStore(process_.platform->defaults).storedAnchor("HKWorkoutTypeIdentifier"));
  EXPECT_EQ(Kestrova::currentStatus().value, Kestrova::Status::Case::disconnected);
}

TEST_F(SecurityTest, ProfileIdsMoveNeitherFilesNorTheUrlPath) {
  startWithSamples();
  TokenStore tokens(process_.platform->secureStore, process_.platform->applicationIdentifier);

  // Ids that could name a path elsewhere, or cannot name a file at all: refused before
  // anything is stored.
  const std::string refused[] = {"../escape",
                                 "../../../../../../tmp/escape",
                                 "a/b",
                                 "/absolute",
                                 "..",
                                 "back\\slash",
                                 std::string("nul\0byte", 8),
                                 "new\nline",
                                 "x---y",
                                 std::string(kMaximumProfileIdLength + 1, 'l')};
  const auto before = tree(dir_.path());
  for (const auto& id : refused) {
    const auto outcome = configureAndWait(config(id));
    EXPECT_FALSE(outcome.first) << id;
    ASSERT_TRUE(outcome.second) << id;
    EXPECT_EQ(outcome.second->code(), Code::invalidToken) << id;
    EXPECT_FALSE(outcome.second->localizedDescription().empty());
    EXPECT_FALSE(tokens.tokenForProfile(id).value()) << id;
    EXPECT_EQ(tree(dir_.path()), before) << id;
  }

  // Ids that only look like paths or URL syntax: percent-encoded into one path segment, and
  // their files stay in the upload directories. Ingests are refused at first, so that the
  // files stay to be looked at.
  const std::string accepted[] = {
      "%2F..%2Fescape", "..%2F..%2F_admin%2Ffaults", "what?x=1#fragment",
      ".hidden \xC3\xBC+;,&=", std::string(kMaximumProfileIdLength, 'm')};
  for (const auto& id : accepted) {
    // A server for each id, so that what the earlier ones still send goes elsewhere: its
    // first request is the connect's, which passes; every ingest after it is refused.
    Kestrova::disconnect();
    server::FaultPlan refusing;
    refusing.script = server::FaultPlan::parseScript("pass").value();
    refusing.rate = 1.0;
    refusing.rateFault = server::Fault{server::Fault::Kind::status, 503, {}, {}};
    startServer(refusing);
    ASSERT_EQ(configureAndWait(config(id)), Outcome(true, std::nullopt)) << id;
    ASSERT_EQ(connectAndWait(), Outcome(true, std::nullopt)) << id;
    EXPECT_TRUE(testing::eventually([&] { return uploadFiles().size() >= 2; }, kWait)) << id;

    const auto profilePath = std::string(kProfilePath) + id + "/";
    const auto requests = server_->stats().requests;
    EXPECT_TRUE(requests.contains(profilePath)) << id;
    for (const auto& [path, answers] : requests) {
      EXPECT_TRUE(kIngestPaths.contains(path) || path == profilePath) << path;
    }
    for (const auto& [directory, name] : uploadFiles()) {
      if (name.starts_with('.')) {
        continue;  // a write under way
      }
      const auto components = FileNameComponents::parse(name);
      ASSERT_TRUE(components) << name;
      EXPECT_EQ(components->profileId, id);
    }
    for (const auto& path : tree(dir_.path())) {
      const auto parent = fs::path(path).parent_path();
      EXPECT_TRUE(kKnownPaths.contains(path) || path.starts_with("data/healthstore.sqlite") ||
                  path.starts_with("data/defaults.sqlite") || path.starts_with("data/keychain") ||
                  parent == "data/Kestrova/Upload" || parent == "data/Kestrova/UploadBulk")
          << path;
    }

    server_->setFaults({});
    configureAgain(id);
  }
}

// A self-signed certificate for 127.0.0.1, valid in every respect except that nobody vouches
// for it.
struct SelfSigned {
  SelfSigned() {
    key = EVP_EC_gen("P-256");
    certificate = X509_new();
    X509_set_version(certificate, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate), -60);
    X509_gmtime_adj(X509_getm_notAfter(certificate), 3600);
    X509_set_pubkey(certificate, key);
    X509_NAME* name = X509_get_subject_name(certificate);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("127.0.0.1"), -1, -1, 0);
    X509_set_issuer_name(certificate, name);
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
    X509_EXTENSION* alternative =
        X509V3_EXT_conf_nid(nullptr, &context, NID_subject_alt_name, "IP:127.0.0.1");
    X509_add_ext(certificate, alternative, -1);
    X509_EXTENSION_free(alternative);
    signedOk = X509_sign(certificate, key, EVP_sha256()) > 0;
  }
  ~SelfSigned() {
    X509_free(certificate);
    EVP_PKEY_free(key);
  }
  SelfSigned(const SelfSigned&) = delete;
  SelfSigned& operator=(const SelfSigned&) = delete;

  EVP_PKEY* key = nullptr;
  X509* certificate = nullptr;
  bool signedOk = false;
};

TEST_F(SecurityTest, TlsCertificatesAreVerifiedWhateverTheConfigurationSays) {
  SelfSigned tls;
  ASSERT_TRUE(tls.signedOk);
  httplib::SSLServer https(tls.certificate, tls.key);
  std::atomic<int> served{0};
  https.Get(".*", [&](const httplib::Request& req, httplib::Response& res) {
    ++served;
    res.set_content(nlohmann::json{{"id", req.path}}.dump(), "application/json");
  });
  const int port = https.bind_to_any_port("127.0.0.1");
  ASSERT_GT(port, 0);
  std::thread serving([&] { https.listen_after_bind(); });
  const std::string origin = "127.0.0.1:" + std::to_string(port);

  // A client that trusts the certificate is served: what the library meets below is the
  // missing trust and nothing else.
  httplib::SSLClient trusting("127.0.0.1", port);
  X509_STORE* trusted = X509_STORE_new();  // owned by the client once set
  X509_STORE_add_cert(trusted, tls.certificate);
  trusting.set_ca_cert_store(trusted);
  trusting.enable_server_certificate_verification(true);
  const auto answer = trusting.Get("/api/v1.3/profile/p1/");
  ASSERT_TRUE(answer) << httplib::to_string(answer.error());
  EXPECT_EQ(answer->status, 200);
  EXPECT_EQ(served, 1);

  std::promise<std::optional<Error>> failed;
  auto session = makeURLSession();
  session
      ->dataTask(URLRequest{"https://" + origin + "/api/", "GET", {}, std::nullopt},
                 [&](auto, auto, std::optional<Error> error) { failed.set_value(error); })
      ->resume();
  const auto sessionError = failed.get_future().get();
  ASSERT_TRUE(sessionError);
  EXPECT_EQ(sessionError->code, static_cast<std::int64_t>(URLErrorCode::serverCertificateUntrusted))
      << sessionError->text();

  // Whatever the configuration adds to the URL, the connection is refused before a request,
  // and so before the token, reaches the server.
  startWithSamples();
  const std::string token = server_->tokenFor("p1");
  for (const std::string& url :
       {"https://" + origin + "/api/", "HTTPS://" + origin + "/api/",
        "https://user:password@" + origin + "/api/?insecure=1&verify=false&ssl_verify=0#k"}) {
    const auto configured = configureAndWait(KestrovaConfig(token, url));
    if (configured.first) {
      EXPECT_EQ(connectAndWait(),
                Outcome(false, KestrovaHealthKitError::failedToValidateProfile("p1")))
          << url;
    }
  }
  EXPECT_EQ(served, 1);
  EXPECT_TRUE(log_->contains("certificate"));

  https.stop();
  serving.join();
}

}  // namespace
}  // namespace kestrova
