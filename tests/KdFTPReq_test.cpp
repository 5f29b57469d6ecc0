#include "ZuNetwork/KdFTPReq.h"

#include <memory>
#include <type_traits>

#include "ZuNetwork/KdSFTPReq.h"
#include "fakes/FakeCurlTest.h"
#include "support/TempDir.h"

using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;

namespace {

template <typename Base>
class State : public Base {
 public:
  using Base::m_bIsProxySet;
  using Base::m_curlCode;
  using Base::m_headerList;
  using Base::m_KdReadCallbackInstancePtr;
  using Base::m_lDataSize;
  using Base::m_mHeaders;
  using Base::m_ReadFunPtr;
  using Base::m_responseCode;
  using Base::m_strSourceFile;
  using Base::m_strURLPath;
  using Base::m_szErrorBuffer;
};

using FtpReq = State<KdCURL::KdFTPReq>;
using SftpReq = State<KdCURL::KdSFTPReq>;

static_assert(std::is_same_v<decltype(FtpReq::m_headerList), curl_slist*>);
static_assert(std::is_base_of_v<KdCURL::KdFTPReq, KdCURL::KdSFTPReq>);

KdCURL::operationType Type(int type) { return static_cast<KdCURL::operationType>(type); }

// An initialised request to the server "h"; the record begins behind initialize().
class KdFTPReqTest : public FakeCurlTest {
 protected:
  KdFTPReqTest() {
    EXPECT_OK(req->initialize());
    req->setURL("h");
    Mark();
  }
  void TearDown() override {
    req.reset();
    FakeCurlTest::TearDown();
  }

  void Dirty() {
    req->m_curlCode = kStale;
    std::memset(req->m_szErrorBuffer, 'x', kErrorBufferSize);
  }

  TempDir folder;
  std::unique_ptr<FtpReq> req = std::make_unique<FtpReq>();
};

}  // namespace

TEST_F(KdFTPReqTest, ConstructionTouchesNothing) {
  {
    const FtpReq fresh;
    EXPECT_EQ(fresh.m_headerList, nullptr);
    const SftpReq other;
    EXPECT_EQ(other.m_headerList, nullptr);
  }
  EXPECT_THAT(Calls(), IsEmpty());
}

TEST_F(KdFTPReqTest, EverythingNeedsAnInitialisedObject) {
  FtpReq fresh;
  SftpReq sftp;
  fresh.setURL("h");
  bool flag = true;
  std::string text = "stale";
  std::vector<KdCURL::FileDirInfo> entries;
  const struct {
    const char* label;
    std::function<CZuError()> call;
    const char* file = "KdFTPReq.cpp";
  } rows[] = {
      {"setDefaults", [&] { return fresh.setDefaults(); }},
      {"setFTPAuth", [&] { return fresh.setFTPAuth(1); }},
      {"SetFTPResponseTimeOut", [&] { return fresh.SetFTPResponseTimeOut(1); }},
      {"setSSL", [&] { return fresh.setSSL(); }},
      {"setActiveMode", [&] { return fresh.setActiveMode("", ""); }},
      {"disableActiveMode", [&] { return fresh.disableActiveMode(); }},
      {"setHeaders",
       [&] {
         return fresh.setHeaders({{"A", "1"}});
       }},
      {"setHeaders of none", [&] { return fresh.setHeaders({}); }},
      {"addQuoteCommand", [&] { return fresh.addQuoteCommand("NOOP"); }},
      {"isOperationSuccess", [&] { return fresh.isOperationSuccess(flag); }},
      {"setMethodParameter", [&] { return fresh.setMethodParameter(); }},
      {"unsetOpTypeParameter", [&] { return fresh.unsetOpTypeParameter(); }},
      {"IsFile", [&] { return fresh.IsFile("p", flag); }},
      {"splitServerAndURLPath", [&] { return fresh.splitServerAndURLPath(text, text); }},
      {"splitServerAndURLPath of SFTP", [&] { return sftp.splitServerAndURLPath(text, text); },
       "KdSFTPReq.cpp"},
      {"getFullWorkingURL", [&] { return fresh.getFullWorkingURL(text); }},
      {"collectFilesAndDir", [&] { return fresh.collectFilesAndDir("/none", &entries, ""); }},
      {"collectFilesAndDir of null",
       [&] { return fresh.collectFilesAndDir("/none", nullptr, ""); }},
  };
  for (const auto& [label, call, file] : rows) {
    SCOPED_TRACE(label);
    const CZuError error = call();
    EXPECT_FAILS(error, IntCode(1), file);
    EXPECT_THAT(error.AsString(), EndsWith(", " + kNotInitialized + "function."));
  }
  EXPECT_TRUE(flag);
  EXPECT_EQ(text, "stale");
  EXPECT_THAT(Calls(), IsEmpty());
}

