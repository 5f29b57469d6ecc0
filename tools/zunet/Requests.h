#pragma once

#include <map>
#include <string>
#include <vector>

#include "ZuNetwork/KdHTTPReq.h"
#include "ZuNetwork/KdSFTPReq.h"

// Requests as zunet makes them: each is given a whole URL as its path, which goes to libcurl as it
// stands.
template <typename Base>
class UrlRequest : public Base {
 public:
  using Base::Base;

  CZuError getFullWorkingURL(std::string& strURL) override {
    strURL = this->m_strURLPath;
    return {};
  }

  CURL* EasyHandle() const { return this->Handle(); }
};

// A success is an answer of the 200s alone: any other one brings a page instead of what was asked
// for. With a condition among the headers it is 304 too, "not modified".
class HttpRequest : public UrlRequest<KdCURL::KdHTTPReq> {
 public:
  HttpRequest() : UrlRequest(KdCURL::HTTP) {}

  // A line for every request, to libcurl's rules: "Name: value", "Name;" for an empty value,
  // "Name:" to leave out what libcurl would send. Lines of one name are all sent.
  void AddHeader(const std::string& line);
  bool HasHeader(const std::string& name) const;

  bool IsSuccess(int status) const;

  // POSTs the file as it is, read while it goes out and of any size.
  CZuError PostFile(const std::string& path, const std::string& url);

  CZuError isOperationSuccess(bool& bIsSucess) override;
  CZuError setHeaders(const std::map<std::string, std::string>& headerMap) override;
  CZuError setMethodParameter() override;

 private:
  std::vector<std::string> m_lines;
  bool m_isConditional = false;
  KdCURL::FileSource m_body;
  std::int64_t m_bodySize = -1;
  bool m_isFilePosted = false;
};

using FtpRequest = UrlRequest<KdCURL::KdFTPReq>;
using SftpRequest = UrlRequest<KdCURL::KdSFTPReq>;
