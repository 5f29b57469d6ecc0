#include "ZuNetwork/internal/KdListing.h"

#include <algorithm>

#include "ZuNetwork/internal/HtmlText.h"

namespace KdCURL {

namespace {

using FXErrorUtil::ErrorInt;
using std::string_view;

constexpr string_view kServerConfiguration = "web.config";  // servers list it but keep it
constexpr string_view kBlanks = " \t\n\f\r";                // of HTML
constexpr char kInvalidListing[] = "Invalid HTTP Reponse. Parsing the reponse file failed.";

// Walks the links of a page as the strict reading does. Upper-case markers go first: a lower-case
// one counts only when no upper-case one lies ahead, which needs to be found out just once.
class LinkFinder {
 public:
  static constexpr size_t kMarkerLength = 6;

  explicit LinkFinder(string_view page) : m_page(page) {}

  size_t FindFrom(size_t position) {
    if (m_hasUpperCase) {
      const size_t found = m_page.find("HREF=\"", position);
      if (found != string_view::npos) return found;
      m_hasUpperCase = false;
    }
    return m_page.find("href=\"", position);
  }

 private:
  string_view m_page;
  bool m_hasUpperCase = true;
};

// Whether the page's first link leads to the parent directory or to the listed directory itself.
// The text in brackets may stand anywhere behind the link.
bool LeadsOutOfListing(string_view page, size_t endOfTarget, string_view target,
                       const std::string& sourcePath) {
  const size_t open = page.find('[', endOfTarget);
  const size_t close = open == string_view::npos ? open : page.find(']', open);
  if (close == string_view::npos) return target == sourcePath;
  return page.substr(open, close + 1 - open) == "[To Parent Directory]";
}

CZuError TakeTarget(const FXCodeLocation& where, string_view target, const TakeLink& take) {
  const bool isFile = target.at(target.size() - 1) != '/';  // raises for an empty target
  if (!isFile) target.remove_suffix(1);
  const size_t slash = target.rfind('/');
  if (slash == string_view::npos) return ErrorInt(where, kErrorNotSupported, kInvalidListing);
  return take(std::string(target.substr(slash + 1)), isFile);
}

bool IsLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

bool EqualsIgnoringCase(string_view text, string_view lowerCase) {
  const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
  return text.size() == lowerCase.size() &&
         std::equal(text.begin(), text.end(), lowerCase.begin(),
                    [&](char one, char other) { return lower(one) == other; });
}

// Reads the tags of a page one after the other, as browsers do: comments hold none, and neither do
// scripts and style sheets.
class TagReader {
 public:
  explicit TagReader(string_view page) : m_rest(page) {}

  // Goes behind the name of the next tag that opens an element; false at the end of the page.
  bool NextTag(string_view& name) {
    while (SkipBehind("<")) {
      if (StartsWith("!--")) {
        SkipBehind("-->");
        continue;
      }
      if (m_rest.empty() || !IsLetter(m_rest[0])) continue;
      name = TakeUntil(" \t\n\f\r/>");
      if (!EqualsIgnoringCase(name, "script") && !EqualsIgnoringCase(name, "style")) return true;
      SkipElement(name);
    }
    return false;
  }

  // Reads an attribute of the tag; false behind the last one. `isCut` is set where the page ends
  // within the tag.
  bool NextAttribute(string_view& name, string_view& value, bool& isCut) {
    SkipAnyOf(" \t\n\f\r/");
    isCut = m_rest.empty();
    if (isCut || m_rest[0] == '>') return false;
    // An equals sign at the start belongs to the name.
    name = m_rest.substr(0, 1 + TakeLength(m_rest.substr(1), " \t\n\f\r/>="));
    m_rest.remove_prefix(name.size());
    value = {};
    SkipAnyOf(kBlanks);
    if (m_rest.empty() || m_rest[0] != '=') return true;
    m_rest.remove_prefix(1);
    SkipAnyOf(kBlanks);
    isCut = m_rest.empty();
    return !isCut && TakeValue(value, isCut);
  }

 private:
  bool StartsWith(string_view text) const { return m_rest.substr(0, text.size()) == text; }

