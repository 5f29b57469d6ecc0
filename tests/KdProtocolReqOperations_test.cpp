#include "ZuNetwork/KdProtocolReq.h"
#include "fakes/TestReq.h"

using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

using KdCURL::commandInfo;
using Pairs = std::vector<commandInfo>;

const Pairs kPairs = {{"B", "2"}, {"A", "0"}, {"b", "3"}, {"A", "1"}};
constexpr char kBody[] = "body";

// The six operations that send something.
struct Operation {
  const char* label;
  const char* function;  // as it stands in the location it pushes
  std::function<CZuError(TestReq&)> call;
  const char* lastWord;  // of the not-initialised text
  KdCURL::operationType type;
};

std::vector<Operation> Operations() {
  return {
      {"download", "::download(", [](TestReq& r) { return r.download("p", kPairs); }, "functions.",
       KdCURL::OP_DOWNLOAD_FILE},
      {"upload", "::uploadFile(",
       [](TestReq& r) { return r.uploadFile("/src", "p", 5000000000u, kPairs); }, "functions.",
       KdCURL::OP_UPLOAD_FILE},
      {"post of a text", "::doPostOperation(",
       [](TestReq& r) { return r.doPostOperation("p", kBody, kPairs); }, "function.",
       KdCURL::OP_POST_SIMPLE},
      {"post of a buffer", "::doPostOperation(",
       [](TestReq& r) { return r.doPostOperation("p", kBody, 4, kPairs); }, "function.",
       KdCURL::OP_POST_BUFFER_WITH_SIZE},
      {"put", "::doPutOperation(",
       [](TestReq& r) { return r.doPutOperation("p", kBody, 4, kPairs); }, "function.",
       KdCURL::OP_CUSTOM_OPERATION},
      {"delete", "::doDeleteOperation(",
       [](TestReq& r) { return r.doDeleteOperation("p", kBody, 4, kPairs); }, "function.",
       KdCURL::OP_CUSTOM_OPERATION},
  };
}

class KdProtocolReqOperations : public TestReqTest {
 protected:
  // What every operation ends with.
  void ExpectRequest(const std::string& path, int type, const std::string& headers) const {
    EXPECT_THAT(
        Calls(),
        ElementsAre("hook getFullWorkingURL", "easy_setopt handle1 CURLOPT_URL \"s/" + path + "\"",
                    "hook setMethodParameter " + std::to_string(type), "hook setHeaders" + headers,
                    "easy_perform handle1", "easy_getinfo handle1 2097154",
                    "hook isOperationSuccess 200", "hook unsetOpTypeParameter"));
  }
};

TEST_F(KdProtocolReqOperations, SendOneRequestWithTheirPairs) {
  for (const Operation& operation : Operations()) {
    SCOPED_TRACE(operation.label);
    Mark();
    EXPECT_OK(operation.call(*req));
    ExpectRequest("p", operation.type, " A=1;B=2;b=3;");
    EXPECT_EQ(req->m_OpType, operation.type);
    EXPECT_THAT(req->m_mHeaders, IsEmpty());
  }
}

