#include "ZuNetwork/KdProtocolReq.h"

#include <type_traits>

#include "fakes/TestReq.h"

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

// Numbers and types that callers may keep or hand on.

static_assert(KdCURL::OP_NONE == 0 && KdCURL::OP_UPLOAD_FILE == 1 &&
              KdCURL::OP_DOWNLOAD_FILE == 2 && KdCURL::OP_GET_FILE_DIR_LIST == 3 &&
              KdCURL::OP_GET_FILE_INFO == 4 && KdCURL::OP_CHECK_FILE_DIR_EXIST == 5 &&
              KdCURL::OP_POST_SIMPLE == 6 && KdCURL::OP_GET_INFO == 7 &&
              KdCURL::OP_POST_BUFFER_WITH_SIZE == 8 && KdCURL::OP_CUSTOM_OPERATION == 9);
static_assert(KdCURL::CURL_PRIMARY_IP == 0 && KdCURL::CURL_EFFECTIVE_URL == 1);

template <typename Member, typename Type>
constexpr bool kIs = std::is_same_v<Member, Type>;

static_assert(kIs<decltype(KdCURL::commandInfo::field), std::string>);
static_assert(kIs<decltype(KdCURL::commandInfo::value), std::string>);
static_assert(kIs<decltype(KdCURL::FileDirInfo::name), std::string>);
static_assert(kIs<decltype(KdCURL::FileDirInfo::isFile), bool>);
static_assert(kIs<decltype(KdCURL::FileDirInfo::fileSize), double>);
static_assert(kIs<KdCURL::WRITE_FUN_POINTER, curl_write_callback>);
static_assert(kIs<KdCURL::READ_FUN_POINTER, curl_read_callback>);
static_assert(kIs<KdCURL::TRACE_FUN_POINTER, int (*)(void*, void*, char*, unsigned long, void*)>);

using Headers = std::map<std::string, std::string>;
static_assert(kIs<decltype(TestReq::m_mHeaders), Headers>);
static_assert(kIs<decltype(TestReq::m_OpType), KdCURL::operationType>);
static_assert(kIs<decltype(TestReq::m_lDataSize), std::int64_t>);
static_assert(kIs<decltype(TestReq::m_bIsProxySet), bool>);
static_assert(kIs<decltype(TestReq::m_WriteFunPtr), KdCURL::WRITE_FUN_POINTER>);
static_assert(kIs<decltype(TestReq::m_ReadFunPtr), KdCURL::READ_FUN_POINTER>);
static_assert(kIs<decltype(TestReq::m_HeaderWriteFunPtr), KdCURL::WRITE_FUN_POINTER>);
static_assert(kIs<decltype(TestReq::m_KdWriteCallbackInstancePtr), void*>);
static_assert(kIs<decltype(TestReq::m_KdReadCallbackInstancePtr), void*>);
static_assert(kIs<decltype(TestReq::m_KdHeaderWriteCallbackInstancePtr), void*>);
static_assert(kIs<decltype(TestReq::m_curlContext), KdCURL::KdCurlContext*>);
static_assert(kIs<decltype(TestReq::m_szErrorBuffer), char*>);
static_assert(kIs<decltype(TestReq::m_bProtocolInitialized), bool>);
static_assert(kIs<decltype(TestReq::m_curlCode), int>);
static_assert(kIs<decltype(TestReq::m_responseCode), long>);
static_assert(std::is_abstract_v<KdCURL::KdProtocolReq>);
static_assert(std::has_virtual_destructor_v<KdCURL::KdProtocolReq>);
static_assert(!std::is_copy_constructible_v<TestReq> && !std::is_copy_assignable_v<TestReq>,
              "owns its handle alone");

// Construction and initialisation.

using KdProtocolReqTest = FakeCurlTest;

TEST_F(KdProtocolReqTest, ConstructionTouchesNothing) {
  {
    const TestReq req(fake);
    EXPECT_EQ(req.m_strURL + req.m_strURLPath + req.m_strURLUserName + req.m_strURLPassword +
                  req.m_strSourceFile + req.m_strPortNo + req.m_strPostString + req.m_operationName,
              "");
    EXPECT_THAT(req.m_mHeaders, IsEmpty());
    EXPECT_EQ(req.m_PostBuffer, nullptr);
    EXPECT_EQ(req.m_OpType, KdCURL::OP_NONE);
    EXPECT_EQ(req.m_lDataSize, 0);
    EXPECT_FALSE(req.m_bIsProxySet);
    EXPECT_EQ(req.m_WriteFunPtr, nullptr);
    EXPECT_EQ(req.m_ReadFunPtr, nullptr);
    EXPECT_EQ(req.m_HeaderWriteFunPtr, nullptr);
    EXPECT_EQ(req.m_KdWriteCallbackInstancePtr, nullptr);
    EXPECT_EQ(req.m_KdReadCallbackInstancePtr, nullptr);
    EXPECT_EQ(req.m_KdHeaderWriteCallbackInstancePtr, nullptr);
    EXPECT_EQ(req.m_curlContext, nullptr);
    EXPECT_EQ(req.m_szErrorBuffer, nullptr);
    EXPECT_FALSE(req.m_bProtocolInitialized);
    EXPECT_EQ(req.m_curlCode, 0);
    EXPECT_EQ(req.m_responseCode, 0);
    EXPECT_EQ(TestReq::ssl_mutex, nullptr);
  }
  EXPECT_THAT(Calls(), IsEmpty());
}

