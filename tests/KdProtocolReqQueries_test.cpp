#include <limits>

#include "ZuNetwork/KdProtocolReq.h"
#include "fakes/TestReq.h"

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

using KdProtocolReqQueries = TestReqTest;

constexpr int kContentLength = CURLINFO_CONTENT_LENGTH_DOWNLOAD;
constexpr double kUntouched = -7.0;

TEST_F(KdProtocolReqQueries, FileInfoTellsTheLength) {
  const struct {
    double length;
    bool isKnown;
  } rows[] = {
      {0.0, true},
      {1.0, true},
      {1234.75, true},
      {-0.5, true},
      {4294967294.0, true},
      {4294967296.0, true},
      {9007199254740992.0, true},
      {9223372036854775808.0, true},
      {18446744073709551616.0, true},
      {-2.0, true},
      {std::numeric_limits<double>::infinity(), true},
      {-1.0, false},
      {-1.9, false},  // truncated toward zero
      {4294967295.0, false},
      {4294967295.5, false},
      {8589934591.0, false},
      {-4294967297.0, false},
  };
  for (const auto& [length, isKnown] : rows) {
    SCOPED_TRACE(std::to_string(length));
    fake.infos[kContentLength].real = length;
    double size = kUntouched;
    if (isKnown) {
      EXPECT_OK(req->getFileInfo("p", size));
      EXPECT_EQ(size, length);
    } else {
      const CZuError error = req->getFileInfo("p", size);
      EXPECT_FAILS(error, 0xEDD00000, "-File size recieved from server is invalid");
      EXPECT_EQ(size, kUntouched);
    }
  }
}

TEST_F(KdProtocolReqQueries, FileInfoAsksForThePathAsItIs) {
  fake.infos[kContentLength].real = 5;
  double size = kUntouched;
  req->m_curlCode = kStale;
  EXPECT_OK(req->getFileInfo("a/b", size));
  EXPECT_THAT(Calls(),
              ElementsAre("hook getFullWorkingURL", "easy_setopt handle1 CURLOPT_URL \"s/a/b\"",
                          "hook setMethodParameter 4", "hook setHeaders", "easy_perform handle1",
                          "easy_getinfo handle1 2097154", "hook isOperationSuccess 200",
                          "hook unsetOpTypeParameter", "easy_getinfo handle1 3145743"));
  EXPECT_EQ(req->m_strURLPath, "a/b");
  EXPECT_EQ(req->m_OpType, KdCURL::OP_GET_FILE_INFO);
  EXPECT_EQ(req->m_curlCode, 0);
}

TEST_F(KdProtocolReqQueries, FileInfoFailuresLeaveTheSize) {
  double size = kUntouched;
  fake.refusedInfos[kContentLength] = 43;
  CZuError error = req->getFileInfo("p", size);
  EXPECT_FAILS(error, TransferCode(43),
               "-CURL perform failed. ErrorCode : [43], Error Message : []");
  EXPECT_EQ(req->m_curlCode, 43);
  fake.errorText = "it broke";
  fake.results["easy_perform"] = 28;
  error = req->getFileInfo("p", size);
  EXPECT_FAILS(error, TransferCode(28), "Error Message : [it broke]");
  EXPECT_THAT(error.AsString(), HasSubstr("::SendReqest()\n"));
  EXPECT_THAT(error.AsString(), HasSubstr("::getFileInfo("));
  EXPECT_EQ(size, kUntouched);

  fake.results.clear();
  req->m_szErrorBuffer = nullptr;
  EXPECT_FAILS(req->getFileInfo("p", size), TransferCode(43),
               "Error Message : [ Error buffer is not initialized]");
}

struct Existence {
  const char* label;
  bool isFile;
  int performCode;
  long response;
  double length;
  int infoCode;
  int expected;  // 1 it exists, 0 it does not, -1 an error
};

const Existence kExistences[] = {
    {"file, answered", true, 0, 200, 5, 0, 1},
    {"file, empty", true, 0, 200, 0, 0, 1},
    {"file, redirected", true, 0, 302, 5, 0, 1},
    {"file, unknown length", true, 0, 200, -1, 0, 0},
    {"file, missing", true, 0, 404, 5, 0, 0},
    {"file, forbidden", true, 0, 403, 5, 0, 0},
    {"file, server error", true, 0, 500, 5, 0, 0},
    {"file, time-out", true, 28, 0, 0, 0, -1},
    {"file, access denied", true, 9, 550, 0, 0, -1},
    {"file, length refused", true, 0, 200, 5, 43, -1},
    {"directory, answered", false, 0, 200, 5, 0, 1},
    {"directory, unknown length", false, 0, 200, -1, 0, 1},
    {"directory, missing", false, 0, 404, 5, 0, 0},
    {"directory, forbidden", false, 0, 403, 5, 0, 1},
    {"directory, server error", false, 0, 500, 5, 0, 1},
    {"directory, access denied", false, 9, 550, 0, 0, 0},
    {"directory, time-out", false, 28, 0, 0, 0, -1},
    {"directory, login denied", false, 67, 530, 0, 0, -1},
    {"directory, length refused", false, 0, 200, 5, 43, -1},
};

