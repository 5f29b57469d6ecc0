#include <cstring>

#include "ZuNetwork/KdProtocolReq.h"
#include "fakes/TestReq.h"

using testing::ElementsAreArray;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

int Trace(void*, void*, char*, unsigned long, void*) { return 0; }

enum class Kind { kUsual, kWithCodeInText, kStaleCode };

struct Setter {
  const char* label;
  std::function<CZuError(TestReq&)> call;
  std::vector<std::string> options;
  const char* lastWord;  // of the not-initialised text
  Kind kind = Kind::kUsual;
};

std::vector<Setter> Setters() {
  return {
      {"setSecured on",
       [](TestReq& r) { return r.setSecured(true, "/ca.crt"); },
       {Opt(CURLOPT_SSL_VERIFYPEER, 1), Opt(CURLOPT_SSL_VERIFYHOST, 2),
        Opt(CURLOPT_CAINFO, "/ca.crt")},
       "function."},
      {"setSecured off",
       [](TestReq& r) { return r.setSecured(false, "/ca.crt"); },
       {Opt(CURLOPT_SSL_VERIFYPEER, 0), Opt(CURLOPT_SSL_VERIFYHOST, 0)},
       "function."},
      {"setMaxSSLVersion",
       [](TestReq& r) { return r.setMaxSSLVersion(CURL_SSLVERSION_MAX_TLSv1_2); },
       {Opt(CURLOPT_SSLVERSION, 393216), Opt(CURLOPT_PROXY_SSLVERSION, 393216)},
       "function.",
       Kind::kWithCodeInText},
      {"setKeepAlive on",
       [](TestReq& r) { return r.setKeepAlive(true, 60, 5000000000L); },
       {Opt(CURLOPT_TCP_KEEPALIVE, 1), Opt(CURLOPT_TCP_KEEPIDLE, 60),
        Opt(CURLOPT_TCP_KEEPINTVL, 5000000000)},
       "function.",
       Kind::kStaleCode},
      {"setKeepAlive off",
       [](TestReq& r) { return r.setKeepAlive(false, 60, 30); },
       {Opt(CURLOPT_TCP_KEEPALIVE, 0)},
       "function.",
       Kind::kStaleCode},
      {"setProxyDetails",
       [](TestReq& r) { return r.setProxyDetails("p", "u", "w", "3128"); },
       {Opt(CURLOPT_PROXYTYPE, 0), Opt(CURLOPT_PROXY, "p:3128"), Opt(CURLOPT_PROXYUSERPWD, "u:w")},
       "function."},
      {"setProxyDetails, server alone",
       [](TestReq& r) { return r.setProxyDetails("p", "", "", ""); },
       {Opt(CURLOPT_PROXYTYPE, 0), Opt(CURLOPT_PROXY, "p:"), Opt(CURLOPT_PROXYUSERPWD, ":")},
       "function."},
      {"setProxyBypass",
       [](TestReq& r) { return r.setProxyBypass("a,b"); },
       {Opt(CURLOPT_NOPROXY, "a,b")},
       "function."},
      {"DisableProxy",
       [](TestReq& r) { return r.DisableProxy(); },
       {Opt(CURLOPT_PROXY, "")},
       "functions."},
      {"setProyAuth",
       [](TestReq& r) { return r.setProyAuth(0x100000009L); },
       {Opt(CURLOPT_PROXYAUTH, 4294967305)},
       "functions."},
      {"SetTimeOut",
       [](TestReq& r) { return r.SetTimeOut(-5); },
       {Opt(CURLOPT_TIMEOUT, -5)},
       "functions."},
      {"SetConnectionTimeOut",
       [](TestReq& r) { return r.SetConnectionTimeOut(7); },
       {Opt(CURLOPT_CONNECTTIMEOUT, 7)},
       "functions."},
      {"setCredentials",
       [](TestReq& r) { return r.setCredentials("u", "p:w"); },
       {Opt(CURLOPT_USERPWD, "u:p:w")},
       "function."},
      {"setCredentials, empty",
       [](TestReq& r) { return r.setCredentials("", ""); },
       {Opt(CURLOPT_USERPWD, ":")},
       "function."},
  };
}

class KdProtocolReqOptions : public TestReqTest {};

TEST_F(KdProtocolReqOptions, SetTheirOptionsInOrder) {
  for (const Setter& setter : Setters()) {
    SCOPED_TRACE(setter.label);
    Mark();
    req->m_curlCode = kStale;
    EXPECT_OK(setter.call(*req));
    EXPECT_THAT(Options(), ElementsAreArray(setter.options));
    EXPECT_EQ(Calls().size(), setter.options.size());
    EXPECT_EQ(req->m_curlCode, setter.kind == Kind::kStaleCode ? kStale : 0);
  }
}

TEST_F(KdProtocolReqOptions, StopAtTheFirstRefusal) {
  for (const Setter& setter : Setters()) {
    for (size_t n = 0; n < setter.options.size(); ++n) {
      const std::string& refused = setter.options[n];
      SCOPED_TRACE(setter.label + (" " + refused));
      Mark();
      fake.refusedOptions = {{NumberOf(refused), kRefusal}};
      req->m_curlCode = kStale;
      const CZuError error = setter.call(*req);
      std::string text = "Failed to set option [" + std::to_string(NumberOf(refused)) + "]";
      if (setter.kind == Kind::kWithCodeInText) text += ". Curl Error code [48] ";
      const int code = setter.kind == Kind::kStaleCode ? kStale : kRefusal;
      EXPECT_FAILS(error, TransferCode(code), text.c_str());
      EXPECT_THAT(error.AsString(), EndsWith("-" + text));
      EXPECT_THAT(error.AsString(), HasSubstr("KdProtocolReq.cpp"));
      EXPECT_EQ(req->m_curlCode, code);
      EXPECT_THAT(Options(),
                  ElementsAreArray(setter.options.begin(),
                                   setter.options.begin() + static_cast<std::ptrdiff_t>(n) + 1));
    }
  }
}

