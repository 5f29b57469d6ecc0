#pragma once

#include <string>
#include <string_view>

// A URL taken apart; the parts are as they were typed.
struct Url {
  // A text without scheme is one of http. Refuses, as wrong usage, a scheme that zunet does not
  // speak.
  static Url Parse(const std::string& text);

  std::string Text() const { return scheme + "://" + authority + path + query; }

  // For messages: without user, password and query.
  std::string Shown() const { return scheme + "://" + HostAndPort() + path; }

  bool IsHttp() const { return scheme == "http" || scheme == "https"; }
  bool IsSftp() const { return scheme == "sftp"; }
  bool IsFolder() const { return path.back() == '/'; }

  std::string HostAndPort() const { return authority.substr(authority.rfind('@') + 1); }
  std::string Host() const;  // without the brackets of an IPv6 address
  std::string Port() const;  // empty when none is given

  std::string scheme;     // in lower case
  std::string authority;  // user, password, host and port
  std::string path;       // begins with a slash
  std::string query;      // with its question mark; a fragment is dropped
};

// The bytes that percent signs stand for are put in; other percent signs stay.
std::string Decoded(std::string_view text);

// A file's name as a part of a URL's path.
std::string Encoded(std::string_view name);

bool StartsWith(std::string_view text, std::string_view prefix);
bool EqualsIgnoringCase(std::string_view one, std::string_view other);
std::string Lower(std::string text);

// "left<separator>right"; without a separator all of it is left.
std::pair<std::string, std::string> SplitAt(const std::string& text, char separator);
