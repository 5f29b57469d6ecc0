#include "Session.h"

#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "Commands.h"
#include "Progress.h"
#include "ZuNetwork/KdSFTPReq.h"

namespace {

volatile std::sig_atomic_t gIsInterrupted = 0;

void Interrupt(int /*signal*/) { gIsInterrupted = 1; }

bool StartsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

// A URL of a server alone lacks the path that separates it from a query.
std::string WithPath(std::string url) {
  const size_t scheme = url.find("://");
  if (scheme == std::string::npos) throw CLI::ValidationError("URL: " + url + " has no scheme");
  const size_t end = url.find_first_of("/?#", scheme + 3);
  if (end == std::string::npos) return url + "/";
  if (url[end] != '/') url.insert(end, "/");
  return url;
}

size_t PathStart(const std::string& url) { return url.find('/', url.find("://") + 3); }

// The parts of libcurl's trace that would give a secret away.
bool IsSecret(const std::string& line) {
  for (const char* word : {"authorization:", "cookie:"}) {
    if (strcasestr(line.c_str(), word) != nullptr) return true;
  }
  return StartsWith(line, "PASS ");
}

}  // namespace

std::pair<std::string, std::string> SplitAt(const std::string& text, char separator) {
  const size_t position = text.find(separator);
  if (position == std::string::npos) return {text, ""};
  return {text.substr(0, position), text.substr(position + 1)};
}

Session::Session(const std::string& url, const SessionOptions& options)
    : m_options(options), m_url(WithPath(url)) {
  MakeRequest();
  ExitOnFailure(m_request->initialize());
  ExitOnFailure(m_request->setTraceCallBack(this, Trace));
  std::signal(SIGINT, Interrupt);
  ExitOnFailure(m_request->setProgressCallBack(this, Watch));
  m_request->setURL(m_url.substr(0, PathStart(m_url)));
  Configure();
  if (m_ftp != nullptr) ConfigureFtp();
}

void Session::MakeRequest() {
  if (StartsWith(m_url, "http://") || StartsWith(m_url, "https://")) {
    auto request = std::make_unique<KdCURL::KdHTTPReq>(
        StartsWith(m_url, "https://") ? KdCURL::HTTPS : KdCURL::HTTP);
    m_http = request.get();
    m_request = std::move(request);
  } else if (StartsWith(m_url, "ftp://") || StartsWith(m_url, "sftp://")) {
    m_isSftp = StartsWith(m_url, "sftp://");
    std::unique_ptr<KdCURL::KdFTPReq> request;
    if (m_isSftp) {
      request = std::make_unique<KdCURL::KdSFTPReq>();
    } else {
      request = std::make_unique<KdCURL::KdFTPReq>();
    }
    m_ftp = request.get();
    m_request = std::move(request);
  } else {
    throw CLI::ValidationError("URL: " + m_url +
                               " begins with none of http://, https://, ftp:// and sftp://");
  }
}

void Session::Configure() {
  ExitOnFailure(m_request->setSecured(!m_options.isInsecure, m_options.caBundle));
  if (!m_options.user.empty()) {
    const auto [name, password] = SplitAt(m_options.user, ':');
    ExitOnFailure(m_request->setCredentials(name, password));
    if (m_http != nullptr) ExitOnFailure(m_http->setHTTPAuth(static_cast<long>(CURLAUTH_ANY)));
  }
  if (!m_options.proxy.empty()) SetProxy();
  if (m_options.limitSecs > 0) ExitOnFailure(m_request->SetTimeOut(m_options.limitSecs));
  if (m_http == nullptr && !m_options.headers.empty()) {
    throw CLI::ValidationError("--header: for HTTP alone");
  }
  for (const std::string& header : m_options.headers) {
    const auto [name, value] = SplitAt(header, ':');
    m_headers.push_back({name, value.substr(std::min(value.find_first_not_of(' '), value.size()))});
  }
}

void Session::ConfigureFtp() {
  if (m_options.isTls) ExitOnFailure(m_ftp->setSSL());
  if (m_options.isActive) ExitOnFailure(m_ftp->setActiveMode("", ""));
  if (!m_isSftp) return;
  if (!m_options.key.empty()) {
    ExitOnFailure(m_request->setOption(CURLOPT_SSH_PRIVATE_KEYFILE, m_options.key));
  }
  const char* const home = std::getenv("HOME");
  if (!m_options.isInsecure && home != nullptr) {
    const std::string knownHosts = std::string(home) + "/.ssh/known_hosts";
    ExitOnFailure(m_request->setOption(CURLOPT_SSH_KNOWNHOSTS, knownHosts));
  }
}

void Session::SetProxy() {
  std::string server = m_options.proxy;
  if (StartsWith(server, "http://")) server.erase(0, server.find("//") + 2);
  std::string credentials;
  if (const size_t at = server.rfind('@'); at != std::string::npos) {
    credentials = server.substr(0, at);
    server.erase(0, at + 1);
  }
  const auto [name, password] = SplitAt(credentials, ':');
  const auto [host, port] = SplitAt(server, ':');
  ExitOnFailure(m_request->setProxyDetails(host, name, password, port.empty() ? "8080" : port));
}

std::string Session::Path() {
  std::string path;
  ExitOnFailure(m_request->URLDecode(m_url.substr(PathStart(m_url)), path));
  return path;
}

void Session::ShowProgress() { m_hasBar = isatty(STDERR_FILENO) == 1; }

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
    const std::string line(rest.substr(0, end));
    std::fprintf(stderr, "%s%s\n", prefix, IsSecret(line) ? "(not shown)" : line.c_str());
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  return 0;
}

// Called several times a second: the place where an interrupt ends the transfer in good order.
int Session::Watch(void* instance, curl_off_t toReceive, curl_off_t received, curl_off_t toSend,
                   curl_off_t sent) {
  if (static_cast<const Session*>(instance)->m_hasBar) {
    const bool isSending = sent > 0;
    DrawProgress(isSending ? sent : received, isSending ? toSend : toReceive);
  }
  return gIsInterrupted;
}
