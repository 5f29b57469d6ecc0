#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string_view>

#include "Commands.h"
#include "Session.h"
#include "ZuNetwork/KdErrorItem_KdCURL.h"
#include "ZuNetwork/KdTransferIO.h"
#include "ZuUtils/ZuFile.h"

namespace {

namespace fs = std::filesystem;

constexpr int kLongestLimit = 2'000'000;  // what libcurl can count in milliseconds, about

struct Arguments {
  SessionOptions session;
  std::string url;
  std::string file;
  std::string output;
  std::string text;
  std::vector<std::string> fields;
  bool isResumed = false;
};

// Passes a body on to the sink, but for the pages that come with an error.
struct Response {
  KdCURL::FileSink sink;
  bool isError = false;

  static size_t TakeHeader(char* data, size_t size, size_t count, void* instance) {
    constexpr std::string_view kStatusLine = "HTTP/";
    const std::string_view line(data, size * count);
    if (line.substr(0, kStatusLine.size()) == kStatusLine) {
      const size_t blank = std::min(line.find(' '), line.size() - 1);
      static_cast<Response*>(instance)->isError = line.substr(blank + 1, 1) >= "4";
    }
    return size * count;
  }

  static size_t TakeBody(char* data, size_t size, size_t count, void* instance) {
    auto* const response = static_cast<Response*>(instance);
    if (response->isError) return size * count;
    return KdCURL::FileSink::Write(data, size, count, &response->sink);
  }
};

void Receive(Session& session, Response& response) {
  session.Request().setWriteCallBack(&response, Response::TakeBody);
  session.Request().setHeaderWriteCallBack(&response, Response::TakeHeader);
}

// A write that failed has its reason with the sink.
void Finish(Response& response, const CZuError& error) {
  if (KdCURL::IsKdCURL(error, CURLE_WRITE_ERROR)) ExitOnFailure(response.sink.Commit());
  ExitOnFailure(error);
  ExitOnFailure(response.sink.Commit());
}

void OpenOutput(Response& response, const std::string& output) {
  if (output.empty()) {
    response.sink.Use(STDOUT_FILENO);
  } else {
    ExitOnFailure(response.sink.Open(output));
  }
}

// A file as a buffer, which an empty one has too.
struct Body {
  std::unique_ptr<char[]> bytes;
  long size = 0;
};

Body ReadBody(const std::string& path) {
  char* content = nullptr;
  size_t length = 0;
  const CZuError error = CZuFile::ReadWholeFile(path.c_str(), &content, length);
  if (FXErrorUtil::IsWin32(error, kErrorEmpty)) {
    content = new char[1]{};
  } else {
    ExitOnFailure(error);
  }
  return {std::unique_ptr<char[]>(content), static_cast<long>(length)};
}

// True when the part that is there is the whole file.
bool IsComplete(const Arguments& arguments, std::int64_t offset) {
  if (offset == 0) return false;
  Session session(arguments.url, arguments.session);
  double size = 0.0;
  ExitOnFailure(session.Request().getFileInfo(session.Url(), size));
  return size == static_cast<double>(offset);
}

void Get(const Arguments& arguments) {
  // The session comes first: from then on an interrupt ends the program in good order.
  Session session(arguments.url, arguments.session);
  Response response;
  std::int64_t offset = 0;
  if (arguments.isResumed) {
    ExitOnFailure(response.sink.OpenForResume(arguments.output, offset));
    if (IsComplete(arguments, offset)) return ExitOnFailure(response.sink.Commit());
  } else {
    OpenOutput(response, arguments.output);
  }
  if (!arguments.output.empty()) session.ShowProgress();
  session.Request().setResumeOffset(offset);
  Receive(session, response);
  Finish(response, session.Request().download(session.Url().c_str(), session.Headers()));
}

void Put(const Arguments& arguments) {
  Session session(arguments.url, arguments.session);
  session.ShowProgress();
  if (KdCURL::KdHTTPReq* const http = session.Http()) {
    const Body body = ReadBody(arguments.file);
    Response response;
    OpenOutput(response, "");
    Receive(session, response);
    return Finish(response, http->doPutOperation(session.Url().c_str(), body.bytes.get(), body.size,
                                                 session.Headers()));
  }
  std::error_code failure;
  const std::uintmax_t size = fs::file_size(arguments.file, failure);
  if (failure) {
    ExitOnFailure(FXErrorUtil::ErrorErrNo(ZU_HERE, failure.value(), "Cannot send [%s]",
                                          arguments.file.c_str()));
  }
  ExitOnFailure(session.Request().uploadFile(arguments.file.c_str(), session.Url().c_str(), size,
                                             session.Headers()));
}

KdCURL::KdHTTPReq& RequireHttp(Session& session) {
  if (session.Http() == nullptr) throw CLI::ValidationError("URL: POST is for HTTP alone");
  return *session.Http();
}

// "name=value" is sent as it is, "name=@path" sends a file.
CZuError PostForm(const Arguments& arguments, Session& session, KdCURL::KdHTTPReq& http) {
  for (const std::string& field : arguments.fields) {
    const auto [name, value] = SplitAt(field, '=');
    const bool isFile = value.rfind('@', 0) == 0;
    ExitOnFailure(http.addFormValues(name, isFile ? CURLFORM_FILE : CURLFORM_COPYCONTENTS,
                                     isFile ? value.substr(1) : value));
  }
  return http.uploadFile("form", session.Url().c_str(), 0, session.Headers());
}

void Post(const Arguments& arguments) {
  Session session(arguments.url, arguments.session);
  KdCURL::KdHTTPReq& http = RequireHttp(session);
  Response response;
  OpenOutput(response, arguments.output);
  Receive(session, response);
  if (!arguments.fields.empty()) return Finish(response, PostForm(arguments, session, http));
  if (arguments.file.empty()) {
    return Finish(response, http.doPostOperation(session.Url().c_str(), arguments.text.c_str(),
                                                 static_cast<long>(arguments.text.size()),
                                                 session.Headers()));
  }
  const Body body = ReadBody(arguments.file);
  Finish(response, http.doPostOperation(session.Url().c_str(), body.bytes.get(), body.size,
                                        session.Headers()));
}

void Delete(const Arguments& arguments) {
  Session session(arguments.url, arguments.session);
  if (KdCURL::KdHTTPReq* const http = session.Http()) {
    Response response;
    OpenOutput(response, "");
    Receive(session, response);
    return Finish(response,
                  http->doDeleteOperation(session.Url().c_str(), "", 0, session.Headers()));
  }
  // The path begins with the slash that ends the server; FTP's commands count from the login
  // folder.
  const std::string path = session.Path();
  const std::string command = session.IsSftp() ? "rm \"" + path + "\"" : "DELE " + path.substr(1);
  ExitOnFailure(session.Ftp()->addQuoteCommand(command));
  session.Request().setURLPath("");
  std::string ignored;
  ExitOnFailure(session.Request().getInfo(KdCURL::CURL_EFFECTIVE_URL, ignored));
}

void List(const Arguments& arguments) {
  Session session(arguments.url, arguments.session);
  std::string name = fs::temp_directory_path() / "zunet.XXXXXX";
  const int descriptor = mkstemp(name.data());
  if (descriptor == -1) ExitOnFailure(FXErrorUtil::ErrorErrNo(ZU_HERE, errno, "No room to list"));
  const auto remove = [&name](const int* file) {
    close(*file);
    unlink(name.c_str());
  };
  const std::unique_ptr<const int, decltype(remove)> guard(&descriptor, remove);

  KdCURL::KdProtocolReq& request = session.Request();
  request.setLenientListing(true);
  Response response;
  response.sink.Use(descriptor);
  Receive(session, response);
  Finish(response, request.getFilesAndDirsInfoInFile(session.Url()));
  std::vector<KdCURL::FileDirInfo> entries;
  std::string folder = session.Path();
  if (folder.back() != '/') folder += '/';
  ExitOnFailure(request.collectFilesAndDir(name, &entries, folder));
  for (const KdCURL::FileDirInfo& entry : entries) {
    // A listing of names (FTP, SFTP) does not tell folders from files.
    const bool isFolder = session.Http() != nullptr && !entry.isFile;
    std::printf("%s%s\n", entry.name.c_str(), isFolder ? "/" : "");
  }
}

// libcurl tells what it learned of an FTP file as if it were a body.
size_t Discard(char* /*data*/, size_t size, size_t count, void* /*instance*/) {
  return size * count;
}

void Size(const Arguments& arguments) {
  Session session(arguments.url, arguments.session);
  session.Request().setWriteCallBack(&session, Discard);
  double size = 0.0;
  ExitOnFailure(session.Request().getFileInfo(session.Url(), size));
  std::printf("%.0f\n", size);
}

void Exists(const Arguments& arguments) {
  Session session(arguments.url, arguments.session);
  KdCURL::KdProtocolReq& request = session.Request();
  request.setWriteCallBack(&session, Discard);
  const bool isFile = session.Url().back() != '/';
  bool exists = false;
  const CZuError error = request.checkIfFileOrDirExists(session.Url(), isFile, exists);
  int code = 0;
  std::string text;
  request.getLastCurlErrorCodeAndErrorMsg(code, text);
  // FTP and SFTP servers refuse what is not there, and libcurl says so by its codes.
  const bool isMissing = code == CURLE_REMOTE_FILE_NOT_FOUND || code == CURLE_REMOTE_ACCESS_DENIED;
  if (!isMissing) ExitOnFailure(error);
  std::puts(exists ? "exists" : "absent");
  if (!exists) throw CLI::RuntimeError(kExitAbsent);
}

CLI::App* AddCommand(CLI::App& app, const std::string& name, const std::string& description,
                     const std::shared_ptr<Arguments>& arguments, void (*run)(const Arguments&)) {
  CLI::App* const command = app.add_subcommand(name, description);
  SessionOptions& session = arguments->session;
  command->add_option("--user", session.user, "Log in as \"name:password\"");
  command->add_option("--key", session.key, "Log in with this private key (SFTP)");
  command->add_option("--proxy", session.proxy, "Go through \"[name:password@]host[:port]\"");
  command->add_option("--cacert", session.caBundle, "Verify the server against this CA bundle")
      ->capture_default_str();
  command->add_flag("--insecure", session.isInsecure, "Do not verify the server");
  command->add_flag("--tls", session.isTls, "Require TLS on the control connection (FTP)");
  command->add_flag("--active", session.isActive, "Let the server connect back (FTP)");
  command->add_option("--limit-time", session.limitSecs, "Give up after so many seconds")
      ->check(WholeNumber(1, kLongestLimit, " seconds"));
  command->add_option("-H,--header", session.headers, "Send the header \"Name: value\" (HTTP)")
      ->allow_extra_args(false);
  command->add_flag("-v,--verbose", gIsVerbose, "Trace the exchange on standard error");
  command->callback([arguments, run] { run(*arguments); });
  return command;
}

}  // namespace

