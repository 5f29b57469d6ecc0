#include "ZuNetwork/KdProtocolReq.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <system_error>
#include <type_traits>

#include "ZuNetwork/KdErrorItem_KdCURL.h"
#include "ZuUtils/ZuString.h"

namespace KdCURL {

namespace {

using FXErrorUtil::ErrorInt;

constexpr char kDefaultCaBundle[] = "./curl-ca-bundle.crt";
constexpr long kDefaultTimeOutSec = 1080;
constexpr char kOptionRefused[] = "Failed to set option [%d]";

static_assert(std::is_same_v<curl_write_callback, curl_read_callback>,
              "one helper sets callbacks of both kinds");

// By the ranges of option numbers that libcurl gives each kind of value.
bool TakesNumber(CURLoption option) {
  return option < CURLOPTTYPE_OBJECTPOINT ||
         (option >= CURLOPTTYPE_OFF_T && option < CURLOPTTYPE_BLOB);
}

const char* HttpVersion(long version) {
  if (version == CURL_HTTP_VERSION_1_0) return "1.0";
  if (version == CURL_HTTP_VERSION_1_1) return "1.1";
  if (version == CURL_HTTP_VERSION_2_0) return "2";
  return version == CURL_HTTP_VERSION_3 ? "3" : "";
}

bool IsNullOrEmpty(const char* text) { return text == nullptr || *text == '\0'; }

// The URL for an error: without a login, and without what follows a question mark or a hash.
std::string WithoutSecrets(std::string url) {
  const size_t end = url.find_first_of("?#");
  if (end != std::string::npos) url.replace(end, std::string::npos, "?...");
  const size_t scheme = url.find("://");
  const size_t start = scheme == std::string::npos ? 0 : scheme + 3;
  size_t slash = std::min(url.find('/', start), url.size());
  // A slash in a password ends the server for libcurl, which leaves it with an odd port.
  const size_t colon = url.rfind(':', slash - 1);
  const bool hasOddPort = colon != std::string::npos && colon >= start && colon + 1 < slash &&
                          url.find_first_not_of("0123456789", colon + 1) < slash &&
                          url[slash - 1] != ']';
  if (hasOddPort) slash = url.size();
  const size_t at = slash == 0 ? std::string::npos : url.rfind('@', slash - 1);
  if (at != std::string::npos && at >= start) url.erase(start, at + 1 - start);
  return url;
}

// An unknown length is -1. Lengths that differ from it by multiples of 2^32 read as unknown too; a
// number beyond 64 bits has no low half to look at.
bool IsUnknownLength(double length) {
  constexpr double kTwoTo63 = 9223372036854775808.0;
  if (!(length >= -kTwoTo63 && length < kTwoTo63)) return false;
  return static_cast<std::uint32_t>(static_cast<std::int64_t>(length)) == 0xFFFFFFFF;
}

}  // namespace

pthread_mutex_t* KdProtocolReq::ssl_mutex = nullptr;
bool KdProtocolReq::m_gbInit = false;

void KdProtocolReq::initializeCurlLibrary() {
  if (m_gbInit) return;
  m_gbInit = CurlWrapper::gCurlWrapper.Curl_global_init(CURL_GLOBAL_ALL) == CURLE_OK;
}

void KdProtocolReq::deinitializeCurlLibrary() {}

CZuError KdProtocolReq::initialize() {
  Connection& connection = m_connections.emplace_back();
  m_szErrorBuffer = connection.errorBuffer;
  m_curlContext = &connection.context;
  if (m_curlContext->m_curl == nullptr) {
    CZuError error = ErrorKdCURL(ZU_HERE, -1, "Failed to get CURL handle");
    const CZuError missing = CurlWrapper::gCurlWrapper.CheckLoaded();
    if (Failed(missing)) error.Push(ZU_HERE, "%s", missing.Message().c_str());
    return error;
  }
  CZuError error = setDefaultConfiguration();
  if (Failed(error)) return error.Push(ZU_HERE);
  m_bProtocolInitialized = true;
  return {};
}

CZuError KdProtocolReq::setDefaultConfiguration() {
  resetCurlErrorBuffer();
  m_OpType = OP_DOWNLOAD_FILE;
  // Refused on a fresh object, which is not initialised yet: a request has no time limit until the
  // caller sets one.
  (void)SetTimeOut(kDefaultTimeOutSec);
  return SetOptions(ZU_HERE, {{CURLOPT_ERRORBUFFER, static_cast<void*>(m_szErrorBuffer)},
                              {CURLOPT_FOLLOWLOCATION, 1},
                              {CURLOPT_POSTREDIR, CURL_REDIR_POST_ALL},
                              {CURLOPT_VERBOSE, 1},
                              {CURLOPT_SSL_VERIFYPEER, 1},
                              {CURLOPT_SSL_VERIFYHOST, 2},
                              {CURLOPT_CAINFO, kDefaultCaBundle}});
}

bool KdProtocolReq::HasLineBreak(const std::string& text) {
  return text.find_first_of(std::string_view("\r\n\0", 3)) != std::string::npos;
}

std::string KdProtocolReq::AppendForwardSlash(const std::string& path) {
  CZuString text(path.c_str());
  text.CheckAndAppendLastCharacter('/');
  return text.c_str();
}

CZuError KdProtocolReq::SetOptions(const FXCodeLocation& where,
                                   std::initializer_list<Option> options) {
  for (const Option& option : options) {
    m_curlCode =
        std::visit([&](auto value) { return SetOption(option.option, value); }, option.value);
    if (m_curlCode != CURLE_OK)
      return ErrorKdCURL(where, m_curlCode, kOptionRefused, option.option);
  }
  return {};
}

CZuError KdProtocolReq::Configure(const FXCodeLocation& where, const char* notInitialized,
                                  std::initializer_list<Option> options) {
  resetCurlErrorBuffer();
  if (!m_bProtocolInitialized) return ErrorInt(where, kErrorBadInput, "%s", notInitialized);
  return SetOptions(where, options);
}

CZuError KdProtocolReq::SetHeaderLines(const FXCodeLocation& where, CURLoption option,
                                       const std::map<std::string, std::string>& headerMap,
                                       curl_slist*& list) {
  if (headerMap.empty()) return {};
  for (const auto& [name, value] : headerMap) {
    std::string line = name;
    line.append(1, ':').append(value);
    list = CurlWrapper::gCurlWrapper.Curl_slist_append(list, line.c_str());
  }
  return SetOptions(where, {{option, static_cast<void*>(list)}});
}

void KdProtocolReq::SetSizeQuery() {
  SetOption(CURLOPT_NOBODY, 1);
  SetOption(CURLOPT_HEADERFUNCTION, reinterpret_cast<void*>(getContentSize));
  SetOption(CURLOPT_HEADER, 0);
}

void KdProtocolReq::UnsetSizeQuery() {
  SetOption(CURLOPT_NOBODY, 0);
  SetOption(CURLOPT_HEADERFUNCTION, static_cast<void*>(nullptr));
  SetOption(CURLOPT_HEADER, 0);
}

CZuError KdProtocolReq::setSecured(bool isSecured, const std::string& caBundlePath) {
  if (!isSecured) {
    return Configure(ZU_HERE, kNotInitialized,
                     {{CURLOPT_SSL_VERIFYPEER, 0}, {CURLOPT_SSL_VERIFYHOST, 0}});
  }
  return Configure(ZU_HERE, kNotInitialized,
                   {{CURLOPT_SSL_VERIFYPEER, 1},
                    {CURLOPT_SSL_VERIFYHOST, 2},
                    {CURLOPT_CAINFO, caBundlePath.c_str()}});
}

CZuError KdProtocolReq::setMaxSSLVersion(int version) {
  resetCurlErrorBuffer();
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitialized);
  for (const CURLoption option : {CURLOPT_SSLVERSION, CURLOPT_PROXY_SSLVERSION}) {
    m_curlCode = SetOption(option, version);
    if (m_curlCode != CURLE_OK) {
      return ErrorKdCURL(ZU_HERE, m_curlCode, "Failed to set option [%d]. Curl Error code [%d] ",
                         option, m_curlCode);
    }
  }
  return {};
}