TEST_F(KdProtocolReqOperations, KeepTheirFieldsWhateverTheOutcome) {
  for (const int code : {0, 28}) {
    fake.results["easy_perform"] = code;
    EXPECT_EQ(Failed(req->uploadFile("/src", "up", 5000000000u, {})), code != 0);
    EXPECT_EQ(req->m_strURLPath, "up");
    EXPECT_EQ(req->m_lDataSize, 5000000000);
    EXPECT_EQ(req->m_strSourceFile, "/src");

    EXPECT_EQ(Failed(req->doPostOperation("post", "text", {})), code != 0);
    EXPECT_EQ(req->m_strURLPath, "post");
    EXPECT_EQ(req->m_strPostString, "text");
    EXPECT_EQ(req->m_lDataSize, 5000000000) << "of the operation before";

    EXPECT_EQ(Failed(req->doPostOperation("buffer", kBody, 3, {})), code != 0);
    EXPECT_EQ(req->m_strURLPath, "buffer");
    EXPECT_EQ(req->m_PostBuffer, kBody);
    EXPECT_EQ(req->m_lDataSize, 3);

    EXPECT_EQ(Failed(req->doPutOperation("put", kBody + 1, 2, {})), code != 0);
    EXPECT_EQ(req->m_strURLPath, "put");
    EXPECT_EQ(req->m_PostBuffer, kBody + 1);
    EXPECT_EQ(req->m_lDataSize, 2);
    EXPECT_EQ(req->m_operationName, "PUT");

    EXPECT_EQ(Failed(req->doDeleteOperation("delete", kBody + 2, 0, {})), code != 0);
    EXPECT_EQ(req->m_strURLPath, "delete");
    EXPECT_EQ(req->m_PostBuffer, kBody + 2);
    EXPECT_EQ(req->m_lDataSize, 0);
    EXPECT_EQ(req->m_operationName, "DELETE");

    EXPECT_EQ(Failed(req->download("down", {})), code != 0);
    EXPECT_EQ(req->m_strURLPath, "down");
    EXPECT_EQ(req->m_strSourceFile, "/src");
    EXPECT_EQ(req->m_operationName, "DELETE");
    EXPECT_EQ(req->m_strPostString, "text");
  }
}

TEST_F(KdProtocolReqOperations, PushTheirLocationOnTheRequestsError) {
  fake.results["easy_perform"] = 28;
  for (const Operation& operation : Operations()) {
    SCOPED_TRACE(operation.label);
    const CZuError error = operation.call(*req);
    EXPECT_FAILS(error, TransferCode(28), "CURL perform failed.Curl ErrorCode : [28]");
    const std::string text = error.AsString();
    const std::string last = text.substr(text.rfind("\n  "));
    EXPECT_THAT(last, HasSubstr("KdProtocolReq.cpp:"));
    EXPECT_THAT(last, HasSubstr(operation.function));
    EXPECT_THAT(text.substr(0, text.rfind("\n  ")), EndsWith("::SendReqest()"));
    EXPECT_THAT(req->m_mHeaders, IsEmpty());
  }
}

TEST_F(KdProtocolReqOperations, NeedAnInitialisedObject) {
  std::string text = "stale";
  double size = -5;
  bool exists = true;
  std::vector<Operation> all = Operations();
  const auto none = KdCURL::OP_NONE;
  all.push_back(
      {"getFileInfo", "", [&](TestReq& r) { return r.getFileInfo("p", size); }, "function.", none});
  all.push_back({"checkIfFileOrDirExists", "",
                 [&](TestReq& r) { return r.checkIfFileOrDirExists("p", true, exists); },
                 "function.", none});
  all.push_back({"getInfo", "",
                 [&](TestReq& r) { return r.getInfo(static_cast<KdCURL::CurlInfoType>(2), text); },
                 "function.", none});
  all.push_back({"getFilesAndDirsInfoInFile", "",
                 [&](TestReq& r) { return r.getFilesAndDirsInfoInFile(""); }, "functions.", none});
  all.push_back({"download of nothing", "", [](TestReq& r) { return r.download(nullptr, {}); },
                 "functions.", none});
  all.push_back({"upload of nothing", "",
                 [](TestReq& r) { return r.uploadFile(nullptr, nullptr, 0, {}); }, "functions.",
                 none});
  all.push_back({"post of nothing", "",
                 [](TestReq& r) { return r.doPostOperation(nullptr, nullptr, Pairs()); },
                 "function.", none});
  all.push_back({"put of nothing", "",
                 [](TestReq& r) { return r.doPutOperation(nullptr, nullptr, -1, {}); }, "function.",
                 none});
  TestReq fresh(fake);
  fresh.setURL("s");
  for (const Operation& operation : all) {
    SCOPED_TRACE(operation.label);
    const CZuError error = operation.call(fresh);
    EXPECT_FAILS(error, IntCode(1), "not initialized yet");
    EXPECT_THAT(error.AsString(), EndsWith(", " + kNotInitialized + operation.lastWord));
    EXPECT_EQ(fresh.m_OpType, KdCURL::OP_NONE);
    EXPECT_THAT(fresh.m_mHeaders, IsEmpty());
  }
  EXPECT_EQ(text, "stale");
  EXPECT_EQ(size, -5);
  EXPECT_TRUE(exists);
  EXPECT_THAT(Calls(), IsEmpty());
}