void AddTransferCommands(CLI::App& app) {
  const auto arguments = std::make_shared<Arguments>();
  const auto addUrl = [&](CLI::App* command) {
    command->add_option("URL", arguments->url, "http, https, ftp or sftp")->required();
  };

  CLI::App* command = AddCommand(app, "get", "Download a file", arguments, Get);
  addUrl(command);
  CLI::Option* const output =
      command->add_option("-o,--output", arguments->output,
                          "Write to this file, which is replaced only by a complete download");
  command
      ->add_flag("--resume", arguments->isResumed, "Go on with FILE.part, and keep it if cut off")
      ->needs(output);

  command = AddCommand(app, "put", "Upload a file", arguments, Put);
  command->add_option("FILE", arguments->file)->required();
  addUrl(command);

  command = AddCommand(app, "post", "POST a body or a form (HTTP)", arguments, Post);
  addUrl(command);
  command->add_option("-o,--output", arguments->output, "Write the answer to this file");
  CLI::Option* const text = command->add_option("-d,--data", arguments->text, "The body as text");
  CLI::Option* const file = command->add_option("-f,--file", arguments->file, "The body as a file");
  CLI::Option* const form =
      command->add_option("-F,--form", arguments->fields, "A form field: name=value or name=@path")
          ->allow_extra_args(false);
  text->excludes(file)->excludes(form);
  file->excludes(form);

  addUrl(AddCommand(app, "delete", "Delete a file", arguments, Delete));
  addUrl(AddCommand(app, "ls", "List a folder", arguments, List));
  addUrl(AddCommand(app, "size", "Print the size of a file", arguments, Size));
  addUrl(AddCommand(app, "exists", "Tell whether a file, or a folder (ending in a slash), exists",
                    arguments, Exists));
}