CZuError KdProtocolReq::setKeepAlive(bool keepAlive, long keepIdleSec, long keepItnvlSec) {
  resetCurlErrorBuffer();
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitialized);
  const struct {
    CURLoption option;
    long value;
  } options[] = {{CURLOPT_TCP_KEEPALIVE, keepAlive ? 1 : 0},
                 {CURLOPT_TCP_KEEPIDLE, keepIdleSec},
                 {CURLOPT_TCP_KEEPINTVL, keepItnvlSec}};
  for (const auto& [option, value] : options) {
    // Callers compare the error with the last request's code, so that code is left and reported.
    if (SetOption(option, value) != CURLE_OK) {
      return ErrorKdCURL(ZU_HERE, m_curlCode, kOptionRefused, option);
    }
    if (!keepAlive) break;
  }
  return {};
}

CZuError KdProtocolReq::setProxyDetails(const std::string& proxyServer,
                                        const std::string& proxyUserName,
                                        const std::string& proxyPassword,
                                        const std::string& proxyPort) {
  m_refusedProxyField = nullptr;
  if (HasLineBreak(proxyPassword)) m_refusedProxyField = "The password of the proxy";
  if (HasLineBreak(proxyUserName)) m_refusedProxyField = "The user name of the proxy";
  const std::string server = proxyServer + ":" + proxyPort;
  const std::string credentials = proxyUserName + ":" + proxyPassword;
  CZuError error = Configure(ZU_HERE, kNotInitialized,
                             {{CURLOPT_PROXYTYPE, int{CURLPROXY_HTTP}},
                              {CURLOPT_PROXY, server.c_str()},
                              {CURLOPT_PROXYUSERPWD, credentials.c_str()}});
  if (!Failed(error)) m_bIsProxySet = true;
  return error;
}

