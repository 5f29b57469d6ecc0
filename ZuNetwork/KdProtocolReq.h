#pragma once

#include <pthread.h>

#include <cstdint>
#include <initializer_list>
#include <list>
#include <map>
#include <string>
#include <variant>
#include <vector>

#include "ZuNetwork/CurlWrapper.h"
#include "ZuNetwork/KdCurlContext.h"
#include "ZuNetwork/KdTransferIO.h"
#include "ZuUtils/ZuError.h"

namespace KdCURL {

// The kind of the request being run.
enum operationType : int {
  OP_NONE = 0,
  OP_UPLOAD_FILE = 1,
  OP_DOWNLOAD_FILE = 2,
  OP_GET_FILE_DIR_LIST = 3,
  OP_GET_FILE_INFO = 4,
  OP_CHECK_FILE_DIR_EXIST = 5,
  OP_POST_SIMPLE = 6,
  OP_GET_INFO = 7,
  OP_POST_BUFFER_WITH_SIZE = 8,
  OP_CUSTOM_OPERATION = 9,
};

// What getInfo() can tell.
enum CurlInfoType : int {
  CURL_PRIMARY_IP = 0,     // the numeric address of the server that answered
  CURL_EFFECTIVE_URL = 1,  // the URL that answered, after redirects
};

// A request header (HTTP) or command (FTP) that goes with one operation.
struct commandInfo {
  std::string field;
  std::string value;
};

// One entry of a directory listing.
struct FileDirInfo {
  std::string name;
  bool isFile = false;
  double fileSize = 0.0;  // bytes; 0 where the listing tells no size
};

// How the last transfer went; all 0 and empty before the first one.
struct TransferTimes {
  // Seconds from the start until ...
  double nameLookup = 0.0;  // the name was resolved
  double connect = 0.0;     // the connection stood
  double tls = 0.0;         // TLS stood too; 0 without it
  double firstByte = 0.0;   // the first byte of the answer came
  double total = 0.0;       // the end
  std::int64_t bytesReceived = 0;
  std::int64_t bytesSent = 0;
  std::int64_t receiveSpeed = 0;  // bytes a second, over the whole transfer
  std::int64_t sendSpeed = 0;
  std::string address;      // numeric address of the server or proxy
  std::string httpVersion;  // "1.0", "1.1", "2" or "3"; empty for other protocols
};

// libcurl's own callbacks; see CURLOPT_WRITEFUNCTION, CURLOPT_READFUNCTION, CURLOPT_DEBUGFUNCTION.
using WRITE_FUN_POINTER = curl_write_callback;
using READ_FUN_POINTER = curl_read_callback;
using PROGRESS_FUN_POINTER = curl_xferinfo_callback;
// Only the low 32 bits of `infoType` are set: they are libcurl's curl_infotype.
using TRACE_FUN_POINTER = int (*)(void* handle, void* infoType, char* data, unsigned long size,
                                  void* instancePtr);

// A connection to one server and the requests on it; the base of the protocols' classes.
//
// Use: construct, initialize(), setURL() and whatever else is to be configured, then one operation
// after the other. Every setter and operation before a successful initialize() fails with ErrorInt
// 1 and "KdProtocol class is not initialized yet. ...". After each operation, whether it succeeded
// or not, the three callbacks and the request headers are cleared; server, credentials, proxy, TLS
// settings and time limits stay.
//
// How an operation fails:
//   ErrorInt 1                 bad argument (the text says which), object not initialised; a
//                              header, command, user name or password (the server's or the
//                              proxy's) with CR, LF or NUL: the setter takes it, the next request
//                              is refused before anything is sent
//   ErrorInt 101               no server set, operation unknown to the protocol
//   ErrorKdCURL(c, ...), c > 0 libcurl could not complete the transfer; c is its CURLcode
//   ErrorKdCURL(0, ...)        the server answered and refused; see getLastServerResponseCode()
//
// The error of a request also names its URL, without login and query, which may hold secrets, and
// libcurl's own sentence for the code where libcurl said no more.
//
// Without a time limit of the caller a request may wait for ever. libcurl's trace is on: it goes to
// standard error until setTraceCallBack() takes it. A body without a write callback goes to
// standard output.
//
// An object is used by one thread at a time; objects on distinct threads are independent once
// initializeCurlLibrary() has run.
class ZUNETWORK_API KdProtocolReq {
 public:
  KdProtocolReq() = default;
  KdProtocolReq(const KdProtocolReq&) = delete;
  KdProtocolReq& operator=(const KdProtocolReq&) = delete;

