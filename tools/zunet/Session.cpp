#include "Session.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "Commands.h"
#include "Login.h"
#include "Output.h"
#include "Progress.h"
#include "Secrets.h"
#include "Signals.h"

namespace {

constexpr char kSystemBundle[] = "/etc/ssl/certs/ca-certificates.crt";

// The variables are those that curl and OpenSSL know.
std::string CaBundle(const SessionOptions& options) {
  if (!options.caBundle.empty()) return options.caBundle;
  for (const char* const name : {"CURL_CA_BUNDLE", "SSL_CERT_FILE"}) {
    const char* const value = std::getenv(name);
    if (value != nullptr && *value != '\0') return value;
  }
  return kSystemBundle;
}

long ProxyAuth(const std::string& name) {
  if (name == "basic") return CURLAUTH_BASIC;
  if (name == "digest") return CURLAUTH_DIGEST;
  return static_cast<long>(CURLAUTH_ANY);
}

std::string_view Trimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r\n";
  text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
  return text.substr(0, text.find_last_not_of(kBlanks) + 1);
}

std::pair<std::string_view, std::string_view> FieldOf(std::string_view line) {
  const size_t colon = std::min(line.find(':'), line.size());
  return {line.substr(0, colon), Trimmed(line.substr(std::min(colon + 1, line.size())))};
}

}  // namespace

void AnswerHeader::Take(std::string_view line) {
  constexpr size_t kLongestText = 1 << 20;
  if (m_isComplete) *this = {};
  m_isComplete = Trimmed(line).empty();
  if (m_text.size() < kLongestText) m_text += line;
  const auto [field, value] = FieldOf(line);
  for (const char* const name : {"ETag", "Last-Modified", "Date", "Content-Range"}) {
    if (EqualsIgnoringCase(field, name)) m_fields[name] = value;
  }
}

std::string AnswerHeader::Find(const std::string& name) const {
  const auto found = m_fields.find(name);
  return found == m_fields.end() ? "" : found->second;
}

Session::Session(const std::string& url, const SessionOptions& options)
    : m_options(options), m_url(Url::Parse(url)) {
  MakeRequest();
  ExitOnFailure(m_request->setTraceCallBack(this, Trace));
  ExitOnFailure(m_request->setProgressCallBack(this, Watch));
  m_request->setURL(m_url.scheme + "://" + m_url.authority);
  Configure();
  if (m_http != nullptr) ConfigureHttp();
  if (m_ftp != nullptr) m_url.IsSftp() ? ConfigureSsh() : ConfigureFtp();
}

template <typename Request>
Request* Session::Make() {
  auto owner = std::make_unique<Request>();
  Request* const request = owner.get();
  m_request = std::move(owner);
  ExitOnFailure(request->initialize());
  m_handle = request->EasyHandle();
  return request;
}

void Session::MakeRequest() {
  if (m_url.IsHttp()) {
    m_http = Make<HttpRequest>();
  } else if (m_url.IsSftp()) {
    m_ftp = Make<SftpRequest>();
  } else {
    m_ftp = Make<FtpRequest>();
  }
}

void Session::Configure() {
  const std::string bundle = CaBundle(m_options);
  ExitOnFailure(m_request->setSecured(!m_options.isInsecure, bundle));
  LimitTime();
  ConfigureLogin();
  if (!m_options.proxy.empty()) {
    ExitOnFailure(m_request->setOption(CURLOPT_PROXY, m_options.proxy));
    ExitOnFailure(m_request->setOption(CURLOPT_PROXY_CAINFO, bundle));
  }
  if (!m_options.proxyAuth.empty()) {
    ExitOnFailure(m_request->setProyAuth(ProxyAuth(m_options.proxyAuth)));
  }
}

