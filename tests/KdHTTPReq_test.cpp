#include "ZuNetwork/KdHTTPReq.h"

#include <algorithm>
#include <type_traits>

#include "fakes/HttpReq.h"

using KdCURL::HTTP;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

static_assert(KdCURL::HTTP == 1 && KdCURL::HTTPS == 2);
static_assert(sizeof(KdCURL::HTTPProtocol) == sizeof(std::int32_t));
static_assert(std::is_same_v<decltype(KdCURL::formInfo::copyName), std::string>);
static_assert(std::is_same_v<decltype(KdCURL::formInfo::fieldName), std::int32_t>);
static_assert(std::is_same_v<decltype(KdCURL::formInfo::fieldValue), std::string>);
static_assert(std::is_same_v<decltype(HttpReq::m_headerList), curl_slist*>);
static_assert(std::is_same_v<decltype(HttpReq::m_bDoChunkedTransfer), bool>);
static_assert(std::is_same_v<decltype(HttpReq::m_formInfo), std::vector<KdCURL::formInfo>>);
static_assert(std::is_same_v<decltype(HttpReq::m_FormPost), curl_httppost*>);
static_assert(std::is_same_v<decltype(HttpReq::m_FormLast), curl_httppost*>);
static_assert(std::is_same_v<decltype(HttpReq::m_FormComponentHeaders), std::vector<curl_slist*>>);

constexpr int kUnknownTypes[] = {-1, 0, 10, 1000};
constexpr char kBody[] = "body!";

KdCURL::operationType Type(int type) { return static_cast<KdCURL::operationType>(type); }

using KdHTTPReqTest = HttpReqTest;

TEST_F(KdHTTPReqTest, ConstructionTouchesNothing) {
  {
    const HttpReq fresh(KdCURL::HTTPS);
    EXPECT_EQ(fresh.m_headerList, nullptr);
    EXPECT_EQ(fresh.m_FormPost, nullptr);
    EXPECT_EQ(fresh.m_FormLast, nullptr);
    EXPECT_FALSE(fresh.m_bDoChunkedTransfer);
    EXPECT_THAT(fresh.m_formInfo, IsEmpty());
    EXPECT_THAT(fresh.m_FormComponentHeaders, IsEmpty());
  }
  EXPECT_THAT(Calls(), IsEmpty());
}

TEST_F(KdHTTPReqTest, HooksNeedAnInitialisedObject) {
  HttpReq fresh(HTTP);
  fresh.setURL("h");
  fresh.setOperationType(KdCURL::OP_DOWNLOAD_FILE);
  bool flag = false;
  std::string text = "stale";
  std::vector<KdCURL::FileDirInfo> entries;
  const struct {
    const char* label;
    std::function<CZuError()> call;
    const char* lastWord;
  } rows[] = {
      {"setDefaults", [&] { return fresh.setDefaults(); }, "functions."},
      {"addFormValues", [&] { return fresh.addFormValues("n", 4, "v"); }, "functions."},
      {"isOperationSuccess", [&] { return fresh.isOperationSuccess(flag); }, "function."},
      {"setHTTPAuth", [&] { return fresh.setHTTPAuth(1); }, "function."},
      {"setHeaders",
       [&] {
         return fresh.setHeaders({{"A", "1"}});
       },
       "function."},
      {"setHeaders of none", [&] { return fresh.setHeaders({}); }, "function."},
      {"setFormValue", [&] { return fresh.setFormValue(); }, "function."},
      {"IsFile", [&] { return fresh.IsFile("p", flag); }, "function."},
      {"getFullWorkingURL", [&] { return fresh.getFullWorkingURL(text); }, "function."},
      {"setMethodParameter", [&] { return fresh.setMethodParameter(); }, "function."},
      {"unsetOpTypeParameter", [&] { return fresh.unsetOpTypeParameter(); }, "function."},
      {"collectFilesAndDir", [&] { return fresh.collectFilesAndDir("/none", &entries, ""); },
       "function."},
      {"collectFilesAndDir of null", [&] { return fresh.collectFilesAndDir("/none", nullptr, ""); },
       "function."},
  };
  for (const auto& [label, call, lastWord] : rows) {
    SCOPED_TRACE(label);
    const CZuError error = call();
    EXPECT_FAILS(error, IntCode(1), "KdHTTPReq.cpp");
    EXPECT_THAT(error.AsString(), EndsWith(", " + kNotInitialized + lastWord));
  }
  EXPECT_FALSE(flag);
  EXPECT_EQ(text, "stale");
  EXPECT_THAT(fresh.m_formInfo, IsEmpty());
  EXPECT_THAT(Calls(), IsEmpty());
  EXPECT_OK(fresh.doesURLPathContainURL(flag));
  EXPECT_OK(fresh.getServerAndPathFromURLPath(text, text));
  EXPECT_OK(fresh.splitServerAndURLPath(text, text));
}