std::vector<std::string> DefaultOptions(const TestReq& req) {
  return {Opt(CURLOPT_ERRORBUFFER, static_cast<const void*>(req.m_szErrorBuffer)),
          Opt(CURLOPT_FOLLOWLOCATION, 1L),
          Opt(CURLOPT_POSTREDIR, 7L),
          Opt(CURLOPT_VERBOSE, 1L),
          Opt(CURLOPT_SSL_VERIFYPEER, 1L),
          Opt(CURLOPT_SSL_VERIFYHOST, 2L),
          Opt(CURLOPT_CAINFO, "./curl-ca-bundle.crt")};
}

TEST_F(KdProtocolReqTest, InitializeSetsTheDefaultsAndNoTimeLimit) {
  {
    TestReq req(fake);
    ASSERT_OK(req.initialize());
    EXPECT_TRUE(req.m_bProtocolInitialized);
    EXPECT_EQ(req.m_OpType, KdCURL::OP_DOWNLOAD_FILE);
    EXPECT_EQ(req.m_curlCode, 0);
    ASSERT_NE(req.m_szErrorBuffer, nullptr);
    EXPECT_TRUE(IsCleared(req.m_szErrorBuffer));
    EXPECT_EQ(fake.calls.front(), "easy_init");
    EXPECT_THAT(Options(), ElementsAreArray(DefaultOptions(req)));
    EXPECT_EQ(fake.calls.size(), 8u);
    Mark();
  }
  EXPECT_THAT(Calls(), ElementsAre("easy_cleanup handle1"));
}

TEST_F(KdProtocolReqTest, InitializeWithoutAHandleFails) {
  fake.nulls.insert("easy_init");
  TestReq req(fake);
  const CZuError error = req.initialize();
  EXPECT_FAILS(error, 0xFFFFFFFF, "Failed to get CURL handle");
  EXPECT_THAT(error.AsString(), HasSubstr("KdProtocolReq.cpp"));
  EXPECT_FALSE(req.m_bProtocolInitialized);
  EXPECT_NE(req.m_szErrorBuffer, nullptr);
  EXPECT_NE(req.m_curlContext, nullptr);
  EXPECT_THAT(Calls(), ElementsAre("easy_init"));
  EXPECT_FAILS(req.SetTimeOut(5), IntCode(1), "not initialized yet");
}

TEST_F(KdProtocolReqTest, InitializeStopsAtTheFirstRefusedDefault) {
  for (int n = 1; n <= 7; ++n) {
    SCOPED_TRACE(n);
    library.Reset();
    Mark();
    fake.refusedOptionAt[n] = kRefusal;
    TestReq req(fake);
    const CZuError error = req.initialize();
    const std::vector<std::string> defaults = DefaultOptions(req);
    const std::string& refused = defaults[static_cast<size_t>(n - 1)];
    const std::string number = std::to_string(NumberOf(refused));
    EXPECT_FAILS(error, TransferCode(kRefusal), ("Failed to set option [" + number + "]").c_str());
    EXPECT_THAT(error.AsString(), HasSubstr("::setDefaultConfiguration()"));
    EXPECT_THAT(error.AsString(), EndsWith("::initialize()"));
    EXPECT_THAT(Options(), ElementsAreArray(defaults.begin(), defaults.begin() + n));
    EXPECT_FALSE(req.m_bProtocolInitialized);
    EXPECT_EQ(req.m_curlCode, kRefusal);
    EXPECT_FAILS(req.SendReqest(), IntCode(1), "not initialized yet");
  }
}

TEST_F(KdProtocolReqTest, AFailedInitializeCanBeRepeated) {
  TestReq req(fake);
  fake.refusedOptions[CURLOPT_CAINFO] = kRefusal;
  EXPECT_TRUE(Failed(req.initialize()));
  fake.refusedOptions.clear();
  EXPECT_OK(req.initialize());
  EXPECT_TRUE(req.m_bProtocolInitialized);
}

