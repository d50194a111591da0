#include "healthstore/import/export_reader.h"

#include <expat.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <vector>

#include "healthstore/import/export_vocabulary.h"
#include "healthstore/sample_codec.h"
#include "platform/log.h"

namespace kestrova {
namespace {

using namespace exportxml;

// Large enough that expat's per-call overhead vanishes, small enough to stay in cache.
constexpr std::size_t kBufferSize = 256 * 1024;
// The DOCTYPE of every export version is a few kilobytes; a root further away is not an export.
constexpr std::size_t kHeadLimit = 4 * 1024 * 1024;

constexpr std::string_view kMissingRoot = "The document has no HealthData element near its start";
constexpr std::string_view kWrongRoot = "The document element is not HealthData";
constexpr std::string_view kOutOfMemory = "Out of memory while reading the export";
constexpr std::string_view kLocale = "locale";
constexpr std::string_view kNotWellFormed =
    "The export is not well-formed: %@ at line %@, column %@";

struct ParserDeleter {
  void operator()(XML_ParserStruct* parser) const { XML_ParserFree(parser); }
};
using ParserHandle = std::unique_ptr<XML_ParserStruct, ParserDeleter>;

// What an open element is to the reader.
enum class Role : std::uint8_t {
  root,
  record,
  workout,
  workoutActivity,
  workoutEvent,
  workoutRoute,
  beatList,
  correlation,
  captured,
  ignored,
};

// Elements kept whole are held in memory until they end; real ones (clinical records,
// audiograms) have tens of children. Anything far larger is not kept.
constexpr std::size_t kCaptureLimit = 100000;

using Json = nlohmann::ordered_json;

// One pass over one document; all of its state is owned by the reading thread.
class Reader {
 public:
  Reader(InputStream& input, ExportReaderSink& sink) : input_(input), sink_(sink) {
    roles_.reserve(16);
  }

  ReadOutcome run();

 private:
  static void XMLCALL onStart(void* self, const XML_Char* name, const XML_Char** attributes) {
    static_cast<Reader*>(self)->guarded([&](Reader& reader) { reader.start(name, attributes); });
  }
  static void XMLCALL onEnd(void* self, const XML_Char* name) {
    static_cast<Reader*>(self)->guarded([&](Reader& reader) { reader.end(name); });
  }

  // No exception may cross expat's C frames.
  template <class F>
  void guarded(F&& work) {
    try {
      work(*this);
    } catch (const std::bad_alloc&) {
      stop(importError(kImportErrorInternal, std::string(kOutOfMemory)));
    } catch (const std::exception& exception) {
      stop(importError(kImportErrorInternal, exception.what()));
    }
  }

  void stop(Error error) {
    if (!callbackFailure_) {
      callbackFailure_ = std::move(error);
      XML_StopParser(parser_.get(), XML_FALSE);
    }
  }

  void start(std::string_view name, const XML_Char** attributes);
  void startChild(std::string_view name, const XML_Char** attributes, Role parent);
  void end(std::string_view name);
  void startTopLevel(std::string_view name, const XML_Char** attributes);
  void startRecord(const XML_Char** attributes);
  void startCapture(std::string_view name, const XML_Char** attributes);
  void readObject(ExportedObject& object, std::string_view key, const char* value);
  void skipElement(std::string_view name) {
    sink_.skipped(Skip{SkipReason::unsupportedElement, std::string(name)}, line());
  }
  // Adds what a mapping made to the sink's batch; the sample's identity when it made one.
  std::optional<Uuid> deliver(MappedSample mapped, std::string_view kind, std::uint64_t line);
  void deliverParts(MappedParts& parts);
  std::uint64_t line() const { return XML_GetCurrentLineNumber(parser_.get()); }
  TextPosition position() const {
    return TextPosition{XML_GetCurrentLineNumber(parser_.get()),
                        XML_GetCurrentColumnNumber(parser_.get())};
  }
  ReadFailure parserFailure() const;