  // How each protocol does its part of a request. These are called by the operations below.

  // Judges the completed transfer by its response code and the operation.
  virtual CZuError isOperationSuccess(bool& bIsSucess) = 0;

  // Puts headers (HTTP) or commands (FTP) on the handle, in the order of their names.
  virtual CZuError setHeaders(const std::map<std::string, std::string>& headerMap) = 0;

  virtual ~KdProtocolReq() = default;

  // Appends the entries of a listing that was received into the file `fileName`.
  virtual CZuError collectFilesAndDir(const std::string& fileName,
                                      std::vector<FileDirInfo>* vFilDirList,
                                      std::string sourcePath) = 0;

  // Composes the URL of the request from server, port and path.
  virtual CZuError getFullWorkingURL(std::string& strURL) = 0;

  // Undoes on the handle what setMethodParameter() set for the operation.
  virtual CZuError unsetOpTypeParameter() = 0;

  // Sets on the handle what the operation needs.
  virtual CZuError setMethodParameter() = 0;

  // Sets the protocol's recommended defaults; for callers, no operation calls it.
  virtual CZuError setDefaults() = 0;

  // Splits server and path of the request, completing the scheme.
  virtual CZuError splitServerAndURLPath(std::string& serverOut, std::string& urlPathOut) = 0;

  // Whether the path names a file rather than a directory. Replaces the request's path.
  virtual CZuError IsFile(const std::string& sourcePath, bool& isFile) = 0;

  // Prepares libcurl for requests on several threads; a program calls it once, before the first of
  // them. A failure shows in the requests; the next call tries again.
  static void initializeCurlLibrary();
  static void deinitializeCurlLibrary();  // nothing is left to be done

  // Gets a handle of libcurl and sets the defaults of requests: redirects are followed, and a POST
  // stays a POST then; the server's certificate and name are verified against ./curl-ca-bundle.crt;
  // there is no time limit. To be called once. Fails with ErrorKdCURL(-1, "Failed to get CURL
  // handle") when libcurl cannot be loaded, followed by the reason and what to install, and with
  // "Failed to set option [%d]" when libcurl refuses a default.
  CZuError initialize();

  // What initialize() sets, set again; an initialised object also gets a time limit of 18 minutes.
  CZuError setDefaultConfiguration();

  // The configuration. All return the not-initialised error, or ErrorKdCURL with libcurl's code and
  // "Failed to set option [%d]" (the number of the option) at the first option that is refused.

  // Verifies the server's certificate and name against the bundle of CAs, or not at all.
  CZuError setSecured(bool isSecured, const std::string& caBundlePath);

  // The TLS versions allowed with server and proxy: a CURL_SSLVERSION_* value, which may be ORed
  // with a CURL_SSLVERSION_MAX_* value.
  CZuError setMaxSSLVersion(int version);

  // Lets the system probe a connection that was idle for `keepIdleSec` seconds, every
  // `keepItnvlSec` seconds. The error of an option that libcurl refuses carries the libcurl code of
  // the request before, not the one of the refusal.
  CZuError setKeepAlive(bool keepAlive, long keepIdleSec, long keepItnvlSec);

  // An HTTP proxy. Where the port is empty libcurl is given "server:", which means its default,
  // 1080; where user and password are, ":".
  CZuError setProxyDetails(const std::string& proxyServer, const std::string& proxyUserName,
                           const std::string& proxyPassword, const std::string& proxyPort);

  // Hosts that are reached without the proxy, separated by commas; "*" for all.
  CZuError setProxyBypass(const std::string& bypass);

  // No proxy, not even that of the environment.
  CZuError DisableProxy();

  // The ways to log in at the proxy: CURLAUTH_* bits, of which libcurl takes the safest that the
  // proxy offers.
  CZuError setProyAuth(long nAuthType);

  // The longest time for a whole request, in seconds (0: no limit), and for connecting (0: the 300
  // seconds that libcurl waits by itself).
  CZuError SetTimeOut(long secs);
  CZuError SetConnectionTimeOut(long secs);

  // The login at the server.
  CZuError setCredentials(const std::string& URLUserName, const std::string& URLPassword);

  // Takes libcurl's trace. Null arguments: ErrorInt 1, "Input is invalid".
  CZuError setTraceCallBack(void* instancePtr, TRACE_FUN_POINTER traceFunPtr);

  // The following is off until a program asks for it.

