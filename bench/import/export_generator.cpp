#include "export_generator.h"

#include <zip.h>

#include <array>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <memory>
#include <random>
#include <string>

namespace kestrova::bench {
namespace {

namespace fs = std::filesystem;

constexpr const char* kPhoneName = "Alex\xE2\x80\x99s iPhone";  // curly apostrophe, as phones write
constexpr const char* kWatchName = "Alex\xE2\x80\x99s Apple\xC2\xA0Watch";
constexpr const char* kPhoneDevice =
    "&lt;&lt;HKDevice: 0x282e3a260&gt;, name:iPhone, manufacturer:Apple Inc., model:iPhone, "
    "hardware:iPhone15,2, software:17.4&gt;";
constexpr const char* kWatchDevice =
    "&lt;&lt;HKDevice: 0x3012772a0&gt;, name:Apple Watch, manufacturer:Apple Inc., model:Watch, "
    "hardware:Watch6,7, software:10.4&gt;";
constexpr const char* kOffset = "+0100";  // the export-time offset, written on every date
constexpr int kStartYear = 2021;

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

// Civil date of day `day` after 1 January kStartYear (H. Hinnant's civil_from_days).
void civil(std::int64_t days, int& y, int& m, int& d) {
  days += 18628;  // 2021-01-01 since 1970-01-01
  days += 719468;
  const std::int64_t era = (days >= 0 ? days : days - 146096) / 146097;
  const auto doe = static_cast<unsigned>(days - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  d = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
  m = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
  y = static_cast<int>(yoe + static_cast<unsigned>(era) * 400 + (m <= 2 ? 1 : 0));
}

// Room for any int year: the compiler checks the worst case.
using DateText = char[64];

class Writer {
 public:
  Writer(std::FILE* out, std::uint64_t seed, fs::path routes)
      : out_(out), random_(seed), routes_(std::move(routes)) {}

  // "2021-03-04 05:06:07 +0100" for a second of day `day`.
  const char* date(std::int64_t day, int second, DateText& buffer) {
    day += second / 86400;
    second %= 86400;
    int y = 0, m = 0, d = 0;
    civil(day, y, m, d);
    std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02d %02d:%02d:%02d %s", y, m, d, second / 3600,
                  second / 60 % 60, second % 60, kOffset);
    return buffer;
  }

  void record(const char* type, bool watch, const char* unit, double value, std::int64_t day,
              int start, int end, const char* children = nullptr) {
    DateText s, e, c;
    std::fprintf(out_,
                 " <Record type=\"%s\" sourceName=\"%s\" sourceVersion=\"%s\" device=\"%s\" "
                 "unit=\"%s\" creationDate=\"%s\" startDate=\"%s\" endDate=\"%s\" value=\"%.*g\"",
                 type, watch ? kWatchName : kPhoneName, watch ? "10.4" : "17.4",
                 watch ? kWatchDevice : kPhoneDevice, unit, date(day, end + 30, c),
                 date(day, start, s), date(day, end, e), 6, value);
    if (children != nullptr) {
      std::fprintf(out_, ">\n%s </Record>\n", children);
    } else {
      std::fputs("/>\n", out_);
    }
    ++records_;
  }

  void category(const char* type, bool watch, const char* value, std::int64_t day, int start,
                int end) {
    DateText s, e, c;
    std::fprintf(out_,
                 " <Record type=\"%s\" sourceName=\"%s\" sourceVersion=\"%s\" device=\"%s\" "
                 "creationDate=\"%s\" startDate=\"%s\" endDate=\"%s\" value=\"%s\">\n"
                 "  <MetadataEntry key=\"HKTimeZone\" value=\"Europe/Paris\"/>\n </Record>\n",
                 type, watch ? kWatchName : kPhoneName, watch ? "10.4" : "17.4",
                 watch ? kWatchDevice : kPhoneDevice, date(day, end + 60, c), date(day, start, s),
                 date(day, end, e), value);
    ++records_;
  }

  void workout(std::int64_t day, int start, int minutes, double km, double kcal) {
    DateText s, e, c;
    const int end = start + minutes * 60;
    date(day, start, s);
    date(day, end, e);
    date(day, end + 60, c);
    std::fprintf(
        out_,
        " <Workout workoutActivityType=\"HKWorkoutActivityTypeRunning\" duration=\"%d\" "
        "durationUnit=\"min\" sourceName=\"%s\" sourceVersion=\"10.4\" device=\"%s\" "
        "creationDate=\"%s\" startDate=\"%s\" endDate=\"%s\">\n"
        "  <MetadataEntry key=\"HKIndoorWorkout\" value=\"0\"/>\n"
        "  <MetadataEntry key=\"HKTimeZone\" value=\"Europe/Paris\"/>\n"
        "  <MetadataEntry key=\"HKWeatherTemperature\" value=\"56 degF\"/>\n"
        "  <WorkoutEvent type=\"HKWorkoutEventTypeSegment\" date=\"%s\" duration=\"10\" "
        "durationUnit=\"min\"/>\n"
        "  <WorkoutActivity uuid=\"0C822588-0000-4000-8000-%012llx\" startDate=\"%s\" "
        "endDate=\"%s\" duration=\"%d\" durationUnit=\"min\">\n"
        "   <WorkoutStatistics type=\"HKQuantityTypeIdentifierDistanceWalkingRunning\" "
        "startDate=\"%s\" endDate=\"%s\" sum=\"%.5f\" unit=\"km\"/>\n"
        "  </WorkoutActivity>\n"
        "  <WorkoutStatistics type=\"HKQuantityTypeIdentifierActiveEnergyBurned\" startDate=\"%s\" "
        "endDate=\"%s\" sum=\"%.4f\" unit=\"kcal\"/>\n"
        "  <WorkoutStatistics type=\"HKQuantityTypeIdentifierDistanceWalkingRunning\" "
        "startDate=\"%s\" endDate=\"%s\" sum=\"%.5f\" unit=\"km\"/>\n"
        "  <WorkoutStatistics type=\"HKQuantityTypeIdentifierHeartRate\" startDate=\"%s\" "
        "endDate=\"%s\" average=\"148\" minimum=\"98\" maximum=\"171\" unit=\"count/min\"/>\n"
        "  <WorkoutRoute sourceName=\"%s\" sourceVersion=\"17.4\" creationDate=\"%s\" "
        "startDate=\"%s\" endDate=\"%s\">\n"
        "   <FileReference path=\"/workout-routes/route_%.10s_6.15pm.gpx\"/>\n"
        "  </WorkoutRoute>\n"
        "  <MetadataEntry key=\"HKIndoorWorkout\" value=\"0\"/>\n"
        " </Workout>\n",
        minutes, kWatchName, kWatchDevice, c, s, e, s, static_cast<unsigned long long>(records_), s,
        e, minutes, s, e, km, s, e, kcal, s, e, km, s, e, kPhoneName, c, s, e, s);
    ++records_;
    route(day, start, end, s);
  }

  // The route file a workout names: a point every ten seconds along a loop.
  void route(std::int64_t day, int start, int end, const DateText& startText) {
    const fs::path path = routes_ / ("route_" + std::string(startText, 10) + "_6.15pm.gpx");
    File gpx(std::fopen(path.c_str(), "wb"));
    if (!gpx) {
      return;
    }
    std::fputs(
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<gpx version=\"1.1\" creator=\"Apple "
        "Health Export\" xmlns=\"http://www.topografix.com/GPX/1/1\">\n <trk><trkseg>\n",
        gpx.get());
    const std::int64_t epoch = (day + 18628) * 86400 - 3600;  // the +0100 of the dates
    for (int at = start; at < end; at += 10) {
      const std::time_t when = static_cast<std::time_t>(epoch + at);
      std::tm utc{};
      gmtime_r(&when, &utc);
      char time[32];
      std::strftime(time, sizeof time, "%Y-%m-%dT%H:%M:%SZ", &utc);
      const double angle = (at - start) * 0.002;
      std::fprintf(gpx.get(),
                   "  <trkpt lon=\"%.6f\" lat=\"%.6f\"><ele>%.2f</ele><time>%s</time><extensions>"
                   "<speed>%.3f</speed><course>%.1f</course><hAcc>%.2f</hAcc><vAcc>%.2f</vAcc>"
                   "</extensions></trkpt>\n",
                   2.35 + 0.01 * std::cos(angle), 48.85 + 0.01 * std::sin(angle), uniform(30, 40),
                   time, uniform(2, 4), uniform(0, 360), uniform(2, 8), uniform(2, 6));
    }
    std::fputs(" </trkseg></trk>\n</gpx>\n", gpx.get());
  }

  void activitySummary(std::int64_t day) {
    int y = 0, m = 0, d = 0;
    civil(day, y, m, d);
    std::fprintf(out_,
                 " <ActivitySummary dateComponents=\"%04d-%02d-%02d\" activeEnergyBurned=\"%.3f\" "
                 "activeEnergyBurnedGoal=\"630\" activeEnergyBurnedUnit=\"kcal\" "
                 "appleMoveTime=\"0\" appleMoveTimeGoal=\"0\" appleExerciseTime=\"%d\" "
                 "appleExerciseTimeGoal=\"30\" appleStandHours=\"%d\" "
                 "appleStandHoursGoal=\"12\"/>\n",
                 y, m, d, uniform(300, 900), integer(20, 90), integer(8, 16));
    ++records_;
  }

  double uniform(double low, double high) {
    return std::uniform_real_distribution<double>(low, high)(random_);
  }
  int integer(int low, int high) { return std::uniform_int_distribution<int>(low, high)(random_); }
  std::uint64_t records() const { return records_; }

 private:
  std::FILE* out_;
  std::mt19937_64 random_;
  fs::path routes_;
  std::uint64_t records_ = 0;
};

constexpr const char* kProlog = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE HealthData [
<!-- HealthKit Export Version: 14 -->
<!ELEMENT HealthData (ExportDate,Me,(Record|Correlation|Workout|ActivitySummary|ClinicalRecord|Audiogram|VisionPrescription)*)>
<!ATTLIST HealthData
  locale CDATA #REQUIRED
>
<!ELEMENT Record ((MetadataEntry|HeartRateVariabilityMetadataList)*)>
<!ATTLIST Record
  type          CDATA #REQUIRED
  unit          CDATA #IMPLIED
  value         CDATA #IMPLIED
  sourceName    CDATA #REQUIRED
  sourceVersion CDATA #IMPLIED
  device        CDATA #IMPLIED
  creationDate  CDATA #IMPLIED
  startDate     CDATA #REQUIRED
  endDate       CDATA #REQUIRED
>
]>
<HealthData locale="en_FR">
 <ExportDate value="2026-02-12 13:58:48 +0100"/>
 <Me HKCharacteristicTypeIdentifierDateOfBirth="1990-05-20" HKCharacteristicTypeIdentifierBiologicalSex="HKBiologicalSexFemale" HKCharacteristicTypeIdentifierBloodType="HKBloodTypeNotSet" HKCharacteristicTypeIdentifierFitzpatrickSkinType="HKFitzpatrickSkinTypeNotSet" HKCharacteristicTypeIdentifierCardioFitnessMedicationsUse="None"/>
)";

constexpr const char* kMotion =
    "  <MetadataEntry key=\"HKMetadataKeyHeartRateMotionContext\" value=\"1\"/>\n";
constexpr std::array<const char*, 4> kStages = {
    "HKCategoryValueSleepAnalysisAsleepCore", "HKCategoryValueSleepAnalysisAsleepDeep",
    "HKCategoryValueSleepAnalysisAsleepREM", "HKCategoryValueSleepAnalysisAwake"};

void writeDay(Writer& w, std::int64_t day) {
  // Sleep: in bed 23:00 (previous day) to 07:00, stages inside it.
  w.category("HKCategoryTypeIdentifierSleepAnalysis", false, "HKCategoryValueSleepAnalysisInBed",
             day - 1, 23 * 3600, 31 * 3600);
  for (int at = 23 * 3600 + 600; at < 31 * 3600 - 1800;) {
    const int length = w.integer(15, 50) * 60;
    w.category("HKCategoryTypeIdentifierSleepAnalysis", true, kStages[w.integer(0, 3)], day - 1, at,
               at + length);
    at += length;
  }
  for (int at = 0; at < 7 * 3600; at += 900) {
    w.record("HKQuantityTypeIdentifierRespiratoryRate", true, "count/min", w.uniform(12, 17), day,
             at, at);
  }
  // Minute-level active energy while awake, basal every half hour.
  for (int minute = 6 * 60; minute < 23 * 60; ++minute) {
    w.record("HKQuantityTypeIdentifierActiveEnergyBurned", true, "kcal", w.uniform(0.05, 1.9), day,
             minute * 60, minute * 60 + 59);
  }
  for (int at = 0; at < 86400; at += 1800) {
    w.record("HKQuantityTypeIdentifierBasalEnergyBurned", true, "kcal", w.uniform(30, 36), day, at,
             at + 1799);
  }
  // Heart rate every 200 seconds, with motion context now and then.
  for (int at = 0; at < 86400; at += 200) {
    w.record("HKQuantityTypeIdentifierHeartRate", true, "count/min", w.integer(52, 96), day, at, at,
             at % 3600 == 0 ? kMotion : nullptr);
  }
  // Steps and distance from both devices over the same walks: the overlap real exports have.
  for (int walk = 0; walk < 36; ++walk) {
    const int at = 7 * 3600 + walk * 1500 + w.integer(0, 600);
    const double steps = w.integer(40, 900);
    for (bool watch : {false, true}) {
      w.record("HKQuantityTypeIdentifierStepCount", watch, "count", steps + (watch ? 3 : 0), day,
               at, at + 600);
      w.record("HKQuantityTypeIdentifierDistanceWalkingRunning", watch, "km", steps * 0.00071, day,
               at, at + 600);
    }
  }
  for (int hour = 8; hour < 22; ++hour) {
    w.category("HKCategoryTypeIdentifierAppleStandHour", true,
               w.integer(0, 3) == 0 ? "HKCategoryValueAppleStandHourIdle"
                                    : "HKCategoryValueAppleStandHourStood",
               day, hour * 3600, hour * 3600 + 3600);
  }
  for (int minute = 0; minute < 60; ++minute) {
    const int at = 18 * 3600 + minute * 60;
    w.record("HKQuantityTypeIdentifierAppleExerciseTime", true, "min", 1, day, at, at + 60);
  }
  // Four workouts a week, with heart rate every five seconds during them.
  if (day % 7 == 1 || day % 7 == 3 || day % 7 == 5 || day % 7 == 6) {
    const int start = 18 * 3600;
    const int minutes = w.integer(30, 50);
    for (int at = start; at < start + minutes * 60; at += 5) {
      w.record("HKQuantityTypeIdentifierHeartRate", true, "count/min", w.integer(120, 172), day, at,
               at);
    }
    w.workout(day, start, minutes, minutes * 0.17, minutes * 11.5);
  }
  if (day % 7 == 0) {
    w.record("HKQuantityTypeIdentifierBodyMass", false, "kg", w.uniform(61, 64), day, 7 * 3600,
             7 * 3600);
    w.record("HKQuantityTypeIdentifierBodyFatPercentage", false, "%", w.uniform(0.2, 0.24), day,
             7 * 3600, 7 * 3600);
  }
  if (day % 3 == 0) {
    w.category("HKCategoryTypeIdentifierMindfulSession", true, "HKCategoryValueNotApplicable", day,
               12 * 3600, 12 * 3600 + 300);
  }
  w.activitySummary(day);
}

Status writeElectrocardiogram(const fs::path& path, std::int64_t day, Writer& w) {
  File out(std::fopen(path.c_str(), "wb"));
  if (!out) {
    return Error{"Generator", errno, "cannot write " + path.string()};
  }
  DateText recorded;
  std::fprintf(
      out.get(),
      "Name,Alex\nDate of Birth,\"20 May 1990\"\nRecorded Date,%s\n"
      "Classification,Sinus Rhythm\nSymptoms,\nSoftware Version,1.90\nDevice,\"Watch6,7\"\n"
      "Sample Rate,512 hertz\n\n\nLead,Lead I\nUnit,\xC2\xB5V\n\n",
      w.date(day, 10 * 3600, recorded));
  for (int i = 0; i < 512 * 30; ++i) {
    // Comma decimals, as a comma-decimal region writes them.
    const double value = 300 * std::sin(i * 0.05) + w.uniform(-20, 20);
    std::fprintf(out.get(), "%d,%03d\n", static_cast<int>(value),
                 static_cast<int>(std::fabs(value - static_cast<int>(value)) * 1000));
  }
  return std::nullopt;
}

struct ArchiveDiscarder {
  void operator()(zip_t* archive) const { zip_discard(archive); }
};

Status zipFolder(const fs::path& folder, const fs::path& zipPath) {
  int error = 0;
  std::unique_ptr<zip_t, ArchiveDiscarder> archive(
      zip_open(zipPath.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error));
  if (!archive) {
    return Error{"Generator", error, "cannot create " + zipPath.string()};
  }
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    if (!entry.is_regular_file()) {
      continue;
    }
    const std::string name =
        (fs::path(folder.filename()) / fs::relative(entry.path(), folder)).generic_string();
    zip_source_t* source = zip_source_file(archive.get(), entry.path().c_str(), 0, -1);
    if (source == nullptr) {
      return Error{"Generator", 0, "cannot add " + name};
    }
    if (zip_file_add(archive.get(), name.c_str(), source, ZIP_FL_ENC_UTF_8) < 0) {
      zip_source_free(source);  // not taken over by the archive
      return Error{"Generator", 0, "cannot add " + name};
    }
  }
  // zip_close writes the archive and frees it on success only.
  if (zip_close(archive.get()) != 0) {
    return Error{"Generator", 0,
                 "cannot write " + zipPath.string() + ": " + zip_strerror(archive.get())};
  }
  archive.release();
  return std::nullopt;
}

}  // namespace

