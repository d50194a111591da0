// Streams the main document of an export through expat and hands every top-level element over
// as a sample or as the reason it was skipped. The inline DOCTYPE is cut out as raw text before
// expat sees it (the one of iOS 16.0/16.1 is not well-formed), so no entity is ever declared or
// loaded; stray C0 control characters are dropped. Memory does not grow with the file. One
// reader runs on the calling thread; its sink is called on that thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "healthstore/import/export_source.h"
#include "healthstore/import/record_mapper.h"
#include "platform/result.h"

namespace kestrova {

struct TextPosition {
  std::uint64_t line = 0;
  std::uint64_t column = 0;
};

// The kind under which elements kept as written are counted.
inline constexpr std::string_view kKeptAsWritten = "kept as written";

class ExportReaderSink {
 public:
  virtual ~ExportReaderSink() = default;
  // Where the reader adds the rows of each element it reads.
  virtual ImportBatch& batch() = 0;
  // An element was read and its rows added: `kind` is its name ("Record", "Workout"...) or
  // kKeptAsWritten.
  virtual void kept(std::string_view kind) = 0;
  // `count` parts of the element just kept (workout events, routes, beat lists) were added.
  virtual void part(std::string_view kind, std::size_t count) = 0;
  // `line`: where the skipped element starts.
  virtual void skipped(const Skip& skip, std::uint64_t line) = 0;
  // Called after each buffer; returning false stops reading (the store failed).
  virtual bool afterBuffer(std::uint64_t storedBytesRead) = 0;
};

struct ReadFailure {
  Error error;
  // Where reading stopped in the main document; none when it never started.
  std::optional<TextPosition> position;
};

struct ReadOutcome {
  std::optional<ReadFailure> failure;
  // The ExportDate element's value, as written.
  std::string exportDate;
  std::string locale;
};

// Reads `input` to its end, or to the first error. Never throws.
ReadOutcome readExport(InputStream& input, ExportReaderSink& sink);

// Cuts the DOCTYPE out of the head of a document, keeping its line breaks so that line numbers
// stay those of the file. `head` must reach past the start of the root element.
void removeDoctype(std::string& head);
// Drops C0 control characters other than tab, line feed and carriage return, in place; returns
// the new size.
std::size_t removeControlCharacters(char* data, std::size_t size);

}  // namespace kestrova
