#include <thread>

#include "ZuNetwork/KdErrorItem_KdCURL.h"
#include "ZuNetwork/KdProtocolReq.h"
#include "fakes/TestReq.h"

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

size_t TakeNothing(char*, size_t, size_t, void*) { return 0; }

class KdProtocolReqCycle : public TestReqTest {
 protected:
  KdProtocolReqCycle() {
    req->setURLPath("p");
    req->setOperationType(KdCURL::OP_DOWNLOAD_FILE);
    fake.errorText = "it broke";
  }
  void SetAllCallBacks() {
    req->setWriteCallBack(&m_writer, &TakeNothing);
    req->setReadCallBack(&m_reader, &TakeNothing);
    req->setHeaderWriteCallBack(&m_header, &TakeNothing);
  }
  std::vector<std::string> CallBackOptions() const {
    const auto pair = [&](CURLoption data, const void* instance, CURLoption function) {
      return std::vector<std::string>{"easy_setopt handle1 " + Opt(data, instance),
                                      "easy_setopt handle1 " + Opt(function, &TakeNothing)};
    };
    std::vector<std::string> all;
    for (const auto& part : {pair(CURLOPT_WRITEDATA, &m_writer, CURLOPT_WRITEFUNCTION),
                             pair(CURLOPT_READDATA, &m_reader, CURLOPT_READFUNCTION),
                             pair(CURLOPT_HEADERDATA, &m_header, CURLOPT_HEADERFUNCTION)}) {
      all.insert(all.end(), part.begin(), part.end());
    }
    return all;
  }
  static std::vector<std::string> CallBackResets() {
    return {"easy_setopt handle1 CURLOPT_WRITEDATA null",
            "easy_setopt handle1 CURLOPT_WRITEFUNCTION null",
            "easy_setopt handle1 CURLOPT_READDATA null",
            "easy_setopt handle1 CURLOPT_READFUNCTION null",
            "easy_setopt handle1 CURLOPT_HEADERDATA null",
            "easy_setopt handle1 CURLOPT_HEADERFUNCTION null"};
  }
  void ExpectCleared() const {
    EXPECT_EQ(req->m_WriteFunPtr, nullptr);
    EXPECT_EQ(req->m_ReadFunPtr, nullptr);
    EXPECT_EQ(req->m_HeaderWriteFunPtr, nullptr);
    EXPECT_EQ(req->m_KdWriteCallbackInstancePtr, nullptr);
    EXPECT_EQ(req->m_KdReadCallbackInstancePtr, nullptr);
    EXPECT_EQ(req->m_KdHeaderWriteCallbackInstancePtr, nullptr);
    EXPECT_THAT(req->m_mHeaders, IsEmpty());
  }

  int m_writer = 0;
  int m_reader = 0;
  int m_header = 0;
};