TEST_F(KdFTPReqTest, TheUndoBeforeInitialiseTellsOfItsHook) {
  FtpReq fresh;
  fresh.addRequestedHeaders("A", "1");
  const CZuError error = fresh.unSetMethodParameter();
  EXPECT_FAILS(error, IntCode(1),
               ("::unsetOpTypeParameter(), " + kNotInitialized + "function.\n").c_str());
  EXPECT_THAT(error.AsString(), EndsWith("::unSetMethodParameter()"));
  EXPECT_THAT(fresh.m_mHeaders, IsEmpty());
}

TEST_F(KdFTPReqTest, SettersSetOneOptionEach) {
  const struct {
    const char* label;
    std::function<CZuError()> call;
    std::string set;  // as recorded
    CURLoption option;
    bool clearsText = true;
  } rows[] = {
      {"setDefaults", [&] { return req->setDefaults(); }, Opt(CURLOPT_FTP_USE_EPSV, 0),
       CURLOPT_FTP_USE_EPSV, false},
      {"setFTPAuth", [&] { return req->setFTPAuth(2); }, Opt(CURLOPT_SSH_AUTH_TYPES, 2),
       CURLOPT_SSH_AUTH_TYPES},
      {"setFTPAuth of any", [&] { return req->setFTPAuth(-1); },
       Opt(CURLOPT_SSH_AUTH_TYPES, 4294967295), CURLOPT_SSH_AUTH_TYPES},
      {"SetFTPResponseTimeOut", [&] { return req->SetFTPResponseTimeOut(30); },
       Opt(CURLOPT_FTP_RESPONSE_TIMEOUT, 30), CURLOPT_FTP_RESPONSE_TIMEOUT},
      {"setSSL", [&] { return req->setSSL(); }, Opt(CURLOPT_USE_SSL, 2), CURLOPT_USE_SSL},
      {"setActiveMode of none", [&] { return req->setActiveMode("", ""); },
       Opt(CURLOPT_FTPPORT, "-"), CURLOPT_FTPPORT},
      {"setActiveMode", [&] { return req->setActiveMode("10.0.0.5", "2000"); },
       Opt(CURLOPT_FTPPORT, "10.0.0.5:2000"), CURLOPT_FTPPORT},
      {"setActiveMode of a host", [&] { return req->setActiveMode("10.0.0.5", ""); },
       Opt(CURLOPT_FTPPORT, "10.0.0.5:"), CURLOPT_FTPPORT},
      {"setActiveMode of a port", [&] { return req->setActiveMode("", "21"); },
       Opt(CURLOPT_FTPPORT, ":21"), CURLOPT_FTPPORT},
      {"disableActiveMode", [&] { return req->disableActiveMode(); }, Opt(CURLOPT_FTPPORT, nullptr),
       CURLOPT_FTPPORT},
  };
  for (const auto& [label, call, set, option, clearsText] : rows) {
    SCOPED_TRACE(label);
    Mark();
    Dirty();
    EXPECT_OK(call());
    EXPECT_THAT(Options(), ElementsAre(set));
    EXPECT_EQ(req->m_curlCode, 0);
    EXPECT_EQ(IsCleared(req->m_szErrorBuffer), clearsText);
    fake.refusedOptions[option] = kRefusal;
    EXPECT_FAILS(call(), TransferCode(kRefusal),
                 ("-Failed to set option [" + std::to_string(option) + "]").c_str());
    EXPECT_EQ(req->m_curlCode, kRefusal);
    fake.refusedOptions.clear();
  }
}

