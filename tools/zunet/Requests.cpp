#include "Requests.h"

#include <algorithm>

#include "Url.h"
#include "ZuNetwork/KdErrorItem_KdCURL.h"

namespace {

std::string_view NameOf(std::string_view line) { return line.substr(0, line.find_first_of(":;")); }

}  // namespace

void HttpRequest::AddHeader(const std::string& line) {
  m_lines.push_back(line);
  m_isConditional = HasHeader("If-None-Match") || HasHeader("If-Modified-Since");
}

bool HttpRequest::HasHeader(const std::string& name) const {
  return std::any_of(m_lines.begin(), m_lines.end(), [&](const std::string& line) {
    return EqualsIgnoringCase(NameOf(line), name);
  });
}

bool HttpRequest::IsSuccess(int status) const {
  constexpr int kNotModified = 304;
  return (status >= 200 && status < 300) || (m_isConditional && status == kNotModified);
}

CZuError HttpRequest::isOperationSuccess(bool& bIsSucess) {
  bIsSucess = IsSuccess(static_cast<int>(m_responseCode));
  return {};
}

CZuError HttpRequest::setHeaders(const std::map<std::string, std::string>& headerMap) {
  CZuError error = KdHTTPReq::setHeaders(headerMap);
  if (Failed(error)) return error.Push(ZU_HERE);
  for (const std::string& line : m_lines) {
    curl_slist* const list =
        CurlWrapper::gCurlWrapper.Curl_slist_append(m_headerList, line.c_str());
    if (list == nullptr) return KdCURL::ErrorKdCURL(ZU_HERE, -1, "Failed to add a header");
    m_headerList = list;
  }
  return SetOptions(ZU_HERE, {{CURLOPT_HTTPHEADER, static_cast<void*>(m_headerList)}});
}

CZuError HttpRequest::PostFile(const std::string& path, const std::string& url) {
  CZuError error = m_body.OpenSized(path, m_bodySize);
  if (Failed(error)) return error.Push(ZU_HERE);
  setReadCallBack(&m_body, KdCURL::FileSource::Read);
  m_isFilePosted = true;
  error = doPostOperation(url.c_str(), nullptr, 0, {});
  m_isFilePosted = false;
  if (!Failed(error) || m_body.GetReadError() == 0) return error;
  return FXErrorUtil::ErrorErrNo(ZU_HERE, m_body.GetReadError(), "Failed to read file [%s]",
                                 path.c_str());
}

// A POST without a body of its own takes that of the read callback.
CZuError HttpRequest::setMethodParameter() {
  CZuError error = KdHTTPReq::setMethodParameter();
  if (Failed(error)) return error.Push(ZU_HERE);
  if (!m_isFilePosted) return {};
  SetOption(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<long long>(m_bodySize));
  SetOption(CURLOPT_SEEKDATA, static_cast<void*>(&m_body));
  SetOption(CURLOPT_SEEKFUNCTION, reinterpret_cast<void*>(KdCURL::FileSource::Seek));
  return {};
}
