#include "platform/url_components.h"

#include <charconv>
#include <cstdint>
#include <limits>

namespace kestrova {
namespace {

constexpr std::string_view kHexDigits = "0123456789ABCDEF";
constexpr std::string_view kSubDelims = "!$&'()*+,;=";
constexpr int kMaximumPort = std::numeric_limits<std::uint16_t>::max();

bool isAlpha(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

int hexValue(char c) {
  if (isDigit(c)) {
    return c - '0';
  }
  if (c >= 'A' && c <= 'F') {
    return c - 'A' + 10;
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  return -1;
}

bool isUnreserved(char c) {
  return isAlpha(c) || isDigit(c) || c == '-' || c == '.' || c == '_' || c == '~';
}

bool isSubDelim(char c) {
  return kSubDelims.find(c) != std::string_view::npos;
}

bool beginsEscape(std::string_view text, std::size_t at) {
  return at + 2 < text.size() && text[at] == '%' && hexValue(text[at + 1]) >= 0 &&
         hexValue(text[at + 2]) >= 0;
}

// Every character is allowed in `set` or begins a valid escape.
bool isEncodedFor(std::string_view text, URLCharacterSet set) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%') {
      if (!beginsEscape(text, i)) {
        return false;
      }
      i += 2;
    } else if (!isAllowed(text[i], set)) {
      return false;
    }
  }
  return true;
}

bool isValidScheme(std::string_view scheme) {
  if (scheme.empty() || !isAlpha(scheme.front())) {
    return false;
  }
  for (char c : scheme) {
    if (!isAlpha(c) && !isDigit(c) && c != '+' && c != '-' && c != '.') {
      return false;
    }
  }
  return true;
}

// An IP literal: an IPv6 address (with an optional "%25" zone) or an IPvFuture.
bool isValidIPLiteral(std::string_view inner) {
  if (inner.empty()) {
    return false;
  }
  for (std::size_t i = 0; i < inner.size(); ++i) {
    const char c = inner[i];
    if (c == '%') {
      if (!beginsEscape(inner, i)) {
        return false;
      }
      i += 2;
    } else if (!isUnreserved(c) && !isSubDelim(c) && c != ':') {
      return false;
    }
  }
  return true;
}

std::optional<std::string> decoded(const std::optional<std::string>& encoded) {
  if (!encoded) {
    return std::nullopt;
  }
  return percentDecode(*encoded);
}

std::optional<std::string> encoded(const std::optional<std::string>& text, URLCharacterSet set) {
  if (!text) {
    return std::nullopt;
  }
  return percentEncode(*text, set);
}

// Query item names and values: the query's characters less the item delimiters.
std::string encodeQueryPart(std::string_view text, bool isName) {
  std::string out;
  for (char c : text) {
    const bool delimiter = c == '&' || (isName && c == '=');
    if (isAllowed(c, URLCharacterSet::query) && !delimiter) {
      out += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      out += '%';
      out += kHexDigits[byte >> 4];
      out += kHexDigits[byte & 0x0F];
    }
  }
  return out;
}

struct Authority {
  std::optional<std::string> user;
  std::optional<std::string> password;
  std::string host;
  std::optional<int> port;
};

std::optional<Authority> parseAuthority(std::string_view text) {
  Authority authority;
  if (const auto at = text.rfind('@'); at != std::string_view::npos) {
    const auto userInfo = text.substr(0, at);
    text.remove_prefix(at + 1);
    const auto colon = userInfo.find(':');
    const auto user = userInfo.substr(0, colon);
    if (!isEncodedFor(user, URLCharacterSet::user)) {
      return std::nullopt;
    }
    authority.user = std::string(user);
    if (colon != std::string_view::npos) {
      const auto password = userInfo.substr(colon + 1);
      if (!isEncodedFor(password, URLCharacterSet::password)) {
        return std::nullopt;
      }
      authority.password = std::string(password);
    }
  }
  std::string_view portText;
  bool hasPort = false;
  if (!text.empty() && text.front() == '[') {
    const auto close = text.find(']');
    if (close == std::string_view::npos || !isValidIPLiteral(text.substr(1, close - 1))) {
      return std::nullopt;
    }
    authority.host = std::string(text.substr(0, close + 1));
    const auto rest = text.substr(close + 1);
    if (!rest.empty()) {
      if (rest.front() != ':') {
        return std::nullopt;
      }
      hasPort = true;
      portText = rest.substr(1);
    }
  } else {
    const auto colon = text.find(':');
    const auto host = text.substr(0, colon);
    if (!isEncodedFor(host, URLCharacterSet::host)) {
      return std::nullopt;
    }
    authority.host = std::string(host);
    if (colon != std::string_view::npos) {
      hasPort = true;
      portText = text.substr(colon + 1);
    }
  }
  // "host:" names no port, as RFC 3986 allows.
  if (hasPort && !portText.empty()) {
    int port = 0;
    const auto [end, error] =
        std::from_chars(portText.data(), portText.data() + portText.size(), port);
    if (error != std::errc() || end != portText.data() + portText.size() ||
        portText.front() == '+' || portText.front() == '-' || port > kMaximumPort) {
      return std::nullopt;
    }
    authority.port = port;
  }
  return authority;
}

}  // namespace

