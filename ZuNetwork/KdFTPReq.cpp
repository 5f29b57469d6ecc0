#include "ZuNetwork/KdFTPReq.h"

#include <memory>

#include "ZuNetwork/KdErrorItem_KdCURL.h"
#include "ZuNetwork/internal/FieldText.h"
#include "ZuNetwork/internal/KdListing.h"
#include "ZuUtils/FXString.h"
#include "ZuUtils/ZuFile.h"

namespace KdCURL {

namespace {

using FXErrorUtil::ErrorInt;

}  // namespace

KdFTPReq::~KdFTPReq() {
  if (m_headerList != nullptr) CurlWrapper::gCurlWrapper.Curl_slist_free_all(m_headerList);
}

CZuError KdFTPReq::setDefaults() {
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitialized);
  return SetOptions(ZU_HERE, {{CURLOPT_FTP_USE_EPSV, 0}});
}

CZuError KdFTPReq::setFTPAuth(int param) {
  return Configure(ZU_HERE, kNotInitialized, {{CURLOPT_SSH_AUTH_TYPES, param}});
}

CZuError KdFTPReq::SetFTPResponseTimeOut(long secs) {
  return Configure(ZU_HERE, kNotInitialized, {{CURLOPT_FTP_RESPONSE_TIMEOUT, secs}});
}

CZuError KdFTPReq::setSSL() {
  return Configure(ZU_HERE, kNotInitialized, {{CURLOPT_USE_SSL, int{CURLUSESSL_CONTROL}}});
}

CZuError KdFTPReq::setActiveMode(const std::string& host, const std::string& port) {
  const std::string address = host.empty() && port.empty() ? "-" : host + ":" + port;
  return Configure(ZU_HERE, kNotInitialized, {{CURLOPT_FTPPORT, address.c_str()}});
}

CZuError KdFTPReq::disableActiveMode() {
  return Configure(ZU_HERE, kNotInitialized,
                   {{CURLOPT_FTPPORT, static_cast<const char*>(nullptr)}});
}

CZuError KdFTPReq::setHeaders(const std::map<std::string, std::string>& headerMap) {
  resetCurlErrorBuffer();
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitialized);
  return SetHeaderLines(ZU_HERE, CURLOPT_QUOTE, headerMap, m_headerList);
}

CZuError KdFTPReq::addQuoteCommand(const std::string& command) {
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitialized);
  curl_slist* const list =
      CurlWrapper::gCurlWrapper.Curl_slist_append(m_headerList, command.c_str());
  if (list == nullptr) return ErrorKdCURL(ZU_HERE, -1, "Failed to add the command to the list.");
  if (HasLineBreak(command)) m_refusedField = "A command";
  m_headerList = list;
  return Configure(ZU_HERE, kNotInitialized, {{CURLOPT_QUOTE, static_cast<void*>(m_headerList)}});
}

CZuError KdFTPReq::isOperationSuccess(bool& bIsSucess) {
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitialized);
  // SFTP has no reply codes.
  bIsSucess = m_responseCode == 0 || (m_responseCode >= 100 && m_responseCode < 400);
  return {};
}

CZuError KdFTPReq::setMethodParameter() {
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitialized);
  SetOption(CURLOPT_HTTPPROXYTUNNEL, 1);
  if (SwitchQuery(true)) return {};
  switch (m_OpType) {
    case OP_UPLOAD_FILE:
      SetOption(CURLOPT_UPLOAD, 1);
      SetOption(CURLOPT_INFILESIZE_LARGE, static_cast<long long>(m_lDataSize));
      SetOption(CURLOPT_FTP_CREATE_MISSING_DIRS, 1);
      return OpenSourceFile(ZU_HERE);
    case OP_DOWNLOAD_FILE:
      return {};
    case OP_GET_FILE_DIR_LIST:
      SetOption(CURLOPT_DIRLISTONLY, 1);
      return {};
    default:
      return ErrorInt(ZU_HERE, kErrorNotSupported, "Invalid OpType [%d] for FTP protocol",
                      m_OpType);
  }
}

// The file goes through the read callback of the request, which is cleared after it.
CZuError KdFTPReq::OpenSourceFile(const FXCodeLocation& where) {
  const bool hasReader =
      m_ReadFunPtr && m_KdReadCallbackInstancePtr && m_KdReadCallbackInstancePtr != &m_sourceFile;
  if (hasReader || m_strSourceFile.empty()) return {};
  CZuError error = m_sourceFile.Open(m_strSourceFile, m_lResumeOffset);
  if (Failed(error)) return error.Push(where);
  setReadCallBack(&m_sourceFile, FileSource::Read);
  return {};
}