TEST_F(KdProtocolReqQueries, ExistenceIsReadFromCodeAndResponse) {
  fake.errorText = "it broke";
  for (const Existence& row : kExistences) {
    for (const bool before : {false, true}) {
      SCOPED_TRACE(row.label);
      fake.results["easy_perform"] = row.performCode;
      fake.infos[CURLINFO_RESPONSE_CODE].number = row.response;
      fake.infos[kContentLength].real = row.length;
      fake.refusedInfos = {};
      if (row.infoCode != 0) fake.refusedInfos[kContentLength] = row.infoCode;
      bool exists = before;
      const CZuError error = req->checkIfFileOrDirExists("dir", row.isFile, exists);
      EXPECT_EQ(req->m_strURLPath, row.isFile ? "dir" : "dir/");
      if (row.expected >= 0) {
        EXPECT_OK(error);
        EXPECT_EQ(exists, row.expected == 1);
        continue;
      }
      const int code = row.performCode != 0 ? row.performCode : row.infoCode;
      const std::string text = std::string(row.isFile ? "Failed to check if File exists."
                                                      : "Failed to check if Directory exists. ") +
                               "Error Code : [" + std::to_string(code) + "]. Error Message [" +
                               (row.performCode != 0 ? "it broke" : "") + "] ";
      EXPECT_FAILS(error, IntCode(1), text.c_str());
      EXPECT_EQ(error.Message(), text);
      EXPECT_EQ(exists, before);
    }
  }
}

TEST_F(KdProtocolReqQueries, AMissingErrorBufferIsToldInPlaceOfItsText) {
  bool exists = true;
  std::string out = "stale";
  const struct {
    const char* label;
    std::function<CZuError()> call;
    unsigned code;
    const char* end;  // of the error
  } rows[] = {
      {"file", [&] { return req->checkIfFileOrDirExists("p", true, exists); }, IntCode(1),
       ", Failed to check if File exists.Error Code : [43]. Error Message [ Error buffer is not "
       "initialized] "},
      {"directory", [&] { return req->checkIfFileOrDirExists("p", false, exists); }, IntCode(1),
       ", Failed to check if Directory exists. Error Code : [43]. Error Message [ Error buffer is "
       "not initialized] "},
      {"info", [&] { return req->getInfo(KdCURL::CURL_PRIMARY_IP, out); }, TransferCode(43),
       "-CURL get info failed. ErrorCode : [43] , ErrorMessage : [ Error buffer is not "
       "initialized]"},
  };
  fake.refusedInfos = {{kContentLength, 43}, {CURLINFO_PRIMARY_IP, 43}};
  req->m_szErrorBuffer = nullptr;
  for (const auto& [label, call, code, end] : rows) {
    SCOPED_TRACE(label);
    const CZuError error = call();
    EXPECT_FAILS(error, code, "");
    EXPECT_THAT(error.AsString(), HasSubstr(end)) << "details may follow";
  }
  EXPECT_TRUE(exists);
  EXPECT_EQ(out, "stale");
}

TEST_F(KdProtocolReqQueries, ADirectoryIsAskedForWithOneTrailingSlash) {
  bool exists = false;
  const struct {
    const char* path;
    bool isFile;
    const char* asked;
  } rows[] = {{"a", false, "a/"},    {"a/", false, "a/"}, {"", false, "/"},
              {"a//", false, "a//"}, {"a", true, "a"},    {"a/", true, "a/"}};
  for (const auto& [path, isFile, asked] : rows) {
    EXPECT_OK(req->checkIfFileOrDirExists(path, isFile, exists));
    EXPECT_EQ(req->m_strURLPath, asked);
    EXPECT_EQ(fake.transfers.back().url, std::string("s/") + asked);
  }
}

// A transfer that ends without an answer keeps the response code of the one before.
TEST_F(KdProtocolReqQueries, DirectoryIsAbsentWhileTheLastAnswerWasThat) {
  bool exists = true;
  fake.infos[CURLINFO_RESPONSE_CODE].number = 404;
  EXPECT_OK(req->checkIfFileOrDirExists("a", false, exists));
  EXPECT_FALSE(exists);
  fake.results["easy_perform"] = 28;
  exists = true;
  EXPECT_OK(req->checkIfFileOrDirExists("a", false, exists));
  EXPECT_FALSE(exists);
  EXPECT_FAILS(req->checkIfFileOrDirExists("a", true, exists), IntCode(1), "[28]");
}

