#pragma once

#include <string>

#include "ZuNetwork/KdHTTPReq.h"
#include "support/Expect.h"
#include "support/Sink.h"

// A request to a server on 127.0.0.1 that is silent and takes at most thirty seconds.
template <typename Protocol>
class LocalRequest : public Protocol {
 public:
  template <typename... Args>
  explicit LocalRequest(int port, Args... args) : Protocol(args...) {
    EXPECT_OK(this->initialize());
    EXPECT_OK(this->setTraceCallBack(this, IgnoreTrace));
    EXPECT_OK(this->SetTimeOut(30));
    this->setURL("127.0.0.1");
    this->setPortNo(std::to_string(port));
  }

  // The body of the next request goes to body.text.
  LocalRequest& Collect() {
    body.text.clear();
    this->setWriteCallBack(&body, TextSink::Take);
    return *this;
  }

  // Downloads into body.text.
  CZuError Get(const char* path, const std::vector<KdCURL::commandInfo>& headers = {}) {
    return Collect().download(path, headers);
  }

  int ResponseCode() const {
    int code = -1;
    this->getLastServerResponseCode(code);
    return code;
  }

  int TransferResult() const {
    int code = -1;
    std::string text;
    this->getLastCurlErrorCodeAndErrorMsg(code, text);
    return code;
  }

  TextSink body;

 private:
  static int IgnoreTrace(void*, void*, char*, unsigned long, void*) { return 0; }
};

class TestRequest : public LocalRequest<KdCURL::KdHTTPReq> {
 public:
  explicit TestRequest(int port, KdCURL::HTTPProtocol protocol = KdCURL::HTTP)
      : LocalRequest(port, protocol) {}

  TestRequest& Collect() {
    LocalRequest::Collect();
    return *this;
  }
};