struct Refusal {
  const char* label;
  std::function<CZuError(TestReq&)> call;
  const char* text;
};

// Where more than one argument is bad, the first check decides.
std::vector<Refusal> Refusals() {
  return {
      {"download null", [](TestReq& r) { return r.download(nullptr, kPairs); },
       "Invalid source url."},
      {"download empty", [](TestReq& r) { return r.download("", kPairs); }, "Invalid source url."},
      {"upload null source", [](TestReq& r) { return r.uploadFile(nullptr, nullptr, 1, kPairs); },
       "Invalid source file path."},
      {"upload empty source", [](TestReq& r) { return r.uploadFile("", "", 1, kPairs); },
       "Invalid source file path."},
      {"upload null path", [](TestReq& r) { return r.uploadFile("/s", nullptr, 1, kPairs); },
       "Invalid URL path."},
      {"upload empty path", [](TestReq& r) { return r.uploadFile("/s", "", 1, kPairs); },
       "Invalid URL path."},
      {"post null text", [](TestReq& r) { return r.doPostOperation(nullptr, nullptr, kPairs); },
       "Invalid post string ."},
      {"post empty text", [](TestReq& r) { return r.doPostOperation("", "", kPairs); },
       "Invalid post string ."},
      {"post null path", [](TestReq& r) { return r.doPostOperation(nullptr, "x", kPairs); },
       "Invalid URL path ."},
      {"post empty path", [](TestReq& r) { return r.doPostOperation("", "x", kPairs); },
       "Invalid URL path ."},
      {"buffer null", [](TestReq& r) { return r.doPostOperation("", nullptr, 1, kPairs); },
       "Invalid post array ."},
      {"buffer null, negative size",
       [](TestReq& r) { return r.doPostOperation("p", nullptr, -1, kPairs); },
       "Invalid post array ."},
      {"buffer null path", [](TestReq& r) { return r.doPostOperation(nullptr, "x", -1, kPairs); },
       "Invalid URL path ."},
      {"buffer empty path, no body",
       [](TestReq& r) { return r.doPostOperation("", nullptr, 0, kPairs); }, "Invalid URL path ."},
      {"buffer negative size", [](TestReq& r) { return r.doPostOperation("p", "x", -1, kPairs); },
       "Invalid Buffer size."},
      {"put null", [](TestReq& r) { return r.doPutOperation("", nullptr, -1, kPairs); },
       "Invalid PUT data."},
      {"put null, size 0", [](TestReq& r) { return r.doPutOperation("p", nullptr, 0, kPairs); },
       "Invalid PUT data."},
      {"put null path", [](TestReq& r) { return r.doPutOperation(nullptr, "x", -1, kPairs); },
       "Invalid URL path ."},
      {"put empty path", [](TestReq& r) { return r.doPutOperation("", "x", -1, kPairs); },
       "Invalid URL path ."},
      {"put negative size", [](TestReq& r) { return r.doPutOperation("p", "x", -1, kPairs); },
       "Invalid Buffer size."},
      {"delete null", [](TestReq& r) { return r.doDeleteOperation("", nullptr, -1, kPairs); },
       "Invalid DELETE data."},
      {"delete null, size 0",
       [](TestReq& r) { return r.doDeleteOperation("p", nullptr, 0, kPairs); },
       "Invalid DELETE data."},
      {"delete null path", [](TestReq& r) { return r.doDeleteOperation(nullptr, "x", -1, kPairs); },
       "Invalid URL path ."},
      {"delete empty path", [](TestReq& r) { return r.doDeleteOperation("", "x", -1, kPairs); },
       "Invalid URL path ."},
      {"delete negative size", [](TestReq& r) { return r.doDeleteOperation("p", "x", -1, kPairs); },
       "Invalid Buffer size."},
      {"listing of nothing", [](TestReq& r) { return r.getFilesAndDirsInfoInFile(""); },
       "Source path passed in empty"},
  };
}