CZuError KdFTPReq::unsetOpTypeParameter() {
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitialized);
  constexpr void* kNull = nullptr;
  if (m_bIsProxySet) SetOption(CURLOPT_HTTPPROXYTUNNEL, 0);
  if (m_headerList != nullptr) {
    SetOption(CURLOPT_QUOTE, kNull);
    CurlWrapper::gCurlWrapper.Curl_slist_free_all(m_headerList);
    m_headerList = nullptr;
  }
  if (SwitchQuery(false)) return {};
  if (m_OpType == OP_UPLOAD_FILE) {
    SetOption(CURLOPT_UPLOAD, 0);
    SetOption(CURLOPT_INFILESIZE_LARGE, 0LL);
    if (m_KdReadCallbackInstancePtr == &m_sourceFile) setReadCallBack(nullptr, nullptr);
  } else if (m_OpType == OP_GET_FILE_DIR_LIST) {
    SetOption(CURLOPT_DIRLISTONLY, 0);
  }
  return {};
}

CZuError KdFTPReq::IsFile(const std::string& sourcePath, bool& isFile) {
  resetCurlErrorBuffer();
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitialized);
  setURLPath(AppendForwardSlash(sourcePath));
  setOperationType(OP_GET_FILE_INFO);
  CZuError error = SendReqest();
  const bool isRefused = m_curlCode == CURLE_REMOTE_ACCESS_DENIED;
  if (Failed(error) && !isRefused) return error.Push(ZU_HERE);
  isFile = isRefused;
  return {};
}

CZuError KdFTPReq::splitServerAndURLPath(std::string& serverOut, std::string& urlPathOut) {
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitialized);
  SplitByScheme("ftp://", serverOut, urlPathOut);
  return {};
}

void KdFTPReq::SplitByScheme(const std::string& scheme, std::string& serverOut,
                             std::string& urlPathOut) const {
  const size_t start = m_strURLPath.find(scheme);
  if (start == std::string::npos) {
    serverOut = m_strURL.find(scheme) == std::string::npos ? scheme + m_strURL : m_strURL;
    FXString::RemoveRight(serverOut, "/");
    // The slash ends the server. A path's own slash stays: it is the server's root.
    urlPathOut = "/" + m_strURLPath;
    return;
  }
  const size_t slash = m_strURLPath.find('/', start + scheme.size());
  serverOut = m_strURLPath.substr(0, slash);
  urlPathOut = slash == std::string::npos ? "/" : m_strURLPath.substr(slash);
}

CZuError KdFTPReq::getFullWorkingURL(std::string& strURL) {
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitialized);
  std::string server;
  std::string path;
  CZuError error = splitServerAndURLPath(server, path);
  if (Failed(error)) return error.Push(ZU_HERE, "splitServerAndURLPath failed.");
  if (!m_strPortNo.empty()) server += ":" + m_strPortNo;
  strURL = server + path;
  return {};
}

CZuError KdFTPReq::collectFilesAndDir(const std::string& fileName,
                                      std::vector<FileDirInfo>* vFilDirList,
                                      std::string /*sourcePath*/) {
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitialized);
  if (vFilDirList == nullptr) {
    return ErrorInt(ZU_HERE, kErrorBadInput, "Null pointer passed for output vector");
  }
  CZuFile file;
  CZuError error = file.Open(fileName.c_str(), 0, 0);
  if (Failed(error)) {
    return error.Push(ZU_HERE, "Failed to open the response file [%s]", fileName.c_str());
  }
  unsigned long long size = 0;
  error = file.Size(size);
  if (Failed(error)) {
    return error.Push(ZU_HERE, "Failed to get the size of a file [%s]", fileName.c_str());
  }
  if (size == 0) return {};
  char* buffer = nullptr;
  size_t length = 0;
  error = CZuFile::ReadWholeFile(fileName.c_str(), &buffer, length);
  if (FXErrorUtil::IsWin32(error, kErrorEmpty)) return {};
  if (Failed(error)) {
    return error.Push(ZU_HERE, "Failed to read the response file [%s]", fileName.c_str());
  }
  const std::unique_ptr<char[]> owner(buffer);
  error = file.Close();
  if (Failed(error)) {
    return error.Push(ZU_HERE, "Failed to close the response file [%s]", fileName.c_str());
  }
  if (buffer == nullptr) return ErrorInt(ZU_HERE, kErrorBadInput, "NULL buffer from ReadWholeFile");
  if (m_bLenientListing) return ReadNamesLeniently(ZU_HERE, {buffer, length}, *vFilDirList);
  ReadNames(buffer, *vFilDirList);
  return {};
}

}  // namespace KdCURL