TEST_F(KdProtocolReqOptions, NeedAnInitialisedObject) {
  TestReq fresh(fake);
  for (const Setter& setter : Setters()) {
    SCOPED_TRACE(setter.label);
    const CZuError error = setter.call(fresh);
    EXPECT_FAILS(error, IntCode(1), "not initialized yet");
    EXPECT_THAT(error.AsString(), EndsWith(", " + kNotInitialized + setter.lastWord));
  }
  EXPECT_THAT(Calls(), IsEmpty());
}

TEST_F(KdProtocolReqOptions, ClearTheErrorBuffer) {
  TestReq refused(fake);
  fake.refusedOptions[CURLOPT_CAINFO] = kRefusal;
  EXPECT_TRUE(Failed(refused.initialize()));
  fake.refusedOptions.clear();
  for (const Setter& setter : Setters()) {
    SCOPED_TRACE(setter.label);
    std::memset(req->m_szErrorBuffer, 'x', kErrorBufferSize);
    std::memset(refused.m_szErrorBuffer, 'x', kErrorBufferSize);
    EXPECT_OK(setter.call(*req));
    EXPECT_TRUE(Failed(setter.call(refused)));
    EXPECT_TRUE(IsCleared(req->m_szErrorBuffer));
    EXPECT_TRUE(IsCleared(refused.m_szErrorBuffer));
  }
}

TEST_F(KdProtocolReqOptions, KeepAliveReportsTheCodeOfTheLastRequest) {
  fake.refusedOptions[CURLOPT_TCP_KEEPALIVE] = kRefusal;
  req->m_curlCode = 0;
  EXPECT_FAILS(req->setKeepAlive(true, 1, 1), 0xEDD00000,
               "/KdCURL.0.0x0-Failed to set option [213]");
}

TEST_F(KdProtocolReqOptions, AProxyCountsWhenAllItsOptionsWereTaken) {
  for (const CURLoption option : {CURLOPT_PROXYTYPE, CURLOPT_PROXY, CURLOPT_PROXYUSERPWD}) {
    fake.refusedOptions = {{option, kRefusal}};
    EXPECT_TRUE(Failed(req->setProxyDetails("p", "u", "w", "1")));
    EXPECT_FALSE(req->m_bIsProxySet) << option;
  }
  fake.refusedOptions.clear();
  EXPECT_OK(req->setProxyDetails("p", "u", "w", "1"));
  EXPECT_TRUE(req->m_bIsProxySet);
  EXPECT_OK(req->DisableProxy());
  EXPECT_TRUE(req->m_bIsProxySet);
}

TEST_F(KdProtocolReqOptions, CredentialsAreKeptEvenWhenLibcurlRefusesThem) {
  fake.refusedOptions[CURLOPT_USERPWD] = kRefusal;
  EXPECT_TRUE(Failed(req->setCredentials("u", "w")));
  EXPECT_EQ(req->m_strURLUserName, "u");
  EXPECT_EQ(req->m_strURLPassword, "w");
}

TEST_F(KdProtocolReqOptions, TheTraceIsHandedOnWhateverLibcurlSays) {
  int instance = 0;
  const std::vector<std::string> options = {
      Opt(CURLOPT_DEBUGFUNCTION, &Trace),
      Opt(CURLOPT_DEBUGDATA, static_cast<const void*>(&instance))};
  req->m_curlCode = kStale;
  EXPECT_OK(req->setTraceCallBack(&instance, &Trace));
  EXPECT_THAT(Options(), ElementsAreArray(options));
  Mark();
  fake.refusedOptions = {{CURLOPT_DEBUGFUNCTION, kRefusal}, {CURLOPT_DEBUGDATA, kRefusal}};
  EXPECT_OK(req->setTraceCallBack(&instance, &Trace));
  EXPECT_THAT(Options(), ElementsAreArray(options));
  EXPECT_EQ(req->m_curlCode, kStale);
}

TEST_F(KdProtocolReqOptions, TheTraceNeedsBothHalves) {
  int instance = 0;
  std::memset(req->m_szErrorBuffer, 'x', kErrorBufferSize);
  EXPECT_FAILS(req->setTraceCallBack(nullptr, &Trace), IntCode(1), "Input is invalid");
  EXPECT_TRUE(IsCleared(req->m_szErrorBuffer));
  EXPECT_FAILS(req->setTraceCallBack(&instance, nullptr), IntCode(1), "Input is invalid");
  EXPECT_FAILS(req->setTraceCallBack(nullptr, nullptr), IntCode(1), "Input is invalid");
  TestReq fresh(fake);
  EXPECT_THAT(fresh.setTraceCallBack(nullptr, nullptr).AsString(),
              EndsWith(kNotInitialized + "functions."));
  EXPECT_THAT(Calls(), IsEmpty());
}

}  // namespace
