#include "Url.h"

#include <strings.h>

#include <algorithm>

#include "Commands.h"
#include "Secrets.h"

namespace {

constexpr std::string_view kSchemeEnd = "://";

int DigitOf(char character) {
  if (character >= '0' && character <= '9') return character - '0';
  const char lower = static_cast<char>(character | 0x20);
  return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

// Where the colon stands that separates host and port, those of an IPv6 address left aside.
size_t PortStart(const std::string& hostAndPort) {
  const size_t bracket = hostAndPort.rfind(']');
  return hostAndPort.find(':', bracket == std::string::npos ? 0 : bracket);
}

}  // namespace

Url Url::Parse(const std::string& text) {
  Url url;
  size_t start = text.find(kSchemeEnd);
  // What looks like a scheme may stand in a path or query.
  const bool hasScheme = start != std::string::npos && start < text.find_first_of("/?#");
  url.scheme = hasScheme ? Lower(text.substr(0, start)) : "http";
  start = hasScheme ? start + kSchemeEnd.size() : 0;
  if (!url.IsHttp() && !url.IsSftp() && url.scheme != "ftp" && url.scheme != "ftps") {
    throw CLI::ValidationError("URL: " + Redacted(text) +
                               " begins with none of http://, https://, ftp://, ftps:// and "
                               "sftp://");
  }
  const size_t path = std::min(text.find_first_of("/?#", start), text.size());
  const size_t query = std::min(text.find_first_of("?#", path), text.size());
  const size_t fragment = std::min(text.find('#', query), text.size());
  url.authority = text.substr(start, path - start);
  url.path = text.substr(path, query - path);
  url.query = text.substr(query, fragment - query);
  if (url.path.empty()) url.path = "/";
  if (url.HostAndPort().empty()) {
    throw CLI::ValidationError("URL: " + Redacted(text) + " names no host");
  }
  return url;
}

std::string Url::Host() const {
  const std::string server = HostAndPort();
  const std::string host = server.substr(0, PortStart(server));
  return StartsWith(host, "[") ? host.substr(1, host.find(']') - 1) : host;
}

std::string Url::Port() const {
  const std::string server = HostAndPort();
  const size_t colon = PortStart(server);
  return colon == std::string::npos ? "" : server.substr(colon + 1);
}

std::string Decoded(std::string_view text) {
  std::string decoded;
  for (size_t i = 0; i < text.size(); ++i) {
    const int high = text[i] == '%' && i + 2 < text.size() ? DigitOf(text[i + 1]) : -1;
    const int low = high == -1 ? -1 : DigitOf(text[i + 2]);
    decoded += low == -1 ? text[i] : static_cast<char>(high * 16 + low);
    if (low != -1) i += 2;
  }
  return decoded;
}

std::string Encoded(std::string_view name) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  constexpr std::string_view kPlain = "-._~";
  std::string encoded;
  for (const char character : name) {
    const auto byte = static_cast<unsigned char>(character);
    const bool isPlain = (byte < 0x80 && std::isalnum(byte) != 0) ||
                         kPlain.find(character) != std::string_view::npos;
    if (isPlain) {
      encoded += character;
    } else {
      encoded.append(1, '%').append(1, kDigits[byte >> 4]).append(1, kDigits[byte & 15]);
    }
  }
  return encoded;
}

bool StartsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

bool EqualsIgnoringCase(std::string_view one, std::string_view other) {
  return one.size() == other.size() && strncasecmp(one.data(), other.data(), one.size()) == 0;
}

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char character) {
    return static_cast<char>(std::tolower(character));
  });
  return text;
}

std::pair<std::string, std::string> SplitAt(const std::string& text, char separator) {
  const size_t position = text.find(separator);
  if (position == std::string::npos) return {text, ""};
  return {text.substr(0, position), text.substr(position + 1)};
}
