#include "healthstore/import/gpx_route.h"

#include <expat.h>

#include <limits>
#include <memory>
#include <optional>
#include <string>

#include "healthstore/import/export_source.h"
#include "healthstore/import/export_values.h"
#include "healthstore/import/export_vocabulary.h"
#include "platform/log.h"

namespace kestrova {
namespace {

using namespace exportxml;

constexpr std::string_view kNotWellFormed = "%@ is not well-formed: %@ at line %@";
constexpr std::string_view kBadPoint = "%@ has a point without a position or time at line %@";

constexpr double kAbsent = std::numeric_limits<double>::quiet_NaN();

struct ParserDeleter {
  void operator()(XML_ParserStruct* parser) const { XML_ParserFree(parser); }
};

// One parse; its state belongs to the calling thread.
class GpxReader {
 public:
  static void XMLCALL onStart(void* self, const XML_Char* name, const XML_Char** attributes) {
    static_cast<GpxReader*>(self)->start(name, attributes);
  }
  static void XMLCALL onEnd(void* self, const XML_Char* name) {
    static_cast<GpxReader*>(self)->end(name);
  }
  static void XMLCALL onText(void* self, const XML_Char* text, int length) {
    auto* reader = static_cast<GpxReader*>(self);
    if (reader->inPoint_) {
      reader->text_.append(text, static_cast<std::size_t>(length));
    }
  }

  void start(std::string_view name, const XML_Char** attributes) {
    text_.clear();
    if (name != kGpxPoint) {
      return;
    }
    inPoint_ = true;
    point_ = RouteLocation{kAbsent, kAbsent, kAbsent, kAbsent, kAbsent, kAbsent, kAbsent, kAbsent};
    for (const XML_Char** at = attributes; *at != nullptr; at += 2) {
      const std::string_view key = at[0];
      if (key == kGpxLatitude) {
        point_.latitude = parseNumber(at[1]).value_or(kAbsent);
      } else if (key == kGpxLongitude) {
        point_.longitude = parseNumber(at[1]).value_or(kAbsent);
      }
    }
  }

  void end(std::string_view name) {
    if (!inPoint_) {
      return;
    }
    if (name == kGpxPoint) {
      inPoint_ = false;
      if (point_.latitude != point_.latitude || point_.longitude != point_.longitude ||
          point_.time != point_.time) {
        badLine_ = badLine_ ? badLine_ : line();
      }
      points.push_back(point_);
      return;
    }
    const std::optional<double> number = parseNumber(text_);
    if (name == kGpxTime) {
      point_.time = parseUtcTimestamp(text_).value_or(kAbsent);
    } else if (name == kGpxElevation) {
      point_.altitude = number.value_or(kAbsent);
    } else if (name == kGpxSpeed) {
      point_.speed = number.value_or(kAbsent);
    } else if (name == kGpxCourse) {
      point_.course = number.value_or(kAbsent);
    } else if (name == kGpxHorizontalAccuracy) {
      point_.horizontalAccuracy = number.value_or(kAbsent);
    } else if (name == kGpxVerticalAccuracy) {
      point_.verticalAccuracy = number.value_or(kAbsent);
    }
    text_.clear();
  }

  std::uint64_t line() const { return XML_GetCurrentLineNumber(parser.get()); }

  std::unique_ptr<XML_ParserStruct, ParserDeleter> parser{XML_ParserCreate(nullptr)};
  std::vector<RouteLocation> points;
  std::uint64_t badLine_ = 0;

 private:
  bool inPoint_ = false;
  RouteLocation point_;
  std::string text_;
};

}  // namespace

Result<std::vector<RouteLocation>> parseGpxRoute(std::string_view text, std::string_view fileName) {
  GpxReader reader;
  if (!reader.parser) {
    return importError(kImportErrorInternal, "Out of memory");
  }
  XML_SetUserData(reader.parser.get(), &reader);
  XML_SetElementHandler(reader.parser.get(), &GpxReader::onStart, &GpxReader::onEnd);
  XML_SetCharacterDataHandler(reader.parser.get(), &GpxReader::onText);
  // Route files have no DTD; should one come, nothing external is ever loaded.
  XML_SetParamEntityParsing(reader.parser.get(), XML_PARAM_ENTITY_PARSING_NEVER);
  if (text.size() > static_cast<std::size_t>(std::numeric_limits<int>::max()) ||
      XML_Parse(reader.parser.get(), text.data(), static_cast<int>(text.size()), XML_TRUE) !=
          XML_STATUS_OK) {
    return importError(
        kImportErrorMalformed,
        logging::format(
            kNotWellFormed,
            {std::string(fileName), XML_ErrorString(XML_GetErrorCode(reader.parser.get())),
             std::to_string(XML_GetErrorLineNumber(reader.parser.get()))}));
  }
  if (reader.badLine_ != 0) {
    return importError(
        kImportErrorMalformed,
        logging::format(kBadPoint, {std::string(fileName), std::to_string(reader.badLine_)}));
  }
  return std::move(reader.points);
}

}  // namespace kestrova