TEST_F(KdFTPReqTest, NoAnswerAndAnswers100To399AreSuccesses) {
  const struct {
    long response;
    bool isSuccess;
  } rows[] = {{0, true},    {-1, false},  {-226, false}, {1, false},       {99, false},
              {100, true},  {226, true},  {350, true},   {399, true},      {400, false},
              {450, false}, {550, false}, {1000, false}, {1L << 32, false}};
  for (const auto& [response, isSuccess] : rows) {
    for (int type = -1; type <= 10; ++type) {
      req->m_responseCode = response;
      req->setOperationType(Type(type));
      bool result = !isSuccess;
      EXPECT_OK(req->isOperationSuccess(result));
      EXPECT_EQ(result, isSuccess) << response << " for type " << type;
    }
  }
}

// Commands.

TEST_F(KdFTPReqTest, CommandsAreLinesInTheOrderOfTheirNames) {
  Dirty();
  EXPECT_OK(req->setHeaders({{"B", "2"}, {"A", "1"}, {"Empty", ""}}));
  EXPECT_TRUE(IsCleared(req->m_szErrorBuffer));
  EXPECT_THAT(Calls(), ElementsAre("slist_append null \"A:1\"", "slist_append list1 \"B:2\"",
                                   "slist_append list1 \"Empty:\"",
                                   "easy_setopt handle1 CURLOPT_QUOTE list1"));
  Mark();
  Dirty();
  EXPECT_OK(req->setHeaders({}));
  EXPECT_TRUE(IsCleared(req->m_szErrorBuffer));
  EXPECT_THAT(Calls(), IsEmpty());
  EXPECT_OK(req->setHeaders({{"C", "3"}})) << "they add up";
  EXPECT_OK(req->addQuoteCommand("DELE x"));
  EXPECT_THAT(
      Calls(),
      ElementsAre("slist_append list1 \"C:3\"", "easy_setopt handle1 CURLOPT_QUOTE list1",
                  "slist_append list1 \"DELE x\"", "easy_setopt handle1 CURLOPT_QUOTE list1"));
  Mark();
  EXPECT_OK(req->unsetOpTypeParameter());
  EXPECT_THAT(Calls(),
              ElementsAre("easy_setopt handle1 CURLOPT_QUOTE null", "slist_free_all list1"));
  EXPECT_EQ(req->m_headerList, nullptr);
}

TEST_F(KdFTPReqTest, RefusedCommandsAreToldAndFreed) {
  fake.refusedOptions[CURLOPT_QUOTE] = kRefusal;
  EXPECT_FAILS(req->setHeaders({{"A", "1"}}), TransferCode(kRefusal),
               "-Failed to set option [10028]");
  EXPECT_EQ(req->m_curlCode, kRefusal);
  EXPECT_FAILS(req->addQuoteCommand("NOOP"), TransferCode(kRefusal),
               "-Failed to set option [10028]");
}

TEST_F(KdFTPReqTest, ACommandThatCannotBeAddedLeavesTheOthersInForce) {
  EXPECT_OK(req->setHeaders({{"A", "1"}}));
  EXPECT_OK(req->addQuoteCommand("NOOP"));
  const curl_slist* const list = req->m_headerList;
  Mark();
  fake.nulls.insert("slist_append");
  const CZuError error = req->addQuoteCommand("DELE x");
  fake.nulls.clear();
  EXPECT_FAILS(error, 0xFFFFFFFF, "::addQuoteCommand(");
  EXPECT_THAT(error.AsString(),
              EndsWith("/KdCURL.-1.0xFFFFFFFF-Failed to add the command to the list."));
  EXPECT_EQ(req->m_headerList, list);
  EXPECT_THAT(Options(), IsEmpty());

  std::vector<std::string> sent;
  fake.onPerform = [&](const FakeHandle& handle) {
    const FakeValue* const commands = handle.Find(CURLOPT_QUOTE);
    const auto* line =
        static_cast<const curl_slist*>(commands == nullptr ? nullptr : commands->pointer);
    for (; line != nullptr; line = line->next) sent.emplace_back(line->data);
    return CURLE_OK;
  };
  EXPECT_OK(req->download("p", {}));
  EXPECT_THAT(sent, ElementsAre("A:1", "NOOP"));
}

TEST_F(KdFTPReqTest, CommandsStillThereAreFreedWithTheObject) {
  EXPECT_OK(req->setHeaders({{"A", "1"}}));
  Mark();
  req.reset();
  EXPECT_THAT(Calls(), testing::Contains("slist_free_all list1"));
}

