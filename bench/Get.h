#pragma once

// Who gets a file by HTTP: each has Get, which gives the number of bytes of the body.

#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/URI.h>

#include <istream>
#include <string>
#include <utility>

#include "PlainCurl.h"
#include "ZuNetwork/KdHTTPReq.h"

// A request object as it comes, with its trace on standard error.
class TracingGet {
 public:
  explicit TracingGet(const std::string& server) : m_request(KdCURL::HTTP) {
    if (Failed(m_request.initialize())) std::abort();
    m_request.setURL(server);
  }

  size_t Get(const char* path) {
    size_t bytes = 0;
    m_request.setWriteCallBack(&bytes, CountBytes);
    if (Failed(m_request.download(path, {}))) std::abort();
    return bytes;
  }

 protected:
  KdCURL::KdHTTPReq m_request;
};

class OurGet : public TracingGet {
 public:
  explicit OurGet(const std::string& server) : TracingGet(server) {
    if (Failed(m_request.setTraceCallBack(this, Silence))) std::abort();
  }

  void Trust(const char* bundle) {
    if (Failed(m_request.setSecured(true, bundle))) std::abort();
  }
};

class BigBufferGet : public OurGet {
 public:
  explicit BigBufferGet(const std::string& server) : OurGet(server) {
    if (Failed(m_request.setOption(CURLOPT_BUFFERSIZE, 512 * 1024))) std::abort();
  }
};

// The steps of a request object by hand.
class SameGet {
 public:
  explicit SameGet(std::string server) : m_server(std::move(server)) {}

  size_t Get(const char* path) {
    size_t bytes = 0;
    m_curl.Set(CURLOPT_URL, (m_server + path).c_str());
    m_curl.Set(CURLOPT_HTTPGET, 1L);
    m_curl.SetCallBack(CURLOPT_WRITEDATA, CURLOPT_WRITEFUNCTION, &bytes, CountBytes);
    m_curl.Perform();
    m_curl.SetCallBack(CURLOPT_WRITEDATA, CURLOPT_WRITEFUNCTION, nullptr, nullptr);
    m_curl.Set(CURLOPT_HTTPGET, 0L);
    return bytes;
  }

  void Trust(const char* bundle) { m_curl.Set(CURLOPT_CAINFO, bundle); }

 private:
  std::string m_server;
  SameCurl m_curl;
};

// A handle that is told what to do once and then performs.
class PlainGet {
 public:
  explicit PlainGet(std::string server) : m_server(std::move(server)) {
    m_curl.SetCallBack(CURLOPT_WRITEDATA, CURLOPT_WRITEFUNCTION, &m_bytes, CountBytes);
  }

  size_t Get(const char* path) {
    if (m_path != path) m_curl.Set(CURLOPT_URL, (m_server + path).c_str());
    m_path = path;
    m_bytes = 0;
    m_curl.Perform();
    return m_bytes;
  }

 private:
  std::string m_server;
  std::string m_path;
  size_t m_bytes = 0;
  PlainCurl m_curl;
};

class PocoGet {
 public:
  explicit PocoGet(const std::string& server)
      : m_session(Poco::URI(server).getHost(), Poco::URI(server).getPort()) {
    m_session.setKeepAlive(true);
    m_session.setKeepAliveTimeout(Poco::Timespan(60, 0));
  }

  size_t Get(const char* path) {
    Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_GET, path,
                                   Poco::Net::HTTPRequest::HTTP_1_1);
    m_session.sendRequest(request);
    Poco::Net::HTTPResponse response;
    std::istream& body = m_session.receiveResponse(response);
    size_t bytes = 0;
    while (body.read(m_buffer, sizeof m_buffer), body.gcount() > 0) {
      bytes += static_cast<size_t>(body.gcount());
    }
    return bytes;
  }

 private:
  Poco::Net::HTTPClientSession m_session;
  char m_buffer[16 * 1024] = {};
};
