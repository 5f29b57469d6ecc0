#pragma once

#include <memory>
#include <string>
#include <vector>

#include "ZuNetwork/KdHTTPReq.h"
#include "fakes/FakeCurlTest.h"

// A request over HTTP whose state can be looked at.
class HttpReq : public KdCURL::KdHTTPReq {
 public:
  using KdHTTPReq::KdHTTPReq;
  using KdHTTPReq::m_bDoChunkedTransfer;
  using KdHTTPReq::m_FormComponentHeaders;
  using KdHTTPReq::m_formInfo;
  using KdHTTPReq::m_FormLast;
  using KdHTTPReq::m_FormPost;
  using KdHTTPReq::m_headerList;
  using KdProtocolReq::m_curlCode;
  using KdProtocolReq::m_lDataSize;
  using KdProtocolReq::m_mHeaders;
  using KdProtocolReq::m_operationName;
  using KdProtocolReq::m_OpType;
  using KdProtocolReq::m_PostBuffer;
  using KdProtocolReq::m_responseCode;
  using KdProtocolReq::m_strPostString;
  using KdProtocolReq::m_strURLPath;
  using KdProtocolReq::m_szErrorBuffer;
};

// An initialised request to the server "h"; the record begins behind initialize().
class HttpReqTest : public FakeCurlTest {
 protected:
  HttpReqTest() {
    EXPECT_OK(req->initialize());
    req->setURL("h");
    Mark();
  }
  void TearDown() override {
    req.reset();
    FakeCurlTest::TearDown();
  }

  std::unique_ptr<HttpReq> req = std::make_unique<HttpReq>(KdCURL::HTTP);
};
