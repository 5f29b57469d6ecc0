#pragma once

#include <memory>
#include <string>
#include <vector>

#include "ZuNetwork/KdFTPReq.h"
#include "ZuNetwork/KdHTTPReq.h"

// What the options say about the connection, for every kind of transfer.
struct SessionOptions {
  std::vector<std::string> headers;
  std::string caBundle = "/etc/ssl/certs/ca-certificates.crt";
  std::string user;
  std::string key;
  std::string proxy;
  long limitSecs = 0;
  bool isInsecure = false;
  bool isActive = false;
  bool isTls = false;
};

// "left<separator>right"; without a separator all of it is left.
std::pair<std::string, std::string> SplitAt(const std::string& text, char separator);

// A request for one URL of any scheme, configured and ready for one operation. Whatever fails ends
// the program with its report.
class Session {
 public:
  Session(const std::string& url, const SessionOptions& options);
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // The URL, always with a path; and its path alone, decoded.
  const std::string& Url() const { return m_url; }
  std::string Path();

  // The request as such, and as what it is beyond; null when it is of another kind.
  KdCURL::KdProtocolReq& Request() { return *m_request; }
  KdCURL::KdHTTPReq* Http() { return m_http; }
  KdCURL::KdFTPReq* Ftp() { return m_ftp; }
  bool IsSftp() const { return m_isSftp; }

  const std::vector<KdCURL::commandInfo>& Headers() const { return m_headers; }

  // Shows a progress bar on a terminal.
  void ShowProgress();

 private:
  void MakeRequest();
  void Configure();
  void ConfigureFtp();
  void SetProxy();
  static int Trace(void* handle, void* infoType, char* data, unsigned long size, void* instance);
  static int Watch(void* instance, curl_off_t toReceive, curl_off_t received, curl_off_t toSend,
                   curl_off_t sent);

  const SessionOptions& m_options;
  std::string m_url;
  std::unique_ptr<KdCURL::KdProtocolReq> m_request;
  KdCURL::KdHTTPReq* m_http = nullptr;
  KdCURL::KdFTPReq* m_ftp = nullptr;
  bool m_isSftp = false;
  std::vector<KdCURL::commandInfo> m_headers;
  bool m_hasBar = false;
};