TEST_F(KdHTTPReqTest, TheUndoBeforeInitialiseTellsOfItsHook) {
  HttpReq fresh(HTTP);
  fresh.addRequestedHeaders("A", "1");
  const CZuError error = fresh.unSetMethodParameter();
  EXPECT_FAILS(error, IntCode(1),
               ("::unsetOpTypeParameter(), " + kNotInitialized + "function.\n").c_str());
  EXPECT_THAT(error.AsString(), EndsWith("::unSetMethodParameter()"));
  EXPECT_THAT(fresh.m_mHeaders, IsEmpty());
}

TEST_F(KdHTTPReqTest, DefaultsSetNothing) {
  EXPECT_OK(req->setDefaults());
  EXPECT_THAT(Calls(), IsEmpty());
}

TEST_F(KdHTTPReqTest, Answers100To399AreSuccessesOfEveryType) {
  const struct {
    long response;
    bool isSuccess;
  } rows[] = {{0, false},  {-1, false},  {99, false},  {100, true},  {200, true},  {302, true},
              {399, true}, {400, false}, {404, false}, {500, false}, {1000, false}};
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

TEST_F(KdHTTPReqTest, AuthenticationIsHandedOnAsGiven) {
  req->m_curlCode = kStale;
  std::memset(req->m_szErrorBuffer, 'x', kErrorBufferSize);
  EXPECT_OK(req->setHTTPAuth(0x100000002L));
  EXPECT_TRUE(IsCleared(req->m_szErrorBuffer));
  EXPECT_THAT(Options(), ElementsAre(Opt(CURLOPT_HTTPAUTH, 4294967298)));
  EXPECT_EQ(req->m_curlCode, 0);
  fake.refusedOptions[CURLOPT_HTTPAUTH] = kRefusal;
  EXPECT_FAILS(req->setHTTPAuth(1), TransferCode(kRefusal), "-Failed to set option [107]");
  EXPECT_EQ(req->m_curlCode, kRefusal);
}

// Headers.

TEST_F(KdHTTPReqTest, HeadersAreLinesInTheOrderOfTheirNames) {
  std::memset(req->m_szErrorBuffer, 'x', kErrorBufferSize);
  EXPECT_OK(req->setHeaders({{"B", "2"}, {"A", "1"}, {"Empty", ""}}));
  EXPECT_TRUE(IsCleared(req->m_szErrorBuffer));
  EXPECT_THAT(Calls(), ElementsAre("slist_append null \"A:1\"", "slist_append list1 \"B:2\"",
                                   "slist_append list1 \"Empty:\"",
                                   "easy_setopt handle1 CURLOPT_HTTPHEADER list1"));
  EXPECT_OK(req->unSetMethodParameter());
}

TEST_F(KdHTTPReqTest, AnEmptyMapLeavesTheHeadersInForce) {
  EXPECT_OK(req->setHeaders({{"A", "1"}}));
  Mark();
  std::memset(req->m_szErrorBuffer, 'x', kErrorBufferSize);
  EXPECT_OK(req->setHeaders({}));
  EXPECT_TRUE(IsCleared(req->m_szErrorBuffer));
  EXPECT_THAT(Calls(), IsEmpty());
  EXPECT_NE(req->m_headerList, nullptr);
  EXPECT_OK(req->setHeaders({{"B", "2"}}));
  EXPECT_THAT(Calls(), ElementsAre("slist_append list1 \"B:2\"",
                                   "easy_setopt handle1 CURLOPT_HTTPHEADER list1"));
}

TEST_F(KdHTTPReqTest, RefusedHeadersFail) {
  fake.refusedOptions[CURLOPT_HTTPHEADER] = kRefusal;
  EXPECT_FAILS(req->setHeaders({{"A", "1"}}), TransferCode(kRefusal),
               "-Failed to set option [10023]");
  EXPECT_EQ(req->m_curlCode, kRefusal);
  EXPECT_NE(req->m_headerList, nullptr);
  Mark();
  const CZuError error = req->download("p", {{"B", "2"}});
  EXPECT_FAILS(error, TransferCode(kRefusal), "Failed to set option [10023]");
  EXPECT_THAT(error.AsString(), HasSubstr("::PrepareForRequest()\n"));
  EXPECT_THAT(fake.transfers, IsEmpty());
  EXPECT_EQ(req->m_headerList, nullptr);
}

TEST_F(KdHTTPReqTest, AListThatCannotBeMadeIsSetAsItIs) {
  fake.nulls.insert("slist_append");
  EXPECT_OK(req->setHeaders({{"A", "1"}}));
  EXPECT_EQ(req->m_headerList, nullptr);
  EXPECT_THAT(Options(), ElementsAre(Opt(CURLOPT_HTTPHEADER, nullptr)));
}

// What a type sets on the handle and how it is undone.

void Arrange(HttpReq& req, int type) {
  req.setOperationType(Type(type));
  req.m_strPostString = "a=1&b=2";
  req.m_PostBuffer = kBody;
  req.m_lDataSize = 4;
  req.m_operationName = "PATCH";
}

TEST_F(KdHTTPReqTest, EachTypeSetsItsOptionsInOrder) {
  const auto pointer = [](CURLoption option, const char* text) {
    return Opt(option, static_cast<const void*>(text));
  };
  const struct {
    int type;
    std::vector<std::string> options;
  } rows[] = {
      {1, {Opt(CURLOPT_HTTPPOST, nullptr)}},
      {2, {Opt(CURLOPT_HTTPGET, 1)}},
      {3, {}},
      {4,
       {Opt(CURLOPT_NOBODY, 1), Opt(CURLOPT_HEADERFUNCTION, &HttpReq::getContentSize),
        Opt(CURLOPT_HEADER, 0)}},
      {5, {Opt(CURLOPT_NOBODY, 1)}},
      {6,
       {Opt(CURLOPT_POST, 1), Opt(CURLOPT_POSTFIELDSIZE, 7),
        pointer(CURLOPT_POSTFIELDS, req->m_strPostString.c_str())}},
      {7, {Opt(CURLOPT_NOBODY, 1)}},
      {9,
       {Opt(CURLOPT_CUSTOMREQUEST, "PATCH"), pointer(CURLOPT_POSTFIELDS, kBody),
        Opt(CURLOPT_POSTFIELDSIZE, 4)}},
  };
  for (const auto& [type, options] : rows) {
    SCOPED_TRACE(type);
    Arrange(*req, type);
    Mark();
    EXPECT_OK(req->setMethodParameter());
    EXPECT_EQ(Options(), options);
    EXPECT_EQ(Calls().size(), options.size());
    Mark();
    fake.results["easy_setopt"] = kRefusal;
    EXPECT_OK(req->setMethodParameter());
    EXPECT_EQ(Options(), options);
    fake.results.clear();
  }
}

TEST_F(KdHTTPReqTest, EachTypeIsUndoneInOrder) {
  const struct {
    int type;
    std::vector<std::string> options;
  } rows[] = {
      {1, {Opt(CURLOPT_HTTPPOST, nullptr), Opt(CURLOPT_INFILESIZE_LARGE, 0)}},
      {2, {Opt(CURLOPT_HTTPGET, 0)}},
      {3, {}},
      {4, {Opt(CURLOPT_NOBODY, 0), Opt(CURLOPT_HEADERFUNCTION, nullptr), Opt(CURLOPT_HEADER, 0)}},
      {5, {Opt(CURLOPT_NOBODY, 0)}},
      {6, {Opt(CURLOPT_POST, 0), Opt(CURLOPT_POSTFIELDS, nullptr), Opt(CURLOPT_POSTFIELDSIZE, 0)}},
      {7, {Opt(CURLOPT_NOBODY, 0)}},
      {9,
       {Opt(CURLOPT_CUSTOMREQUEST, nullptr), Opt(CURLOPT_POST, 0), Opt(CURLOPT_POSTFIELDSIZE, 0)}},
  };
  for (const auto& [type, options] : rows) {
    SCOPED_TRACE(type);
    Arrange(*req, type);
    Mark();
    EXPECT_OK(req->unsetOpTypeParameter());
    EXPECT_EQ(Options(), options);
    EXPECT_EQ(Calls().size(), options.size());
    Mark();
    fake.results["easy_setopt"] = kRefusal;
    EXPECT_OK(req->unsetOpTypeParameter());
    EXPECT_EQ(Options(), options);
    fake.results.clear();
  }
}

TEST_F(KdHTTPReqTest, UnknownTypesAreRefused) {
  for (const int type : kUnknownTypes) {
    Arrange(*req, type);
    const std::string text = "Invalid OpType [" + std::to_string(type) + "]";
    EXPECT_THAT(req->setMethodParameter().AsString(), EndsWith(", " + text));
    EXPECT_FAILS(req->setMethodParameter(), IntCode(101), "");
    EXPECT_THAT(req->unsetOpTypeParameter().AsString(), EndsWith(text + " for HTTP protocol"));
    EXPECT_FAILS(req->unsetOpTypeParameter(), IntCode(101), "");
  }
  EXPECT_THAT(Calls(), IsEmpty());
}

TEST_F(KdHTTPReqTest, HeadersAndFormFieldsAreDroppedWhateverTheType) {
  for (int type = -1; type <= 10; ++type) {
    SCOPED_TRACE(type);
    Arrange(*req, type);
    EXPECT_OK(req->addFormValues("n", CURLFORM_COPYCONTENTS, "v"));
    EXPECT_OK(req->setHeaders({{"A", "1"}}));
    const std::string list = fake.Show(req->m_headerList);
    Mark();
    const CZuError error = req->unsetOpTypeParameter();
    EXPECT_EQ(Failed(error), type < 1 || type == 8 || type > 9);
    ASSERT_GE(Calls().size(), 2u);
    EXPECT_EQ(Calls()[0], "slist_free_all " + list);
    EXPECT_EQ(Calls()[1], "easy_setopt handle1 CURLOPT_HTTPHEADER null");
    EXPECT_EQ(req->m_headerList, nullptr);
    EXPECT_THAT(req->m_formInfo, IsEmpty());
  }
}

TEST_F(KdHTTPReqTest, ABufferIsPostedWithItsSize) {
  Arrange(*req, 8);
  EXPECT_OK(req->setMethodParameter());
  const std::vector<std::string> options = Options();
  ASSERT_EQ(options.size(), 3u);
  EXPECT_EQ(options[0], Opt(CURLOPT_POST, 1));
  EXPECT_EQ(options[1], Opt(CURLOPT_POSTFIELDSIZE, 4));
  EXPECT_THAT(options[2], StartsWith("CURLOPT_POSTFIELDS 0x"));

  Mark();
  req->m_lDataSize = 0;
  EXPECT_OK(req->setMethodParameter());
  EXPECT_THAT(Options(), ElementsAre(Opt(CURLOPT_POST, 1), Opt(CURLOPT_POSTFIELDSIZE, 0)));
  Mark();
  req->m_PostBuffer = nullptr;
  EXPECT_OK(req->setMethodParameter());
  EXPECT_THAT(Options(), ElementsAre(Opt(CURLOPT_POST, 1), Opt(CURLOPT_POSTFIELDSIZE, 0)));
}

TEST_F(KdHTTPReqTest, AMissingBufferIsAnErrorWhereOneIsNeeded) {
  const struct {
    int type;
    const char* text;
    std::vector<std::string> options;
  } rows[] = {{8,
               "KdProtocol buffer is NULL. Set buffer before calling doPostOperation function.",
               {Opt(CURLOPT_POST, 1), Opt(CURLOPT_POSTFIELDSIZE, 4)}},
              {9,
               "KdProtocol buffer is NULL. Set buffer before calling.",
               {Opt(CURLOPT_CUSTOMREQUEST, "PATCH")}}};
  for (const auto& [type, text, options] : rows) {
    SCOPED_TRACE(type);
    Mark();
    Arrange(*req, type);
    req->m_PostBuffer = nullptr;
    const CZuError error = req->setMethodParameter();
    EXPECT_FAILS(error, IntCode(1), "KdHTTPReq.cpp:");
    const std::string rendered = error.AsString();
    EXPECT_THAT(rendered, EndsWith(std::string("::KdHTTPReq::setMethodParameter(), ") + text));
    EXPECT_EQ(std::count(rendered.begin(), rendered.end(), '\n'), 1) << "one item: " << rendered;
    EXPECT_EQ(Options(), options);
  }
}

// The operations from end to end.

TEST_F(KdHTTPReqTest, ADownloadRunsItsStepsInOrder) {
  EXPECT_OK(req->download("d/f", {{"B", "2"}, {"A", "1"}}));
  EXPECT_THAT(
      Calls(),
      ElementsAre("easy_setopt handle1 CURLOPT_URL \"http://h/d/f\"",
                  "easy_setopt handle1 CURLOPT_HTTPGET 1", "slist_append null \"A:1\"",
                  "slist_append list1 \"B:2\"", "easy_setopt handle1 CURLOPT_HTTPHEADER list1",
                  "easy_perform handle1", "easy_getinfo handle1 2097154", "slist_free_all list1",
                  "easy_setopt handle1 CURLOPT_HTTPHEADER null",
                  "easy_setopt handle1 CURLOPT_HTTPGET 0"));
  EXPECT_THAT(fake.transfers.at(0).headers, ElementsAre("A:1", "B:2"));
}

TEST_F(KdHTTPReqTest, ATextIsPosted) {
  EXPECT_OK(req->doPostOperation("p", "a=1&b=2", {}));
  EXPECT_EQ(fake.transfers.at(0).body, "a=1&b=2");
  EXPECT_EQ(fake.transfers.at(0).Option(CURLOPT_POST), "1");
}

TEST_F(KdHTTPReqTest, AnyBytesArePutAndDeletedWithTheirMethod) {
  const std::string bytes("a\0b", 3);
  EXPECT_OK(req->doPutOperation("p", bytes.data(), 3, {}));
  EXPECT_EQ(fake.transfers.back().body, bytes);
  EXPECT_EQ(fake.transfers.back().Option(CURLOPT_CUSTOMREQUEST), "\"PUT\"");
  EXPECT_OK(req->doDeleteOperation("p", "", 0, {}));
  EXPECT_EQ(fake.transfers.back().body, "");
  EXPECT_EQ(fake.transfers.back().Option(CURLOPT_CUSTOMREQUEST), "\"DELETE\"");
}

TEST_F(KdHTTPReqTest, APostedBufferStaysOnTheHandleAndIsOwned) {
  const std::string bytes("a\0b", 3);
  {
    const std::string caller = bytes;
    EXPECT_OK(req->doPostOperation("p", caller.data(), 3, {{"A", "1"}}));
    EXPECT_THAT(fake.transfers.back().Option(CURLOPT_POSTFIELDS), Not(fake.Show(caller.data())));
  }
  EXPECT_EQ(fake.transfers.back().body, bytes);
  EXPECT_EQ(req->m_headerList, nullptr);
  // A listing sets no method of its own, so it goes out as the POST that the handle is set to.
  EXPECT_OK(req->getFilesAndDirsInfoInFile("dir"));
  EXPECT_EQ(fake.transfers.back().url, "http://h/dir/");
  EXPECT_EQ(fake.transfers.back().Option(CURLOPT_POST), "1");
  EXPECT_EQ(fake.transfers.back().body, bytes);

  EXPECT_OK(req->doPostOperation("p", nullptr, 0, {}));
  EXPECT_EQ(fake.transfers.back().body, "");
  EXPECT_EQ(fake.transfers.back().Option(CURLOPT_POSTFIELDSIZE), "0");
}

TEST_F(KdHTTPReqTest, AQueryAsksForNoBodyAndSwallowsTheHeaders) {
  double size = -1;
  fake.infos[CURLINFO_CONTENT_LENGTH_DOWNLOAD].real = 12;
  size_t swallowed = 0;
  fake.onPerform = [&](const FakeHandle& handle) {
    swallowed = handle.WriteHeader("Content-Length: 12\r\n");
    return CURLE_OK;
  };
  EXPECT_OK(req->getFileInfo("f", size));
  EXPECT_EQ(size, 12);
  EXPECT_EQ(swallowed, 20u);
  EXPECT_EQ(fake.transfers.at(0).Option(CURLOPT_NOBODY), "1");
  EXPECT_EQ(Options().back(), Opt(CURLOPT_HEADER, 0));
}

// Forms.

const std::string kDisposition = "Content-Disposition: form-data; name=";

TEST_F(KdHTTPReqTest, FormFieldsAreQueued) {
  EXPECT_OK(req->addFormValues("n", CURLFORM_COPYCONTENTS, "v"));
  EXPECT_OK(req->addFormValues("f", CURLFORM_FILE, "/a/b"));
  ASSERT_EQ(req->m_formInfo.size(), 2u);
  EXPECT_EQ(req->m_formInfo[0].copyName, "n");
  EXPECT_EQ(req->m_formInfo[0].fieldName, 4);
  EXPECT_EQ(req->m_formInfo[0].fieldValue, "v");
  EXPECT_EQ(req->m_formInfo[1].copyName, "f");
  EXPECT_EQ(req->m_formInfo[1].fieldName, 10);
  EXPECT_EQ(req->m_formInfo[1].fieldValue, "/a/b");
  EXPECT_THAT(Calls(), IsEmpty());
}

TEST_F(KdHTTPReqTest, AnEmptyQueueMakesNoForm) {
  EXPECT_OK(req->setFormValue());
  EXPECT_EQ(req->m_FormPost, nullptr);
  EXPECT_THAT(Calls(), IsEmpty());
}

TEST_F(KdHTTPReqTest, AnUploadSendsTheQueuedForm) {
  EXPECT_OK(req->addFormValues("na%sme", CURLFORM_COPYCONTENTS, "va%sue"));
  EXPECT_OK(req->addFormValues("file", CURLFORM_FILE, "/a/b/c.txt"));
  EXPECT_OK(req->addFormValues("bare", CURLFORM_FILE, "c.txt"));
  EXPECT_OK(req->addFormValues("type", CURLFORM_PTRCONTENTS, "x"));
  EXPECT_OK(req->uploadFile("/source", "up", 9, {{"Expect", ""}, {"A", "1"}}));

  const FakeTransfer& transfer = fake.transfers.at(0);
  EXPECT_THAT(transfer.headers, ElementsAre("A:1", "Expect:100-continue"));
  EXPECT_THAT(transfer.form,
              ElementsAre("15 list1 1 \"na%sme\" 4 \"va%sue\" 17",
                          "15 list2 1 \"file\" 10 \"/a/b/c.txt\" 17",
                          "15 list3 1 \"bare\" 10 \"c.txt\" 17", "15 list4 1 \"type\" 5 \"x\" 17"));
  EXPECT_THAT(transfer.fieldHeaders,
              ElementsAre(kDisposition + "\"na%sme\"", kDisposition + "\"file\";filename=\"c.txt\"",
                          kDisposition + "\"bare\";filename=\"c.txt\"", kDisposition + "\"type\""));
  EXPECT_EQ(transfer.Option(CURLOPT_HTTPPOST), "form1");

  EXPECT_THAT(fake.Alive(), ElementsAre("handle1"));
  EXPECT_EQ(req->m_FormPost, nullptr);
  EXPECT_EQ(req->m_FormLast, nullptr);
  EXPECT_THAT(req->m_FormComponentHeaders, IsEmpty());
  EXPECT_THAT(req->m_formInfo, IsEmpty());
}

TEST_F(KdHTTPReqTest, AnUploadIsUndoneInOrder) {
  EXPECT_OK(req->addFormValues("n", CURLFORM_COPYCONTENTS, "v"));
  EXPECT_OK(req->addFormValues("f", CURLFORM_FILE, "/a/b"));
  EXPECT_OK(req->uploadFile("/source", "up", 9, {}));
  const std::string form = fake.Show(&req->m_FormPost) + " " + fake.Show(&req->m_FormLast);
  EXPECT_THAT(Calls(),
              ElementsAre("easy_setopt handle1 CURLOPT_URL \"http://h/up\"",
                          "slist_append null \"" + kDisposition + "\"n\"\"",
                          "formadd " + form + " 15 list1 1 \"n\" 4 \"v\" 17",
                          "slist_append null \"" + kDisposition + "\"f\";filename=\"b\"\"",
                          "formadd " + form + " 15 list2 1 \"f\" 10 \"/a/b\" 17",
                          "easy_setopt handle1 CURLOPT_HTTPPOST form1",
                          "slist_append null \"Expect:100-continue\"",
                          "easy_setopt handle1 CURLOPT_HTTPHEADER list3", "easy_perform handle1",
                          "easy_getinfo handle1 2097154", "slist_free_all list3",
                          "easy_setopt handle1 CURLOPT_HTTPHEADER null",
                          "easy_setopt handle1 CURLOPT_HTTPPOST null",
                          "easy_setopt handle1 CURLOPT_INFILESIZE_LARGE 0", "formfree form1",
                          "slist_free_all list1", "slist_free_all list2"));
}

TEST_F(KdHTTPReqTest, AFailedUploadLeavesNothingBehind) {
  EXPECT_OK(req->addFormValues("n", CURLFORM_COPYCONTENTS, "v"));
  fake.results["easy_perform"] = 28;
  EXPECT_FAILS(req->uploadFile("/source", "up", 9, {{"A", "1"}}), TransferCode(28), "");
  EXPECT_THAT(fake.Alive(), ElementsAre("handle1"));
  EXPECT_THAT(req->m_mHeaders, IsEmpty());
}

TEST_F(KdHTTPReqTest, AFormThatCannotBeBuiltDoesNotStopTheUpload) {
  EXPECT_OK(req->addFormValues("f", CURLFORM_FILE, "/a/"));
  EXPECT_OK(req->uploadFile("/source", "up", 9, {}));
  EXPECT_EQ(fake.transfers.back().Option(CURLOPT_HTTPPOST), "null");

  EXPECT_OK(req->addFormValues("n", CURLFORM_COPYCONTENTS, "v"));
  EXPECT_OK(req->addFormValues("f", CURLFORM_FILE, "/a/"));
  EXPECT_OK(req->addFormValues("m", CURLFORM_COPYCONTENTS, "w"));
  EXPECT_OK(req->uploadFile("/source", "up", 9, {}));
  EXPECT_EQ(fake.transfers.back().form.size(), 1u);
  EXPECT_THAT(fake.Alive(), ElementsAre("handle1"));
}

TEST_F(KdHTTPReqTest, AFileFieldNeedsAFileName) {
  EXPECT_OK(req->addFormValues("f", CURLFORM_FILE, "/a/"));
  const CZuError error = req->setFormValue();
  EXPECT_FAILS(error, Win32Code(87), "Path [/a/] names no file");
  EXPECT_THAT(error.AsString(), EndsWith("::setFormValue()"));
  EXPECT_THAT(Calls(), IsEmpty());
}

TEST_F(KdHTTPReqTest, AFieldWithoutAHeaderListFails) {
  fake.nulls.insert("slist_append");
  EXPECT_OK(req->addFormValues("n", CURLFORM_COPYCONTENTS, "v"));
  EXPECT_FAILS(req->setFormValue(), 0xFFFFFFFF, "-Failed to create content header list.");
  EXPECT_THAT(req->m_FormComponentHeaders, IsEmpty());
  EXPECT_THAT(fake.CallsTo("formadd"), IsEmpty());
}

TEST_F(KdHTTPReqTest, ARefusedFieldIsPassedOver) {
  fake.results["formadd"] = CURL_FORMADD_MEMORY;
  EXPECT_OK(req->addFormValues("n", CURLFORM_COPYCONTENTS, "v"));
  EXPECT_OK(req->addFormValues("m", CURLFORM_COPYCONTENTS, "w"));
  EXPECT_OK(req->setFormValue());
  EXPECT_EQ(req->m_FormPost, nullptr);
  EXPECT_EQ(req->m_FormComponentHeaders.size(), 2u);
  req->setOperationType(KdCURL::OP_UPLOAD_FILE);
  EXPECT_OK(req->unsetOpTypeParameter());
}

TEST_F(KdHTTPReqTest, BuildingAgainAddsToTheFormAndForgetsTheHeaderLists) {
  EXPECT_OK(req->addFormValues("n", CURLFORM_COPYCONTENTS, "v"));
  EXPECT_OK(req->setFormValue());
  EXPECT_OK(req->setFormValue());
  EXPECT_EQ(req->m_FormComponentHeaders.size(), 1u);
  ASSERT_NE(req->m_FormPost, nullptr);
  EXPECT_EQ(req->m_FormPost->next, req->m_FormLast);
  req->setOperationType(KdCURL::OP_UPLOAD_FILE);
  EXPECT_OK(req->unsetOpTypeParameter());
  EXPECT_THAT(fake.Alive(), ElementsAre("handle1", "list1"));
  checksLeaks = false;
}

TEST_F(KdHTTPReqTest, TheDestructorFreesHeadersAndFormButNotTheFieldsLists) {
  EXPECT_OK(req->setHeaders({{"A", "1"}}));
  EXPECT_OK(req->addFormValues("n", CURLFORM_COPYCONTENTS, "v"));
  EXPECT_OK(req->setFormValue());
  Mark();
  req.reset();
  EXPECT_THAT(Calls(),
              ElementsAre("slist_free_all list1", "formfree form1", "easy_cleanup handle1"));
  EXPECT_THAT(fake.Alive(), ElementsAre("list2"));
  checksLeaks = false;
}

TEST_F(KdHTTPReqTest, TheDestructorOfAFreshRequestFreesItsHandleAlone) {
  req.reset();
  EXPECT_THAT(Calls(), ElementsAre("easy_cleanup handle1"));
}

// The probe.

TEST_F(KdHTTPReqTest, OnlyAMissingFolderReadsAsAFile) {
  enum Result { kFolder, kFile, kError };
  const struct {
    const char* label;
    int performCode;
    long response;
    Result result;
    unsigned code;
  } rows[] = {{"found", 0, 200, kFolder, 0},
              {"redirected", 0, 302, kFolder, 0},
              {"missing", 0, 404, kFile, 0},
              {"forbidden", 0, 403, kError, 0xEDD00000},
              {"server error", 0, 500, kError, 0xEDD00000},
              {"time-out", 28, 0, kError, TransferCode(28)},
              {"time-out after a missing one", 28, 404, kFile, 0}};
  for (const auto& [label, performCode, response, result, code] : rows) {
    for (const bool before : {false, true}) {
      SCOPED_TRACE(label);
      fake.results["easy_perform"] = performCode;
      fake.infos[CURLINFO_RESPONSE_CODE].number = response;
      req->setOperationType(KdCURL::OP_NONE);
      req->m_responseCode = response;  // the last answer
      bool isFile = before;
      const CZuError error = req->IsFile("a/b", isFile);
      EXPECT_EQ(fake.transfers.back().url, "http://h/a/b/");
      EXPECT_EQ(fake.transfers.back().Option(CURLOPT_NOBODY), "1");
      EXPECT_EQ(req->m_strURLPath, "a/b/");
      EXPECT_EQ(req->m_OpType, KdCURL::OP_GET_FILE_INFO);
      if (result == kError) {
        EXPECT_FAILS(error, code, "::IsFile(");
        EXPECT_EQ(isFile, before);
      } else {
        EXPECT_OK(error);
        EXPECT_EQ(isFile, result == kFile);
      }
    }
  }
}

TEST_F(KdHTTPReqTest, WithoutAServerTheAnswerBeforeDecides) {
  req->setURL("");
  req->m_responseCode = 404;
  bool isFile = false;
  EXPECT_OK(req->IsFile("a", isFile));
  EXPECT_TRUE(isFile);
  for (const long response : {0L, 200L, 403L}) {
    for (const bool before : {false, true}) {
      req->m_responseCode = response;
      isFile = before;
      const CZuError error = req->IsFile("a", isFile);
      EXPECT_FAILS(error, IntCode(101), ", URL is empty\n");
      EXPECT_THAT(error.AsString().substr(error.AsString().rfind('\n')), HasSubstr("::IsFile("));
      EXPECT_EQ(isFile, before) << response;
    }
  }
  EXPECT_EQ(req->m_strURLPath, "a/");
  EXPECT_THAT(fake.transfers, IsEmpty());
}

TEST_F(KdHTTPReqTest, AProbeKeepsAnEndingSlashAndClearsTheErrorBuffer) {
  bool isFile = true;
  std::memset(req->m_szErrorBuffer, 'x', kErrorBufferSize);
  EXPECT_OK(req->IsFile("a/", isFile));
  EXPECT_TRUE(IsCleared(req->m_szErrorBuffer));
  EXPECT_EQ(fake.transfers.back().url, "http://h/a/");
  EXPECT_OK(req->IsFile("", isFile));
  EXPECT_EQ(fake.transfers.back().url, "http://h/");
}

}  // namespace
