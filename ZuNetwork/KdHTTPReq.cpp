#include "ZuNetwork/KdHTTPReq.h"

#include <unistd.h>

#include <cerrno>
#include <memory>
#include <system_error>

#include "ZuNetwork/KdErrorItem_KdCURL.h"
#include "ZuNetwork/internal/FieldText.h"
#include "ZuNetwork/internal/KdListing.h"
#include "ZuUtils/FXPath.h"
#include "ZuUtils/FXString.h"
#include "ZuUtils/ZuFile.h"

namespace KdCURL {

namespace {

using FXErrorUtil::ErrorInt;

constexpr std::string_view kSchemeEnd = "://";
constexpr std::string_view kServerConfiguration = "web.config";  // servers list it but keep it

bool StartsWith(const std::string& text, std::string_view prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

bool Contains(const std::string& text, std::string_view part) {
  return text.find(part) != std::string::npos;
}

// Where the first "://" ends, 0 without one.
size_t EndOfScheme(const std::string& url) {
  const size_t position = url.find(kSchemeEnd);
  return position == std::string::npos ? 0 : position + kSchemeEnd.size();
}

// A name as it stands between quotes in the header of a form field (RFC 7578, as browsers do it).
std::string QuotedName(const std::string& name) {
  std::string quoted;
  for (const char c : name) {
    if (c == '"') {
      quoted += "%22";
    } else if (c == '\r') {
      quoted += "%0D";
    } else if (c == '\n') {
      quoted += "%0A";
    } else {
      quoted += c;
    }
  }
  return quoted;
}

}  // namespace

KdHTTPReq::KdHTTPReq(HTTPProtocol protocol) : m_protocol(protocol) {}

KdHTTPReq::~KdHTTPReq() {
  if (m_headerList != nullptr) CurlWrapper::gCurlWrapper.Curl_slist_free_all(m_headerList);
  FreeForm();
}

void KdHTTPReq::FreeForm() {
  if (m_FormPost != nullptr) CurlWrapper::gCurlWrapper.Curl_formfree(m_FormPost);
  m_FormPost = nullptr;
  m_FormLast = nullptr;
}

CZuError KdHTTPReq::setDefaults() {
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitializedPlural);
  return {};
}

CZuError KdHTTPReq::isOperationSuccess(bool& bIsSucess) {
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitialized);
  bIsSucess = m_responseCode >= 100 && m_responseCode < 400;
  return {};
}

CZuError KdHTTPReq::setHTTPAuth(long param) {
  return Configure(ZU_HERE, kNotInitialized, {{CURLOPT_HTTPAUTH, param}});
}

CZuError KdHTTPReq::setHeaders(const std::map<std::string, std::string>& headerMap) {
  resetCurlErrorBuffer();
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitialized);
  return SetHeaderLines(ZU_HERE, CURLOPT_HTTPHEADER, headerMap, m_headerList);
}

CZuError KdHTTPReq::addFormValues(const std::string& copyName, int fieldName,
                                  const std::string& fieldValue) {
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitializedPlural);
  const bool isFileName = fieldName != CURLFORM_COPYCONTENTS && fieldName != CURLFORM_PTRCONTENTS;
  if (HasZeroByte(copyName)) m_refusedField = "The name of a form field";
  if (isFileName && HasZeroByte(fieldValue)) m_refusedField = "The file name of a form field";
  m_formInfo.push_back(populateFormInfo(copyName, fieldName, fieldValue));
  return {};
}

CZuError KdHTTPReq::setFormValue() {
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitialized);
  m_FormComponentHeaders.clear();
  for (const formInfo& field : m_formInfo) {
    const std::string fieldName = QuotedName(field.copyName);
    std::string line =
        FXString::Format("Content-Disposition: form-data; name=\"%s\"", fieldName.c_str());
    if (field.fieldName == CURLFORM_FILE) {
      std::string parent;
      std::string name;
      CZuError error = FXPath::SplitParentPath(field.fieldValue, parent, name);
      if (Failed(error)) return error.Push(ZU_HERE);
      if (access(field.fieldValue.c_str(), R_OK) != 0) {  // libcurl's error will not name it
        m_strLocalFault = "Failed to open file [" + field.fieldValue +
                          "]: " + std::generic_category().message(errno);
      }
      line = FXString::Format("Content-Disposition: form-data; name=\"%s\";filename=\"%s\"",
                              fieldName.c_str(), QuotedName(name).c_str());
    }
    curl_slist* const header = CurlWrapper::gCurlWrapper.Curl_slist_append(nullptr, line.c_str());
    if (header == nullptr) {
      return ErrorKdCURL(ZU_HERE, -1, "Failed to create content header list.");
    }
    m_FormComponentHeaders.push_back(header);
    CurlWrapper::gCurlWrapper.Curl_formadd(&m_FormPost, &m_FormLast, CURLFORM_CONTENTHEADER, header,
                                           CURLFORM_COPYNAME, field.copyName.c_str(),
                                           static_cast<CURLformoption>(field.fieldName),
                                           field.fieldValue.c_str(), CURLFORM_END);
  }
  return {};
}

