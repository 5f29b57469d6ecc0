#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Requests.h"
#include "Url.h"

// What the options say about the connection, for every kind of transfer.
struct SessionOptions {
  std::vector<std::string> headers;
  std::string caBundle;
  std::string user;
  std::string key;
  std::string passPhraseFile;
  std::string knownHosts;
  std::string proxy;
  std::string proxyAuth;
  long limitSecs = 0;
  long idleSecs = 60;
  bool isUnlimited = false;
  bool isNetrc = false;
  bool isInsecure = false;
  bool isDowngraded = false;  // a redirect from https to http is followed
  bool isActive = false;
  bool isTls = false;
  bool isTlsControl = false;
};

// What the header of an answer tells of the file. Others may come before it: of redirects, of
// requests for a login.
class AnswerHeader {
 public:
  void Take(std::string_view line);

  // The value of ETag, Last-Modified, Date or Content-Range; empty without one.
  std::string Find(const std::string& name) const;

  // All of it as it came, unless it is absurdly long.
  const std::string& Text() const { return m_text; }

 private:
  std::map<std::string, std::string> m_fields;
  std::string m_text;
  bool m_isComplete = false;
};

// A request for one URL of any scheme, configured and ready for operations. Whatever fails ends the
// program with its report.
class Session {
 public:
  Session(const std::string& url, const SessionOptions& options);
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  const Url& Target() const { return m_url; }
  std::string Text() const { return m_url.Text(); }

  // The request as such, and as what it is beyond; null when it is of another kind.
  KdCURL::KdProtocolReq& Request() { return *m_request; }
  HttpRequest* Http() { return m_http; }
  KdCURL::KdFTPReq* Ftp() { return m_ftp; }

  // Receives the header of the next operation's answer; over HTTP every operation needs it.
  void ReceiveHeader();
  const AnswerHeader& Header() const { return m_header; }

  // What libcurl knows of the answer so far: its status (HTTP, FTP), the bytes that it says to come
  // and when the file was changed, both -1 when unknown.
  int Status() const;
  std::int64_t Length() const;
  std::int64_t FileTime() const;

  // Whether an answer came that brings something else than what was asked for.
  bool IsRefused() const { return m_http != nullptr && !m_http->IsSuccess(Status()); }

  // Shows a progress bar on a terminal.
  void ShowProgress();

  // Ends the program unless the operation succeeded. The progress bar has to be ended before
  // anything else is printed.
  void EndProgress() const;
  void ExitUnlessDone(const CZuError& error) const;

 private:
  void MakeRequest();
  template <typename Request>
  Request* Make();
  void Configure();
  void ConfigureLogin();
  void ConfigureHttp();
  void ConfigureFtp();
  void ConfigureSsh();
  void LimitTime();
  bool IsDowngrade(std::string_view line) const;  // of a header
  static size_t TakeHeader(char* data, size_t size, size_t count, void* instance);
  static int CheckHostKey(CURL* handle, const curl_khkey* known, const curl_khkey* found,
                          curl_khmatch match, void* instance);
  static int Trace(void* handle, void* infoType, char* data, unsigned long size, void* instance);
  static int Watch(void* instance, curl_off_t toReceive, curl_off_t received, curl_off_t toSend,
                   curl_off_t sent);

  const SessionOptions& m_options;
  Url m_url;
  std::unique_ptr<KdCURL::KdProtocolReq> m_request;
  HttpRequest* m_http = nullptr;
  KdCURL::KdFTPReq* m_ftp = nullptr;
  CURL* m_handle = nullptr;  // the request's
  AnswerHeader m_header;
  std::string m_refusal;  // why the program itself ended the transfer
  std::string m_knownHosts;
  bool m_hasBar = false;
};
