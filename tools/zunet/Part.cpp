#include "Part.h"

#include <unistd.h>

#include <charconv>
#include <cinttypes>
#include <filesystem>
#include <fstream>

#include "Commands.h"

namespace {

namespace fs = std::filesystem;

constexpr int kPartialContent = 206;
constexpr std::string_view kEtag = "ETag ";
constexpr std::string_view kDate = "Last-Modified ";
constexpr std::string_view kTime = "time ";

// FNV-1a, which takes no part in any protection: whoever could make two URLs meet serves both.
std::string NumberOf(const std::string& text) {
  std::uint64_t hash = 0xCBF29CE484222325;
  for (const char character : text) {
    hash = (hash ^ static_cast<unsigned char>(character)) * 0x100000001B3;
  }
  char number[17];
  std::snprintf(number, sizeof number, "%016" PRIx64, hash);
  return number;
}

// A date says nothing of a change within its second: only one that was over counts (RFC 9110,
// 8.8.2.2).
bool IsStrongDate(const AnswerHeader& header) {
  auto& libcurl = CurlWrapper::gCurlWrapper;
  const long changed = libcurl.Curl_getdate(header.Find("Last-Modified").c_str(), nullptr);
  const long answered = libcurl.Curl_getdate(header.Find("Date").c_str(), nullptr);
  return changed != -1 && answered > changed;
}

// Empty when nothing tells one version of the file from another for sure.
std::string ValidatorOf(const Session& session) {
  if (!session.Target().IsHttp()) {
    const std::int64_t time = session.FileTime();
    return time < 0 ? "" : std::string(kTime) + std::to_string(time);
  }
  const std::string etag = session.Header().Find("ETag");
  if (StartsWith(etag, "\"")) return std::string(kEtag) + etag;
  if (!etag.empty() || !IsStrongDate(session.Header())) return "";
  return std::string(kDate) + session.Header().Find("Last-Modified");
}

struct Range {
  std::int64_t first = -1;
  std::int64_t last = -1;
  std::int64_t size = -1;  // of the whole
};

bool ReadNumber(std::string_view& text, std::string_view end, std::int64_t& number) {
  const auto [rest, failure] = std::from_chars(text.data(), text.data() + text.size(), number);
  text.remove_prefix(static_cast<size_t>(rest - text.data()));
  if (failure != std::errc() || number < 0 || !StartsWith(text, end)) return false;
  text.remove_prefix(end.size());
  return true;
}

// "bytes 4-9/10"; one whose size is not told is of no use.
bool ReadRange(std::string_view text, Range& range) {
  constexpr std::string_view kUnit = "bytes ";
  if (!EqualsIgnoringCase(text.substr(0, kUnit.size()), kUnit)) return false;
  text.remove_prefix(kUnit.size());
  return ReadNumber(text, "-", range.first) && ReadNumber(text, "/", range.last) &&
         ReadNumber(text, "", range.size) && text.empty() && range.first <= range.last &&
         range.last < range.size;
}

}  // namespace

Part::Part(const std::string& output, const Url& url) : m_output(output) {
  std::error_code failure;
  const fs::path target = fs::weakly_canonical(output, failure);
  m_tagPath = (failure ? fs::path(output) : target).string() + ".part.tag";
  m_tag.url = NumberOf(url.scheme + "://" + url.HostAndPort() + url.path + url.query);
}

void Part::Open(KdCURL::FileSink& sink) {
  ExitOnFailure(sink.OpenForResume(m_output, m_offset));
  const Tag tag = ReadTag();
  if (tag.url == m_tag.url && !tag.validator.empty()) {
    m_tag = tag;
  } else {
    m_offset = 0;
  }
}

Part::Tag Part::ReadTag() const {
  Tag tag;
  std::ifstream file(m_tagPath);
  if (!std::getline(file, tag.url) || !std::getline(file, tag.validator) || !(file >> tag.size)) {
    return {};
  }
  return tag;
}

CZuError Part::WriteTag() const {
  std::string text = m_tag.url + "\n" + m_tag.validator + "\n" + std::to_string(m_tag.size) + "\n";
  KdCURL::FileSink sink;
  CZuError error = sink.Open(m_tagPath);
  if (!Failed(error)) KdCURL::FileSink::Write(text.data(), 1, text.size(), &sink);
  if (!Failed(error)) error = sink.Commit();
  return error;
}

void Part::RemoveTag() const { unlink(m_tagPath.c_str()); }

void Part::Ask(Session& session) const {
  HttpRequest* const http = session.Http();
  if (http == nullptr) {
    ExitOnFailure(session.Request().setOption(CURLOPT_FILETIME, 1L));
    session.Request().setResumeOffset(m_offset);
  } else if (m_offset > 0) {
    const size_t value = m_tag.validator.find(' ') + 1;
    http->AddHeader("Range: bytes=" + std::to_string(m_offset) + "-");
    http->AddHeader("If-Range: " + m_tag.validator.substr(value));
  }
}

bool Part::Accept(const Session& session, KdCURL::FileSink& sink) {
  const bool isPart =
      session.Target().IsHttp() ? session.Status() == kPartialContent : m_offset > 0;
  if (isPart) return m_offset > 0 && IsRest(session);
  m_error = StartOver(session, sink);
  return !Failed(m_error);
}

bool Part::IsRest(const Session& session) {
  if (ValidatorOf(session) != m_tag.validator) return false;
  if (!session.Target().IsHttp()) {
    // Of a file that is all there no more bytes are announced.
    return m_tag.size == m_offset + std::max<std::int64_t>(0, session.Length());
  }
  Range range;
  if (!ReadRange(session.Header().Find("Content-Range"), range)) return false;
  if (range.first != m_offset || (m_tag.size != -1 && m_tag.size != range.size)) return false;
  m_tag.size = range.size;
  return true;
}

// The tag goes first: what is cut off in between leaves a part without one.
CZuError Part::StartOver(const Session& session, KdCURL::FileSink& sink) {
  RemoveTag();
  CZuError error = sink.StartOver();
  if (Failed(error)) return error;
  m_offset = 0;
  m_tag.validator = ValidatorOf(session);
  m_tag.size = session.Length();
  return m_tag.validator.empty() ? CZuError() : WriteTag();
}
