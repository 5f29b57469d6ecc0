#pragma once

#include <string>

#include "ZuNetwork/KdHTTPReq.h"
#include "support/Expect.h"
#include "support/Sink.h"

// A request to a server on 127.0.0.1 that is silent and takes at most thirty seconds.
class TestRequest : public KdCURL::KdHTTPReq {
 public:
  explicit TestRequest(int port, KdCURL::HTTPProtocol protocol = KdCURL::HTTP)
      : KdHTTPReq(protocol) {
    EXPECT_OK(initialize());
    EXPECT_OK(setTraceCallBack(this, IgnoreTrace));
    EXPECT_OK(SetTimeOut(30));
    setURL("127.0.0.1");
    setPortNo(std::to_string(port));
  }

  // The body of the next request goes to body.text.
  TestRequest& Collect() {
    body.text.clear();
    setWriteCallBack(&body, TextSink::Take);
    return *this;
  }

  // Downloads into body.text.
  CZuError Get(const char* path, const std::vector<KdCURL::commandInfo>& headers = {}) {
    return Collect().download(path, headers);
  }

  int ResponseCode() const {
    int code = -1;
    getLastServerResponseCode(code);
    return code;
  }

  int TransferResult() const {
    int code = -1;
    std::string text;
    getLastCurlErrorCodeAndErrorMsg(code, text);
    return code;
  }

  TextSink body;

 private:
  static int IgnoreTrace(void*, void*, char*, unsigned long, void*) { return 0; }
};
