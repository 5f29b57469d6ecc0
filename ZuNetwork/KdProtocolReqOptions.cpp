#include <algorithm>

#include "ZuNetwork/KdErrorItem_KdCURL.h"
#include "ZuNetwork/KdProtocolReq.h"
#include "ZuNetwork/internal/FieldText.h"
#include "ZuNetwork/internal/KdProtocolReqHere.h"

namespace KdCURL {

namespace {

using FXErrorUtil::ErrorInt;

constexpr char kOptionRefused[] = "Failed to set option [%d]";

// By the ranges of option numbers that libcurl gives each kind of value.
bool TakesNumber(CURLoption option) {
  return option < CURLOPTTYPE_OBJECTPOINT ||
         (option >= CURLOPTTYPE_OFF_T && option < CURLOPTTYPE_BLOB);
}

}  // namespace

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

bool KdProtocolReq::SwitchQuery(bool isOn) {
  const bool isSize = m_OpType == OP_GET_FILE_INFO;
  if (!isSize && m_OpType != OP_CHECK_FILE_DIR_EXIST && m_OpType != OP_GET_INFO) return false;
  SetOption(CURLOPT_NOBODY, isOn ? 1 : 0);
  if (!isSize) return true;
  SetOption(CURLOPT_HEADERFUNCTION, isOn ? reinterpret_cast<void*>(getContentSize) : nullptr);
  SetOption(CURLOPT_HEADER, 0);
  return true;
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

}  // namespace KdCURL