CZuError KdProtocolReq::setProxyBypass(const std::string& bypass) {
  return Configure(ZU_HERE, kNotInitialized, {{CURLOPT_NOPROXY, bypass.c_str()}});
}

CZuError KdProtocolReq::DisableProxy() {
  return Configure(ZU_HERE, kNotInitializedPlural, {{CURLOPT_PROXY, ""}});
}

CZuError KdProtocolReq::setProyAuth(long nAuthType) {
  return Configure(ZU_HERE, kNotInitializedPlural, {{CURLOPT_PROXYAUTH, nAuthType}});
}

CZuError KdProtocolReq::SetTimeOut(long secs) {
  return Configure(ZU_HERE, kNotInitializedPlural, {{CURLOPT_TIMEOUT, secs}});
}

CZuError KdProtocolReq::SetConnectionTimeOut(long secs) {
  return Configure(ZU_HERE, kNotInitializedPlural, {{CURLOPT_CONNECTTIMEOUT, secs}});
}

CZuError KdProtocolReq::setCredentials(const std::string& URLUserName,
                                       const std::string& URLPassword) {
  resetCurlErrorBuffer();
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitialized);
  m_strURLUserName = URLUserName;
  m_strURLPassword = URLPassword;
  const std::string credentials = URLUserName + ":" + URLPassword;
  return SetOptions(ZU_HERE, {{CURLOPT_USERPWD, credentials.c_str()}});
}

CZuError KdProtocolReq::setTraceCallBack(void* instancePtr, TRACE_FUN_POINTER traceFunPtr) {
  resetCurlErrorBuffer();
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitializedPlural);
  if (instancePtr == nullptr || traceFunPtr == nullptr) {
    return ErrorInt(ZU_HERE, kErrorBadInput, "Input is invalid");
  }
  // A trace that cannot be had is no reason to refuse the request.
  SetOption(CURLOPT_DEBUGFUNCTION, reinterpret_cast<void*>(traceFunPtr));
  SetOption(CURLOPT_DEBUGDATA, instancePtr);
  return {};
}

CZuError KdProtocolReq::setProgressCallBack(void* instancePtr,
                                            PROGRESS_FUN_POINTER progressFunPtr) {
  return Configure(ZU_HERE, kNotInitialized,
                   {{CURLOPT_XFERINFOFUNCTION, reinterpret_cast<void*>(progressFunPtr)},
                    {CURLOPT_XFERINFODATA, instancePtr},
                    {CURLOPT_NOPROGRESS, progressFunPtr == nullptr ? 1 : 0}});
}

CZuError KdProtocolReq::SetTimeOutMS(long milliseconds) {
  return Configure(ZU_HERE, kNotInitialized, {{CURLOPT_TIMEOUT_MS, milliseconds}});
}

