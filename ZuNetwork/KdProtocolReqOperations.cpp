#include "ZuNetwork/KdErrorItem_KdCURL.h"
#include "ZuNetwork/KdProtocolReq.h"
#include "ZuNetwork/internal/KdProtocolReqHere.h"

namespace KdCURL {

namespace {

using FXErrorUtil::ErrorInt;

bool IsNullOrEmpty(const char* text) { return text == nullptr || *text == '\0'; }

// What a path is to those that take it as text.
std::string UpToZero(const std::string& path) { return path.substr(0, path.find('\0')); }

// An unknown length is -1. Lengths that differ from it by multiples of 2^32 read as unknown too; a
// number beyond 64 bits has no low half to look at.
bool IsUnknownLength(double length) {
  constexpr double kTwoTo63 = 9223372036854775808.0;
  if (!(length >= -kTwoTo63 && length < kTwoTo63)) return false;
  return static_cast<std::uint32_t>(static_cast<std::int64_t>(length)) == 0xFFFFFFFF;
}

const char* HttpVersion(long version) {
  if (version == CURL_HTTP_VERSION_1_0) return "1.0";
  if (version == CURL_HTTP_VERSION_1_1) return "1.1";
  if (version == CURL_HTTP_VERSION_2_0) return "2";
  return version == CURL_HTTP_VERSION_3 ? "3" : "";
}

}  // namespace

CZuError KdProtocolReq::download(const char* srcUrl, const std::vector<commandInfo>& vCommandInfo) {
  resetCurlErrorBuffer();
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitializedPlural);
  if (IsNullOrEmpty(srcUrl)) return ErrorInt(ZU_HERE, kErrorBadInput, "Invalid source url.");
  m_strURLPath = srcUrl;
  m_OpType = OP_DOWNLOAD_FILE;
  setCommandInfo(vCommandInfo);
  return SendOperation(ZU_HERE);
}

CZuError KdProtocolReq::uploadFile(const char* sourceFilePath, const char* urlPath, size_t fileSize,
                                   const std::vector<commandInfo>& vCommandInfo) {
  resetCurlErrorBuffer();
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitializedPlural);
  if (IsNullOrEmpty(sourceFilePath)) {
    return ErrorInt(ZU_HERE, kErrorBadInput, "Invalid source file path.");
  }
  if (IsNullOrEmpty(urlPath)) return ErrorInt(ZU_HERE, kErrorBadInput, "Invalid URL path.");
  m_strURLPath = urlPath;
  m_lDataSize = static_cast<std::int64_t>(fileSize);
  m_OpType = OP_UPLOAD_FILE;
  setCommandInfo(vCommandInfo);
  m_strSourceFile = sourceFilePath;
  return SendOperation(ZU_HERE);
}

CZuError KdProtocolReq::putFile(const std::string& sourceFilePath, const std::string& urlPath,
                                const std::vector<commandInfo>& vCommandInfo) {
  resetCurlErrorBuffer();
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitialized);
  if (sourceFilePath.empty()) {
    return ErrorInt(ZU_HERE, kErrorBadInput, "Invalid source file path.");
  }
  if (urlPath.empty()) return ErrorInt(ZU_HERE, kErrorBadInput, "Invalid URL path.");
  CZuError error = m_sourceFile.OpenSized(sourceFilePath, m_lDataSize);
  if (Failed(error)) return error.Push(ZU_HERE);
  setReadCallBack(&m_sourceFile, FileSource::Read);
  m_strURLPath = urlPath;
  m_OpType = OP_UPLOAD_FILE;
  setCommandInfo(vCommandInfo);
  m_strSourceFile = sourceFilePath;
  m_bIsPut = true;
  error = SendOperation(ZU_HERE);
  m_bIsPut = false;
  return error;
}

CZuError KdProtocolReq::doPostOperation(const char* urlPath, const char* postString,
                                        const std::vector<commandInfo>& vCommandInfo) {
  resetCurlErrorBuffer();
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitialized);
  if (IsNullOrEmpty(postString)) return ErrorInt(ZU_HERE, kErrorBadInput, "Invalid post string .");
  if (IsNullOrEmpty(urlPath)) return ErrorInt(ZU_HERE, kErrorBadInput, "Invalid URL path .");
  m_OpType = OP_POST_SIMPLE;
  m_strURLPath = urlPath;
  setCommandInfo(vCommandInfo);
  m_strPostString = postString;
  return SendOperation(ZU_HERE);
}

CZuError KdProtocolReq::doPostOperation(const char* urlPath, const char* postString, long size,
                                        const std::vector<commandInfo>& vCommandInfo) {
  resetCurlErrorBuffer();
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitialized);
  if (postString == nullptr && size != 0) {
    return ErrorInt(ZU_HERE, kErrorBadInput, "Invalid post array .");
  }
  return SendBody(ZU_HERE, nullptr, urlPath, postString, size, vCommandInfo);
}