// Nor does a request that was not sent, so the codes of the one before decide.
TEST_F(KdProtocolReqQueries, ExistenceWithoutAServerIsReadFromTheCodesBefore) {
  const struct {
    const char* label;
    int curlCode;
    long response;
    int file;  // as in kExistences
    int directory;
  } rows[] = {{"fresh", 0, 0, 0, 1},
              {"answered", 0, 200, 0, 1},
              {"missing", 0, 404, 0, 0},
              {"missing, then lost", 28, 404, -1, 0},
              {"access denied", 9, 550, -1, 0},
              {"lost", 7, 0, -1, -1}};
  req->setURL("");
  for (const auto& [label, curlCode, response, file, directory] : rows) {
    for (const bool isFile : {false, true}) {
      SCOPED_TRACE(std::string(label) + (isFile ? ", file" : ", directory"));
      req->m_curlCode = curlCode;
      req->m_responseCode = response;
      const int expected = isFile ? file : directory;
      bool exists = expected != 1;
      const CZuError error = req->checkIfFileOrDirExists("d", isFile, exists);
      if (expected >= 0) {
        EXPECT_OK(error);
        EXPECT_EQ(exists, expected == 1);
      } else {
        const std::string text = "Error Code : [" + std::to_string(curlCode) + "].";
        EXPECT_FAILS(error, IntCode(1), text.c_str());
        EXPECT_TRUE(exists);
      }
      EXPECT_EQ(req->m_curlCode, curlCode);
      EXPECT_EQ(req->m_responseCode, response);
    }
  }
  EXPECT_THAT(fake.transfers, IsEmpty());
}

TEST_F(KdProtocolReqQueries, PathsEndAtTheirFirstZeroByte) {
  bool exists = false;
  const std::string path("a\0b", 3);
  EXPECT_OK(req->checkIfFileOrDirExists(path, true, exists));
  EXPECT_EQ(req->m_strURLPath, "a");
  EXPECT_OK(req->checkIfFileOrDirExists(path, false, exists));
  EXPECT_EQ(req->m_strURLPath, "a/");
  EXPECT_OK(req->checkIfFileOrDirExists(std::string("a/\0/", 4), false, exists));
  EXPECT_EQ(req->m_strURLPath, "a/");
  EXPECT_OK(req->getFilesAndDirsInfoInFile(path));
  EXPECT_EQ(req->m_strURLPath, "a/");
  EXPECT_EQ(fake.transfers.size(), 4u);

  const std::string nothing("\0abc", 4);
  EXPECT_OK(req->checkIfFileOrDirExists(nothing, true, exists));
  EXPECT_EQ(req->m_strURLPath, "");
  EXPECT_OK(req->checkIfFileOrDirExists(nothing, false, exists));
  EXPECT_EQ(req->m_strURLPath, "/");
  Mark();
  const CZuError error = req->getFilesAndDirsInfoInFile(nothing);
  EXPECT_FAILS(error, IntCode(1), "::getFilesAndDirsInfoInFile(");
  EXPECT_THAT(error.AsString(), EndsWith(", Source path passed in empty"));
  EXPECT_EQ(req->m_strURLPath, "/");
  EXPECT_THAT(Calls(), IsEmpty());
}

TEST_F(KdProtocolReqQueries, InfoTellsAddressOrUrl) {
  const struct {
    KdCURL::CurlInfoType type;
    int info;
    const char* text;
  } rows[] = {{KdCURL::CURL_PRIMARY_IP, CURLINFO_PRIMARY_IP, "10.0.0.1"},
              {KdCURL::CURL_EFFECTIVE_URL, CURLINFO_EFFECTIVE_URL, "http://s/x"}};
  for (const auto& [type, info, text] : rows) {
    SCOPED_TRACE(text);
    std::string out = "stale";
    fake.infos[info].text = text;
    Mark();
    EXPECT_OK(req->getInfo(type, out));
    EXPECT_EQ(out, text);
    EXPECT_EQ(Calls().back(), "easy_getinfo handle1 " + std::to_string(info));
    EXPECT_EQ(req->m_OpType, KdCURL::OP_GET_INFO);

    out = "stale";
    fake.infos[info].text.reset();
    EXPECT_FAILS(req->getInfo(type, out), 0xEDD00000, "-Invalid pointer from curl get info.");
    fake.refusedInfos[info] = 43;
    EXPECT_FAILS(req->getInfo(type, out), TransferCode(43),
                 "-CURL get info failed. ErrorCode : [43] , ErrorMessage : []");
    EXPECT_EQ(req->m_curlCode, 43);
    fake.results["easy_perform"] = 7;
    const CZuError error = req->getInfo(type, out);
    EXPECT_FAILS(error, TransferCode(7), "CURL perform failed.Curl ErrorCode : [7]");
    EXPECT_THAT(error.AsString(), HasSubstr("::getInfo("));
    EXPECT_EQ(out, "stale");
    fake.results.clear();
  }
}