  static size_t TakeLength(string_view text, string_view end) {
    return std::min(text.find_first_of(end), text.size());
  }
  string_view TakeUntil(string_view end) {
    const string_view taken = m_rest.substr(0, TakeLength(m_rest, end));
    m_rest.remove_prefix(taken.size());
    return taken;
  }
  void SkipAnyOf(string_view characters) {
    m_rest.remove_prefix(std::min(m_rest.find_first_not_of(characters), m_rest.size()));
  }
  bool SkipBehind(string_view text) {
    const size_t found = m_rest.find(text);
    m_rest.remove_prefix(found == string_view::npos ? m_rest.size() : found + text.size());
    return found != string_view::npos;
  }
  void SkipElement(string_view name) {
    while (SkipBehind("</")) {
      if (EqualsIgnoringCase(m_rest.substr(0, name.size()), name)) return;
    }
  }
  bool TakeValue(string_view& value, bool& isCut) {
    const char quote = m_rest[0];
    if (quote != '"' && quote != '\'') {
      value = TakeUntil(" \t\n\f\r>");
      return true;
    }
    m_rest.remove_prefix(1);
    const size_t end = m_rest.find(quote);
    isCut = end == string_view::npos;
    if (isCut) return false;
    value = m_rest.substr(0, end);
    m_rest.remove_prefix(end + 1);
    return true;
  }