std::vector<std::string> Join(std::initializer_list<std::vector<std::string>> parts) {
  std::vector<std::string> all;
  for (const auto& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

const std::vector<std::string> kPreparation = {
    "hook getFullWorkingURL", "easy_setopt handle1 CURLOPT_URL \"s/p\"",
    "hook setMethodParameter 2", "hook setHeaders A=1;B=2;"};
const std::vector<std::string> kExecution = {"easy_perform handle1", "easy_getinfo handle1 2097154",
                                             "hook isOperationSuccess 200"};

TEST_F(KdProtocolReqCycle, RunsItsStepsInOrder) {
  SetAllCallBacks();
  req->addRequestedHeaders("B", "2");
  req->addRequestedHeaders("A", "1");
  EXPECT_OK(req->SendReqest());
  EXPECT_EQ(Calls(), Join({kPreparation,
                           CallBackOptions(),
                           kExecution,
                           CallBackResets(),
                           {"hook unsetOpTypeParameter"}}));
  EXPECT_EQ(req->m_curlCode, 0);
  EXPECT_EQ(req->m_responseCode, 200);
  ExpectCleared();
}

TEST_F(KdProtocolReqCycle, KeepsServerPathAndCredentialsForTheNextRequest) {
  ASSERT_OK(req->setCredentials("u", "w"));
  req->setPortNo("81");
  ASSERT_OK(req->SendReqest());
  ASSERT_OK(req->SendReqest());
  EXPECT_EQ(req->m_strURL, "s");
  EXPECT_EQ(req->m_strURLPath, "p");
  EXPECT_EQ(req->m_strPortNo, "81");
  EXPECT_EQ(fake.transfers.at(1).url, "s/p");
  EXPECT_EQ(fake.transfers.at(1).Option(CURLOPT_USERPWD), "\"u:w\"");
}

struct CycleFailure {
  const char* label;
  std::function<void(TestReq&, FakeCurl&)> arrange;
  unsigned code;
  std::vector<const char*> texts;  // how lines end, from a separator on
  bool isPrepared;                 // the callbacks were set, and the transfer was tried
};

CZuError HookError() { return FXErrorUtil::ErrorWin32(ZU_HERE, 87, "no such thing"); }

constexpr char kHookText[] = "HookError(), no such thing";
constexpr long kStaleResponse = 777;

std::vector<CycleFailure> CycleFailures() {
  const auto hook = [](const char* name) {
    return [name](TestReq& req, FakeCurl&) { req.failures[name] = HookError(); };
  };
  return {
      {"no server",
       [](TestReq& req, FakeCurl&) { req.setURL(""); },
       IntCode(101),
       {"::PrepareForRequest(), URL is empty"},
       false},
      {"working URL",
       hook("getFullWorkingURL"),
       Win32Code(87),
       {kHookText, "::PrepareForRequest(), Failed to get working URL"},
       false},
      {"method parameter", hook("setMethodParameter"), Win32Code(87), {kHookText}, false},
      {"headers", hook("setHeaders"), Win32Code(87), {kHookText}, false},
      {"transfer",
       [](TestReq&, FakeCurl& fake) { fake.results["easy_perform"] = 28; },
       TransferCode(28),
       {"/KdCURL.28.0x1C-CURL perform failed.Curl ErrorCode : [28], Error Message : [it broke]"},
       true},
      {"transfer without an error buffer",
       [](TestReq& req, FakeCurl& fake) {
         fake.results["easy_perform"] = 28;
         req.m_szErrorBuffer = nullptr;
       },
       TransferCode(28),
       {"/KdCURL.28.0x1C-CURL perform failed.Curl ErrorCode : [28], Error Message : "
        "[ Error buffer is not initialized]"},
       true},
      {"response code",
       [](TestReq&, FakeCurl& fake) { fake.refusedInfos[CURLINFO_RESPONSE_CODE] = 43; },
       TransferCode(43),
       {"/KdCURL.43.0x2B-CURL perform failed.ErrorCode : [43], Error Message : []",
        "::Execute(), Failed to get ResponseCode"},
       true},
      {"success hook",
       hook("isOperationSuccess"),
       Win32Code(87),
       {kHookText, "::Execute(), Failed to determine success or failure."},
       true},
      {"refused by the server",
       [](TestReq&, FakeCurl& fake) { fake.infos[CURLINFO_RESPONSE_CODE].number = 404; },
       0xEDD00000,
       {"::Execute()/KdCURL.0.0x0-Requested Operation Failed. Return value from CURL: [0] Response "
        "code from server: [404]"},
       true},
  };
}

// A request of its own for each failure.
class KdProtocolReqCycleFailures : public KdProtocolReqCycle {
 protected:
  void Arrange(const CycleFailure& failure) {
    req.reset();
    library.Reset();
    req = std::make_unique<TestReq>(fake);
    fake.errorText = "it broke";
    ASSERT_OK(req->initialize());
    req->setURL("s");
    req->setOperationType(KdCURL::OP_DOWNLOAD_FILE);
    SetAllCallBacks();
    req->addRequestedHeaders("A", "1");
    failure.arrange(*req, fake);
    Mark();
  }
};

TEST_F(KdProtocolReqCycleFailures, AreReportedAndLeaveACleanHandle) {
  for (const CycleFailure& failure : CycleFailures()) {
    SCOPED_TRACE(failure.label);
    Arrange(failure);
    const CZuError error = req->SendReqest();
    for (const char* const text : failure.texts) {
      EXPECT_FAILS(error, failure.code, (std::string(text) + "\n").c_str());
    }
    EXPECT_THAT(error.AsString(), EndsWith("::SendReqest()"));
    EXPECT_THAT(error.AsString(),
                HasSubstr(failure.isPrepared ? "::Execute()" : "::PrepareForRequest()"));
    const std::vector<std::string> calls = Calls();
    const auto end = Join({CallBackResets(), {"hook unsetOpTypeParameter"}});
    ASSERT_GE(calls.size(), end.size());
    EXPECT_THAT(std::vector(calls.end() - static_cast<std::ptrdiff_t>(end.size()), calls.end()),
                ElementsAreArray(end));
    EXPECT_EQ(fake.transfers.size(), failure.isPrepared ? 1u : 0u);
    ExpectCleared();
  }
}

TEST_F(KdProtocolReqCycleFailures, OfThePreparationLeaveTheCodesOfTheRequestBefore) {
  int tried = 0;
  for (const CycleFailure& failure : CycleFailures()) {
    if (failure.isPrepared) continue;
    SCOPED_TRACE(failure.label);
    Arrange(failure);
    req->m_curlCode = kStale;
    req->m_responseCode = kStaleResponse;
    EXPECT_FAILS(req->PrepareForRequest(), failure.code, "::PrepareForRequest()");
    EXPECT_FAILS(req->SendReqest(), failure.code, "::SendReqest()");
    EXPECT_EQ(req->m_curlCode, kStale);
    EXPECT_EQ(req->m_responseCode, kStaleResponse);
    ++tried;
  }
  EXPECT_EQ(tried, 4);
}

TEST_F(KdProtocolReqCycle, TheLastCodesCanBeReadAfterAFailure) {
  fake.infos[CURLINFO_RESPONSE_CODE].number = 503;
  EXPECT_EQ(KdCURL::GetKdCURL(req->SendReqest()), 0);
  int number = -1;
  std::string text = "stale";
  req->getLastServerResponseCode(number);
  EXPECT_EQ(number, 503);
  req->getLastCurlErrorCodeAndErrorMsg(number, text);
  EXPECT_EQ(number, 0);
  EXPECT_EQ(text, "");

  fake.results["easy_perform"] = 28;
  EXPECT_EQ(KdCURL::GetKdCURL(req->SendReqest()), 28);
  req->getLastCurlErrorCodeAndErrorMsg(number, text);
  EXPECT_EQ(number, 28);
  EXPECT_EQ(text, "it broke");
  req->getLastServerResponseCode(number);
  EXPECT_EQ(number, 503) << "there was no answer since";

  req->resetCurlErrorCodeAndErrorMsg();
  number = -1;
  req->getLastCurlErrorCodeAndErrorMsg(number, text);
  EXPECT_EQ(number, 0);
  EXPECT_EQ(text, "");
  EXPECT_TRUE(IsCleared(req->m_szErrorBuffer));
}

TEST_F(KdProtocolReqCycle, AFailedUndoDoesNotFailTheRequest) {
  req->failures["unsetOpTypeParameter"] = HookError();
  EXPECT_OK(req->SendReqest());
  fake.results["easy_perform"] = 7;
  EXPECT_FAILS(req->SendReqest(), TransferCode(7), "CURL perform failed");
  const CZuError error = req->unSetMethodParameter();
  EXPECT_FAILS(error, Win32Code(87), "no such thing");
  EXPECT_THAT(error.AsString(), EndsWith("::unSetMethodParameter()"));
}

TEST_F(KdProtocolReqCycle, ARefusedUrlOptionDoesNotStopTheRequest) {
  fake.refusedOptions = {{CURLOPT_URL, kRefusal},           {CURLOPT_WRITEDATA, kRefusal},
                         {CURLOPT_WRITEFUNCTION, kRefusal}, {CURLOPT_READDATA, kRefusal},
                         {CURLOPT_READFUNCTION, kRefusal},  {CURLOPT_HEADERDATA, kRefusal},
                         {CURLOPT_HEADERFUNCTION, kRefusal}};
  SetAllCallBacks();
  EXPECT_OK(req->SendReqest());
}

TEST_F(KdProtocolReqCycle, HalfAPairIsNeitherSetNorUnset) {
  req->setWriteCallBack(&m_writer, nullptr);
  req->setReadCallBack(nullptr, &TakeNothing);
  req->setHeaderWriteCallBack(&m_header, nullptr);
  EXPECT_OK(req->SendReqest());
  EXPECT_THAT(Options(), ElementsAre(Opt(CURLOPT_URL, "s/p")));
  ExpectCleared();
  Mark();
  req->setWriteCallBack(nullptr, &TakeNothing);
  req->setReadCallBack(&m_reader, nullptr);
  req->setHeaderWriteCallBack(nullptr, &TakeNothing);
  EXPECT_OK(req->SendReqest());
  EXPECT_THAT(Options(), ElementsAre(Opt(CURLOPT_URL, "s/p")));
  ExpectCleared();
}

// Of what the full pairs left on the handle, only the null that libcurl would write to is replaced.
TEST_F(KdProtocolReqCycle, HalfAPairAfterAFullOneIsNeitherSetNorUnset) {
  const struct {
    const char* label;
    void* instance;
    KdCURL::WRITE_FUN_POINTER function;
  } rows[] = {{"only the instance", &m_writer, nullptr},
              {"only the function", nullptr, &TakeNothing}};
  for (const auto& [label, instance, function] : rows) {
    SCOPED_TRACE(label);
    SetAllCallBacks();
    ASSERT_OK(req->SendReqest());
    Mark();
    req->setWriteCallBack(instance, function);
    req->setReadCallBack(instance, function);
    req->setHeaderWriteCallBack(instance, function);
    EXPECT_OK(req->SendReqest());
    EXPECT_THAT(Options(), ElementsAre(Opt(CURLOPT_URL, "s/p"),
                                       Opt(CURLOPT_WRITEDATA, static_cast<const void*>(stdout))));
    for (const CURLoption option : {CURLOPT_WRITEFUNCTION, CURLOPT_READDATA, CURLOPT_READFUNCTION,
                                    CURLOPT_HEADERDATA, CURLOPT_HEADERFUNCTION}) {
      EXPECT_EQ(fake.transfers.back().Option(option), "null") << option;
    }
    ExpectCleared();
  }
}

TEST_F(KdProtocolReqCycle, EachPairIsSetOnItsOwn) {
  const struct {
    const char* label;
    std::function<void(TestReq&, void*)> set;
    CURLoption data;
    CURLoption function;
  } rows[] = {
      {"write", [](TestReq& r, void* p) { r.setWriteCallBack(p, &TakeNothing); }, CURLOPT_WRITEDATA,
       CURLOPT_WRITEFUNCTION},
      {"read", [](TestReq& r, void* p) { r.setReadCallBack(p, &TakeNothing); }, CURLOPT_READDATA,
       CURLOPT_READFUNCTION},
      {"header", [](TestReq& r, void* p) { r.setHeaderWriteCallBack(p, &TakeNothing); },
       CURLOPT_HEADERDATA, CURLOPT_HEADERFUNCTION},
  };
  for (const auto& [label, set, data, function] : rows) {
    SCOPED_TRACE(label);
    auto fresh = std::make_unique<TestReq>(fake);
    ASSERT_OK(fresh->initialize());
    fresh->setURL("s");
    Mark();
    set(*fresh, &m_writer);
    EXPECT_OK(fresh->SendReqest());
    const std::string handle = "easy_setopt " + fake.Show(fresh->m_curlContext->m_curl) + " ";
    EXPECT_THAT(
        fake.CallsTo(handle, mark),
        ElementsAre(Opt(CURLOPT_URL, "s/"), Opt(data, &m_writer), Opt(function, &TakeNothing),
                    Opt(data, nullptr), Opt(function, nullptr)));
  }
}

TEST_F(KdProtocolReqCycle, TheCallBacksGetTheirInstance) {
  const auto append = [](char* data, size_t size, size_t count, void* to) {
    static_cast<std::string*>(to)->append(data, size * count);
    return size * count;
  };
  const auto give = [](char* data, size_t, size_t, void* from) {
    const auto& text = *static_cast<std::string*>(from);
    std::memcpy(data, text.data(), text.size());
    return text.size();
  };
  std::string body;
  std::string header;
  std::string source = "to send";
  std::string sent;
  req->setWriteCallBack(&body, append);
  req->setReadCallBack(&source, give);
  req->setHeaderWriteCallBack(&header, append);
  fake.onPerform = [&](const FakeHandle& handle) {
    EXPECT_EQ(handle.WriteHeader("Server: x"), 9u);
    sent = handle.Read(100);
    EXPECT_EQ(handle.Write("the body"), 8u);
    return CURLE_OK;
  };
  EXPECT_OK(req->SendReqest());
  EXPECT_EQ(body, "the body");
  EXPECT_EQ(header, "Server: x");
  EXPECT_EQ(sent, "to send");
}

// libcurl's own writer would crash on the null that the request before left.
TEST_F(KdProtocolReqCycle, WithoutAWritePairLibcurlsOwnSinkIsGivenBack) {
  EXPECT_OK(req->SendReqest());
  EXPECT_EQ(fake.transfers.back().Option(CURLOPT_WRITEDATA), "unset");
  req->setWriteCallBack(&m_writer, &TakeNothing);
  EXPECT_OK(req->SendReqest());
  for (int i = 0; i < 2; ++i) {
    EXPECT_OK(req->SendReqest());
    EXPECT_EQ("CURLOPT_WRITEDATA " + fake.transfers.back().Option(CURLOPT_WRITEDATA),
              Opt(CURLOPT_WRITEDATA, static_cast<const void*>(stdout)));
    EXPECT_EQ(fake.transfers.back().Option(CURLOPT_WRITEFUNCTION), "null");
  }
}

TEST_F(KdProtocolReqCycle, StepsNeedAnInitialisedObject) {
  TestReq fresh(fake);
  fresh.setURL("s");
  EXPECT_THAT(fresh.SendReqest().AsString(), EndsWith(", " + kNotInitialized + "function."));
  EXPECT_FAILS(fresh.SendReqest(), IntCode(1), "");
  EXPECT_THAT(fresh.PrepareForRequest().AsString(),
              EndsWith(", " + kNotInitialized + "functions."));
  EXPECT_FAILS(fresh.PrepareForRequest(), IntCode(1), "");
  EXPECT_THAT(fresh.Execute().AsString(), EndsWith(", " + kNotInitialized + "functions."));
  EXPECT_FAILS(fresh.Execute(), IntCode(1), "");
  EXPECT_THAT(Calls(), IsEmpty());
}

TEST_F(KdProtocolReqCycle, TheUndoDoesNotAskForAnInitialisedObject) {
  const auto fill = [&] {
    req = std::make_unique<TestReq>(fake);
    SetAllCallBacks();
    req->addRequestedHeaders("A", "1");
    Mark();
  };
  fill();
  EXPECT_OK(req->unSetMethodParameter());
  ExpectCleared();
  EXPECT_THAT(fake.CallsTo("hook ", mark), ElementsAre("unsetOpTypeParameter"));

  fill();
  req->failures["unsetOpTypeParameter"] = HookError();
  const CZuError error = req->unSetMethodParameter();
  EXPECT_FAILS(error, Win32Code(87), (std::string(kHookText) + "\n").c_str());
  EXPECT_THAT(error.AsString(), EndsWith("::unSetMethodParameter()"));
  ExpectCleared();
}

TEST_F(KdProtocolReqCycle, PreparationEndsBeforeTheTransfer) {
  SetAllCallBacks();
  req->addRequestedHeaders("B", "2");
  req->addRequestedHeaders("A", "1");
  EXPECT_OK(req->PrepareForRequest());
  EXPECT_EQ(Calls(), Join({kPreparation, CallBackOptions()}));
  Mark();
  EXPECT_OK(req->Execute());
  EXPECT_EQ(Calls(), kExecution);
  Mark();
  EXPECT_OK(req->unSetMethodParameter());
  EXPECT_EQ(Calls(), Join({CallBackResets(), {"hook unsetOpTypeParameter"}}));
  ExpectCleared();
}

TEST_F(KdProtocolReqCycle, ResponseCodeIsReadAnew) {
  fake.infos[CURLINFO_RESPONSE_CODE].number = 226;
  req->m_curlCode = kStale;
  EXPECT_OK(req->getResponseCode());
  EXPECT_EQ(req->m_responseCode, 226);
  EXPECT_EQ(req->m_curlCode, 0);
  fake.refusedInfos[CURLINFO_RESPONSE_CODE] = 43;
  std::strcpy(req->m_szErrorBuffer, "why");
  EXPECT_FAILS(req->getResponseCode(), TransferCode(43),
               "-CURL perform failed.ErrorCode : [43], Error Message : [why]");
  EXPECT_EQ(req->m_responseCode, 0);
  EXPECT_EQ(req->m_curlCode, 43);
  TestReq fresh(fake);
  EXPECT_FAILS(fresh.getResponseCode(), TransferCode(43),
               "Error Message : [ Error buffer is not initialized]");
}

using KdProtocolReqThreads = FakeCurlTest;

TEST_F(KdProtocolReqThreads, RequestsOnSeveralThreadsAreIndependent) {
  TestReq::m_gbInit = false;
  TestReq::initializeCurlLibrary();
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&, i] {
      TestReq req(fake);
      EXPECT_OK(req.initialize());
      req.setURL("s" + std::to_string(i));
      for (int round = 0; round < 50; ++round) EXPECT_OK(req.download("p", {{"A", "1"}}));
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(fake.transfers.size(), 200u);
}

}  // namespace