TEST_F(KdProtocolReqQueries, AnUnknownInfoTypeIsRefusedBeforeTheRequest) {
  std::string out = "stale";
  for (const int type : {2, -1, 1000}) {
    const CZuError error = req->getInfo(static_cast<KdCURL::CurlInfoType>(type), out);
    EXPECT_FAILS(error, IntCode(1), "Unrecognized Curl Info type.");
  }
  EXPECT_EQ(out, "stale");
  EXPECT_EQ(req->m_OpType, KdCURL::OP_DOWNLOAD_FILE);
  EXPECT_THAT(Calls(), IsEmpty());
}

TEST_F(KdProtocolReqQueries, AListingIsAskedForWithATrailingSlash) {
  for (const char* const path : {"a/b", "a/b/"}) {
    Mark();
    EXPECT_OK(req->getFilesAndDirsInfoInFile(path));
    EXPECT_THAT(Calls(),
                ElementsAre("hook getFullWorkingURL", "easy_setopt handle1 CURLOPT_URL \"s/a/b/\"",
                            "hook setMethodParameter 3", "hook setHeaders", "easy_perform handle1",
                            "easy_getinfo handle1 2097154", "hook isOperationSuccess 200",
                            "hook unsetOpTypeParameter"));
    EXPECT_EQ(req->m_strURLPath, "a/b/");
  }
  fake.results["easy_perform"] = 7;
  const CZuError error = req->getFilesAndDirsInfoInFile("a");
  EXPECT_FAILS(error, TransferCode(7), "CURL perform failed");
  EXPECT_THAT(error.AsString(), HasSubstr("::SendReqest()\n"));
  EXPECT_THAT(error.AsString(), HasSubstr("::getFilesAndDirsInfoInFile("));
}

TEST_F(KdProtocolReqQueries, QueriesClearTheErrorBufferFirst) {
  double size = 0;
  bool exists = false;
  std::string out;
  fake.infos[CURLINFO_PRIMARY_IP].text = "::1";
  const std::function<CZuError()> queries[] = {
      [&] { return req->getFileInfo("p", size); },
      [&] { return req->checkIfFileOrDirExists("p", true, exists); },
      [&] { return req->getInfo(KdCURL::CURL_PRIMARY_IP, out); },
      [&] { return req->getFilesAndDirsInfoInFile("p"); },
  };
  for (const auto& query : queries) {
    std::memset(req->m_szErrorBuffer, 'x', kErrorBufferSize);
    EXPECT_OK(query());
    EXPECT_TRUE(IsCleared(req->m_szErrorBuffer));
  }
}

TEST_F(KdProtocolReqQueries, OnlyALostConnectionOrLoginIsABadConnection) {
  for (int code = 0; code < 100; ++code) {
    fake.results["easy_perform"] = code;
    const bool isLost = code == 5 || code == 6 || code == 7 || code == 67;
    EXPECT_EQ(req->checkConnection(), isLost) << code;
    EXPECT_EQ(req->m_OpType, KdCURL::OP_GET_INFO);
  }
  fake.results.clear();
  for (const long response : {0L, 200L, 404L, 500L}) {
    fake.infos[CURLINFO_RESPONSE_CODE].number = response;
    EXPECT_FALSE(req->checkConnection()) << response;
  }
}

TEST_F(KdProtocolReqQueries, AConnectionWithoutAServerIsThatOfTheRequestBefore) {
  for (const int code : {7, 0, 67, 28}) {
    fake.results["easy_perform"] = code;
    req->setURL("s");
    EXPECT_EQ(req->checkConnection(), code == 7 || code == 67) << code;
    req->setURL("");
    fake.results["easy_perform"] = code == 7 ? 0 : 7;  // not asked for
    EXPECT_EQ(req->checkConnection(), code == 7 || code == 67) << code;
    EXPECT_EQ(req->m_curlCode, code);
  }
  EXPECT_EQ(fake.transfers.size(), 4u);
}

TEST_F(KdProtocolReqQueries, WithoutInitialiseThereIsNoConnection) {
  TestReq fresh(fake);
  EXPECT_TRUE(fresh.checkConnection());
  EXPECT_EQ(fresh.m_OpType, KdCURL::OP_NONE);
  EXPECT_THAT(Calls(), IsEmpty());
}

}  // namespace