// What an operation sets and undoes.

TEST_F(KdFTPReqTest, EachTypeSetsItsOptionsAndTakesThemBack) {
  const std::string sizeCallBack =
      Opt(CURLOPT_HEADERFUNCTION, KdCURL::KdProtocolReq::getContentSize);
  const struct {
    KdCURL::operationType type;
    std::vector<std::string> set;
    std::vector<std::string> unset;
  } rows[] = {
      {KdCURL::OP_UPLOAD_FILE,
       {Opt(CURLOPT_HTTPPROXYTUNNEL, 1), Opt(CURLOPT_UPLOAD, 1), Opt(CURLOPT_INFILESIZE_LARGE, 77),
        Opt(CURLOPT_FTP_CREATE_MISSING_DIRS, 1)},
       {Opt(CURLOPT_UPLOAD, 0), Opt(CURLOPT_INFILESIZE_LARGE, 0)}},
      {KdCURL::OP_DOWNLOAD_FILE, {Opt(CURLOPT_HTTPPROXYTUNNEL, 1)}, {}},
      {KdCURL::OP_GET_FILE_DIR_LIST,
       {Opt(CURLOPT_HTTPPROXYTUNNEL, 1), Opt(CURLOPT_DIRLISTONLY, 1)},
       {Opt(CURLOPT_DIRLISTONLY, 0)}},
      {KdCURL::OP_GET_FILE_INFO,
       {Opt(CURLOPT_HTTPPROXYTUNNEL, 1), Opt(CURLOPT_NOBODY, 1), sizeCallBack,
        Opt(CURLOPT_HEADER, 0)},
       {Opt(CURLOPT_NOBODY, 0), Opt(CURLOPT_HEADERFUNCTION, nullptr), Opt(CURLOPT_HEADER, 0)}},
      {KdCURL::OP_CHECK_FILE_DIR_EXIST,
       {Opt(CURLOPT_HTTPPROXYTUNNEL, 1), Opt(CURLOPT_NOBODY, 1)},
       {Opt(CURLOPT_NOBODY, 0)}},
      {KdCURL::OP_GET_INFO,
       {Opt(CURLOPT_HTTPPROXYTUNNEL, 1), Opt(CURLOPT_NOBODY, 1)},
       {Opt(CURLOPT_NOBODY, 0)}},
  };
  req->m_lDataSize = 77;
  for (const auto& [type, set, unset] : rows) {
    SCOPED_TRACE(type);
    req->setOperationType(type);
    Mark();
    EXPECT_OK(req->setMethodParameter());
    EXPECT_EQ(Options(), set);
    Mark();
    EXPECT_OK(req->unsetOpTypeParameter());
    EXPECT_EQ(Options(), unset);
    req->m_bIsProxySet = true;
    Mark();
    EXPECT_OK(req->unsetOpTypeParameter());
    std::vector<std::string> withProxy = unset;
    withProxy.insert(withProxy.begin(), Opt(CURLOPT_HTTPPROXYTUNNEL, 0));
    EXPECT_EQ(Options(), withProxy);
    req->m_bIsProxySet = false;
  }
}

TEST_F(KdFTPReqTest, SizesBeyond32BitsAreKept) {
  req->m_lDataSize = 5'000'000'000;
  req->setOperationType(KdCURL::OP_UPLOAD_FILE);
  EXPECT_OK(req->setMethodParameter());
  EXPECT_THAT(Options(), testing::Contains(Opt(CURLOPT_INFILESIZE_LARGE, 5000000000)));
}

TEST_F(KdFTPReqTest, OtherTypesAreRefusedWithTheTunnelSet) {
  for (const int type : {-1, 0, 6, 8, 9, 10, 1000}) {
    SCOPED_TRACE(type);
    const std::string text = "Invalid OpType [" + std::to_string(type) + "] for FTP protocol";
    req->setOperationType(Type(type));
    Mark();
    EXPECT_FAILS(req->setMethodParameter(), IntCode(101), text.c_str());
    EXPECT_THAT(Options(), ElementsAre(Opt(CURLOPT_HTTPPROXYTUNNEL, 1)));
    Mark();
    EXPECT_OK(req->unsetOpTypeParameter());
    EXPECT_THAT(Options(), IsEmpty());
  }
}

