// Error values and results of platform calls. The domain and code of the system underneath
// (errno, SQLite, curl, keychain status) are kept intact so that they reach the logs.
// Plain values: no shared state.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace kestrova {

// Raw bytes as read from or written to files, stores and the network.
using Bytes = std::vector<std::uint8_t>;

inline Bytes toBytes(std::string_view text) {
  return Bytes(text.begin(), text.end());
}
inline std::string toString(const Bytes& bytes) {
  return std::string(bytes.begin(), bytes.end());
}

struct Error {
  std::string domain;
  std::int64_t code = 0;
  std::string description;

  // "<domain> <code>: <description>", the form in which errors appear in log lines.
  std::string text() const;
};

// Success, or the error that prevented it.
using Status = std::optional<Error>;

template <class T>
class Result {
 public:
  Result(T value) : value_(std::move(value)) {}      // NOLINT(google-explicit-constructor)
  Result(Error error) : value_(std::move(error)) {}  // NOLINT(google-explicit-constructor)

  bool ok() const { return std::holds_alternative<T>(value_); }
  explicit operator bool() const { return ok(); }

  const T& value() const& { return std::get<T>(value_); }
  T& value() & { return std::get<T>(value_); }
  T&& value() && { return std::get<T>(std::move(value_)); }
  const T& operator*() const& { return value(); }
  const T* operator->() const { return &value(); }

  const Error& error() const { return std::get<Error>(value_); }

 private:
  std::variant<T, Error> value_;
};

}  // namespace kestrova
