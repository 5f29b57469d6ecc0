// The commands that change what is on the server.

#include <algorithm>
#include <filesystem>

#include "Commands.h"
#include "Transfer.h"

namespace {

namespace fs = std::filesystem;

bool IsControl(char character) {
  const auto byte = static_cast<unsigned char>(character);
  return byte < 0x20 || byte == 0x7F;
}

// For libcurl's own reading of commands for SFTP.
std::string Quoted(const std::string& path) {
  std::string quoted = "\"";
  for (const char character : path) {
    if (character == '"' || character == '\\') quoted += '\\';
    quoted += character;
  }
  return quoted + "\"";
}

[[noreturn]] void Refuse(const std::string& reason) {
  throw CLI::ValidationError("URL: " + reason);
}

// The path that a command has to name so that it is about the file that the URL names.
std::string CommandPath(const Url& url) {
  constexpr std::string_view kType = ";type=";  // how an FTP file is sent, no part of its name
  constexpr std::string_view kHome = "/~/";
  std::string raw = url.path;
  if (!url.IsSftp()) raw = raw.substr(0, raw.find(kType));
  const std::string path = Decoded(raw);
  if (std::any_of(path.begin(), path.end(), IsControl)) {
    Refuse("a control character in the path would end or change the command");
  }
  if (path.back() == '/') Refuse("it names a folder");
  for (const fs::path& part : fs::path(path)) {
    if (part == "." || part == "..") Refuse("name the file without \".\" and \"..\"");
  }
  // Paths count from the folder of the login: all of FTP's, and those that say so of SFTP.
  if (!url.IsSftp()) return path.substr(1);
  return StartsWith(path, kHome) ? path.substr(kHome.size()) : path;
}

void DeleteByCommand(Session& session) {
  const std::string path = CommandPath(session.Target());
  const std::string command = session.Target().IsSftp() ? "rm " + Quoted(path) : "DELE " + path;
  ExitOnFailure(session.Ftp()->addQuoteCommand(command));
  Url folder = session.Target();
  folder.path = "/";
  session.Request().setURLPath(folder.Text());
  std::string ignored;
  session.ExitUnlessDone(session.Request().getInfo(KdCURL::CURL_EFFECTIVE_URL, ignored));
}

// What libcurl would call a form is none.
void DropFormType(HttpRequest& http) {
  if (!http.HasHeader("Content-Type")) http.AddHeader("Content-Type:");
}

}  // namespace

void Delete(const TransferArguments& arguments) {
  Session session(arguments.url, arguments.session);
  HttpRequest* const http = session.Http();
  if (http == nullptr) return DeleteByCommand(session);
  DropFormType(*http);
  Response response(session);
  response.Open("");
  response.Receive();
  response.Finish(http->doDeleteOperation(session.Text().c_str(), "", 0, {}));
}

namespace {

std::string PathOf(const std::string& file) { return file == "-" ? "/dev/stdin" : file; }

// A folder's URL is that of the file in it.
std::string UploadUrl(const TransferArguments& arguments) {
  Url url = Url::Parse(arguments.url);
  if (!url.IsFolder()) return arguments.url;
  if (arguments.file == "-") Refuse("it names a folder, and standard input has no name to add");
  url.path += Encoded(fs::path(arguments.file).filename().string());
  return url.Text();
}

std::string ReadText(const std::string& file) {
  KdCURL::FileSource source;
  ExitOnFailure(source.Open(PathOf(file)));
  std::string text;
  char buffer[16384];
  size_t length = 0;
  while ((length = KdCURL::FileSource::Read(buffer, 1, sizeof buffer, &source)) > 0) {
    if (length == CURL_READFUNC_ABORT) {
      ExitOnFailure(FXErrorUtil::ErrorErrNo(ZU_HERE, source.GetReadError(),
                                            "Failed to read file [%s]", file.c_str()));
    }
    text.append(buffer, length);
  }
  return text;
}

// "@file" stands for the file's text without its line ends; several texts are joined as the fields
// of a form are.
std::string JoinData(const std::vector<std::string>& data) {
  constexpr std::string_view kLineEnds("\r\n\0", 3);
  std::string body;
  for (const std::string& text : data) {
    std::string part = text;
    if (StartsWith(text, "@")) {
      part = ReadText(text.substr(1));
      const auto isLineEnd = [&](char c) { return kLineEnds.find(c) != std::string_view::npos; };
      part.erase(std::remove_if(part.begin(), part.end(), isLineEnd), part.end());
    }
    if (&text != &data.front()) body += '&';
    body += part;
  }
  return body;
}

// "name=value" is sent as it is, "name=@path" sends a file.
CZuError PostForm(const TransferArguments& arguments, const Session& session, HttpRequest& http) {
  for (const std::string& field : arguments.fields) {
    const auto [name, value] = SplitAt(field, '=');
    const bool isFile = StartsWith(value, "@");
    ExitOnFailure(http.addFormValues(name, isFile ? CURLFORM_FILE : CURLFORM_COPYCONTENTS,
                                     isFile ? value.substr(1) : value));
  }
  return http.uploadFile("form", session.Text().c_str(), 0, {});
}

CZuError SendPost(const TransferArguments& arguments, const Session& session, HttpRequest& http) {
  if (!arguments.fields.empty()) return PostForm(arguments, session, http);
  if (!arguments.file.empty()) return http.PostFile(PathOf(arguments.file), session.Text());
  const std::string body = JoinData(arguments.data);
  return http.doPostOperation(session.Text().c_str(), body.c_str(), static_cast<long>(body.size()),
                              {});
}

}  // namespace

void Put(const TransferArguments& arguments) {
  Session session(UploadUrl(arguments), arguments.session);
  session.ShowProgress();
  Response response(session);
  response.Open("");
  if (session.Http() != nullptr) response.Receive();
  response.Finish(session.Request().putFile(PathOf(arguments.file), session.Text(), {}));
}

void Post(const TransferArguments& arguments) {
  Session session(arguments.url, arguments.session);
  if (session.Http() == nullptr) Refuse("POST is for HTTP alone");
  Response response(session);
  response.Open(arguments.output);
  response.Receive();
  response.Finish(SendPost(arguments, session, *session.Http()));
}