TEST_F(KdFTPReqTest, RefusedMethodOptionsDoNotMatter) {
  fake.results["easy_setopt"] = kRefusal;
  for (const int type : {1, 2, 3, 4, 5, 7}) {
    SCOPED_TRACE(type);
    req->setOperationType(Type(type));
    EXPECT_OK(req->setMethodParameter());
    EXPECT_OK(req->unsetOpTypeParameter());
  }
}

// The source file of an upload.

TEST_F(KdFTPReqTest, AnUploadReadsItsFile) {
  WriteFile(folder / "source", "0123456789");
  std::string sent;
  fake.onPerform = [&](const FakeHandle& handle) {
    sent = handle.Read(4) + "|";
    sent += handle.Read(100) + "|";
    sent += handle.Read(100);
    return CURLE_OK;
  };
  fake.infos[CURLINFO_RESPONSE_CODE].number = 226;
  const std::string path = folder / "source";
  EXPECT_OK(req->uploadFile(path.c_str(), "p", 10, {}));
  EXPECT_EQ(sent, "0123|456789|");
  EXPECT_THAT(Options(), testing::Contains(Opt(CURLOPT_READDATA, nullptr)))
      << "gone with the request";
  EXPECT_OK(req->uploadFile(path.c_str(), "p", 10, {}));
  EXPECT_EQ(sent, "0123|456789|") << "from its start";
}

TEST_F(KdFTPReqTest, AFileIsReadAnewWheneverItIsSet) {
  WriteFile(folder / "source", "0123456789");
  req->m_strSourceFile = folder / "source";
  req->setOperationType(KdCURL::OP_UPLOAD_FILE);
  const auto read = [&](size_t size) {
    std::string data(size, '?');
    data.resize(req->m_ReadFunPtr(data.data(), 1, size, req->m_KdReadCallbackInstancePtr));
    return data;
  };
  ASSERT_OK(req->setMethodParameter());
  EXPECT_EQ(read(4), "0123");
  EXPECT_OK(req->unsetOpTypeParameter());
  EXPECT_EQ(req->m_ReadFunPtr, nullptr);
  EXPECT_EQ(req->m_KdReadCallbackInstancePtr, nullptr);
  ASSERT_OK(req->setMethodParameter());
  EXPECT_EQ(read(7), "0123456");
  ASSERT_OK(req->setMethodParameter()) << "not undone before";
  EXPECT_EQ(read(100), "0123456789");
  EXPECT_OK(req->unsetOpTypeParameter());
}

TEST_F(KdFTPReqTest, ARequestByHandDoesNotKeepItsFileForTheNextUpload) {
  WriteFile(folder / "A", "first");
  WriteFile(folder / "B", "second");
  std::vector<std::string> sent;
  fake.onPerform = [&](const FakeHandle& handle) {
    sent.push_back(handle.Read(100));
    return CURLE_OK;
  };
  const std::string first = folder / "A";
  const std::string second = folder / "B";
  EXPECT_OK(req->uploadFile(first.c_str(), "p", 5, {}));
  EXPECT_OK(req->PrepareForRequest());
  EXPECT_OK(req->Execute());
  EXPECT_OK(req->uploadFile(second.c_str(), "p", 6, {}));
  EXPECT_THAT(sent, ElementsAre("first", "first", "second"));
}

TEST_F(KdFTPReqTest, ACallersReaderGoesBeforeTheFile) {
  WriteFile(folder / "source", "of the file");
  std::vector<std::string> sent;
  fake.onPerform = [&](const FakeHandle& handle) {
    sent.push_back(handle.Read(100));
    return CURLE_OK;
  };
  const auto give = [](char* data, size_t, size_t, void* from) {
    const auto& text = *static_cast<std::string*>(from);
    std::memcpy(data, text.data(), text.size());
    return text.size();
  };
  std::string text = "of the caller";
  const std::string path = folder / "source";
  req->setReadCallBack(&text, give);
  EXPECT_OK(req->uploadFile(path.c_str(), "p", 13, {}));
  EXPECT_OK(req->uploadFile(path.c_str(), "p", 11, {}));
  EXPECT_THAT(sent, ElementsAre("of the caller", "of the file"));
}

