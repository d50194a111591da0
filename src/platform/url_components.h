// URL components, as the platform's URLComponents: an RFC 3986 URL reference split into scheme,
// user, password, host, port, path, query and fragment, kept percent-encoded.
// A plain value with no shared state; copy it between threads freely.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrova {

struct URLQueryItem {
  std::string name;
  // None for an item written without "=", such as "flag" in "?flag&a=b".
  std::optional<std::string> value;

  friend bool operator==(const URLQueryItem&, const URLQueryItem&) = default;
};

// Which characters a component may carry without percent-encoding, after RFC 3986.
enum class URLCharacterSet {
  user,         // unreserved, sub-delims
  password,     // unreserved, sub-delims
  host,         // unreserved, sub-delims
  path,         // unreserved, sub-delims, ":", "@", "/"
  pathSegment,  // unreserved, sub-delims, ":", "@": what one segment may carry
  query,        // unreserved, sub-delims, ":", "@", "/", "?"
  fragment,     // the same as query
};

bool isAllowed(char c, URLCharacterSet set);
// Encodes every byte outside `set` as "%XX" (upper-case hex), "%" included.
std::string percentEncode(std::string_view text, URLCharacterSet set);
// As percentEncode, but a "%" that already begins a valid escape stays as it is, so a part that
// was encoded on its own (a path segment holding "/") survives being put into a larger text.
std::string percentEncodePreservingEscapes(std::string_view text, URLCharacterSet set);
// None when a "%" is not followed by two hexadecimal digits.
std::optional<std::string> percentDecode(std::string_view text);

// The file-system path operation: one "/" between the two, runs of "/" collapsed, and no
// trailing "/" except for the root itself. Appending "" only normalises.
std::string appendingPathComponent(std::string_view path, std::string_view component);

class URLComponents {
 public:
  URLComponents() = default;

  // None when the text is not a URL reference: a character no component may carry (space,
  // quote, non-ASCII, ...), a malformed escape, a port that is not a number, or a first path
  // segment with ":" in a reference without scheme. An absolute URL ("https://h:8080/api/"),
  // a scheme-only one ("http:"), an empty authority ("http://") and a bare path ("api/v1")
  // all parse; only the parts present are set.
  static std::optional<URLComponents> parse(std::string_view text);

  const std::optional<std::string>& scheme() const { return scheme_; }

  std::optional<std::string> user() const;
  std::optional<std::string> password() const;
  void setUser(const std::optional<std::string>& user);
  void setPassword(const std::optional<std::string>& password);

  // Present, possibly empty, whenever the text had an authority ("//").
  std::optional<std::string> host() const;
  const std::optional<std::string>& percentEncodedHost() const { return host_; }

  const std::optional<int>& port() const { return port_; }

  std::string path() const;
  const std::string& percentEncodedPath() const { return path_; }
  // False (and nothing changed) when `path` carries a character a path may not carry or a
  // malformed escape.
  bool setPercentEncodedPath(std::string path);

  // Split on "&", each item at its first "="; an empty query gives an empty list.
  std::optional<std::vector<URLQueryItem>> queryItems() const;
  // Names and values are encoded for the query; "&" in both and "=" in names are encoded too,
  // "+" is kept as the platform keeps it. An empty list gives an empty query, none removes it.
  void setQueryItems(const std::optional<std::vector<URLQueryItem>>& items);
  const std::optional<std::string>& percentEncodedQuery() const { return query_; }

  std::optional<std::string> fragment() const;
  void setFragment(const std::optional<std::string>& fragment);

  // The URL text; none when the parts do not form one: a path not starting with "/" after an
  // authority, a path starting with "//" without one, or nothing at all.
  std::optional<std::string> url() const;

  friend bool operator==(const URLComponents&, const URLComponents&) = default;

 private:
  bool hasAuthority() const { return user_ || password_ || host_ || port_; }

  std::optional<std::string> scheme_;
  std::optional<std::string> user_;      // percent-encoded
  std::optional<std::string> password_;  // percent-encoded
  std::optional<std::string> host_;      // percent-encoded
  std::optional<int> port_;
  std::string path_;                     // percent-encoded
  std::optional<std::string> query_;     // percent-encoded
  std::optional<std::string> fragment_;  // percent-encoded
};

}  // namespace kestrova