// A server that is silent would hold the program for ever.
void Session::LimitTime() {
  if (m_options.limitSecs > 0) ExitOnFailure(m_request->SetTimeOut(m_options.limitSecs));
  if (m_options.isUnlimited) return;
  ExitOnFailure(m_request->SetConnectionTimeOut(m_options.idleSecs));
  ExitOnFailure(m_request->setMinimumSpeed(1, m_options.idleSecs));
  ExitOnFailure(m_request->setOption(CURLOPT_FTP_RESPONSE_TIMEOUT, m_options.idleSecs));
}

void Session::ConfigureLogin() {
  if (m_options.isNetrc) ExitOnFailure(m_request->setOption(CURLOPT_NETRC, CURL_NETRC_OPTIONAL));
  if (!m_options.user.empty()) {
    const auto [name, password] = NameAndPassword(m_options);
    ExitOnFailure(m_request->setCredentials(name, password));
  }
  if (m_http != nullptr && (m_options.isNetrc || !m_options.user.empty())) {
    ExitOnFailure(m_http->setHTTPAuth(static_cast<long>(CURLAUTH_ANY)));
  }
}

void Session::ConfigureHttp() {
  constexpr long kMostRedirects = 30;
  const bool isHttpsAlone = m_url.scheme == "https" && !m_options.isDowngraded;
  ExitOnFailure(m_request->setOption(CURLOPT_MAXREDIRS, kMostRedirects));
  ExitOnFailure(m_request->setOption(CURLOPT_REDIR_PROTOCOLS_STR,
                                     std::string(isHttpsAlone ? "https" : "http,https")));
  for (const std::string& header : m_options.headers) {
    if (header.find_first_of("\r\n") != std::string::npos ||
        header.find_first_of(":;") == std::string::npos) {
      throw CLI::ValidationError("--header: no line \"Name: value\"");
    }
    m_http->AddHeader(header);
  }
}

void Session::ConfigureFtp() {
  if (!m_options.headers.empty()) throw CLI::ValidationError("--header: for HTTP alone");
  if (m_options.isTlsControl) ExitOnFailure(m_ftp->setSSL());
  if (m_options.isTls || (m_url.scheme == "ftps" && !m_options.isTlsControl)) {
    ExitOnFailure(m_request->setOption(CURLOPT_USE_SSL, CURLUSESSL_ALL));
  }
  if (m_options.isActive) ExitOnFailure(m_ftp->setActiveMode("", ""));
}

void Session::ConfigureSsh() {
  if (!m_options.headers.empty()) throw CLI::ValidationError("--header: for HTTP alone");
  if (!m_options.key.empty()) {
    ExitOnFailure(m_request->setOption(CURLOPT_SSH_PRIVATE_KEYFILE, m_options.key));
  }
  if (!m_options.passPhraseFile.empty()) {
    ExitOnFailure(
        m_request->setOption(CURLOPT_KEYPASSWD, ReadPassPhrase(m_options.passPhraseFile)));
  }
  if (m_options.isInsecure) return;
  m_knownHosts =
      m_options.knownHosts.empty() ? HomeFolder() + "/.ssh/known_hosts" : m_options.knownHosts;
  ExitOnFailure(m_request->setOption(CURLOPT_SSH_KNOWNHOSTS, m_knownHosts));
  auto& libcurl = CurlWrapper::gCurlWrapper;
  libcurl.Curl_easy_setopt(m_handle, CURLOPT_SSH_KEYDATA, static_cast<void*>(this));
  libcurl.Curl_easy_setopt(m_handle, CURLOPT_SSH_KEYFUNCTION,
                           reinterpret_cast<void*>(CheckHostKey));
}

void Session::ReceiveHeader() {
  if (m_http != nullptr) m_request->setHeaderWriteCallBack(this, TakeHeader);
}

size_t Session::TakeHeader(char* data, size_t size, size_t count, void* instance) {
  auto* const session = static_cast<Session*>(instance);
  const std::string_view line(data, size * count);
  session->m_header.Take(line);
  if (!session->IsDowngrade(line)) return size * count;
  session->m_refusal =
      "the server redirects from https to " + Redacted(FieldOf(line).second) +
      ", where everyone on the way can read along; --insecure-redirects follows it";
  return 0;
}