CZuError KdProtocolReq::doPutOperation(const char* urlPath, const char* putData, long size,
                                       const std::vector<commandInfo>& vCommandInfo) {
  resetCurlErrorBuffer();
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitialized);
  if (putData == nullptr) return ErrorInt(ZU_HERE, kErrorBadInput, "Invalid PUT data.");
  return SendBody(ZU_HERE, "PUT", urlPath, putData, size, vCommandInfo);
}

CZuError KdProtocolReq::doDeleteOperation(const char* urlPath, const char* req, long size,
                                          const std::vector<commandInfo>& vCommandInfo) {
  resetCurlErrorBuffer();
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitialized);
  if (req == nullptr) return ErrorInt(ZU_HERE, kErrorBadInput, "Invalid DELETE data.");
  return SendBody(ZU_HERE, "DELETE", urlPath, req, size, vCommandInfo);
}

CZuError KdProtocolReq::SendBody(const FXCodeLocation& where, const char* method,
                                 const char* urlPath, const char* body, long size,
                                 const std::vector<commandInfo>& vCommandInfo) {
  if (IsNullOrEmpty(urlPath)) return ErrorInt(where, kErrorBadInput, "Invalid URL path .");
  if (size < 0) return ErrorInt(where, kErrorBadInput, "Invalid Buffer size.");
  m_lDataSize = size;
  m_OpType = method == nullptr ? OP_POST_BUFFER_WITH_SIZE : OP_CUSTOM_OPERATION;
  m_strURLPath = urlPath;
  setCommandInfo(vCommandInfo);
  m_PostBuffer = body;
  if (method != nullptr) m_operationName = method;
  return SendOperation(where);
}

CZuError KdProtocolReq::SendOperation(const FXCodeLocation& where) {
  CZuError error = SendReqest();
  if (Failed(error)) return error.Push(where);
  return {};
}

std::string KdProtocolReq::AppendForwardSlash(const std::string& path) {
  std::string folder = UpToZero(path);
  if (folder.empty() || folder.back() != '/') folder += '/';
  return folder;
}

CZuError KdProtocolReq::getFileInfo(const std::string& sourcePath, double& fileSizeOut) {
  resetCurlErrorBuffer();
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitialized);
  m_strURLPath = sourcePath;
  m_OpType = OP_GET_FILE_INFO;
  double size = 0.0;
  CZuError error = SendReqest();
  if (Failed(error)) return error.Push(ZU_HERE);
  m_curlCode = CurlWrapper::gCurlWrapper.Curl_easy_getinfo(Handle(),
                                                           CURLINFO_CONTENT_LENGTH_DOWNLOAD, &size);
  if (m_curlCode != CURLE_OK) {
    return ErrorKdCURL(ZU_HERE, m_curlCode,
                       "CURL perform failed. ErrorCode : [%d], Error Message : [%s]", m_curlCode,
                       ErrorText());
  }
  if (IsUnknownLength(size)) {
    CZuError unknown = ErrorKdCURL(ZU_HERE, 0, "File size recieved from server is invalid");
    return PushDetails(unknown, ZU_HERE, CURLE_OK);
  }
  fileSizeOut = size;
  return {};
}

CZuError KdProtocolReq::checkIfFileOrDirExists(const std::string& srcPath, bool isFile,
                                               bool& isExist) {
  resetCurlErrorBuffer();
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitialized);
  double size = 0.0;
  const CZuError error =
      getFileInfo(isFile ? UpToZero(srcPath) : AppendForwardSlash(srcPath), size);
  if (isFile) {
    if (m_curlCode != CURLE_OK) {
      CZuError failure =
          ErrorInt(ZU_HERE, kErrorBadInput,
                   "Failed to check if File exists.Error Code : [%d]. Error Message [%s] ",
                   m_curlCode, ErrorText());
      return PushDetails(failure, ZU_HERE, m_curlCode);
    }
    isExist = !Failed(error);
    return {};
  }
  constexpr long kNotFound = 404;
  const bool isAbsent = m_curlCode == CURLE_REMOTE_ACCESS_DENIED || m_responseCode == kNotFound;
  if (!isAbsent && m_curlCode != CURLE_OK) {
    CZuError failure =
        ErrorInt(ZU_HERE, kErrorBadInput,
                 "Failed to check if Directory exists. Error Code : [%d]. Error Message [%s] ",
                 m_curlCode, ErrorText());
    return PushDetails(failure, ZU_HERE, m_curlCode);
  }
  isExist = !isAbsent;
  return {};
}