CZuError KdHTTPReq::IsFile(const std::string& sourcePath, bool& isFile) {
  resetCurlErrorBuffer();
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitialized);
  constexpr long kNotFound = 404;
  setURLPath(AppendForwardSlash(sourcePath));
  setOperationType(OP_GET_FILE_INFO);
  CZuError error = SendReqest();
  if (Failed(error) && m_responseCode != kNotFound) return error.Push(ZU_HERE);
  isFile = m_responseCode == kNotFound;
  return {};
}

CZuError KdHTTPReq::doesURLPathContainURL(bool& URLPathContainsURL) {
  const size_t pathStart = EndOfScheme(m_strURLPath);
  const size_t serverStart = EndOfScheme(m_strURL);
  if (pathStart == 0) {
    URLPathContainsURL = StartsWith(m_strURLPath, m_strURL.substr(serverStart));
    return {};
  }
  const std::string server =
      serverStart == 0 ? m_strURLPath.substr(0, pathStart) + m_strURL : m_strURL;
  if (!StartsWith(m_strURLPath, server)) {
    return ErrorInt(ZU_HERE, kErrorBadInput,
                    "Server name in URLPath conflicts with registered server");
  }
  URLPathContainsURL = true;
  return {};
}

CZuError KdHTTPReq::getServerAndPathFromURLPath(std::string& serverOut, std::string& urlPathOut) {
  const std::string url = EndOfScheme(m_strURLPath) == 0
                              ? m_strURL.substr(0, EndOfScheme(m_strURL)) + m_strURLPath
                              : m_strURLPath;
  const size_t slash = url.find('/', EndOfScheme(url));
  serverOut = url.substr(0, slash);
  urlPathOut = slash == std::string::npos ? "/" : url.substr(slash);
  return {};
}

CZuError KdHTTPReq::splitServerAndURLPath(std::string& serverOut, std::string& urlPathOut) {
  bool containsServer = false;
  CZuError error = doesURLPathContainURL(containsServer);
  if (Failed(error)) return error.Push(ZU_HERE);
  if (containsServer) {
    error = getServerAndPathFromURLPath(serverOut, urlPathOut);
    if (Failed(error)) return error.Push(ZU_HERE);
  } else {
    serverOut = m_strURL;
    urlPathOut = m_strURLPath;
  }
  if (!StartsWith(urlPathOut, "/")) urlPathOut.insert(0, "/");
  if (!Contains(serverOut, "http://") && !Contains(serverOut, "https://")) {
    serverOut.insert(0, m_protocol == HTTPS ? "https://" : "http://");
  }
  return {};
}

CZuError KdHTTPReq::getFullWorkingURL(std::string& strURL) {
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitialized);
  std::string server;
  std::string path;
  CZuError error = splitServerAndURLPath(server, path);
  if (Failed(error)) return error.Push(ZU_HERE);
  if (server.empty()) return ErrorInt(ZU_HERE, kErrorBadInput, "URL is empty.");
  if (path.empty()) return ErrorInt(ZU_HERE, kErrorBadInput, "URL path is empty.");
  if (!m_strPortNo.empty()) server += ":" + m_strPortNo;
  strURL = server + path;
  return {};
}

CZuError KdHTTPReq::setMethodParameter() {
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitialized);
  if (SwitchQuery(true)) return {};
  switch (m_OpType) {
    case OP_UPLOAD_FILE:
      if (m_bIsPut) {
        SetOption(CURLOPT_UPLOAD, 1);
        SetOption(CURLOPT_INFILESIZE_LARGE, static_cast<long long>(m_lDataSize));
        return {};
      }
      (void)setFormValue();  // what could be built is sent
      addRequestedHeaders("Expect", "100-continue");
      SetOption(CURLOPT_HTTPPOST, static_cast<void*>(m_FormPost));
      return {};
    case OP_DOWNLOAD_FILE:
      SetOption(CURLOPT_HTTPGET, 1);
      return {};
    case OP_GET_FILE_DIR_LIST:
      return {};
    case OP_POST_SIMPLE:
      SetOption(CURLOPT_POST, 1);
      SetOption(CURLOPT_POSTFIELDSIZE, static_cast<long>(m_strPostString.size()));
      SetOption(CURLOPT_POSTFIELDS, m_strPostString.c_str());
      return {};
    case OP_POST_BUFFER_WITH_SIZE:
      return SetPostBuffer(ZU_HERE);
    case OP_CUSTOM_OPERATION:
      return SetCustomRequest(ZU_HERE);
    default:
      return ErrorInt(ZU_HERE, kErrorNotSupported, "Invalid OpType [%d]", m_OpType);
  }
}

