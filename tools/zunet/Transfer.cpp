#include <strings.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>

#include "Commands.h"
#include "ZuNetwork/KdErrorItem_KdCURL.h"
#include "ZuNetwork/KdHTTPReq.h"
#include "ZuNetwork/KdTransferIO.h"
#include "ZuUtils/ZuFile.h"

namespace {

using KdCURL::KdHTTPReq;

constexpr char kSystemCaBundle[] = "/etc/ssl/certs/ca-certificates.crt";

struct Arguments {
  std::string url;
  std::string file;
  std::string output;
  std::string text;
  std::vector<std::string> fields;
  std::vector<std::string> headers;
  std::string caBundle = kSystemCaBundle;
  bool insecure = false;
  std::string user;
  std::string proxy;
  long limitSecs = 0;
  bool verbose = false;
};

[[noreturn]] void RefuseUsage(const std::string& message) { throw CLI::ValidationError(message); }

// "left<separator>right"; without a separator all of it is left.
std::pair<std::string, std::string> SplitAt(const std::string& text, char separator) {
  const size_t position = text.find(separator);
  if (position == std::string::npos) return {text, ""};
  return {text.substr(0, position), text.substr(position + 1)};
}

// A URL of a server alone lacks the path that separates it from a query.
std::string WithPath(std::string url) {
  const size_t serverStart = url.find("://") + 3;
  const size_t end = url.find_first_of("/?#", serverStart);
  if (end == std::string::npos) return url + "/";
  if (url[end] != '/') url.insert(end, "/");
  return url;
}

std::string ServerOf(const std::string& url) {
  return url.substr(0, url.find('/', url.find("://") + 3));
}

bool IsSecret(std::string_view header) {
  for (const std::string_view name : {"Authorization:", "Proxy-Authorization:", "Cookie:"}) {
    if (header.size() >= name.size() && strncasecmp(header.data(), name.data(), name.size()) == 0) {
      return true;
    }
  }
  return false;
}

// libcurl's trace, told only when asked for; bodies and credentials stay out of it.
int Trace(void* /*handle*/, void* infoType, char* data, unsigned long size, void* instance) {
  const auto type = static_cast<curl_infotype>(reinterpret_cast<std::uintptr_t>(infoType) & 0xFF);
  const char* prefix = nullptr;
  if (type == CURLINFO_TEXT) prefix = "* ";
  if (type == CURLINFO_HEADER_OUT) prefix = "> ";
  if (type == CURLINFO_HEADER_IN) prefix = "< ";
  if (prefix == nullptr || !static_cast<const Arguments*>(instance)->verbose) return 0;
  std::string_view rest(data, size);
  while (!rest.empty()) {
    const size_t end = std::min(rest.find('\n'), rest.size() - 1);
    const std::string_view line = rest.substr(0, end);
    const bool hide = type == CURLINFO_HEADER_OUT && IsSecret(line);
    const std::string_view shown = hide ? line.substr(0, line.find(':') + 1) : line;
    std::fprintf(stderr, "%s%.*s\n", prefix, static_cast<int>(shown.size()), shown.data());
    rest.remove_prefix(end + 1);
  }
  return 0;
}

// Passes a body on to the output, but for the pages that come with an error.
struct Response {
  KdCURL::FileSink sink;
  bool isError = false;

  static size_t TakeHeader(char* data, size_t size, size_t count, void* instance) {
    constexpr std::string_view kStatusLine = "HTTP/";
    const std::string_view line(data, size * count);
    if (line.substr(0, kStatusLine.size()) == kStatusLine) {
      const size_t code = line.find(' ');
      static_cast<Response*>(instance)->isError =
          code != std::string_view::npos && line.substr(code + 1, 1) >= "4";
    }
    return size * count;
  }

