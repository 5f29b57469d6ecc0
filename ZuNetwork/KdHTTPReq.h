#pragma once

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

  // Appends the entries of a listing page, in its order, with size 0. Sorted out is
  //
  //                       strict (the default)                lenient (setLenientListing)
  //   what is a link      HREF="..." or href="...", anywhere  the href of an <a>, however written
  //   of both cases       lower-case ones count only behind   all count
  //                       the last upper-case one
  //   its name            the last component of the target,   the target in the listed folder,
  //                       percent-decoded                     entities and percents decoded
  //   a directory         when the target ends in a slash     the same
  //   left out            "web.config"; the first link, when  "web.config"; what is not directly
  //                       the first text in brackets behind   in the folder `sourcePath` (a path
  //                       it is "[To Parent Directory]", or   or URL): links to folders above or
  //                       when there is none and it is        below, to other sites, queries and
  //                       `sourcePath` itself                 places on the page; names that are
  //                                                           none of a file (see below)
  //   a relative target   ErrorInt 101                        is in the folder
  //   an empty target     raises std::out_of_range            left out
  //   a missing quote     ErrorInt 101                        ErrorInt 101, as a tag without end
  //   a zero byte         ends the page                       ErrorInt 101, with its position
  //
  // A strict name is what the server wrote: it may be "..", hold slashes ("%2f"), line ends and
  // escape characters. Before a program makes a path of it, or shows it, it has to look. A lenient
  // one is that of a file: not empty, "." or "..", without slash or control character.
  // "colon:name.txt" is a name; what begins with a scheme that browsers know ("mailto:") is none.
  //
  // Entries found before a failure stay in the list. ErrorInt 1 for a null list; a file that cannot
  // be read has its own error.
  CZuError collectFilesAndDir(const std::string& fileName, std::vector<FileDirInfo>* vFilDirList,
                              std::string sourcePath) override;

  CZuError getFullWorkingURL(std::string& strURL) override;
  CZuError unsetOpTypeParameter() override;
  CZuError setMethodParameter() override;
  CZuError setDefaults() override;  // HTTP has none
  CZuError splitServerAndURLPath(std::string& serverOut, std::string& urlPathOut) override;

  // Asks for the path as a directory; 404 means that it is a file.
  CZuError IsFile(const std::string& sourcePath, bool& isFile) override;

  // The ways to log in at the server: CURLAUTH_* bits, of which libcurl takes the safest that the
  // server offers.
  CZuError setHTTPAuth(long param);

  // Queues a form field for the next upload; the queue is emptied after every request. Quotes, CR
  // and LF in the names of field and file go out as %22, %0D and %0A. A zero byte in one of them
  // makes the next request fail with ErrorInt 1; contents end at one.
  CZuError addFormValues(const std::string& copyName, int fieldName, const std::string& fieldValue);

  // Builds libcurl's form of the queued fields. An upload calls it and frees what it made; a
  // program need not. After a call outside an upload the next upload sends the fields twice, and
  // the memory of the header lines that the call made is lost: the form points to them until it is
  // sent.
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
  ZUNETWORK_LOCAL CZuError SetPostBuffer(const FXCodeLocation& where);
  ZUNETWORK_LOCAL CZuError SetCustomRequest(const FXCodeLocation& where);
  ZUNETWORK_LOCAL void FreeForm();

  std::string m_postBody;  // what the handle points to after a POST of a buffer
};

}  // namespace KdCURL
