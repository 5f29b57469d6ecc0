// The commands that ask about files and folders.

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <sstream>

#include "Commands.h"
#include "Output.h"
#include "Signals.h"
#include "Transfer.h"
#include "ZuNetwork/KdErrorItem_KdCURL.h"
#include "ZuUtils/FXString.h"

namespace {

namespace fs = std::filesystem;

enum class Presence { kPresent, kAbsent, kUnknown };

// libcurl tells what it learned of an FTP file as if it were a body.
size_t Discard(char* /*data*/, size_t size, size_t count, void* /*instance*/) {
  return size * count;
}

// The first byte of a listing tells that the folder is there.
size_t Stop(char* /*data*/, size_t /*size*/, size_t /*count*/, void* /*instance*/) { return 0; }

CZuError Ask(Session& session, KdCURL::operationType operation, curl_write_callback receive) {
  KdCURL::KdProtocolReq& request = session.Request();
  request.setURLPath(session.Text());
  request.setOperationType(operation);
  request.setWriteCallBack(&session, receive);
  session.ReceiveHeader();
  return request.SendReqest();
}

// What is gone for good is as absent as what was never there; what is forbidden may be there.
Presence FindOverHttp(Session& session, CZuError& error) {
  error = Ask(session, KdCURL::OP_CHECK_FILE_DIR_EXIST, Discard);
  if (!Failed(error)) return Presence::kPresent;
  const bool isAnswer = KdCURL::IsKdCURL(error, CURLE_OK);
  const int status = session.Status();
  return isAnswer && (status == 404 || status == 410) ? Presence::kAbsent : Presence::kUnknown;
}

// A server may not tell sizes and times; then a file has neither, and may or may not be there.
Presence FindOverFtp(Session& session, CZuError& error) {
  const bool isFile = !session.Target().IsFolder();
  ExitOnFailure(session.Request().setOption(CURLOPT_FILETIME, 1L));
  error = Ask(session, KdCURL::OP_CHECK_FILE_DIR_EXIST, Discard);
  if (KdCURL::IsKdCURL(error, CURLE_REMOTE_FILE_NOT_FOUND) ||
      KdCURL::IsKdCURL(error, CURLE_REMOTE_ACCESS_DENIED)) {
    return Presence::kAbsent;
  }
  if (Failed(error)) return Presence::kUnknown;
  if (!isFile || session.Length() >= 0 || session.FileTime() >= 0) return Presence::kPresent;
  error = FXErrorUtil::ErrorInt(ZU_HERE, kErrorNotSupported,
                                "The server tells neither size nor time of the file");
  return Presence::kUnknown;
}

// libcurl does not look at a folder whose listing is not wanted.
Presence FindOverSftp(Session& session, CZuError& error) {
  error = session.Target().IsFolder() ? Ask(session, KdCURL::OP_GET_FILE_DIR_LIST, Stop)
                                      : Ask(session, KdCURL::OP_CHECK_FILE_DIR_EXIST, Discard);
  if (!Failed(error) || KdCURL::IsKdCURL(error, CURLE_WRITE_ERROR)) return Presence::kPresent;
  return KdCURL::IsKdCURL(error, CURLE_REMOTE_FILE_NOT_FOUND) ? Presence::kAbsent
                                                              : Presence::kUnknown;
}

Presence Find(Session& session, CZuError& error) {
  if (session.Http() != nullptr) return FindOverHttp(session, error);
  return session.Target().IsSftp() ? FindOverSftp(session, error) : FindOverFtp(session, error);
}

// A new file that goes with the object.
class TemporaryFile {
 public:
  TemporaryFile() : m_path(fs::temp_directory_path() / "zunet.XXXXXX") {
    m_descriptor = mkstemp(m_path.data());
    if (m_descriptor == -1) {
      ExitOnFailure(FXErrorUtil::ErrorErrNo(ZU_HERE, errno, "No room for the listing in [%s]",
                                            m_path.c_str()));
    }
  }
  ~TemporaryFile() {
    close(m_descriptor);
    unlink(m_path.c_str());
  }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  const std::string& Path() const { return m_path; }
  int Descriptor() const { return m_descriptor; }

 private:
  std::string m_path;
  int m_descriptor;
};

}  // namespace

void List(const TransferArguments& arguments) {
  Url folder = Url::Parse(arguments.url);
  if (!folder.IsFolder()) folder.path += '/';
  Session session(folder.Text(), arguments.session);
  NoteSignals();
  const TemporaryFile page;

  KdCURL::KdProtocolReq& request = session.Request();
  request.setLenientListing(true);
  Response response(session);
  response.Sink().Use(page.Descriptor());
  response.Receive();
  request.setURLPath(session.Text());
  request.setOperationType(KdCURL::OP_GET_FILE_DIR_LIST);
  response.Finish(request.SendReqest());
  std::vector<KdCURL::FileDirInfo> entries;
  ExitOnFailure(request.collectFilesAndDir(page.Path(), &entries, Decoded(folder.path)));
  for (const KdCURL::FileDirInfo& entry : entries) {
    // A listing of names (FTP, SFTP) does not tell folders from files.
    const bool isFolder = session.Http() != nullptr && !entry.isFile;
    PrintLine(Printable(entry.name) + (isFolder ? "/" : ""));
  }
}

void Size(const TransferArguments& arguments) {
  Session session(arguments.url, arguments.session);
  session.Request().setWriteCallBack(&session, Discard);
  session.ReceiveHeader();
  double size = 0.0;
  session.ExitUnlessDone(session.Request().getFileInfo(session.Text(), size));
  char text[64];
  std::snprintf(text, sizeof text, "%.0f", size);
  PrintLine(text);
}

void Head(const TransferArguments& arguments) {
  Session session(arguments.url, arguments.session);
  if (session.Http() == nullptr) throw CLI::ValidationError("URL: head is for HTTP alone");
  const CZuError error = Ask(session, KdCURL::OP_GET_INFO, Discard);
  std::istringstream text(session.Header().Text());
  for (std::string line; std::getline(text, line);) {
    FXString::TrimRight(line, "\r");
    if (!line.empty()) PrintLine(Printable(line));
  }
  FlushOutput();
  session.ExitUnlessDone(error);
}

void Exists(const TransferArguments& arguments) {
  Session session(arguments.url, arguments.session);
  CZuError error;
  const Presence presence = Find(session, error);
  if (presence == Presence::kUnknown) session.ExitUnlessDone(error);
  PrintLine(presence == Presence::kPresent ? "exists" : "absent");
  if (presence == Presence::kAbsent) throw CLI::RuntimeError(kExitAbsent);
}