TEST_F(KdProtocolReqOperations, RefuseBadArgumentsAndSendNothing) {
  req->setURLPath("before");
  for (const Refusal& refusal : Refusals()) {
    SCOPED_TRACE(refusal.label);
    std::memset(req->m_szErrorBuffer, 'x', kErrorBufferSize);
    const CZuError error = refusal.call(*req);
    EXPECT_FAILS(error, IntCode(1), refusal.text);
    EXPECT_THAT(error.AsString(), EndsWith(std::string(", ") + refusal.text));
    EXPECT_TRUE(IsCleared(req->m_szErrorBuffer));
    EXPECT_EQ(req->m_strURLPath, "before");
    EXPECT_EQ(req->m_OpType, KdCURL::OP_DOWNLOAD_FILE);
    EXPECT_THAT(req->m_mHeaders, IsEmpty());
  }
  EXPECT_THAT(Calls(), IsEmpty());
}

TEST_F(KdProtocolReqOperations, EmptyBodiesAreAccepted) {
  EXPECT_OK(req->doPostOperation("p", nullptr, 0, {}));
  EXPECT_EQ(req->m_PostBuffer, nullptr);
  EXPECT_OK(req->doPutOperation("p", "", 0, {}));
  EXPECT_OK(req->doDeleteOperation("p", "", 0, {}));
  EXPECT_OK(req->uploadFile("/s", "p", 0, {}));
}

TEST_F(KdProtocolReqOperations, ClearTheErrorBufferFirst) {
  for (const Operation& operation : Operations()) {
    std::memset(req->m_szErrorBuffer, 'x', kErrorBufferSize);
    EXPECT_OK(operation.call(*req));
    EXPECT_TRUE(IsCleared(req->m_szErrorBuffer)) << operation.label;
  }
}

TEST_F(KdProtocolReqOperations, HeaderNamesAreCaseSensitiveAndTheLastValueCounts) {
  req->setCommandInfo({{"name", "1"}, {"Name", "2"}, {"name", "3"}});
  req->addRequestedHeaders("Name", "4");
  EXPECT_THAT(req->m_mHeaders, ElementsAre(std::pair<const std::string, std::string>("Name", "4"),
                                           std::pair<const std::string, std::string>("name", "3")));
}

TEST_F(KdProtocolReqOperations, GetContentSizeSwallowsWhatItGets) {
  EXPECT_EQ(TestReq::getContentSize(nullptr, 3, 7, nullptr), 21u);
  EXPECT_EQ(TestReq::getContentSize(nullptr, 1, 0, nullptr), 0u);
}

// Texts.

using KdProtocolReqTexts = TestReqTest;

TEST_F(KdProtocolReqTexts, UrlTextsAreCodedUpToTheirFirstZeroByte) {
  std::string out = "stale";
  EXPECT_OK(req->URLEncode("a b/\xC3\xA4", out));
  EXPECT_EQ(out, "a%20b%2F%C3%A4");
  EXPECT_OK(req->URLEncode(std::string("a\0b", 3), out));
  EXPECT_EQ(out, "a");
  EXPECT_OK(req->URLEncode("", out));
  EXPECT_EQ(out, "");
  EXPECT_OK(req->URLDecode("a%20b+c", out));
  EXPECT_EQ(out, "a b+c");
  EXPECT_OK(req->URLDecode("a%00b", out));
  EXPECT_EQ(out, "a");
  EXPECT_OK(req->URLDecode(std::string("a\0b", 3), out));
  EXPECT_EQ(out, "a");
  EXPECT_THAT(fake.Alive(), ElementsAre("handle1"));
  EXPECT_EQ(Calls().front(), "easy_escape handle1 \"a b/\xC3\xA4\" 0");
  EXPECT_EQ(fake.CallsTo("easy_unescape ").front(), "handle1 \"a%20b+c\" 0 null");
}

