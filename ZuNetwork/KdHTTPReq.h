#pragma once

#include <string_view>

#include "ZuNetwork/KdProtocolReq.h"

namespace KdCURL {

enum HTTPProtocol : int {
  HTTP = 1,   // a server without a scheme gets "http://"
  HTTPS = 2,  // a server without a scheme gets "https://"
};

// One field of a multipart form.
struct formInfo {
  std::string copyName;    // the field's name
  std::int32_t fieldName;  // CURLFORM_COPYCONTENTS, CURLFORM_FILE or another CURLformoption
                           // that takes one string
  std::string fieldValue;  // the contents, or the path of the file to send
};

// Requests over HTTP and HTTPS. A response code from 100 to 399 is a success of every operation.
//
// uploadFile() POSTs the queued form fields as multipart/form-data; doPutOperation() sends a body
// as it is. Besides the errors of the base, a path that names another server than setURL() did is
// ErrorInt 1, "Server name in URLPath conflicts with registered server".
class ZUNETWORK_API KdHTTPReq : public KdProtocolReq {
 public:
  explicit KdHTTPReq(HTTPProtocol protocol);

  CZuError isOperationSuccess(bool& bIsSucess) override;

  // Appends "name:value" lines to the request's headers, in the order of the names.
  CZuError setHeaders(const std::map<std::string, std::string>& headerMap) override;

  ~KdHTTPReq() override;

  // Reads the links of a listing page: the last component of each target, decoded, a directory when
  // it ends in a slash; sizes are 0. Left out are a first link to the parent directory (followed by
  // "[To Parent Directory]") or to `sourcePath` itself, and "web.config". While an upper-case HREF
  // lies ahead, lower-case ones are passed over. Entries found before a failure stay in the list:
  //   ErrorInt 1    null list
  //   ErrorInt 101  a link without closing quote, or whose target has no slash (a relative link)
  //   else          the file cannot be read
  // An empty target raises std::out_of_range.
  // A lenient listing takes relative links too, and drops those to parent directories, to the
  // folder `sourcePath` and those above it, to other sites, queries and fragments.
  CZuError collectFilesAndDir(const std::string& fileName, std::vector<FileDirInfo>* vFilDirList,
                              std::string sourcePath) override;

  CZuError getFullWorkingURL(std::string& strURL) override;
  CZuError unsetOpTypeParameter() override;
  CZuError setMethodParameter() override;
  CZuError setDefaults() override;  // HTTP has none
  CZuError splitServerAndURLPath(std::string& serverOut, std::string& urlPathOut) override;

  // Asks for the path as a directory; 404 means that it is a file.
  CZuError IsFile(const std::string& sourcePath, bool& isFile) override;

  // How the server is told who asks: CURLAUTH_* bits.
  CZuError setHTTPAuth(long param);

  // Queues a form field for the next upload; the queue is emptied after every request.
  CZuError addFormValues(const std::string& copyName, int fieldName, const std::string& fieldValue);

  // Builds libcurl's form of the queued fields; part of an upload.
  CZuError setFormValue();

  // Whether the request's path carries the server, and its parts if it does.
  CZuError doesURLPathContainURL(bool& URLPathContainsURL);
  CZuError getServerAndPathFromURLPath(std::string& serverOut, std::string& urlPathOut);

 protected:
  HTTPProtocol m_protocol;
  curl_slist* m_headerList = nullptr;  // owned; the lines given to CURLOPT_HTTPHEADER
  bool m_bDoChunkedTransfer = false;   // kept for derived classes; no operation reads it
  std::vector<formInfo> m_formInfo;
  curl_httppost* m_FormPost = nullptr;              // owned
  curl_httppost* m_FormLast = nullptr;              // the last element of m_FormPost
  std::vector<curl_slist*> m_FormComponentHeaders;  // one for each field of an upload; owned by it

 private:
  static formInfo populateFormInfo(const std::string& copyName, int fieldName,
                                   const std::string& fieldValue) {
    return {copyName, fieldName, fieldValue};
  }
  CZuError SetPostBuffer(const FXCodeLocation& where);
  CZuError SetCustomRequest(const FXCodeLocation& where);
  void FreeForm();
  CZuError CollectLinks(const FXCodeLocation& where, std::string_view content, size_t firstLink,
                        const std::string& sourcePath, std::vector<FileDirInfo>& entries);
  CZuError CollectLink(const FXCodeLocation& where, std::string_view target,
                       std::vector<FileDirInfo>& entries);

  std::string m_postBody;  // what the handle points to after a POST of a buffer
};

}  // namespace KdCURL