  // Calls the function several times a second with four numbers of bytes: to receive in all,
  // received so far, to send in all, sent so far; a total is 0 while it is unknown. A result other
  // than 0 cancels the request, which then fails with libcurl's code 42, "Callback aborted". The
  // function stays for all requests; a null one takes it away.
  CZuError setProgressCallBack(void* instancePtr, PROGRESS_FUN_POINTER progressFunPtr);

  // The limits of SetTimeOut() and SetConnectionTimeOut() in milliseconds.
  CZuError SetTimeOutMS(long milliseconds);
  CZuError SetConnectionTimeOutMS(long milliseconds);

  // A request that transfers less than `bytesPerSec`, on average over `secs` seconds, fails with
  // libcurl's code 28.
  CZuError setMinimumSpeed(long bytesPerSec, long secs);

  // Whether libcurl does without signals for its time limits. Programs with several threads need
  // it: a signal may interrupt any of them.
  CZuError setNoSignal(bool noSignal);

  // Any option of libcurl by its number. A text is sent as it is: one for a header or command
  // (CURLOPT_USERAGENT, CURLOPT_COOKIE, CURLOPT_RANGE) must not come from strangers unchecked. The
  // value is set at once and again before every request, whatever the operation does with the
  // option. A refusal is reported at either time. A value of a kind that the option does not take
  // is ErrorInt 1, "Option [%d] takes no such value".
  CZuError setOption(int option, int value) { return setOption(option, long{value}); }
  CZuError setOption(int option, long value);
  CZuError setOption(int option, long long value) { return setOption(option, long{value}); }
  CZuError setOption(int option, const std::string& value);

  // Lets the next transfer begin at this byte of the file: a download gets what is missing, an
  // upload (FTP, SFTP) appends, and putFile() over HTTP sends the rest with a Content-Range. A read
  // callback of the caller's is to begin with that byte. Fails with libcurl's code 33, or 36 for
  // FTP, when the server cannot do it.
  void setResumeOffset(std::int64_t offset) { m_lResumeOffset = offset; }

  // Whether collectFilesAndDir() takes listings as today's servers write them; see there.
  void setLenientListing(bool isLenient) { m_bLenientListing = isLenient; }

  // How the last transfer went. ErrorKdCURL when libcurl does not tell; `times` is then unchanged.
  CZuError getTransferTimes(TransferTimes& times);

  // The request's parts: server (with or without scheme), port as text, path, and kind.
  void setURL(const std::string& url) { m_strURL = url; }
  void setPortNo(const std::string& portNo) { m_strPortNo = portNo; }
  void setURLPath(const std::string& urlPath) { m_strURLPath = urlPath; }
  void setOperationType(operationType opType) { m_OpType = opType; }

  // The functions that receive the body of the next answer, give the body of the next request, and
  // receive the headers of the next answer. Each is called with its instance as the last argument,
  // and counts only when that is not null.
  void setWriteCallBack(void* instancePtr, WRITE_FUN_POINTER writeFunPtr);
  void setReadCallBack(void* instancePtr, READ_FUN_POINTER readFunPtr);
  void setHeaderWriteCallBack(void* instancePtr, WRITE_FUN_POINTER headerWriteFunPtr);

  // The operations. `urlPath` is the path on the server or a whole URL below it. The buffers are
  // the caller's and need to live until the call returns; sizes are in bytes. Of two pairs with the
  // same field the later one counts.
  //
  // Over HTTP a POST and the upload of a form leave their method behind: a listing
  // (getFilesAndDirsInfoInFile) that is requested directly after them goes out as a POST. Its body
  // is, after a POST with a size, that of this POST, of which the object keeps a copy; else it is
  // empty. A download goes out as a GET, and so does what follows it.

  // Gets `srcUrl`; its body goes to the write callback.
  CZuError download(const char* srcUrl, const std::vector<commandInfo>& vCommandInfo);

  // Sends the file `sourceFilePath` of `fileSize` bytes (FTP), or the queued form fields (HTTP).
  CZuError uploadFile(const char* sourceFilePath, const char* urlPath, size_t fileSize,
                      const std::vector<commandInfo>& vCommandInfo);

  // Sends the file `sourceFilePath` as it is, read while it goes out and of any size: with PUT over
  // HTTP, as uploadFile() does over FTP and SFTP. The size is that of the file; what has none (a
  // pipe) goes out in chunks. Read callback and form fields are not used. ErrorInt 1 for an empty
  // path; a file that cannot be opened is ErrorErrNo, and nothing is sent; one that cannot be read
  // to its end is libcurl's code 42, with the reason.
  CZuError putFile(const std::string& sourceFilePath, const std::string& urlPath,
                   const std::vector<commandInfo>& vCommandInfo);