bool isAllowed(char c, URLCharacterSet set) {
  if (isUnreserved(c) || isSubDelim(c)) {
    return true;
  }
  switch (set) {
    case URLCharacterSet::user:
    case URLCharacterSet::password:
    case URLCharacterSet::host:
      return false;
    case URLCharacterSet::pathSegment:
      return c == ':' || c == '@';
    case URLCharacterSet::path:
      return c == ':' || c == '@' || c == '/';
    case URLCharacterSet::query:
    case URLCharacterSet::fragment:
      return c == ':' || c == '@' || c == '/' || c == '?';
  }
  return false;
}

std::string percentEncode(std::string_view text, URLCharacterSet set) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    if (isAllowed(c, set)) {
      out += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      out += '%';
      out += kHexDigits[byte >> 4];
      out += kHexDigits[byte & 0x0F];
    }
  }
  return out;
}

std::string percentEncodePreservingEscapes(std::string_view text, URLCharacterSet set) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (beginsEscape(text, i)) {
      out.append(text.substr(i, 3));
      i += 2;
    } else {
      out += percentEncode(text.substr(i, 1), set);
    }
  }
  return out;
}

std::optional<std::string> percentDecode(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out += text[i];
      continue;
    }
    if (!beginsEscape(text, i)) {
      return std::nullopt;
    }
    out += static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
    i += 2;
  }
  return out;
}

std::string appendingPathComponent(std::string_view path, std::string_view component) {
  std::string joined(path);
  if (!joined.empty() && !component.empty()) {
    joined += '/';
  }
  joined += component;
  std::string out;
  out.reserve(joined.size());
  for (char c : joined) {
    if (c == '/' && !out.empty() && out.back() == '/') {
      continue;
    }
    out += c;
  }
  if (out.size() > 1 && out.back() == '/') {
    out.pop_back();
  }
  return out;
}

std::optional<URLComponents> URLComponents::parse(std::string_view text) {
  URLComponents components;
  std::string_view rest = text;

  if (const auto hash = rest.find('#'); hash != std::string_view::npos) {
    const auto fragment = rest.substr(hash + 1);
    if (!isEncodedFor(fragment, URLCharacterSet::fragment)) {
      return std::nullopt;
    }
    components.fragment_ = std::string(fragment);
    rest = rest.substr(0, hash);
  }
  if (const auto question = rest.find('?'); question != std::string_view::npos) {
    const auto query = rest.substr(question + 1);
    if (!isEncodedFor(query, URLCharacterSet::query)) {
      return std::nullopt;
    }
    components.query_ = std::string(query);
    rest = rest.substr(0, question);
  }

  // A ":" before the first "/" ends a scheme; a reference without a valid one cannot have it
  // in its first segment (RFC 3986, path-noscheme).
  const auto colon = rest.find(':');
  if (colon != std::string_view::npos && colon < rest.find('/')) {
    const auto scheme = rest.substr(0, colon);
    if (!isValidScheme(scheme)) {
      return std::nullopt;
    }
    components.scheme_ = std::string(scheme);
    rest.remove_prefix(colon + 1);
  }

  if (rest.starts_with("//")) {
    rest.remove_prefix(2);
    const auto slash = rest.find('/');
    auto authority = parseAuthority(rest.substr(0, slash));
    if (!authority) {
      return std::nullopt;
    }
    components.user_ = std::move(authority->user);
    components.password_ = std::move(authority->password);
    components.host_ = std::move(authority->host);
    components.port_ = authority->port;
    rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash);
  }
  if (!isEncodedFor(rest, URLCharacterSet::path)) {
    return std::nullopt;
  }
  components.path_ = std::string(rest);
  return components;
}