  string_view m_rest;
};

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

std::string DecodePercents(string_view text) {
  std::string decoded;
  decoded.reserve(text.size());
  for (size_t at = 0; at < text.size(); ++at) {
    const bool isEncoded = text[at] == '%' && at + 2 < text.size() && HexDigit(text[at + 1]) >= 0 &&
                           HexDigit(text[at + 2]) >= 0;
    decoded += isEncoded ? static_cast<char>(HexDigit(text[at + 1]) * 16 + HexDigit(text[at + 2]))
                         : text[at];
    if (isEncoded) at += 2;
  }
  return decoded;
}

// Whether the name can be that of a file in the listed folder and does no harm where it is shown:
// no path, no control character (those beyond ASCII stand in two bytes of UTF-8).
bool IsPlainName(string_view name) {
  if (name.empty() || name == "." || name == "..") return false;
  for (size_t at = 0; at < name.size(); ++at) {
    const auto byte = static_cast<unsigned char>(name[at]);
    if (byte == '/' || byte < 0x20 || byte == 0x7F) return false;
    const auto next = at + 1 < name.size() ? static_cast<unsigned char>(name[at + 1]) : 0;
    if (byte == 0xC2 && next >= 0x80 && next < 0xA0) return false;
  }
  return true;
}

// Whether the link leads to something that is no file of the server's, or to one of another server.
// A colon may also stand in the name of a file, so that only what is known as a scheme is one.
bool LeadsElsewhere(string_view target) {
  constexpr string_view kSchemes[] = {
      "about", "blob", "data",       "file",   "ftp",         "ftps", "http",
      "https", "irc",  "javascript", "magnet", "mailto",      "news", "sftp",
      "sms",   "ssh",  "tel",        "urn",    "view-source", "ws",   "wss"};
  if (target.substr(0, 2) == "//") return true;
  const size_t colon = target.find(':');
  if (colon == string_view::npos || colon > target.find('/')) return false;
  if (target.substr(colon + 1, 2) == "//") return true;
  return std::any_of(std::begin(kSchemes), std::end(kSchemes), [&](string_view scheme) {
    return EqualsIgnoringCase(target.substr(0, colon), scheme);
  });
}

// The path of a folder in the form in which links are compared with it: decoded, with a slash at
// both ends.
std::string ComparablePath(string_view folder) {
  const size_t scheme = folder.find("://");
  if (scheme != string_view::npos) {
    folder.remove_prefix(std::min(folder.find('/', scheme + 3), folder.size()));
  }
  std::string path = DecodePercents(folder.substr(0, folder.find_first_of("?#")));
  if (path.empty() || path.front() != '/') path.insert(0, 1, '/');
  if (path.back() != '/') path += '/';
  return path;
}

// The entry of the folder that a link leads to; false when it leads to none.
bool FindEntry(string_view target, const std::string& folder, FileDirInfo& entry) {
  if (target.find_first_of("?#") != string_view::npos || LeadsElsewhere(target)) return false;
  while (target.substr(0, 2) == "./") target.remove_prefix(2);
  entry.isFile = target.empty() || target.back() != '/';
  if (!entry.isFile) target.remove_suffix(1);
  const size_t name = target.rfind('/') + 1;  // 0 where there is no slash
  if (name != 0 && ComparablePath(target.substr(0, name)) != folder) return false;
  if (name != 0 && target.front() != '/') return false;
  entry.name = DecodePercents(target.substr(name));
  return IsPlainName(entry.name) && entry.name != kServerConfiguration;
}

// A browser takes blanks off a link, and line ends and tabs out of it.
std::string CleanLink(string_view value) {
  std::string link = DecodeEntities(value);
  const auto isBreak = [](char c) { return c == '\t' || c == '\n' || c == '\r'; };
  link.erase(std::remove_if(link.begin(), link.end(), isBreak), link.end());
  const size_t first = std::min(link.find_first_not_of(kBlanks), link.size());
  link.erase(0, first);
  link.erase(link.find_last_not_of(kBlanks) + 1);
  return link;
}

bool IsSameEntry(const FileDirInfo& one, const FileDirInfo& other) {
  return one.name == other.name && one.isFile == other.isFile;
}

CZuError RefuseZeroByte(const FXCodeLocation& where, string_view listing) {
  const size_t zero = listing.find('\0');
  if (zero == string_view::npos) return {};
  return ErrorInt(where, kErrorNotSupported, "Zero byte at position %zu of the listing", zero);
}

}  // namespace

bool HasLinks(string_view page) { return LinkFinder(page).FindFrom(0) != string_view::npos; }

CZuError ReadPage(const FXCodeLocation& where, string_view page, const std::string& sourcePath,
                  const TakeLink& take) {
  LinkFinder links(page);
  const size_t first = links.FindFrom(0);
  for (size_t link = first; link != string_view::npos;) {
    const size_t start = link + LinkFinder::kMarkerLength;
    const size_t end = page.find('"', start);
    if (end == string_view::npos) return ErrorInt(where, kErrorNotSupported, kInvalidListing);
    const string_view target = page.substr(start, end - start);
    if (link != first || !LeadsOutOfListing(page, end, target, sourcePath)) {
      CZuError error = TakeTarget(where, target, take);
      if (Failed(error)) return error;
    }
    link = links.FindFrom(end);
  }
  return {};
}

CZuError ReadPageLeniently(const FXCodeLocation& where, string_view page, const std::string& folder,
                           std::vector<FileDirInfo>& entries) {
  CZuError error = RefuseZeroByte(where, page);
  if (Failed(error)) return error;
  const std::string path = ComparablePath(folder);
  const size_t before = entries.size();
  TagReader tags(page);
  for (string_view tag; tags.NextTag(tag);) {
    if (!EqualsIgnoringCase(tag, "a")) continue;
    string_view name;
    string_view value;
    bool isCut = false;
    bool isFound = false;
    while (tags.NextAttribute(name, value, isCut)) {
      if (isFound || !EqualsIgnoringCase(name, "href")) continue;
      isFound = true;
      FileDirInfo entry;
      if (!FindEntry(CleanLink(value), path, entry)) continue;
      // Pages put a link on the icon beside that on the name.
      const bool isRepeated = entries.size() > before && IsSameEntry(entries.back(), entry);
      if (!isRepeated) entries.push_back(std::move(entry));
    }
    if (isCut) return ErrorInt(where, kErrorNotSupported, kInvalidListing);
  }
  return {};
}

void ReadNames(string_view names, std::vector<FileDirInfo>& entries) {
  constexpr string_view kLineEnd = "\r\n";
  for (size_t end; (end = names.find(kLineEnd)) != string_view::npos;
       names.remove_prefix(end + kLineEnd.size())) {
    FileDirInfo entry;
    entry.name = names.substr(0, end);
    entries.push_back(std::move(entry));
  }
}

CZuError ReadNamesLeniently(const FXCodeLocation& where, string_view names,
                            std::vector<FileDirInfo>& entries) {
  CZuError error = RefuseZeroByte(where, names);
  if (Failed(error)) return error;
  while (!names.empty()) {
    string_view name = names.substr(0, names.find('\n'));
    names.remove_prefix(std::min(name.size() + 1, names.size()));
    if (!name.empty() && name.back() == '\r') name.remove_suffix(1);
    if (!IsPlainName(name)) continue;
    FileDirInfo entry;
    entry.name = name;
    entries.push_back(std::move(entry));
  }
  return {};
}

}  // namespace KdCURL
