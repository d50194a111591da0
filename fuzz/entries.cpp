#include "entries.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>

#include "api/profile_request.h"
#include "api/request_builder.h"
#include "facade/formatters.h"
#include "healthstore/embedded_health_store.h"
#include "healthstore/import/apple_health_importer.h"
#include "healthstore/import/ecg_csv.h"
#include "platform/log.h"
#include "platform/manual_clock.h"
#include "platform/url_components.h"
#include "statistics/statistics_store.h"
#include "storage/anchor_store.h"
#include "storage/file_server.h"
#include "storage/profile_store.h"
#include "storage/token_store.h"

namespace kestrova::fuzz {
namespace {

namespace fs = std::filesystem;

// Longest name a Linux file system takes.
constexpr std::size_t kNameMax = 255;
// The longest sample id the collector makes: its longest prefix, a timestamp and a repeat
// counter ("workout-2024-03-01T08:15:30.250-4294967295").
constexpr std::size_t kLongestSampleId = 8 + 23 + 11;
// The hidden temporary name an atomic write goes through adds a dot and ".XXXXXX".
constexpr std::size_t kTemporaryNameExtra = 8;
constexpr std::string_view kBaseURL = "https://back.example/api/";
constexpr std::string_view kDefaultRequestPath = "v1.3/ingest/bulk/";
constexpr std::string_view kStepCountType = "HKQuantityTypeIdentifierStepCount";
constexpr std::string_view kExportName = "export.xml";
constexpr std::string_view kCsvName = "ecg_2024-03-01.csv";

Date fixedDate() {
  return *dateFromTimestampString("2024-03-01T08:15:30.250");
}

// One temporary directory for the process, on tmpfs when there is one, removed at exit. The
// stores in it are never closed: their queues may still run while statics are destroyed.
class Scratch {
 public:
  static Scratch& shared() {
    static Scratch* const scratch = [] {
      auto* made = new Scratch();
      std::atexit([] {
        std::error_code ignored;
        fs::remove_all(shared().path_, ignored);
      });
      return made;
    }();
    return *scratch;
  }
  const fs::path& path() const { return path_; }

  std::shared_ptr<DefaultsStore> defaults() {
    if (!defaults_) {
      auto opened = openSqliteDefaultsStore(path_ / "defaults.sqlite");
      if (!opened) {
        fail("cannot open the scratch defaults store: " + opened.error().text());
      }
      defaults_ = opened.value();
    }
    return defaults_;
  }

  std::shared_ptr<EmbeddedHealthStore> healthStore() {
    if (!healthStore_) {
      EmbeddedHealthStoreOptions options;
      options.path = path_ / "healthstore.sqlite";
      options.dispatcher = makeDispatcher(DispatcherOptions{1, std::nullopt});
      options.timeZone = makeFixedTimeZoneSource(TimeZone::gmt());
      auto opened = EmbeddedHealthStore::open(std::move(options));
      if (!opened) {
        fail("cannot open the scratch health store: " + opened.error().text());
      }
      healthStore_ = opened.value();
    }
    return healthStore_;
  }

  [[noreturn]] static void fail(const std::string& why) {
    std::fprintf(stderr, "fuzz scratch: %s\n", why.c_str());
    std::abort();
  }

 private:
  Scratch() {
    std::error_code error;
    const fs::path shm = "/dev/shm";
    const fs::path parent = fs::is_directory(shm, error) ? shm : fs::temp_directory_path();
    std::string pattern = (parent / "kestrova-fuzz-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
      fail("mkdtemp failed in " + parent.string());
    }
    path_ = pattern;
  }