CZuError KdProtocolReq::SetConnectionTimeOutMS(long milliseconds) {
  return Configure(ZU_HERE, kNotInitialized, {{CURLOPT_CONNECTTIMEOUT_MS, milliseconds}});
}

CZuError KdProtocolReq::setMinimumSpeed(long bytesPerSec, long secs) {
  return Configure(ZU_HERE, kNotInitialized,
                   {{CURLOPT_LOW_SPEED_LIMIT, bytesPerSec}, {CURLOPT_LOW_SPEED_TIME, secs}});
}

CZuError KdProtocolReq::setNoSignal(bool noSignal) {
  return Configure(ZU_HERE, kNotInitialized, {{CURLOPT_NOSIGNAL, noSignal ? 1 : 0}});
}

CZuError KdProtocolReq::setOption(int option, long value) {
  resetCurlErrorBuffer();
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitialized);
  if (!TakesNumber(static_cast<CURLoption>(option))) {
    return ErrorInt(ZU_HERE, kErrorBadInput, "Option [%d] takes no such value", option);
  }
  return KeepOption(ZU_HERE, {static_cast<CURLoption>(option), value});
}

CZuError KdProtocolReq::setOption(int option, const std::string& value) {
  resetCurlErrorBuffer();
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitialized);
  if (!CurlWrapper::gCurlWrapper.IsStringOption(static_cast<CURLoption>(option))) {
    return ErrorInt(ZU_HERE, kErrorBadInput, "Option [%d] takes no such value", option);
  }
  return KeepOption(ZU_HERE, {static_cast<CURLoption>(option), value});
}

// A refused option leaves the value that was kept before it.
CZuError KdProtocolReq::KeepOption(const FXCodeLocation& where, CallersOption option) {
  CZuError error = SetCallersOption(option);
  if (Failed(error)) return error.Push(where);
  m_callersOptions.erase(
      std::remove_if(m_callersOptions.begin(), m_callersOptions.end(),
                     [&](const CallersOption& kept) { return kept.option == option.option; }),
      m_callersOptions.end());
  m_callersOptions.push_back(std::move(option));
  return {};
}

CZuError KdProtocolReq::SetCallersOption(const CallersOption& option) {
  const auto* const text = std::get_if<std::string>(&option.value);
  m_curlCode = text == nullptr ? SetOption(option.option, std::get<long>(option.value))
                               : SetOption(option.option, text->c_str());
  if (m_curlCode == CURLE_OK) return {};
  return ErrorKdCURL(ZU_HERE, m_curlCode, kOptionRefused, option.option);
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

void KdProtocolReq::setWriteCallBack(void* instancePtr, WRITE_FUN_POINTER writeFunPtr) {
  m_KdWriteCallbackInstancePtr = instancePtr;
  m_WriteFunPtr = writeFunPtr;
}

void KdProtocolReq::setReadCallBack(void* instancePtr, READ_FUN_POINTER readFunPtr) {
  m_KdReadCallbackInstancePtr = instancePtr;
  m_ReadFunPtr = readFunPtr;
}

void KdProtocolReq::setHeaderWriteCallBack(void* instancePtr, WRITE_FUN_POINTER headerWriteFunPtr) {
  m_KdHeaderWriteCallbackInstancePtr = instancePtr;
  m_HeaderWriteFunPtr = headerWriteFunPtr;
}

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
  CZuError error = m_putSource.OpenSized(sourceFilePath, m_lDataSize);
  if (Failed(error)) return error.Push(ZU_HERE);
  setReadCallBack(&m_putSource, FileSource::Read);
  m_strURLPath = urlPath;
  m_OpType = OP_UPLOAD_FILE;
  setCommandInfo(vCommandInfo);
  m_strSourceFile = sourceFilePath;
  m_bIsPut = true;
  error = SendOperation(ZU_HERE);
  m_bIsPut = false;
  const int readError = m_putSource.GetReadError();
  m_putSource.Close();
  if (!Failed(error) || readError == 0) return error;
  return error.Push(ZU_HERE, "Failed to read file [%s]: %s", sourceFilePath.c_str(),
                    std::generic_category().message(readError).c_str());
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
  if (IsNullOrEmpty(urlPath)) return ErrorInt(ZU_HERE, kErrorBadInput, "Invalid URL path .");
  if (size < 0) return ErrorInt(ZU_HERE, kErrorBadInput, "Invalid Buffer size.");
  m_lDataSize = size;
  m_OpType = OP_POST_BUFFER_WITH_SIZE;
  m_strURLPath = urlPath;
  setCommandInfo(vCommandInfo);
  m_PostBuffer = postString;
  return SendOperation(ZU_HERE);
}