CZuError KdHTTPReq::SetPostBuffer(const FXCodeLocation& where) {
  SetOption(CURLOPT_POST, 1);
  SetOption(CURLOPT_POSTFIELDSIZE, static_cast<long>(m_lDataSize));
  if (m_lDataSize == 0) return {};
  if (m_PostBuffer == nullptr) {
    return ErrorInt(where, kErrorBadInput,
                    "KdProtocol buffer is NULL. Set buffer before calling doPostOperation "
                    "function.");
  }
  // The handle keeps these options, so what they point to has to outlive the caller's buffer.
  m_postBody.assign(m_PostBuffer, static_cast<size_t>(m_lDataSize));
  SetOption(CURLOPT_POSTFIELDS, m_postBody.c_str());
  return {};
}

CZuError KdHTTPReq::SetCustomRequest(const FXCodeLocation& where) {
  SetOption(CURLOPT_CUSTOMREQUEST, m_operationName.c_str());
  if (m_PostBuffer == nullptr) {
    return ErrorInt(where, kErrorBadInput, "KdProtocol buffer is NULL. Set buffer before calling.");
  }
  SetOption(CURLOPT_POSTFIELDS, m_PostBuffer);
  SetOption(CURLOPT_POSTFIELDSIZE, static_cast<long>(m_lDataSize));
  return {};
}

CZuError KdHTTPReq::unsetOpTypeParameter() {
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitialized);
  constexpr void* kNull = nullptr;
  if (m_headerList != nullptr) {
    CurlWrapper::gCurlWrapper.Curl_slist_free_all(m_headerList);
    SetOption(CURLOPT_HTTPHEADER, kNull);
  }
  m_headerList = nullptr;
  m_formInfo.clear();
  if (SwitchQuery(false)) return {};
  switch (m_OpType) {
    case OP_UPLOAD_FILE:
      if (m_bIsPut) {
        SetOption(CURLOPT_UPLOAD, 0);
        SetOption(CURLOPT_INFILESIZE_LARGE, -1LL);
        return {};
      }
      SetOption(CURLOPT_HTTPPOST, kNull);
      SetOption(CURLOPT_INFILESIZE_LARGE, 0LL);
      FreeForm();
      for (curl_slist* const header : m_FormComponentHeaders) {
        CurlWrapper::gCurlWrapper.Curl_slist_free_all(header);
      }
      m_FormComponentHeaders.clear();
      return {};
    case OP_DOWNLOAD_FILE:
      SetOption(CURLOPT_HTTPGET, 0);
      return {};
    case OP_GET_FILE_DIR_LIST:
      return {};
    case OP_POST_SIMPLE:
      SetOption(CURLOPT_POST, 0);
      SetOption(CURLOPT_POSTFIELDS, kNull);
      SetOption(CURLOPT_POSTFIELDSIZE, 0);
      return {};
    case OP_CUSTOM_OPERATION:
      SetOption(CURLOPT_CUSTOMREQUEST, kNull);
      SetOption(CURLOPT_POST, 0);
      SetOption(CURLOPT_POSTFIELDSIZE, 0);
      return {};
    default:  // a POST with a size too: its options stay on the handle
      return ErrorInt(ZU_HERE, kErrorNotSupported, "Invalid OpType [%d] for HTTP protocol",
                      m_OpType);
  }
}

CZuError KdHTTPReq::collectFilesAndDir(const std::string& fileName,
                                       std::vector<FileDirInfo>* vFilDirList,
                                       std::string sourcePath) {
  if (!m_bProtocolInitialized) return ErrorInt(ZU_HERE, kErrorBadInput, kNotInitialized);
  if (vFilDirList == nullptr) {
    return ErrorInt(ZU_HERE, kErrorBadInput, "NULL pointer passed for output vector");
  }
  CZuFile file;
  CZuError error = file.Open(fileName.c_str(), 0, 0);
  if (Failed(error)) return error.Push(ZU_HERE, "Failed to open response file.");
  unsigned long long size = 0;
  error = file.Size(size);
  if (Failed(error)) {
    return error.Push(ZU_HERE, "Failed to get the size of a file [%s]", fileName.c_str());
  }
  if (size == 0) return {};
  char* buffer = nullptr;
  size_t length = 0;
  error = CZuFile::ReadWholeFile(fileName.c_str(), &buffer, length);
  if (Failed(error)) return error.Push(ZU_HERE, "Failed to read response file.");
  if (buffer == nullptr) return ErrorInt(ZU_HERE, kErrorBadInput, "Content buffer is NULL");
  const std::unique_ptr<char[]> owner(buffer);
  if (m_bLenientListing) {
    error = ReadPageLeniently(ZU_HERE, {buffer, length}, sourcePath, *vFilDirList);
  } else {
    if (!HasLinks(buffer)) return {};
    const FXCodeLocation where = ZU_HERE;
    const auto take = [&](const std::string& name, bool isFile) {
      FileDirInfo entry{name, isFile};
      CZuError failure = URLDecode(entry.name, entry.name);
      if (Failed(failure)) return failure.Push(where);
      if (entry.name != kServerConfiguration) vFilDirList->push_back(std::move(entry));
      return failure;
    };
    error = ReadPage(where, buffer, sourcePath, take);
  }
  if (Failed(error)) return error;
  error = file.Close();
  if (Failed(error)) return error.Push(ZU_HERE);
  return {};
}

}  // namespace KdCURL
