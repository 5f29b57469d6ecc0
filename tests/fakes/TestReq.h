#pragma once

#include <map>
#include <string>
#include <vector>

#include "ZuNetwork/KdProtocolReq.h"
#include "fakes/FakeCurlTest.h"

// A protocol whose hooks stand in the record among libcurl's calls and answer as the test wants.
class TestReq : public KdCURL::KdProtocolReq {
 public:
  TestReq() = default;  // without a record
  explicit TestReq(FakeCurl& record) : m_record(&record) {}

  using KdProtocolReq::m_bIsProxySet;
  using KdProtocolReq::m_bProtocolInitialized;
  using KdProtocolReq::m_curlCode;
  using KdProtocolReq::m_curlContext;
  using KdProtocolReq::m_gbInit;
  using KdProtocolReq::m_HeaderWriteFunPtr;
  using KdProtocolReq::m_KdHeaderWriteCallbackInstancePtr;
  using KdProtocolReq::m_KdReadCallbackInstancePtr;
  using KdProtocolReq::m_KdWriteCallbackInstancePtr;
  using KdProtocolReq::m_lDataSize;
  using KdProtocolReq::m_mHeaders;
  using KdProtocolReq::m_operationName;
  using KdProtocolReq::m_OpType;
  using KdProtocolReq::m_PostBuffer;
  using KdProtocolReq::m_ReadFunPtr;
  using KdProtocolReq::m_responseCode;
  using KdProtocolReq::m_strPortNo;
  using KdProtocolReq::m_strPostString;
  using KdProtocolReq::m_strSourceFile;
  using KdProtocolReq::m_strURL;
  using KdProtocolReq::m_strURLPassword;
  using KdProtocolReq::m_strURLPath;
  using KdProtocolReq::m_strURLUserName;
  using KdProtocolReq::m_szErrorBuffer;
  using KdProtocolReq::m_WriteFunPtr;
  using KdProtocolReq::ssl_mutex;

  std::map<std::string, CZuError> failures;  // by hook

  CZuError isOperationSuccess(bool& bIsSucess) override {
    bIsSucess = m_responseCode >= 100 && m_responseCode < 400;
    return Hook("isOperationSuccess", std::to_string(m_responseCode));
  }
  CZuError setHeaders(const std::map<std::string, std::string>& headerMap) override {
    std::string shown;
    for (const auto& [name, value] : headerMap) shown.append(name).append("=" + value + ";");
    return Hook("setHeaders", shown);
  }
  CZuError collectFilesAndDir(const std::string& /*fileName*/,
                              std::vector<KdCURL::FileDirInfo>* /*vFilDirList*/,
                              std::string /*sourcePath*/) override {
    return Hook("collectFilesAndDir");
  }
  CZuError getFullWorkingURL(std::string& strURL) override {
    strURL = m_strURL + "/" + m_strURLPath;
    return Hook("getFullWorkingURL");
  }
  CZuError unsetOpTypeParameter() override { return Hook("unsetOpTypeParameter"); }
  CZuError setMethodParameter() override {
    return Hook("setMethodParameter", std::to_string(m_OpType));
  }
  CZuError setDefaults() override { return Hook("setDefaults"); }
  CZuError splitServerAndURLPath(std::string& /*serverOut*/, std::string& /*path*/) override {
    return Hook("splitServerAndURLPath");
  }
  CZuError IsFile(const std::string& /*sourcePath*/, bool& /*isFile*/) override {
    return Hook("IsFile");
  }

 private:
  CZuError Hook(const char* name, const std::string& detail = "") {
    if (m_record != nullptr) {
      const std::lock_guard<std::recursive_mutex> lock(m_record->mutex);
      m_record->calls.push_back(std::string("hook ") + name + (detail.empty() ? "" : " ") + detail);
    }
    const auto failure = failures.find(name);
    return failure == failures.end() ? CZuError() : failure->second;
  }

  FakeCurl* m_record = nullptr;
};

// An initialised request to the server "s"; the record begins behind initialize().
class TestReqTest : public FakeCurlTest {
 protected:
  TestReqTest() {
    EXPECT_OK(req->initialize());
    req->setURL("s");
    Mark();
  }
  void TearDown() override {
    req.reset();
    FakeCurlTest::TearDown();
  }

  std::unique_ptr<TestReq> req = std::make_unique<TestReq>(fake);
};