  fs::path path_;
  std::shared_ptr<DefaultsStore> defaults_;
  std::shared_ptr<EmbeddedHealthStore> healthStore_;
};

Finding tokenEntry(std::string_view input) {
  const auto id = profileIdFromToken(input);
  if (!id) {
    return std::nullopt;
  }
  if (!isUsableProfileId(*id)) {
    return "the token gave the unusable id \"" + *id + "\"";
  }
  // The id names upload files, so it must come back whole out of one, and the name must fit.
  const FileNameComponents components{"workout-" + timestampString(fixedDate()), *id, fixedDate()};
  if (FileNameComponents::parse(components.fileName()) != components) {
    return "the id \"" + *id + "\" does not survive an upload file name";
  }
  if (kLongestSampleId + components.fileName().size() - components.sampleId.size() +
          kTemporaryNameExtra >
      kNameMax) {
    return "an upload file name for an id of " + std::to_string(id->size()) +
           " bytes is longer than a file name may be";
  }
  // And it names the profile request: one path segment that decodes to the id.
  const auto base = URLComponents::parse(kBaseURL);
  const auto url = composeURL(*base, profileRequestInfo(*id));
  const auto parsed = url ? URLComponents::parse(*url) : std::nullopt;
  if (!parsed) {
    return "no profile request URL for the id \"" + *id + "\"";
  }
  const std::string& path = parsed->percentEncodedPath();
  const auto segmentEnd = path.rfind('/');
  const auto segmentStart = path.rfind('/', segmentEnd - 1) + 1;
  if (percentDecode(path.substr(segmentStart, segmentEnd - segmentStart)) != *id) {
    return "the profile request URL " + *url + " does not end in the id \"" + *id + "\"";
  }
  return std::nullopt;
}

Finding fileNameEntry(std::string_view input) {
  const auto components = FileNameComponents::parse(input);
  if (!components) {
    return std::nullopt;
  }
  // Files are read and deleted through the name their components give.
  if (components->fileName() != input) {
    return "the name \"" + std::string(input) + "\" parses, but its components name \"" +
           components->fileName() + "\"";
  }
  return std::nullopt;
}

std::vector<URLQueryItem> queryItems(std::string_view text) {
  std::vector<URLQueryItem> items;
  while (!text.empty()) {
    const auto end = std::min(text.find('&'), text.size());
    const std::string_view item = text.substr(0, end);
    const auto equals = item.find('=');
    items.push_back(equals == std::string_view::npos
                        ? URLQueryItem{std::string(item), std::nullopt}
                        : URLQueryItem{std::string(item.substr(0, equals)),
                                       std::string(item.substr(equals + 1))});
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return items;
}

// Lines: the base URL, the request path, query items ("a=1&b").
Finding urlEntry(std::string_view input) {
  for (const auto set : {URLCharacterSet::user, URLCharacterSet::host, URLCharacterSet::path,
                         URLCharacterSet::pathSegment, URLCharacterSet::query}) {
    if (percentDecode(percentEncode(input, set)) != input) {
      return "percent-encoding does not decode back to the text";
    }
  }
  const auto firstBreak = input.find('\n');
  const auto base = URLComponents::parse(input.substr(0, firstBreak));
  if (!base || !base->url() || !base->scheme() || !base->host() || base->host()->empty()) {
    return std::nullopt;  // configure refuses such a base
  }
  // As on the platform, a relative request path cannot follow a host without a path
  // ("https://host:8080"): such a base composes nothing, by design.
  const bool composable = base->percentEncodedPath().starts_with('/');
  URLRequestInfo info;
  info.path = std::string(kDefaultRequestPath);
  if (firstBreak != std::string_view::npos) {
    const std::string_view rest = input.substr(firstBreak + 1);
    const auto secondBreak = rest.find('\n');
    info.path = std::string(rest.substr(0, secondBreak));
    if (secondBreak != std::string_view::npos) {
      info.queryItems = queryItems(rest.substr(secondBreak + 1));
    }
  }
  const auto url = composeURL(*base, info);
  if (!url) {
    return composable ? Finding("the base composes no URL with the path \"" + info.path + "\"")
                      : std::nullopt;
  }
  const auto parsed = URLComponents::parse(*url);
  if (!parsed) {
    return "the composed URL " + *url + " does not parse";
  }
  if (parsed->scheme() != base->scheme() ||
      parsed->percentEncodedHost() != base->percentEncodedHost() ||
      parsed->port() != base->port()) {
    return "the composed URL " + *url + " leaves the base's scheme, host or port";
  }
  // One nameless item without a value is written as a bare "?", which reads back as no items:
  // URL syntax cannot tell the two apart.
  const bool bareQuestionMark = info.queryItems && info.queryItems->size() == 1 &&
                                info.queryItems->front().name.empty() &&
                                !info.queryItems->front().value;
  if (info.queryItems && !bareQuestionMark && parsed->queryItems() != info.queryItems) {
    return "the composed URL " + *url + " does not carry the query items";
  }
  return std::nullopt;
}

Finding profileEntry(std::string_view input) {
  ProfileStore profiles(Scratch::shared().defaults());
  Scratch::shared().defaults()->setObject(ProfileStore::kCurrentProfileKey, toBytes(input));
  const auto profile = profiles.storedProfile();
  if (!profile) {
    return std::nullopt;
  }
  profiles.store(*profile);
  const auto again = profiles.storedProfile();
  if (!again || again->id != profile->id) {
    return "the profile \"" + profile->id + "\" does not survive being stored again";
  }
  return std::nullopt;
}

Finding anchorEntry(std::string_view input) {
  const auto defaults = Scratch::shared().defaults();
  AnchorStore anchors(defaults);
  const Bytes bytes = toBytes(input);
  defaults->setObject(AnchorStore::key(kStepCountType), bytes);
  const auto anchor = anchors.storedAnchor(kStepCountType);
  if (anchor && anchor->archived() != bytes) {
    return "bytes that are not the anchor's archive read as an anchor";
  }
  if (!anchor && defaults->data(AnchorStore::key(kStepCountType)) != bytes) {
    return "a damaged anchor entry was not left in place";
  }
  return std::nullopt;
}

Finding statisticsEntry(std::string_view input) {
  const std::string key(*detailKey(kStepCountType));
  const auto defaults = Scratch::shared().defaults();
  StatisticsStore store(defaults, ManualClock::make(fixedDate()), fixedDate());
  // The former layout's map is moved into rows whatever it holds.
  defaults->setObject(key, toBytes(input));
  store.migrate();
  if (defaults->object(key)) {
    return "a map of the former layout was left in place";
  }
  store.deleteAll();
  constexpr std::string_view kInterval = "2024-01-01T00:00:00.000";
  defaults->setObject(key + "/" + std::string(kInterval), toBytes(input));
  const auto entry = store.entry(key, kInterval);
  store.deleteAll();
  if (!entry) {
    return std::nullopt;
  }
  // What was read is written back as it is saved, and reads the same again.
  const nlohmann::json encoded = toJson(StoredStatistics{{{std::string(kInterval), *entry}}});
  const auto decoded = storedStatisticsFromJson(encoded);
  if (!decoded) {
    return "stored statistics do not decode after being encoded: " + encoded.dump();
  }
  if (toJson(*decoded) != encoded) {
    return "stored statistics change in a round trip: " + encoded.dump();
  }
  return std::nullopt;
}

Finding exportEntry(std::string_view input) {
  const fs::path path = Scratch::shared().path() / kExportName;
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(input.data(), static_cast<std::streamsize>(input.size()));
    if (!out) {
      Scratch::fail("cannot write " + path.string());
    }
  }
  AppleHealthImporter importer(Scratch::shared().healthStore());
  const ImportSummary summary = importer.importExport(path);
  if (summary.read != summary.added + summary.alreadyPresent + summary.skippedCount()) {
    return "the import's counts do not add up: " + summaryText(summary);
  }
  if (summary.failure && summary.failure->description.empty()) {
    return "a failed import gives no reason";
  }
  return std::nullopt;
}

Finding csvEntry(std::string_view input) {
  const auto parsed = parseElectrocardiogramCsv(input, kCsvName);
  if (!parsed) {
    if (parsed.error().description.find(kCsvName) == std::string::npos) {
      return "the error does not name the file: " + parsed.error().text();
    }
    return std::nullopt;
  }
  const auto& recording = parsed.value();
  if (recording.sample == nullptr ||
      static_cast<std::size_t>(recording.sample->numberOfVoltageMeasurements()) !=
          recording.volts.size()) {
    return "the recording's measurement count is not its number of values";
  }
  for (const double volts : recording.volts) {
    if (!std::isfinite(volts)) {
      return "a measurement is not a finite number of volts";
    }
  }
  if (recording.sample->endDate() < recording.sample->startDate()) {
    return "the recording ends before it starts";
  }
  return std::nullopt;
}

}  // namespace

const std::vector<Entry>& entries() {
  static const auto* const all = new std::vector<Entry>{
      {"token", &tokenEntry},       {"file_name", &fileNameEntry}, {"url", &urlEntry},
      {"profile", &profileEntry},   {"anchor", &anchorEntry},      {"statistics", &statisticsEntry},
      {"export_xml", &exportEntry}, {"ecg_csv", &csvEntry},
  };
  return *all;
}

std::optional<Entry> entryNamed(std::string_view name) {
  for (const Entry& entry : entries()) {
    if (entry.name == name) {
      return entry;
    }
  }
  return std::nullopt;
}

int runFuzzTarget(std::string_view name, const std::uint8_t* data, std::size_t size) {
  static const Entry entry = [&] {
    // Rejected inputs log a line each; at fuzzing speed that is all the time would go to.
    logging::setSink(nullptr);
    auto found = entryNamed(name);
    if (!found) {
      Scratch::fail("no fuzz entry named " + std::string(name));
    }
    return *found;
  }();
  const Finding finding = entry.run(std::string_view(reinterpret_cast<const char*>(data), size));
  if (finding) {
    std::fprintf(stderr, "%.*s: %s\n", static_cast<int>(name.size()), name.data(),
                 finding->c_str());
    std::abort();
  }
  return 0;
}

}  // namespace kestrova::fuzz