Result<GeneratedExport> generateExport(const fs::path& out, const GeneratorOptions& options) {
  GeneratedExport generated;
  generated.folder = out / "apple_health_export";
  generated.xml = generated.folder / "export.xml";
  std::error_code error;
  fs::create_directories(generated.folder / "electrocardiograms", error);
  fs::create_directories(generated.folder / "workout-routes", error);
  if (error) {
    return Error{"Generator", error.value(), "cannot create " + generated.folder.string()};
  }
  File xml(std::fopen(generated.xml.c_str(), "wb"));
  if (!xml) {
    return Error{"Generator", errno, "cannot write " + generated.xml.string()};
  }
  std::setvbuf(xml.get(), nullptr, _IOFBF, 1 << 20);
  Writer writer(xml.get(), options.seed, generated.folder / "workout-routes");
  std::fputs(kProlog, xml.get());
  const std::int64_t days =
      options.days > 0 ? options.days : std::int64_t{kDaysPerYear} * options.years;
  for (std::int64_t day = options.firstDay; day < options.firstDay + days; ++day) {
    writeDay(writer, day);
    if (day % 30 == 14) {
      int y = 0, m = 0, d = 0;
      civil(day, y, m, d);
      char name[64];
      std::snprintf(name, sizeof name, "ecg_%04d-%02d-%02d.csv", y, m, d);
      if (Status failed =
              writeElectrocardiogram(generated.folder / "electrocardiograms" / name, day, writer)) {
        return *failed;
      }
      ++generated.electrocardiograms;
    }
  }
  std::fputs("</HealthData>\n", xml.get());
  xml.reset();
  generated.records = writer.records();
  generated.bytes = fs::file_size(generated.xml, error);
  if (options.zip) {
    generated.zip = out / "export.zip";
    if (Status failed = zipFolder(generated.folder, generated.zip)) {
      return *failed;
    }
  }
  return generated;
}

}  // namespace kestrova::bench