  // POSTs a text.
  CZuError doPostOperation(const char* urlPath, const char* postString,
                           const std::vector<commandInfo>& vCommandInfo);

  // POSTs `size` bytes; with size 0 the body may be null.
  CZuError doPostOperation(const char* urlPath, const char* postString, long size,
                           const std::vector<commandInfo>& vCommandInfo);

  // Sends `size` bytes, which must not be null, with the method PUT or DELETE.
  CZuError doPutOperation(const char* urlPath, const char* putData, long size,
                          const std::vector<commandInfo>& vCommandInfo);
  CZuError doDeleteOperation(const char* urlPath, const char* req, long size,
                             const std::vector<commandInfo>& vCommandInfo);

  // The size that the server tells for the file, in bytes. A server that tells none is
  // ErrorKdCURL(0, "File size recieved from server is invalid"); failures leave `fileSizeOut`.
  CZuError getFileInfo(const std::string& sourcePath, double& fileSizeOut);

  // Whether the file, or the directory, exists. What the server refuses for another reason reads as
  // an absent file or a present directory.
  CZuError checkIfFileOrDirExists(const std::string& srcPath, bool isFile, bool& isExist);

  // Asks the server for the path that is set, without its body, and tells the address or the URL
  // that answered.
  CZuError getInfo(CurlInfoType infoType, std::string& out);

  // Requests the listing of a directory; it goes to the write callback, to be kept in a file for
  // collectFilesAndDir().
  CZuError getFilesAndDirsInfoInFile(const std::string& srcPath);

  // True when the server cannot be reached or refuses the login (or the object is not initialised);
  // any answer, an error included, gives false.
  bool checkConnection();

  // Adds headers (HTTP) or commands (FTP) to the next request; one of the same name is replaced.
  void setCommandInfo(const std::vector<commandInfo>& vCommandInfo);
  void addRequestedHeaders(const std::string& headerName, const std::string& headerValue);

  // The steps of an operation; SendReqest() runs them all. PrepareForRequest() sets URL, method,
  // headers, callbacks and the caller's options on the handle; Execute() transfers, reads the
  // response code and judges it; unSetMethodParameter() takes callbacks, headers and method back.
  CZuError PrepareForRequest();
  CZuError Execute();
  CZuError unSetMethodParameter();
  CZuError SendReqest();
  CZuError getResponseCode();

  // What the last request left: libcurl's code and text, the server's response code.
  void getLastCurlErrorCodeAndErrorMsg(int& errorCode, std::string& errorMsg) const;
  void getLastServerResponseCode(int& responseCode) const;
  void resetCurlErrorCodeAndErrorMsg();
  void resetCurlErrorBuffer();

  // Percent-encodes and decodes a text up to its first zero byte. Work before initialize() too.
  // ErrorKdCURL(2, ...) when libcurl is missing or short of memory; `outString` is then unchanged.
  CZuError URLEncode(const std::string& strInput, std::string& outString);
  CZuError URLDecode(const std::string& strInput, std::string& outString);

  // Takes everything and keeps nothing: the header callback of queries.
  static size_t getContentSize(void* ptr, size_t size, size_t nmemb, void* data);

 protected:
  struct Option {
    CURLoption option;
    std::variant<int, long, const char*, void*> value;
  };

  static constexpr char kNotInitialized[] =
      "KdProtocol class is not initialized yet. Call initialize function before any other "
      "function.";
  static constexpr char kNotInitializedPlural[] =
      "KdProtocol class is not initialized yet. Call initialize function before any other "
      "functions.";

  // The path up to its first zero byte, ending in a slash.
  static std::string AppendForwardSlash(const std::string& path);

  // Sets the options in order, keeps libcurl's result and stops at the first refusal.
  CZuError SetOptions(const FXCodeLocation& where, std::initializer_list<Option> options);

  // The same as a setter of the configuration does it: clears the error buffer and refuses an
  // object that is not initialised with the given one of the two texts.
  CZuError Configure(const FXCodeLocation& where, const char* notInitialized,
                     std::initializer_list<Option> options);

  // Appends a line "name:value" for each entry to `list`, in the order of the names, and gives the
  // list to the handle; an empty map changes nothing.
  CZuError SetHeaderLines(const FXCodeLocation& where, CURLoption option,
                          const std::map<std::string, std::string>& headerMap, curl_slist*& list);