CZuError KdProtocolReq::getInfo(CurlInfoType infoType, std::string& out) {
  resetCurlErrorBuffer();
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitialized);
  if (infoType != CURL_PRIMARY_IP && infoType != CURL_EFFECTIVE_URL) {
    return ErrorInt(ZU_HERE, kErrorBadInput, "Unrecognized Curl Info type.");
  }
  m_OpType = OP_GET_INFO;
  CZuError error = SendReqest();
  if (Failed(error)) return error.Push(ZU_HERE);
  const char* text = nullptr;
  m_curlCode = CurlWrapper::gCurlWrapper.Curl_easy_getinfo(
      Handle(), infoType == CURL_EFFECTIVE_URL ? CURLINFO_EFFECTIVE_URL : CURLINFO_PRIMARY_IP,
      &text);
  if (m_curlCode != CURLE_OK) {
    return ErrorKdCURL(ZU_HERE, m_curlCode,
                       "CURL get info failed. ErrorCode : [%d] , ErrorMessage : [%s]", m_curlCode,
                       ErrorText());
  }
  if (text == nullptr) return ErrorKdCURL(ZU_HERE, 0, "Invalid pointer from curl get info.");
  out = text;
  return {};
}

CZuError KdProtocolReq::getFilesAndDirsInfoInFile(const std::string& srcPath) {
  resetCurlErrorBuffer();
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitializedPlural);
  if (IsNullOrEmpty(srcPath.c_str())) {
    return ErrorInt(ZU_HERE, kErrorBadInput, "Source path passed in empty");
  }
  m_strURLPath = AppendForwardSlash(srcPath);
  m_OpType = OP_GET_FILE_DIR_LIST;
  return SendOperation(ZU_HERE);
}

bool KdProtocolReq::checkConnection() {
  if (!m_bProtocolInitialized) return true;
  m_OpType = OP_GET_INFO;
  (void)SendReqest();  // the code alone tells a lost connection from a refusal
  return m_curlCode == CURLE_COULDNT_RESOLVE_PROXY || m_curlCode == CURLE_COULDNT_RESOLVE_HOST ||
         m_curlCode == CURLE_COULDNT_CONNECT || m_curlCode == CURLE_LOGIN_DENIED;
}

void KdProtocolReq::setCommandInfo(const std::vector<commandInfo>& vCommandInfo) {
  for (const auto& [field, value] : vCommandInfo) addRequestedHeaders(field, value);
}

void KdProtocolReq::addRequestedHeaders(const std::string& headerName,
                                        const std::string& headerValue) {
  m_mHeaders[headerName] = headerValue;
}

CZuError KdProtocolReq::getTransferTimes(TransferTimes& times) {
  enum { kNameLookup, kConnect, kTls, kFirstByte, kTotal, kTimes };
  curl_off_t microseconds[kTimes] = {};
  TransferTimes result;
  const char* address = nullptr;
  long version = 0;
  const struct {
    CURLINFO info;
    void* out;
  } parts[] = {{CURLINFO_NAMELOOKUP_TIME_T, &microseconds[kNameLookup]},
               {CURLINFO_CONNECT_TIME_T, &microseconds[kConnect]},
               {CURLINFO_APPCONNECT_TIME_T, &microseconds[kTls]},
               {CURLINFO_STARTTRANSFER_TIME_T, &microseconds[kFirstByte]},
               {CURLINFO_TOTAL_TIME_T, &microseconds[kTotal]},
               {CURLINFO_SIZE_DOWNLOAD_T, &result.bytesReceived},
               {CURLINFO_SIZE_UPLOAD_T, &result.bytesSent},
               {CURLINFO_SPEED_DOWNLOAD_T, &result.receiveSpeed},
               {CURLINFO_SPEED_UPLOAD_T, &result.sendSpeed},
               {CURLINFO_PRIMARY_IP, &address},
               {CURLINFO_HTTP_VERSION, &version}};
  for (const auto& [info, out] : parts) {
    const CURLcode code = CurlWrapper::gCurlWrapper.Curl_easy_getinfo(Handle(), info, out);
    if (code != CURLE_OK) return ErrorKdCURL(ZU_HERE, code, "Failed to get info [%d]", info);
  }
  const auto seconds = [&](int which) { return static_cast<double>(microseconds[which]) / 1e6; };
  result.nameLookup = seconds(kNameLookup);
  result.connect = seconds(kConnect);
  result.tls = seconds(kTls);
  result.firstByte = seconds(kFirstByte);
  result.total = seconds(kTotal);
  result.address = address == nullptr ? "" : address;
  result.httpVersion = HttpVersion(version);
  times = std::move(result);
  return {};
}

}  // namespace KdCURL