TEST_F(KdFTPReqTest, AMissingSourceFileIsNotSent) {
  EXPECT_FAILS(req->uploadFile("/absent/source", "p", 10, {}), ErrNoCode(ENOENT),
               "Failed to open file [/absent/source]");
  EXPECT_THAT(fake.CallsTo("easy_perform"), IsEmpty());
  EXPECT_THAT(Options(), testing::Contains(Opt(CURLOPT_UPLOAD, 0))) << "undone all the same";
}

TEST_F(KdFTPReqTest, AResumedUploadAppendsOnce) {
  WriteFile(folder / "source", "0123456789");
  std::string sent;
  fake.onPerform = [&](const FakeHandle& handle) {
    sent = handle.Read(100);
    return CURLE_OK;
  };
  const std::string path = folder / "source";
  req->setResumeOffset(7);
  EXPECT_OK(req->uploadFile(path.c_str(), "p", 10, {}));
  EXPECT_EQ(sent, "789");
  EXPECT_THAT(Options(),
              testing::IsSupersetOf({Opt(CURLOPT_RESUME_FROM_LARGE, 7),
                                     Opt(CURLOPT_RESUME_FROM_LARGE, 0), Opt(CURLOPT_APPEND, 0)}));
  Mark();
  EXPECT_OK(req->uploadFile(path.c_str(), "p", 10, {}));
  EXPECT_EQ(sent, "0123456789");
  EXPECT_THAT(Options(),
              testing::Not(testing::Contains(testing::StartsWith("CURLOPT_RESUME_FROM_LARGE "))));
}

// The probe for files.

TEST_F(KdFTPReqTest, WhatIsNotEnteredIsAFile) {
  const struct {
    const char* what;
    int result;
    long response;
    unsigned code;
    bool isFile;
  } rows[] = {
      {"listed", CURLE_OK, 250, 0, false},
      {"no answer", CURLE_OK, 0, 0, false},
      {"refused", CURLE_REMOTE_ACCESS_DENIED, 550, 0, true},
      {"not reached", CURLE_COULDNT_CONNECT, 0, TransferCode(CURLE_COULDNT_CONNECT), true},
      {"a bad answer", CURLE_OK, 550, TransferCode(0), true},
  };
  for (const auto& [what, result, response, code, isFile] : rows) {
    SCOPED_TRACE(what);
    fake.results["easy_perform"] = result;
    fake.infos[CURLINFO_RESPONSE_CODE].number = response;
    bool flag = code == 0 ? !isFile : isFile;
    Dirty();
    const CZuError error = req->IsFile("a/b", flag);
    if (code == 0) {
      EXPECT_OK(error);
    } else {
      EXPECT_FAILS(error, code, "IsFile");
    }
    EXPECT_EQ(flag, isFile);
    EXPECT_EQ(req->m_strURLPath, "a/b/");
    EXPECT_EQ(fake.transfers.back().url, "ftp://h/a/b/");
    EXPECT_EQ(fake.transfers.back().Option(CURLOPT_NOBODY), "1");
  }
  bool flag = false;
  fake.results["easy_perform"] = 0;
  fake.infos[CURLINFO_RESPONSE_CODE].number = 250;
  EXPECT_OK(req->IsFile("a/", flag));
  EXPECT_EQ(req->m_strURLPath, "a/");
  EXPECT_OK(req->IsFile("", flag));
  EXPECT_EQ(req->m_strURLPath, "/");
}

TEST_F(KdFTPReqTest, WithoutAServerTheCodeBeforeTellsFiles) {
  req->setURL("");
  req->m_curlCode = CURLE_REMOTE_ACCESS_DENIED;
  bool isFile = false;
  EXPECT_OK(req->IsFile("a", isFile));
  EXPECT_TRUE(isFile);
  for (const int code : {0, 7}) {
    for (const bool before : {false, true}) {
      req->m_curlCode = code;
      isFile = before;
      const CZuError error = req->IsFile("a", isFile);
      EXPECT_FAILS(error, IntCode(101), ", URL is empty\n");
      EXPECT_THAT(error.AsString().substr(error.AsString().rfind('\n')),
                  testing::HasSubstr("::IsFile("));
      EXPECT_EQ(isFile, before) << code;
    }
  }
  EXPECT_THAT(fake.transfers, IsEmpty());
}

// URLs.