  // Sets one option whose refusal does not matter.
  template <typename Value>
  CURLcode SetOption(CURLoption option, Value value) {
    return CurlWrapper::gCurlWrapper.Curl_easy_setopt(Handle(), option, value);
  }

  // Sets, or takes back, what the operations need that ask without a body: of the size, whose
  // headers are swallowed, of existence or of the connection. False when the operation is none of
  // these.
  bool SwitchQuery(bool isOn);

  // Null before initialize() and when libcurl could not be loaded; libcurl refuses it.
  CURL* Handle() const { return m_curlContext == nullptr ? nullptr : m_curlContext->m_curl; }

  std::string m_strURLUserName;
  std::string m_strURLPassword;
  std::string m_strURLPath;
  std::string m_strURL;
  std::string m_strSourceFile;
  std::map<std::string, std::string> m_mHeaders;
  std::string m_strPortNo;
  std::string m_strPostString;
  const char* m_PostBuffer = nullptr;  // the caller's
  operationType m_OpType = OP_NONE;
  std::int64_t m_lDataSize = 0;  // bytes of the body or file to send
  std::string m_operationName;   // method of a custom operation
  bool m_bIsProxySet = false;
  WRITE_FUN_POINTER m_WriteFunPtr = nullptr;
  READ_FUN_POINTER m_ReadFunPtr = nullptr;
  WRITE_FUN_POINTER m_HeaderWriteFunPtr = nullptr;
  void* m_KdWriteCallbackInstancePtr = nullptr;
  void* m_KdReadCallbackInstancePtr = nullptr;
  void* m_KdHeaderWriteCallbackInstancePtr = nullptr;
  KdCurlContext* m_curlContext = nullptr;  // the last of m_connections
  char* m_szErrorBuffer = nullptr;         // likewise; libcurl writes its messages here
  bool m_bProtocolInitialized = false;
  int m_curlCode = 0;
  long m_responseCode = 0;

  bool m_bLenientListing = false;
  bool m_bIsPut = false;             // the upload that runs is that of putFile()
  bool m_bWriteDataUnset = false;    // the handle's own writer needs its stream back
  std::int64_t m_lResumeOffset = 0;  // of the next transfer
  FileSource m_sourceFile;           // what an upload reads by itself; closed after each request
  // What of the next request has a line break or zero byte where none may be; null: nothing.
  const char* m_refusedField = nullptr;
  std::string m_strLocalFault;  // what was found wrong here while it was prepared; told if it fails

  static pthread_mutex_t* ssl_mutex;  // kept for derived classes; the base takes no lock
  static bool m_gbInit;

 private:
  static constexpr size_t kErrorBufferSize = CURL_ERROR_SIZE;

  // libcurl writes into the buffer as long as the handle lives.
  struct Connection {
    char errorBuffer[kErrorBufferSize] = {};
    KdCurlContext context;
  };

  struct CallersOption {
    CURLoption option;
    std::variant<long, std::string> value;
  };

  ZUNETWORK_LOCAL const char* ErrorText() const;
  ZUNETWORK_LOCAL CZuError CheckFields(const FXCodeLocation& where) const;
  ZUNETWORK_LOCAL CZuError& PushDetails(CZuError& error, const FXCodeLocation& where,
                                        int curlCode) const;
  ZUNETWORK_LOCAL CZuError KeepOption(const FXCodeLocation& where, CallersOption option);
  ZUNETWORK_LOCAL CZuError SetCallersOption(const CallersOption& option);
  ZUNETWORK_LOCAL CZuError SendOperation(const FXCodeLocation& where);

  // Sends a body with a size: with POST when `method` is null.
  ZUNETWORK_LOCAL CZuError SendBody(const FXCodeLocation& where, const char* method,
                                    const char* urlPath, const char* body, long size,
                                    const std::vector<commandInfo>& vCommandInfo);
  ZUNETWORK_LOCAL void SetCallBack(CURLoption dataOption, CURLoption functionOption, void* instance,
                                   curl_write_callback function);
  ZUNETWORK_LOCAL void SetCallBacks();
  ZUNETWORK_LOCAL void UnsetCallBacks();

  std::list<Connection> m_connections;        // one for each initialize()
  std::string m_strWorkingURL;                // of the last request, as far as it was composed
  const char* m_refusedProxyField = nullptr;  // as m_refusedField, of all requests
  std::vector<CallersOption> m_callersOptions;
};

}  // namespace KdCURL