TEST_F(KdProtocolReqTest, ASecondInitializeTakesANewHandleAndLeaksNothing) {
  {
    TestReq req(fake);
    ASSERT_OK(req.initialize());
    const char* const buffer = req.m_szErrorBuffer;
    ASSERT_OK(req.initialize());
    EXPECT_NE(req.m_szErrorBuffer, buffer);
    EXPECT_EQ(fake.Show(req.m_curlContext->m_curl), "handle2");
    // The object is initialised by now, so this time the default time limit is accepted.
    std::vector<std::string> options = DefaultOptions(req);
    options.insert(options.begin(), Opt(CURLOPT_TIMEOUT, 1080L));
    EXPECT_THAT(fake.CallsTo("easy_setopt handle2 "), ElementsAreArray(options));
    EXPECT_EQ(fake.Alive().size(), 2u);
  }
  EXPECT_THAT(fake.Alive(), IsEmpty());
}

TEST_F(KdProtocolReqTest, AFailedSecondInitializeLeavesTheObjectInitialised) {
  TestReq req(fake);
  ASSERT_OK(req.initialize());
  fake.nulls.insert("easy_init");
  CZuError error = req.initialize();
  EXPECT_FAILS(error, 0xFFFFFFFF, "");
  EXPECT_THAT(error.AsString(),
              EndsWith("::initialize()/KdCURL.-1.0xFFFFFFFF-Failed to get CURL handle"));
  EXPECT_TRUE(req.m_bProtocolInitialized);
  fake.nulls.clear();

  for (const CURLoption option :
       {CURLOPT_ERRORBUFFER, CURLOPT_FOLLOWLOCATION, CURLOPT_POSTREDIR, CURLOPT_VERBOSE,
        CURLOPT_SSL_VERIFYPEER, CURLOPT_SSL_VERIFYHOST, CURLOPT_CAINFO}) {
    SCOPED_TRACE(option);
    fake.refusedOptions = {{option, kRefusal}};
    error = req.initialize();
    EXPECT_FAILS(error, TransferCode(kRefusal),
                 ("-Failed to set option [" + std::to_string(option) + "]\n").c_str());
    EXPECT_THAT(error.AsString(), EndsWith("::initialize()"));
    EXPECT_TRUE(req.m_bProtocolInitialized);
    EXPECT_EQ(req.m_curlCode, kRefusal);
  }
  fake.refusedOptions = {{CURLOPT_TIMEOUT, kRefusal}};
  EXPECT_OK(req.initialize()) << "the time limit is no default that has to be there";
  EXPECT_TRUE(req.m_bProtocolInitialized);
}

TEST_F(KdProtocolReqTest, TheDefaultsCanBeSetAgainWithATimeLimit) {
  TestReq req(fake);
  ASSERT_OK(req.initialize());
  std::vector<std::string> options = DefaultOptions(req);
  options.insert(options.begin(), Opt(CURLOPT_TIMEOUT, 1080L));
  req.setOperationType(KdCURL::OP_UPLOAD_FILE);
  req.m_curlCode = kStale;
  std::memset(req.m_szErrorBuffer, 'x', kErrorBufferSize);
  Mark();
  EXPECT_OK(req.setDefaultConfiguration());
  EXPECT_THAT(Options(), ElementsAreArray(options));
  EXPECT_EQ(Calls().size(), options.size());
  EXPECT_EQ(req.m_OpType, KdCURL::OP_DOWNLOAD_FILE);
  EXPECT_EQ(req.m_curlCode, 0);
  EXPECT_TRUE(IsCleared(req.m_szErrorBuffer));

  Mark();
  fake.refusedOptions = {{CURLOPT_TIMEOUT, kRefusal}, {CURLOPT_POSTREDIR, kRefusal}};
  const CZuError error = req.setDefaultConfiguration();
  EXPECT_FAILS(error, TransferCode(kRefusal), "::setDefaultConfiguration()/KdCURL.");
  EXPECT_THAT(error.AsString(), EndsWith("-Failed to set option [161]"));
  EXPECT_THAT(Options(), ElementsAreArray(options.begin(), options.begin() + 4));
  EXPECT_TRUE(req.m_bProtocolInitialized);
}

TEST_F(KdProtocolReqTest, GlobalInitialisationIsDoneOnceItSucceeded) {
  TestReq::m_gbInit = false;
  fake.results["global_init"] = CURLE_FAILED_INIT;
  TestReq::initializeCurlLibrary();
  EXPECT_FALSE(TestReq::m_gbInit);
  fake.results.clear();
  TestReq::initializeCurlLibrary();
  EXPECT_TRUE(TestReq::m_gbInit);
  TestReq::initializeCurlLibrary();
  EXPECT_THAT(Calls(), ElementsAre("global_init 3", "global_init 3"));
  TestReq::deinitializeCurlLibrary();
  EXPECT_TRUE(TestReq::m_gbInit);
  EXPECT_EQ(Calls().size(), 2u);
}

}  // namespace