CZuError KdProtocolReq::doPutOperation(const char* urlPath, const char* putData, long size,
                                       const std::vector<commandInfo>& vCommandInfo) {
  resetCurlErrorBuffer();
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitialized);
  if (putData == nullptr) return ErrorInt(ZU_HERE, kErrorBadInput, "Invalid PUT data.");
  return SendCustomOperation(ZU_HERE, "PUT", urlPath, putData, size, vCommandInfo);
}

CZuError KdProtocolReq::doDeleteOperation(const char* urlPath, const char* req, long size,
                                          const std::vector<commandInfo>& vCommandInfo) {
  resetCurlErrorBuffer();
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitialized);
  if (req == nullptr) return ErrorInt(ZU_HERE, kErrorBadInput, "Invalid DELETE data.");
  return SendCustomOperation(ZU_HERE, "DELETE", urlPath, req, size, vCommandInfo);
}

CZuError KdProtocolReq::SendCustomOperation(const FXCodeLocation& where, const char* method,
                                            const char* urlPath, const char* body, long size,
                                            const std::vector<commandInfo>& vCommandInfo) {
  if (IsNullOrEmpty(urlPath)) return ErrorInt(where, kErrorBadInput, "Invalid URL path .");
  if (size < 0) return ErrorInt(where, kErrorBadInput, "Invalid Buffer size.");
  m_lDataSize = size;
  m_OpType = OP_CUSTOM_OPERATION;
  m_strURLPath = urlPath;
  setCommandInfo(vCommandInfo);
  m_PostBuffer = body;
  m_operationName = method;
  return SendOperation(where);
}

CZuError KdProtocolReq::SendOperation(const FXCodeLocation& where) {
  CZuError error = SendReqest();
  if (Failed(error)) error.Push(where);
  return error;
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
  CZuString path(srcPath.c_str());
  if (!isFile) path.CheckAndAppendLastCharacter('/');
  double size = 0.0;
  const CZuError error = getFileInfo(path.c_str(), size);
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
  const CZuString path(srcPath.c_str());
  if (path.IsEmpty()) return ErrorInt(ZU_HERE, kErrorBadInput, "Source path passed in empty");
  m_strURLPath = AppendForwardSlash(path.c_str());
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

CZuError KdProtocolReq::PrepareForRequest() {
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitializedPlural);
  if (m_strURL.empty()) return ErrorInt(ZU_HERE, kErrorNotSupported, "URL is empty");
  m_strWorkingURL = m_strURLPath;
  CZuError error = CheckFields(ZU_HERE);
  if (Failed(error)) return error;
  std::string url;
  error = getFullWorkingURL(url);
  if (Failed(error)) return error.Push(ZU_HERE, "Failed to get working URL");
  SetOption(CURLOPT_URL, url.c_str());
  m_strWorkingURL = std::move(url);
  error = setMethodParameter();
  if (!Failed(error)) error = setHeaders(m_mHeaders);
  if (Failed(error)) return error.Push(ZU_HERE);
  SetCallBacks();
  if (m_lResumeOffset != 0) {
    SetOption(CURLOPT_RESUME_FROM_LARGE, static_cast<long long>(m_lResumeOffset));
  }
  for (const CallersOption& option : m_callersOptions) {
    error = SetCallersOption(option);
    if (Failed(error)) return error.Push(ZU_HERE);
  }
  return {};
}

// A break in one of these lines would begin another one, of the server's or an attacker's choice.
CZuError KdProtocolReq::CheckFields(const FXCodeLocation& where) const {
  constexpr char kRefused[] = "%s holds a line break or a zero byte";
  for (const auto& [name, value] : m_mHeaders) {
    if (HasLineBreak(name)) {
      return ErrorInt(where, kErrorBadInput, kRefused, "The name of a header or command");
    }
    if (HasLineBreak(value)) {
      const std::string field = "The header or command [" + name + "]";
      return ErrorInt(where, kErrorBadInput, kRefused, field.c_str());
    }
  }
  const char* field = m_refusedField;
  if (m_refusedProxyField != nullptr) field = m_refusedProxyField;
  if (HasLineBreak(m_strURLPassword)) field = "The password";
  if (HasLineBreak(m_strURLUserName)) field = "The user name";
  if (field == nullptr) return {};
  return ErrorInt(where, kErrorBadInput, kRefused, field);
}