std::optional<std::string> URLComponents::user() const {
  return decoded(user_);
}

std::optional<std::string> URLComponents::password() const {
  return decoded(password_);
}

void URLComponents::setUser(const std::optional<std::string>& user) {
  user_ = encoded(user, URLCharacterSet::user);
}

void URLComponents::setPassword(const std::optional<std::string>& password) {
  password_ = encoded(password, URLCharacterSet::password);
}

std::optional<std::string> URLComponents::host() const {
  return decoded(host_);
}

std::string URLComponents::path() const {
  return percentDecode(path_).value_or(path_);
}

bool URLComponents::setPercentEncodedPath(std::string path) {
  if (!isEncodedFor(path, URLCharacterSet::path)) {
    return false;
  }
  path_ = std::move(path);
  return true;
}

std::optional<std::vector<URLQueryItem>> URLComponents::queryItems() const {
  if (!query_) {
    return std::nullopt;
  }
  std::vector<URLQueryItem> items;
  if (query_->empty()) {
    return items;
  }
  std::string_view rest = *query_;
  while (true) {
    const auto amp = rest.find('&');
    const auto item = rest.substr(0, amp);
    const auto equals = item.find('=');
    URLQueryItem parsed;
    parsed.name =
        percentDecode(item.substr(0, equals)).value_or(std::string(item.substr(0, equals)));
    if (equals != std::string_view::npos) {
      const auto value = item.substr(equals + 1);
      parsed.value = percentDecode(value).value_or(std::string(value));
    }
    items.push_back(std::move(parsed));
    if (amp == std::string_view::npos) {
      break;
    }
    rest.remove_prefix(amp + 1);
  }
  return items;
}

void URLComponents::setQueryItems(const std::optional<std::vector<URLQueryItem>>& items) {
  if (!items) {
    query_.reset();
    return;
  }
  std::string query;
  for (const auto& item : *items) {
    if (&item != &items->front()) {
      query += '&';
    }
    query += encodeQueryPart(item.name, /*isName=*/true);
    if (item.value) {
      query += '=';
      query += encodeQueryPart(*item.value, /*isName=*/false);
    }
  }
  query_ = std::move(query);
}

std::optional<std::string> URLComponents::fragment() const {
  return decoded(fragment_);
}

void URLComponents::setFragment(const std::optional<std::string>& fragment) {
  fragment_ = encoded(fragment, URLCharacterSet::fragment);
}

std::optional<std::string> URLComponents::url() const {
  if (hasAuthority() && !path_.empty() && path_.front() != '/') {
    return std::nullopt;
  }
  if (!hasAuthority() && path_.starts_with("//")) {
    return std::nullopt;
  }
  std::string out;
  if (scheme_) {
    out += *scheme_;
    out += ':';
  }
  if (hasAuthority()) {
    out += "//";
    if (user_ || password_) {
      out += user_.value_or("");
      if (password_) {
        out += ':';
        out += *password_;
      }
      out += '@';
    }
    out += host_.value_or("");
    if (port_) {
      out += ':';
      out += std::to_string(*port_);
    }
  }
  out += path_;
  if (query_) {
    out += '?';
    out += *query_;
  }
  if (fragment_) {
    out += '#';
    out += *fragment_;
  }
  // The platform makes no URL of an empty text.
  if (out.empty()) {
    return std::nullopt;
  }
  return out;
}

}  // namespace kestrova
