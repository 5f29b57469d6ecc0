#include "ZuNetwork/KdProtocolReq.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <system_error>
#include <type_traits>

#include "ZuNetwork/KdErrorItem_KdCURL.h"
#include "ZuNetwork/internal/FieldText.h"

namespace KdCURL {

namespace {

using FXErrorUtil::ErrorInt;

constexpr char kDefaultCaBundle[] = "./curl-ca-bundle.crt";
constexpr long kDefaultTimeOutSec = 1080;

static_assert(std::is_same_v<curl_write_callback, curl_read_callback>,
              "one helper sets callbacks of both kinds");

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
  m_sourceFile.Close();
  if (Failed(error)) return error.Push(ZU_HERE);
  return {};
}

CZuError KdProtocolReq::SendReqest() {
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitialized);
  CZuError error = PrepareForRequest();
  if (!Failed(error)) error = Execute();
  if (Failed(error)) PushDetails(error, ZU_HERE, GetKdCURL(error));
  (void)unSetMethodParameter();  // the request's own outcome is what counts
  if (Failed(error)) return error.Push(ZU_HERE);
  return {};
}

// Libcurl leaves its buffer empty where it has nothing to add to its sentence for the code.
CZuError& KdProtocolReq::PushDetails(CZuError& error, const FXCodeLocation& where,
                                     int curlCode) const {
  if (curlCode > 0 && *ErrorText() == '\0') {
    error.Push(where, "%s",
               CurlWrapper::gCurlWrapper.Curl_easy_strerror(static_cast<CURLcode>(curlCode)));
  }
  if (!m_strLocalFault.empty()) error.Push(where, "%s", m_strLocalFault.c_str());
  const int readError = m_sourceFile.GetReadError();
  if (readError != 0) {
    error.Push(where, "Failed to read file [%s]: %s", m_strSourceFile.c_str(),
               std::generic_category().message(readError).c_str());
  }
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
    SetOption(CURLOPT_SEEKDATA, static_cast<void*>(&m_sourceFile));
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