bool Session::IsDowngrade(std::string_view line) const {
  const auto [name, value] = FieldOf(line);
  const bool isRedirect = Status() / 100 == 3 && EqualsIgnoringCase(name, "Location");
  if (m_options.isDowngraded || !isRedirect) return false;
  const char* current = nullptr;
  const CURLcode code =
      CurlWrapper::gCurlWrapper.Curl_easy_getinfo(m_handle, CURLINFO_SCHEME, &current);
  const bool isSecure =
      code != CURLE_OK || current == nullptr || EqualsIgnoringCase(current, "https");
  return isSecure && StartsWith(Lower(std::string(value)), "http:");
}

int Session::Status() const {
  long status = 0;
  CurlWrapper::gCurlWrapper.Curl_easy_getinfo(m_handle, CURLINFO_RESPONSE_CODE, &status);
  return static_cast<int>(status);
}

std::int64_t Session::Length() const {
  curl_off_t length = -1;
  CurlWrapper::gCurlWrapper.Curl_easy_getinfo(m_handle, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T,
                                              &length);
  return length;
}

std::int64_t Session::FileTime() const {
  curl_off_t time = -1;
  CurlWrapper::gCurlWrapper.Curl_easy_getinfo(m_handle, CURLINFO_FILETIME_T, &time);
  return time;
}

void Session::ShowProgress() { m_hasBar = isatty(STDERR_FILENO) == 1; }

void Session::EndProgress() const {
  if (m_hasBar) FinishProgress();
}

void Session::ExitUnlessDone(const CZuError& error) const {
  EndProgress();
  if (Failed(error)) ExitOnSignal();
  if (Failed(error) && !m_refusal.empty()) {
    ExitOnFailure(FXErrorUtil::ErrorInt(ZU_HERE, kErrorBadInput, "%s", m_refusal.c_str()));
  }
  ExitOnFailure(error);
}

int Session::CheckHostKey(CURL* /*handle*/, const curl_khkey* /*known*/,
                          const curl_khkey* /*found*/, curl_khmatch match, void* instance) {
  if (match == CURLKHMATCH_OK) return CURLKHSTAT_FINE;
  auto* const session = static_cast<Session*>(instance);
  session->m_refusal =
      RefusedHostKey(session->m_url, session->m_knownHosts, match == CURLKHMATCH_MISMATCH);
  return CURLKHSTAT_REJECT;
}

// Bodies and secrets stay out of the trace.
int Session::Trace(void* /*handle*/, void* infoType, char* data, unsigned long size,
                   void* /*instance*/) {
  if (!gIsVerbose) return 0;
  const auto type = static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(infoType));
  const char* prefix = nullptr;
  if (type == CURLINFO_TEXT) prefix = "* ";
  if (type == CURLINFO_HEADER_OUT) prefix = "> ";
  if (type == CURLINFO_HEADER_IN) prefix = "< ";
  if (prefix == nullptr) return 0;
  std::string_view rest(data, size);
  while (!rest.empty()) {
    const size_t end = std::min(rest.find('\n'), rest.size());
    std::fprintf(stderr, "%s%s\n", prefix,
                 Printable(Redacted(Trimmed(rest.substr(0, end)))).c_str());
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  return 0;
}

// Called several times a second: the place where a signal ends the transfer in good order.
int Session::Watch(void* instance, curl_off_t toReceive, curl_off_t received, curl_off_t toSend,
                   curl_off_t sent) {
  if (static_cast<const Session*>(instance)->m_hasBar) {
    const bool isSending = sent > 0;
    DrawProgress(isSending ? sent : received, isSending ? toSend : toReceive);
  }
  return NotedSignal();
}