  static size_t TakeBody(char* data, size_t size, size_t count, void* instance) {
    auto* const response = static_cast<Response*>(instance);
    if (response->isError) return size * count;
    return KdCURL::FileSink::Write(data, size, count, &response->sink);
  }
};

class HttpCommand {
 public:
  explicit HttpCommand(Arguments& arguments)
      : m_arguments(arguments), m_url(WithPath(arguments.url)), m_request(Protocol(m_url)) {
    ExitOnFailure(m_request.initialize());
    ExitOnFailure(m_request.setTraceCallBack(&m_arguments, Trace));
    m_request.setURL(ServerOf(m_url));
    ExitOnFailure(m_request.setSecured(!m_arguments.insecure, m_arguments.caBundle));
    if (!m_arguments.user.empty()) {
      const auto [name, password] = SplitAt(m_arguments.user, ':');
      ExitOnFailure(m_request.setCredentials(name, password));
      ExitOnFailure(m_request.setHTTPAuth(static_cast<long>(CURLAUTH_ANY)));
    }
    if (!m_arguments.proxy.empty()) SetProxy();
    if (m_arguments.limitSecs > 0) ExitOnFailure(m_request.SetTimeOut(m_arguments.limitSecs));
    for (const std::string& header : m_arguments.headers) {
      const auto [name, value] = SplitAt(header, ':');
      m_headers.push_back(
          {name, value.substr(std::min(value.find_first_not_of(' '), value.size()))});
    }
  }

  void Get() {
    Start();
    Finish(m_request.download(m_url.c_str(), m_headers));
  }

  void Put() {
    ReadBody();
    Start();
    Finish(m_request.doPutOperation(m_url.c_str(), m_body.get(), m_size, m_headers));
  }

  void Post() {
    if (m_arguments.fields.empty()) {
      PostBody();
    } else {
      PostForm();
    }
  }

  void Delete() {
    Start();
    Finish(m_request.doDeleteOperation(m_url.c_str(), "", 0, m_headers));
  }

  void Size() {
    double size = 0.0;
    ExitOnFailure(m_request.getFileInfo(m_url, size));
    std::printf("%.0f\n", size);
  }

  void Exists() {
    bool exists = false;
    const bool isFile = m_url.back() != '/';
    ExitOnFailure(m_request.checkIfFileOrDirExists(m_url, isFile, exists));
    std::puts(exists ? "exists" : "absent");
    if (!exists) throw CLI::RuntimeError(kExitAbsent);
  }

 private:
  static KdCURL::HTTPProtocol Protocol(const std::string& url) {
    if (url.rfind("https://", 0) == 0) return KdCURL::HTTPS;
    if (url.rfind("http://", 0) == 0) return KdCURL::HTTP;
    RefuseUsage("URL: " + url + " begins with neither http:// nor https://");
  }

  void SetProxy() {
    std::string server = m_arguments.proxy;
    if (server.rfind("http://", 0) == 0) server.erase(0, 7);
    std::string credentials;
    if (const size_t at = server.rfind('@'); at != std::string::npos) {
      credentials = server.substr(0, at);
      server.erase(0, at + 1);
    }
    const auto [name, password] = SplitAt(credentials, ':');
    const auto [host, port] = SplitAt(server, ':');
    ExitOnFailure(m_request.setProxyDetails(host, name, password, port.empty() ? "8080" : port));
  }

  void Start() {
    if (m_arguments.output.empty()) {
      m_response.sink.Use(STDOUT_FILENO);
    } else {
      ExitOnFailure(m_response.sink.Open(m_arguments.output));
    }
    m_request.setWriteCallBack(&m_response, Response::TakeBody);
    m_request.setHeaderWriteCallBack(&m_response, Response::TakeHeader);
  }

  void Finish(CZuError error) {
    if (KdCURL::IsKdCURL(error, CURLE_WRITE_ERROR)) {
      const CZuError reason = m_response.sink.Commit();
      if (Failed(reason)) error = reason;
    }
    ExitOnFailure(error);
    ExitOnFailure(m_response.sink.Commit());
  }

  void ReadBody() {
    char* content = nullptr;
    size_t length = 0;
    const CZuError error = CZuFile::ReadWholeFile(m_arguments.file.c_str(), &content, length);
    if (FXErrorUtil::IsWin32(error, kErrorEmpty)) {
      content = new char[1]{};
    } else {
      ExitOnFailure(error);
    }
    m_body.reset(content);
    m_size = static_cast<long>(length);
  }