CZuError KdProtocolReq::Execute() {
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitializedPlural);
  m_curlCode = CurlWrapper::gCurlWrapper.Curl_easy_perform(Handle());
  if (m_curlCode != CURLE_OK) {
    return ErrorKdCURL(ZU_HERE, m_curlCode,
                       "CURL perform failed.Curl ErrorCode : [%d], Error Message : [%s]",
                       m_curlCode, ErrorText());
  }
  CZuError error = getResponseCode();
  if (Failed(error)) return error.Push(ZU_HERE, "Failed to get ResponseCode");
  bool isSuccess = false;
  error = isOperationSuccess(isSuccess);
  if (Failed(error)) return error.Push(ZU_HERE, "Failed to determine success or failure.");
  if (isSuccess) return {};
  return ErrorKdCURL(ZU_HERE, m_curlCode,
                     "Requested Operation Failed. Return value from CURL: [%d] Response code from "
                     "server: [%ld]",
                     m_curlCode, m_responseCode);
}

CZuError KdProtocolReq::unSetMethodParameter() {
  UnsetCallBacks();
  if (m_lResumeOffset != 0) {
    SetOption(CURLOPT_RESUME_FROM_LARGE, 0LL);
    SetOption(CURLOPT_APPEND, 0);  // libcurl sets it for a resumed upload, and leaves it
  }
  m_lResumeOffset = 0;
  m_refusedField = nullptr;
  m_strLocalFault.clear();
  m_mHeaders.clear();
  CZuError error = unsetOpTypeParameter();
  if (Failed(error)) error.Push(ZU_HERE);
  return error;
}

CZuError KdProtocolReq::SendReqest() {
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitialized);
  CZuError error = PrepareForRequest();
  if (!Failed(error)) error = Execute();
  if (Failed(error)) PushDetails(error, ZU_HERE, GetKdCURL(error));
  (void)unSetMethodParameter();  // the request's own outcome is what counts
  if (Failed(error)) error.Push(ZU_HERE);
  return error;
}

// Libcurl leaves its buffer empty where it has nothing to add to its sentence for the code.
CZuError& KdProtocolReq::PushDetails(CZuError& error, const FXCodeLocation& where,
                                     int curlCode) const {
  if (curlCode > 0 && IsNullOrEmpty(m_szErrorBuffer)) {
    error.Push(where, "%s",
               CurlWrapper::gCurlWrapper.Curl_easy_strerror(static_cast<CURLcode>(curlCode)));
  }
  if (!m_strLocalFault.empty()) error.Push(where, "%s", m_strLocalFault.c_str());
  if (!m_strWorkingURL.empty())
    error.Push(where, "URL [%s]", WithoutSecrets(m_strWorkingURL).c_str());
  return error;
}

void KdProtocolReq::SetCallBack(CURLoption dataOption, CURLoption functionOption, void* instance,
                                curl_write_callback function) {
  SetOption(dataOption, instance);
  SetOption(functionOption, reinterpret_cast<void*>(function));
}

void KdProtocolReq::SetCallBacks() {
  if (m_WriteFunPtr && m_KdWriteCallbackInstancePtr) {
    SetCallBack(CURLOPT_WRITEDATA, CURLOPT_WRITEFUNCTION, m_KdWriteCallbackInstancePtr,
                m_WriteFunPtr);
  } else if (m_bWriteDataUnset) {
    // A null sink would crash libcurl's own writer; give it back the one of a fresh handle.
    SetOption(CURLOPT_WRITEDATA, static_cast<void*>(stdout));
  }
  if (m_ReadFunPtr && m_KdReadCallbackInstancePtr) {
    SetCallBack(CURLOPT_READDATA, CURLOPT_READFUNCTION, m_KdReadCallbackInstancePtr, m_ReadFunPtr);
  }
  if (m_bIsPut) {
    SetOption(CURLOPT_SEEKDATA, static_cast<void*>(&m_putSource));
    SetOption(CURLOPT_SEEKFUNCTION, reinterpret_cast<void*>(FileSource::Seek));
  }
  if (m_HeaderWriteFunPtr && m_KdHeaderWriteCallbackInstancePtr) {
    SetCallBack(CURLOPT_HEADERDATA, CURLOPT_HEADERFUNCTION, m_KdHeaderWriteCallbackInstancePtr,
                m_HeaderWriteFunPtr);
  }
}