  InputStream& input_;
  ExportReaderSink& sink_;
  ParserHandle parser_;
  std::vector<Role> roles_;
  RecordMapper mapper_;
  ExportedRecord record_;
  ExportedWorkout workout_;
  ExportedCorrelation correlation_;
  std::uint64_t itemLine_ = 0;
  std::uint64_t recordLine_ = 0;
  // The element being kept whole: its open elements, outermost first.
  std::vector<Json> captured_;
  std::size_t capturedNodes_ = 0;
  std::optional<Error> callbackFailure_;
  ReadOutcome outcome_;
};

void Reader::readObject(ExportedObject& object, std::string_view key, const char* value) {
  if (key == kSourceName) {
    object.sourceName.assign(value);
    object.hasSourceName = true;
  } else if (key == kSourceVersion) {
    object.sourceVersion.assign(value);
    object.hasSourceVersion = true;
  } else if (key == kDevice) {
    object.device.assign(value);
  } else if (key == kStartDate) {
    object.startDate.assign(value);
    object.hasStartDate = true;
  } else if (key == kEndDate) {
    object.endDate.assign(value);
    object.hasEndDate = true;
  }
}

void Reader::startRecord(const XML_Char** attributes) {
  recordLine_ = line();
  record_.clear();
  record_.hasUnit = record_.hasValue = record_.hasBeatList = false;
  record_.beatCount = 0;
  record_.type.clear();
  for (const XML_Char** at = attributes; *at != nullptr; at += 2) {
    const std::string_view key = at[0];
    if (key == kType) {
      record_.type.assign(at[1]);
    } else if (key == kValue) {
      record_.value.assign(at[1]);
      record_.hasValue = true;
    } else if (key == kUnit) {
      record_.unit.assign(at[1]);
      record_.hasUnit = true;
    } else {
      readObject(record_, key, at[1]);
    }
  }
  roles_.push_back(Role::record);
}

void Reader::startCapture(std::string_view name, const XML_Char** attributes) {
  Json node = Json::object();
  node[kJsonName] = name;
  Json& attributesJson = node[kJsonAttributes] = Json::object();
  for (const XML_Char** at = attributes; *at != nullptr; at += 2) {
    attributesJson[at[0]] = at[1];
  }
  captured_.push_back(std::move(node));
  ++capturedNodes_;
  roles_.push_back(Role::captured);
}

void Reader::startTopLevel(std::string_view name, const XML_Char** attributes) {
  itemLine_ = line();
  if (name == kRecord) {
    startRecord(attributes);
  } else if (name == kWorkout) {
    workout_.clear();
    for (std::string* field : {&workout_.activityType, &workout_.duration, &workout_.durationUnit,
                               &workout_.totalDistance, &workout_.totalDistanceUnit,
                               &workout_.totalEnergyBurned, &workout_.totalEnergyBurnedUnit}) {
      field->clear();
    }
    workout_.statistics.clear();
    workout_.activityStatistics.clear();
    workout_.events.clear();
    workout_.routes.clear();
    for (const XML_Char** at = attributes; *at != nullptr; at += 2) {
      const std::string_view key = at[0];
      if (key == kWorkoutActivityType) {
        workout_.activityType.assign(at[1]);
      } else if (key == kDuration) {
        workout_.duration.assign(at[1]);
      } else if (key == kDurationUnit) {
        workout_.durationUnit.assign(at[1]);
      } else if (key == kTotalDistance) {
        workout_.totalDistance.assign(at[1]);
      } else if (key == kTotalDistanceUnit) {
        workout_.totalDistanceUnit.assign(at[1]);
      } else if (key == kTotalEnergyBurned) {
        workout_.totalEnergyBurned.assign(at[1]);
      } else if (key == kTotalEnergyBurnedUnit) {
        workout_.totalEnergyBurnedUnit.assign(at[1]);
      } else {
        readObject(workout_, key, at[1]);
      }
    }
    roles_.push_back(Role::workout);
  } else if (name == kCorrelation) {
    correlation_.clear();
    correlation_.type.clear();
    correlation_.members.clear();
    for (const XML_Char** at = attributes; *at != nullptr; at += 2) {
      if (std::string_view(at[0]) == kType) {
        correlation_.type.assign(at[1]);
      } else {
        readObject(correlation_, at[0], at[1]);
      }
    }
    roles_.push_back(Role::correlation);
  } else if (name == kActivitySummary) {
    std::vector<std::pair<std::string, std::string>> fields;
    for (const XML_Char** at = attributes; *at != nullptr; at += 2) {
      fields.emplace_back(at[0], at[1]);
    }
    auto mapped = mapper_.mapActivitySummary(fields);
    if (ActivitySummaryRow* summary = std::get_if<ActivitySummaryRow>(&mapped)) {
      sink_.batch().activitySummaries.push_back(std::move(*summary));
      sink_.kept(kActivitySummary);
    } else {
      sink_.skipped(std::get<Skip>(mapped), itemLine_);
    }
    roles_.push_back(Role::ignored);
  } else if (name == kExportDate) {
    for (const XML_Char** at = attributes; *at != nullptr; at += 2) {
      if (std::string_view(at[0]) == kValue) {
        outcome_.exportDate = at[1];
      }
    }
    roles_.push_back(Role::ignored);
  } else {
    // Me, clinical records, audiograms, vision prescriptions and elements newer than this
    // reader: the store has no table for them, so they are kept as written.
    capturedNodes_ = 0;
    startCapture(name, attributes);
  }
}

void Reader::start(std::string_view name, const XML_Char** attributes) {
  if (roles_.empty()) {
    if (name != kHealthData) {
      stop(importError(kImportErrorNotAnExport, std::string(kWrongRoot)));
      return;
    }
    for (const XML_Char** at = attributes; *at != nullptr; at += 2) {
      if (std::string_view(at[0]) == kLocale) {
        outcome_.locale = at[1];
      }
    }
    roles_.push_back(Role::root);
    return;
  }
  const Role parent = roles_.back();
  if (parent == Role::root) {
    startTopLevel(name, attributes);
    return;
  }
  startChild(name, attributes, parent);
}

void Reader::startChild(std::string_view name, const XML_Char** attributes, Role parent) {
  const auto attribute = [&](std::string_view wanted) -> std::string_view {
    for (const XML_Char** at = attributes; *at != nullptr; at += 2) {
      if (wanted == at[0]) {
        return at[1];
      }
    }
    return {};
  };
  if (parent == Role::captured) {
    if (capturedNodes_ >= kCaptureLimit) {
      roles_.push_back(Role::ignored);
      return;
    }
    startCapture(name, attributes);
    return;
  }
  if (name == kMetadataEntry) {
    switch (parent) {
      case Role::record:
        record_.addMetadata(attribute(kKey), attribute(kValue));
        break;
      case Role::workout:
        workout_.addMetadata(attribute(kKey), attribute(kValue));
        break;
      case Role::correlation:
        correlation_.addMetadata(attribute(kKey), attribute(kValue));
        break;
      case Role::workoutEvent:
        workout_.events.back().metadata.emplace_back(attribute(kKey), attribute(kValue));
        break;
      case Role::workoutRoute:
        workout_.routes.back().addMetadata(attribute(kKey), attribute(kValue));
        break;
      default:
        // The metadata of a workout activity: the workout's own says the same.
        break;
    }
  } else if (name == kWorkoutStatistics &&
             (parent == Role::workout || parent == Role::workoutActivity)) {
    auto& into = parent == Role::workout ? workout_.statistics : workout_.activityStatistics;
    into.push_back(ExportedStatistic{std::string(attribute(kType)), std::string(attribute(kSum)),
                                     std::string(attribute(kUnit))});
  } else if (name == kWorkoutActivity && parent == Role::workout) {
    roles_.push_back(Role::workoutActivity);
    return;
  } else if (name == kWorkoutEvent &&
             (parent == Role::workout || parent == Role::workoutActivity)) {
    workout_.events.push_back(ExportedWorkoutEvent{std::string(attribute(kType)),
                                                   std::string(attribute(kDate)),
                                                   std::string(attribute(kDuration)),
                                                   std::string(attribute(kDurationUnit)),
                                                   {}});
    roles_.push_back(Role::workoutEvent);
    return;
  } else if (name == kWorkoutRoute && parent == Role::workout) {
    ExportedRoute& route = workout_.routes.emplace_back();
    for (const XML_Char** at = attributes; *at != nullptr; at += 2) {
      readObject(route, at[0], at[1]);
    }
    roles_.push_back(Role::workoutRoute);
    return;
  } else if (name == kLocation && parent == Role::workoutRoute) {
    const std::optional<Date> date = parseExportDate(attribute(kDate));
    const auto number = [&](std::string_view key) {
      return parseNumber(attribute(key)).value_or(std::numeric_limits<double>::quiet_NaN());
    };
    if (date) {
      workout_.routes.back().locations.push_back(
          RouteLocation{static_cast<double>(storedTime(*date)) / 1e6, number(kLatitude),
                        number(kLongitude), number(kAltitude), number(kHorizontalAccuracy),
                        number(kVerticalAccuracy), number(kCourse), number(kSpeed)});
    }
  } else if (name == kFileReference && parent == Role::workoutRoute) {
    workout_.routes.back().filePath.assign(attribute(kPath));
  } else if (name == kHeartRateVariabilityList && parent == Role::record) {
    record_.hasBeatList = true;
    roles_.push_back(Role::beatList);
    return;
  } else if (name == kInstantaneousBeats && parent == Role::beatList) {
    if (record_.beatCount == record_.beats.size()) {
      record_.beats.emplace_back();
    }
    record_.beats[record_.beatCount].bpm.assign(attribute(kBeatsPerMinute));
    record_.beats[record_.beatCount].time.assign(attribute(kTime));
    ++record_.beatCount;
  } else if (name == kRecord && parent == Role::correlation) {
    startRecord(attributes);
    return;
  } else if (parent == Role::record || parent == Role::workout) {
    // A child no export version has been seen to write.
    skipElement(name);
  }
  roles_.push_back(Role::ignored);
}

void Reader::end(std::string_view) {
  // A root that is not an export stops the parse without a role, and expat still reports the
  // end of that element when it is empty.
  if (roles_.empty()) {
    return;
  }
  const Role role = roles_.back();
  roles_.pop_back();
  const bool topLevel = !roles_.empty() && roles_.back() == Role::root;
  switch (role) {
    case Role::record: {
      MappedParts parts;
      const std::optional<Uuid> made =
          deliver(mapper_.mapRecord(record_, &parts), kRecord, topLevel ? itemLine_ : recordLine_);
      deliverParts(parts);
      if (made && !topLevel) {
        correlation_.members.push_back(*made);
      }
      break;
    }
    case Role::workout: {
      MappedParts parts;
      if (deliver(mapper_.mapWorkout(workout_, parts), kWorkout, itemLine_)) {
        deliverParts(parts);
      }
      break;
    }
    case Role::correlation: {
      if (const std::optional<Uuid> made =
              deliver(mapper_.mapCorrelation(correlation_), kCorrelation, itemLine_)) {
        for (const Uuid& member : correlation_.members) {
          sink_.batch().correlationLinks.push_back(CorrelationLink{*made, member});
        }
      }
      break;
    }
    case Role::captured: {
      Json node = std::move(captured_.back());
      captured_.pop_back();
      if (!captured_.empty()) {
        captured_.back()[kJsonChildren].push_back(std::move(node));
        break;
      }
      const std::string name = node[kJsonName].get<std::string>();
      if (capturedNodes_ >= kCaptureLimit) {
        sink_.skipped(Skip{SkipReason::tooLarge, name}, itemLine_);
        break;
      }
      deliver(keptElement(name, node.dump(-1, ' ', false, Json::error_handler_t::replace)), name,
              itemLine_);
      break;
    }
    default:
      break;
  }
}

std::optional<Uuid> Reader::deliver(MappedSample mapped, std::string_view kind,
                                    std::uint64_t line) {
  if (SampleRow* sample = std::get_if<SampleRow>(&mapped)) {
    const Uuid uuid = sample->uuid;
    sink_.batch().samples.push_back(std::move(*sample));
    sink_.kept(kind);
    return uuid;
  }
  if (KeptElementRow* element = std::get_if<KeptElementRow>(&mapped)) {
    sink_.batch().keptElements.push_back(std::move(*element));
    sink_.kept(kKeptAsWritten);
    return std::nullopt;
  }
  sink_.skipped(std::get<Skip>(mapped), line);
  return std::nullopt;
}

void Reader::deliverParts(MappedParts& parts) {
  ImportBatch& batch = sink_.batch();
  if (!parts.events.empty()) {
    sink_.part(kWorkoutEvent, parts.events.size());
    std::move(parts.events.begin(), parts.events.end(), std::back_inserter(batch.workoutEvents));
  }
  if (!parts.routes.empty()) {
    sink_.part(kWorkoutRoute, parts.routes.size());
    std::move(parts.routes.begin(), parts.routes.end(), std::back_inserter(batch.workoutRoutes));
  }
  if (parts.beats) {
    sink_.part(kHeartRateVariabilityList, 1);
    batch.beatSeries.push_back(std::move(*parts.beats));
  }
}

ReadFailure Reader::parserFailure() const {
  if (callbackFailure_) {
    return ReadFailure{*callbackFailure_, position()};
  }
  const XML_Error code = XML_GetErrorCode(parser_.get());
  TextPosition at{XML_GetErrorLineNumber(parser_.get()), XML_GetErrorColumnNumber(parser_.get())};
  return ReadFailure{
      importError(kImportErrorMalformed,
                  logging::format(kNotWellFormed, {XML_ErrorString(code), std::to_string(at.line),
                                                   std::to_string(at.column)})),
      at};
}

ReadOutcome Reader::run() {
  parser_.reset(XML_ParserCreate(nullptr));
  if (!parser_) {
    outcome_.failure =
        ReadFailure{importError(kImportErrorInternal, std::string(kOutOfMemory)), std::nullopt};
    return outcome_;
  }
  XML_SetUserData(parser_.get(), this);
  XML_SetElementHandler(parser_.get(), &Reader::onStart, &Reader::onEnd);
  // No DTD reaches the parser; should one remain, its external parts are never loaded.
  XML_SetParamEntityParsing(parser_.get(), XML_PARAM_ENTITY_PARSING_NEVER);

  const auto readFailure = [&](const Error& error) {
    outcome_.failure = ReadFailure{error, position()};
    return outcome_;
  };

  // The head, up to the root element, is edited as text before expat sees it.
  std::string head;
  bool finished = false;
  while (head.find(kRootMarker) == std::string::npos) {
    if (head.size() > kHeadLimit) {
      return readFailure(importError(kImportErrorNotAnExport, std::string(kMissingRoot)));
    }
    const std::size_t used = head.size();
    head.resize(used + kBufferSize);
    Result<std::size_t> count = input_.read(head.data() + used, kBufferSize);
    if (!count) {
      return readFailure(count.error());
    }
    head.resize(used + count.value());
    if (count.value() == 0) {
      finished = true;
      break;
    }
  }
  if (head.find(kRootMarker) == std::string::npos) {
    // Without the root, the DOCTYPE cannot be cut out, and expat must never read one.
    return readFailure(importError(kImportErrorNotAnExport, std::string(kMissingRoot)));
  }
  removeDoctype(head);
  head.resize(removeControlCharacters(head.data(), head.size()));
  if (XML_Parse(parser_.get(), head.data(), static_cast<int>(head.size()),
                finished ? XML_TRUE : XML_FALSE) != XML_STATUS_OK) {
    outcome_.failure = parserFailure();
    return outcome_;
  }
  head = std::string();
  if (!sink_.afterBuffer(input_.storedBytesRead())) {
    return outcome_;
  }

  while (!finished) {
    void* buffer = XML_GetBuffer(parser_.get(), static_cast<int>(kBufferSize));
    if (buffer == nullptr) {
      return readFailure(importError(kImportErrorInternal, std::string(kOutOfMemory)));
    }
    Result<std::size_t> count = input_.read(static_cast<char*>(buffer), kBufferSize);
    if (!count) {
      return readFailure(count.error());
    }
    finished = count.value() == 0;
    const std::size_t kept = removeControlCharacters(static_cast<char*>(buffer), count.value());
    if (XML_ParseBuffer(parser_.get(), static_cast<int>(kept), finished ? XML_TRUE : XML_FALSE) !=
        XML_STATUS_OK) {
      outcome_.failure = parserFailure();
      return outcome_;
    }
    if (!sink_.afterBuffer(input_.storedBytesRead())) {
      return outcome_;
    }
  }
  return outcome_;
}

}  // namespace

void removeDoctype(std::string& head) {
  const std::size_t root = head.find(kRootMarker);
  const std::size_t doctype = head.find(kDoctypeStart);
  if (root == std::string::npos || doctype == std::string::npos || doctype > root) {
    return;
  }
  // Everything up to the root goes, whatever is wrong inside it, except the line breaks.
  const std::size_t lineBreaks = static_cast<std::size_t>(std::count(
      head.begin() + static_cast<long>(doctype), head.begin() + static_cast<long>(root), '\n'));
  head.replace(doctype, root - doctype, lineBreaks, '\n');
}

std::size_t removeControlCharacters(char* data, std::size_t size) {
  const auto isStray = [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 && byte != '\t' && byte != '\n' && byte != '\r';
  };
  // Eight bytes at a time: a word without a byte below 0x20 (most of them: a line break comes
  // every few hundred bytes) holds nothing to drop.
  constexpr std::uint64_t kOnes = 0x0101010101010101;
  constexpr std::uint64_t kHighBits = 0x8080808080808080;
  std::size_t at = 0;
  for (; at + 8 <= size; at += 8) {
    std::uint64_t word = 0;
    std::memcpy(&word, data + at, 8);
    if (((word - kOnes * 0x20) & ~word & kHighBits) != 0 &&
        std::any_of(data + at, data + at + 8, isStray)) {
      break;
    }
  }
  char* const end = data + size;
  char* first = std::find_if(data + at, end, isStray);
  if (first == end) {
    return size;
  }
  return static_cast<std::size_t>(std::remove_if(first, end, isStray) - data);
}

ReadOutcome readExport(InputStream& input, ExportReaderSink& sink) {
  try {
    Reader reader(input, sink);
    return reader.run();
  } catch (const std::exception& exception) {
    ReadOutcome outcome;
    outcome.failure =
        ReadFailure{importError(kImportErrorInternal, exception.what()), std::nullopt};
    return outcome;
  }
}

}  // namespace kestrova