TEST_F(KdFTPReqTest, UrlsAreComposedOfServerPortAndPath) {
  struct Row {
    const char* server;
    const char* port;
    const char* path;
    const char* ftp;
    const char* sftp;
  };
  const Row rows[] = {
      {"host1/", "21", "pub/a.txt", "ftp://host1:21/pub/a.txt", "sftp://host1:21/pub/a.txt"},
      {"host1/", "21", "/pub/a.txt", "ftp://host1:21//pub/a.txt", "sftp://host1:21//pub/a.txt"},
      {"host1", "", "pub/a.txt", "ftp://host1/pub/a.txt", "sftp://host1/pub/a.txt"},
      {"host1//", "", "a", "ftp://host1//a", "sftp://host1//a"},
      {"host1", "", "", "ftp://host1/", "sftp://host1/"},
      {"", "", "", "ftp://", "sftp://"},
      {"ftp://h", "", "a", "ftp://h/a", "sftp://ftp://h/a"},
      {"ftp://h/", "2121", "a", "ftp://h:2121/a", "sftp://ftp://h:2121/a"},
      {"sftp://h", "22", "a", "sftp://h:22/a", "sftp://h:22/a"},
      {"FTP://h", "", "a", "ftp://FTP://h/a", "sftp://FTP://h/a"},
      {"http://h", "", "a", "ftp://http://h/a", "sftp://http://h/a"},
      {"h", "", "ftp://other/x/y", "ftp://other/x/y", "sftp://h/ftp://other/x/y"},
      {"h", "21", "ftp://other", "ftp://other:21/", "sftp://h:21/ftp://other"},
      {"h", "21", "ftp://other/", "ftp://other:21/", "sftp://h:21/ftp://other/"},
      {"sftp://h", "", "sftp://h/home/u/f", "sftp://h/home/u/f", "sftp://h/home/u/f"},
      {"h", "22", "sftp://other", "sftp://other:22/", "sftp://other:22/"},
      {"h", "", "see ftp://other/x", "see ftp://other/x", "sftp://h/see ftp://other/x"},
      {"h", "", "ftp:///x", "ftp:///x", "sftp://h/ftp:///x"},
      {"h", "", "a%20b?c#d", "ftp://h/a%20b?c#d", "sftp://h/a%20b?c#d"},
  };
  SftpReq sftp;
  EXPECT_OK(sftp.initialize());
  const auto expectUrl = [](KdCURL::KdFTPReq& request, const Row& row, const char* expected) {
    SCOPED_TRACE(std::string(row.server) + " " + row.port + " " + row.path);
    request.setURL(row.server);
    request.setPortNo(row.port);
    request.setURLPath(row.path);
    std::string url = "stale";
    EXPECT_OK(request.getFullWorkingURL(url));
    EXPECT_EQ(url, expected);
  };
  for (const Row& row : rows) {
    expectUrl(*req, row, row.ftp);
    expectUrl(sftp, row, row.sftp);
  }
}

TEST_F(KdFTPReqTest, ServerAndPathAreSplitAtTheSlashBehindTheServer) {
  SftpReq sftp;
  EXPECT_OK(sftp.initialize());
  sftp.setURL("sftp://h");
  sftp.setURLPath("sftp://h/home/u/f");
  std::string server = "stale";
  std::string path = "stale";
  EXPECT_OK(sftp.splitServerAndURLPath(server, path));
  EXPECT_EQ(server, "sftp://h");
  EXPECT_EQ(path, "/home/u/f");
  req->setURLPath("/pub/");
  EXPECT_OK(req->splitServerAndURLPath(server, path));
  EXPECT_EQ(server, "ftp://h");
  EXPECT_EQ(path, "//pub/");
}

TEST_F(KdFTPReqTest, AFailedSplitIsHandedOn) {
  class Broken : public KdCURL::KdFTPReq {
   public:
    CZuError splitServerAndURLPath(std::string& /*server*/, std::string& /*path*/) override {
      return FXErrorUtil::ErrorInt(ZU_HERE, 9, "broken");
    }
  } broken;
  EXPECT_OK(broken.initialize());
  std::string url = "stale";
  const CZuError error = broken.getFullWorkingURL(url);
  EXPECT_FAILS(error, IntCode(9), "broken");
  EXPECT_FAILS(error, IntCode(9), "splitServerAndURLPath failed.");
  EXPECT_EQ(url, "stale");
}