void KdProtocolReq::UnsetCallBacks() {
  if (m_WriteFunPtr && m_KdWriteCallbackInstancePtr) {
    SetCallBack(CURLOPT_WRITEDATA, CURLOPT_WRITEFUNCTION, nullptr, nullptr);
    m_bWriteDataUnset = true;
  }
  if (m_ReadFunPtr && m_KdReadCallbackInstancePtr) {
    SetCallBack(CURLOPT_READDATA, CURLOPT_READFUNCTION, nullptr, nullptr);
  }
  if (m_bIsPut) {
    SetOption(CURLOPT_SEEKDATA, static_cast<void*>(nullptr));
    SetOption(CURLOPT_SEEKFUNCTION, static_cast<void*>(nullptr));
  }
  if (m_HeaderWriteFunPtr && m_KdHeaderWriteCallbackInstancePtr) {
    SetCallBack(CURLOPT_HEADERDATA, CURLOPT_HEADERFUNCTION, nullptr, nullptr);
  }
  setWriteCallBack(nullptr, nullptr);
  setReadCallBack(nullptr, nullptr);
  setHeaderWriteCallBack(nullptr, nullptr);
}

CZuError KdProtocolReq::getResponseCode() {
  m_responseCode = 0;
  m_curlCode = CurlWrapper::gCurlWrapper.Curl_easy_getinfo(Handle(), CURLINFO_RESPONSE_CODE,
                                                           &m_responseCode);
  if (m_curlCode == CURLE_OK) return {};
  return ErrorKdCURL(ZU_HERE, m_curlCode,
                     "CURL perform failed.ErrorCode : [%d], Error Message : [%s]", m_curlCode,
                     ErrorText());
}

const char* KdProtocolReq::ErrorText() const {
  return m_szErrorBuffer == nullptr ? " Error buffer is not initialized" : m_szErrorBuffer;
}

void KdProtocolReq::getLastCurlErrorCodeAndErrorMsg(int& errorCode, std::string& errorMsg) const {
  errorCode = m_curlCode;
  errorMsg = m_szErrorBuffer == nullptr ? "" : m_szErrorBuffer;
}

void KdProtocolReq::getLastServerResponseCode(int& responseCode) const {
  responseCode = static_cast<int>(m_responseCode);
}

void KdProtocolReq::resetCurlErrorCodeAndErrorMsg() {
  m_curlCode = CURLE_OK;
  resetCurlErrorBuffer();
}

void KdProtocolReq::resetCurlErrorBuffer() {
  if (m_szErrorBuffer != nullptr) std::memset(m_szErrorBuffer, 0, kErrorBufferSize);
}

CZuError KdProtocolReq::URLEncode(const std::string& strInput, std::string& outString) {
  char* const text = CurlWrapper::gCurlWrapper.Curl_easy_escape(Handle(), strInput.c_str(), 0);
  if (text == nullptr) return ErrorKdCURL(ZU_HERE, CURLE_FAILED_INIT, "Failed to encode the text");
  outString = text;
  CurlWrapper::gCurlWrapper.Curl_free(text);
  return {};
}

CZuError KdProtocolReq::URLDecode(const std::string& strInput, std::string& outString) {
  char* const text =
      CurlWrapper::gCurlWrapper.Curl_easy_unescape(Handle(), strInput.c_str(), 0, nullptr);
  if (text == nullptr) return ErrorKdCURL(ZU_HERE, CURLE_FAILED_INIT, "Failed to decode the text");
  outString = text;
  CurlWrapper::gCurlWrapper.Curl_free(text);
  return {};
}

size_t KdProtocolReq::getContentSize(void* /*ptr*/, size_t size, size_t nmemb, void* /*data*/) {
  return size * nmemb;
}

}  // namespace KdCURL