TEST_F(KdProtocolReqTexts, UrlTextsAreCodedBeforeInitialiseToo) {
  TestReq fresh(fake);
  std::string out;
  EXPECT_OK(fresh.URLEncode("a b", out));
  EXPECT_EQ(out, "a%20b");
  EXPECT_OK(fresh.URLDecode("a%20b", out));
  EXPECT_EQ(out, "a b");
  EXPECT_EQ(Calls().front(), "easy_escape null \"a b\" 0");
}

TEST_F(KdProtocolReqTexts, AFailedCodingLeavesTheOutput) {
  fake.nulls = {"easy_escape", "easy_unescape"};
  std::string out = "stale";
  EXPECT_FAILS(req->URLEncode("a", out), TransferCode(2), "Failed to encode the text");
  EXPECT_FAILS(req->URLDecode("a", out), TransferCode(2), "Failed to decode the text");
  EXPECT_EQ(out, "stale");
  EXPECT_THAT(fake.CallsTo("free"), IsEmpty());
}

TEST_F(KdProtocolReqTexts, AccessorsWorkBeforeInitialise) {
  TestReq fresh(fake);
  int number = -1;
  std::string text = "stale";
  fresh.resetCurlErrorBuffer();
  fresh.resetCurlErrorCodeAndErrorMsg();
  fresh.getLastCurlErrorCodeAndErrorMsg(number, text);
  EXPECT_EQ(number, 0);
  EXPECT_EQ(text, "");
  number = -1;
  fresh.getLastServerResponseCode(number);
  EXPECT_EQ(number, 0);
}

TEST_F(KdProtocolReqTexts, TheServersAnswerIsNarrowed) {
  req->m_responseCode = 0x1000000C8;
  int number = -1;
  req->getLastServerResponseCode(number);
  EXPECT_EQ(number, 200);
}

// Without libcurl, in a new process.

TEST(KdProtocolReqAbsent, InitializeFailsUntilLibcurlAppears) {
  const LibraryFolder folder;
  folder.Run([&] {
    TestReq req;
    req.setURL("s");
    const CZuError error = req.initialize();
    EXPECT_FAILS(error, 0xFFFFFFFF, "Failed to get CURL handle");
    EXPECT_THAT(
        error.AsString(),
        AllOf(HasSubstr("-Failed to get CURL handle\n"), HasSubstr("Failed to load [libcurl.so]: "),
              HasSubstr("file too short"), HasSubstr("apt-get install libcurl4-openssl-dev")));
    EXPECT_FAILS(req.download("p", {}), IntCode(1), "not initialized yet");
    EXPECT_TRUE(req.checkConnection());
    std::string out = "stale";
    EXPECT_FAILS(req.URLEncode("a", out), TransferCode(2), "Failed to encode the text");
    EXPECT_FAILS(req.URLDecode("a", out), TransferCode(2), "Failed to decode the text");
    EXPECT_EQ(out, "stale");
    TestReq::initializeCurlLibrary();
    EXPECT_FALSE(TestReq::m_gbInit);

    folder.Install("complete");
    TestReq::initializeCurlLibrary();
    EXPECT_TRUE(TestReq::m_gbInit);
    EXPECT_OK(req.initialize());
    const FakeLibrary fake;
    fake->infos[CURLINFO_RESPONSE_CODE].number = 200;
    EXPECT_OK(req.download("p", {}));
  });
}

}  // namespace