  void PostBody() {
    if (m_arguments.file.empty()) {
      Start();
      Finish(m_request.doPostOperation(m_url.c_str(), m_arguments.text.c_str(),
                                       static_cast<long>(m_arguments.text.size()), m_headers));
    } else {
      ReadBody();
      Start();
      Finish(m_request.doPostOperation(m_url.c_str(), m_body.get(), m_size, m_headers));
    }
  }

  // "name=value" is sent as it is, "name=@path" sends a file.
  void PostForm() {
    for (const std::string& field : m_arguments.fields) {
      const auto [name, value] = SplitAt(field, '=');
      const bool isFile = value.rfind('@', 0) == 0;
      ExitOnFailure(m_request.addFormValues(name, isFile ? CURLFORM_FILE : CURLFORM_COPYCONTENTS,
                                            isFile ? value.substr(1) : value));
    }
    Start();
    Finish(m_request.uploadFile("form", m_url.c_str(), 0, m_headers));
  }

  Arguments& m_arguments;
  std::string m_url;
  KdHTTPReq m_request;
  std::vector<KdCURL::commandInfo> m_headers;
  Response m_response;
  std::unique_ptr<char[]> m_body;
  long m_size = 0;
};

CLI::App* AddCommand(CLI::App& app, const std::shared_ptr<Arguments>& arguments,
                     const std::string& name, const std::string& description,
                     void (HttpCommand::*run)()) {
  CLI::App* const command = app.add_subcommand(name, description);
  command->add_option("-H,--header", arguments->headers, "Send the header \"Name: value\"")
      ->allow_extra_args(false);
  command->add_option("--cacert", arguments->caBundle, "Verify the server against this CA bundle")
      ->capture_default_str();
  command->add_flag("--insecure", arguments->insecure, "Do not verify the server");
  command->add_option("--user", arguments->user, "Log in as \"name:password\"");
  command->add_option("--proxy", arguments->proxy, "Go through \"[name:password@]host[:port]\"");
  command->add_option("--limit-time", arguments->limitSecs, "Give up after so many seconds")
      ->check(CLI::PositiveNumber);
  command->add_flag("-v,--verbose", arguments->verbose, "Trace the exchange on standard error");
  command->callback([arguments, run] { (HttpCommand(*arguments).*run)(); });
  return command;
}

}  // namespace

void AddTransferCommands(CLI::App& app) {
  const auto arguments = std::make_shared<Arguments>();

  CLI::App* command = AddCommand(app, arguments, "get", "Download a URL", &HttpCommand::Get);
  command->add_option("URL", arguments->url)->required();
  command->add_option("-o,--output", arguments->output,
                      "Write to this file, which is replaced only by a complete download");

  command = AddCommand(app, arguments, "put", "Upload a file to a URL", &HttpCommand::Put);
  command->add_option("FILE", arguments->file)->required();
  command->add_option("URL", arguments->url)->required();

  command = AddCommand(app, arguments, "post", "POST a body or a form", &HttpCommand::Post);
  command->add_option("URL", arguments->url)->required();
  command->add_option("-o,--output", arguments->output, "Write the answer to this file");
  CLI::Option* const text = command->add_option("-d,--data", arguments->text, "The body as text");
  CLI::Option* const file = command->add_option("-f,--file", arguments->file, "The body as a file");
  CLI::Option* const form =
      command->add_option("-F,--form", arguments->fields, "A form field: name=value or name=@path")
          ->allow_extra_args(false);
  text->excludes(file)->excludes(form);
  file->excludes(form);

  command = AddCommand(app, arguments, "delete", "Delete a URL", &HttpCommand::Delete);
  command->add_option("URL", arguments->url)->required();

  command = AddCommand(app, arguments, "size", "Print the size of a file", &HttpCommand::Size);
  command->add_option("URL", arguments->url)->required();

  command = AddCommand(app, arguments, "exists",
                       "Tell whether a file, or a directory (ending in a slash), exists",
                       &HttpCommand::Exists);
  command->add_option("URL", arguments->url)->required();
}
