#include <gmock/gmock.h>

#include <filesystem>

#include "servers/FileRequest.h"
#include "support/FileServers.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAreArray;

namespace fs = std::filesystem;

namespace {

class FtpQuery : public testing::Test {
 protected:
  FtpQuery() {
    WriteFile(m_server.Login() / "a.txt", "text of a");
    WriteFile(m_server.Login() / "empty.txt", "");
    WriteFile(m_server.Login() / "folder/b.txt", "text of b");
    fs::create_directory(m_server.Login() / "folder/sub");
    fs::create_directory(m_server.Login() / "bare");
  }

  // Receives the listing of the folder into m_listing.
  CZuError List(const char* path) {
    CZuError error = m_request.Collect().getFilesAndDirsInfoInFile(path);
    WriteFile(m_listing, m_request.body.text);
    return error;
  }

  std::vector<std::string> Names() {
    std::vector<KdCURL::FileDirInfo> entries;
    EXPECT_OK(m_request.collectFilesAndDir(m_listing, &entries, ""));
    std::vector<std::string> names;
    for (const KdCURL::FileDirInfo& entry : entries) {
      EXPECT_FALSE(entry.isFile) << entry.name;
      EXPECT_EQ(entry.fileSize, 0.0) << entry.name;
      names.push_back(entry.name);
    }
    return names;
  }

  TempDir m_folder;
  std::string m_listing = m_folder / "listing";
  FtpServer m_server;
  FtpRequest m_request{m_server.Port()};
};

}  // namespace

TEST_F(FtpQuery, AListingComesWithBareLineFeeds) {
  ASSERT_OK(List("folder"));
  EXPECT_EQ(m_request.body.text, "b.txt\nsub\n");
  EXPECT_THAT(Names(), IsEmpty()) << "the strict reading wants CR LF";
  m_request.setLenientListing(true);
  EXPECT_THAT(Names(), ElementsAre("b.txt", "sub"));
  m_request.setLenientListing(false);
  EXPECT_THAT(Names(), IsEmpty());
}

TEST_F(FtpQuery, AnyFolderCanBeListed) {
  m_request.setLenientListing(true);
  WriteFile(m_server.Login() / "folder/odd %s name", "");
  const struct {
    const char* path;
    std::vector<std::string> names;
  } cases[] = {
      {"folder", {"b.txt", "odd %s name", "sub"}},
      {"folder/", {"b.txt", "odd %s name", "sub"}},
      {"/login/folder", {"b.txt", "odd %s name", "sub"}},
      {"/", {"login"}},
      {"bare", {}},
  };
  for (const auto& [path, names] : cases) {
    SCOPED_TRACE(path);
    ASSERT_OK(List(path));
    EXPECT_THAT(Names(), UnorderedElementsAreArray(names));
  }
}

TEST_F(FtpQuery, AMissingFolderCannotBeListed) {
  EXPECT_FAILS(List("absent"), TransferCode(CURLE_REMOTE_ACCESS_DENIED), "[9]");
  EXPECT_EQ(m_request.body.text, "");
}

TEST_F(FtpQuery, DownloadsFollowAListing) {
  ASSERT_OK(List("folder"));
  ASSERT_OK(m_request.Get("a.txt"));
  EXPECT_EQ(m_request.body.text, "text of a");
}

TEST_F(FtpQuery, SizesAreTold) {
  fs::resize_file(m_server.Login() / "a.txt", (std::uintmax_t{5} << 30) + 3);  // a hole
  const struct {
    const char* path;
    double size;
  } cases[] = {{"a.txt", 5368709123.0}, {"empty.txt", 0.0}, {"/login/folder/b.txt", 9.0}};
  for (const auto& [path, expected] : cases) {
    SCOPED_TRACE(path);
    double size = -5.0;
    EXPECT_OK(m_request.Collect().getFileInfo(path, size));
    EXPECT_EQ(size, expected);
  }
}

TEST_F(FtpQuery, TheAnswerGoesToTheWriteCallbackToo) {
  double size = 0.0;
  ASSERT_OK(m_request.Collect().getFileInfo("a.txt", size));
  EXPECT_THAT(m_request.body.text, HasSubstr("Content-Length: 9\r\n"));
}

TEST_F(FtpQuery, WhatHasNoSizeIsAnError) {
  double size = -5.0;
  EXPECT_FAILS(m_request.getFileInfo("absent", size), TransferCode(CURLE_REMOTE_FILE_NOT_FOUND),
               "[78]");
  EXPECT_FAILS(m_request.getFileInfo("folder/", size), TransferCode(0),
               "File size recieved from server is invalid");
  EXPECT_EQ(size, -5.0);
}

TEST_F(FtpQuery, FilesAndFoldersAreFound) {
  bool exists = false;
  EXPECT_OK(m_request.Collect().checkIfFileOrDirExists("a.txt", true, exists));
  EXPECT_TRUE(exists);
  for (const char* const path : {"folder", "folder/", "/login/folder", "/"}) {
    SCOPED_TRACE(path);
    exists = false;
    EXPECT_OK(m_request.checkIfFileOrDirExists(path, false, exists));
    EXPECT_TRUE(exists);
  }
  EXPECT_OK(m_request.checkIfFileOrDirExists("absent", false, exists));
  EXPECT_FALSE(exists);
  exists = true;
  EXPECT_OK(m_request.checkIfFileOrDirExists("a.txt", false, exists)) << "a file is no folder";
  EXPECT_FALSE(exists);
}

TEST_F(FtpQuery, AnAbsentFileReadsAsAFailedCheck) {
  bool exists = true;
  EXPECT_FAILS(m_request.checkIfFileOrDirExists("absent", true, exists), IntCode(1),
               "Failed to check if File exists.Error Code : [78]. Error Message [");
  EXPECT_FAILS(m_request.checkIfFileOrDirExists("absent/file", true, exists), IntCode(1),
               "Failed to check if File exists.Error Code : [9]. Error Message [");
  EXPECT_TRUE(exists) << "left alone";
  FtpRequest nowhere(FreePort());
  EXPECT_FAILS(nowhere.checkIfFileOrDirExists("folder", false, exists), IntCode(1),
               "Failed to check if Directory exists. Error Code : [7]. Error Message [");
}

TEST_F(FtpQuery, FilesAreToldFromFolders) {
  const struct {
    const char* path;
    bool isFile;
  } cases[] = {{"a.txt", true},    {"folder", false},
               {"folder/", false}, {"folder/b.txt", true},
               {"/login", false},  {"absent", true /* not entered either */}};
  for (const auto& [path, expected] : cases) {
    SCOPED_TRACE(path);
    bool isFile = !expected;
    EXPECT_OK(m_request.Collect().IsFile(path, isFile));
    EXPECT_EQ(isFile, expected);
  }
  FtpRequest nowhere(FreePort());
  bool isFile = true;
  EXPECT_FAILS(nowhere.IsFile("a.txt", isFile), TransferCode(CURLE_COULDNT_CONNECT), "[7]");
  EXPECT_TRUE(isFile) << "left alone";
}

TEST_F(FtpQuery, TheConnectionIsTold) {
  const std::string port = std::to_string(m_server.Port());
  std::string text;
  EXPECT_OK(m_request.Collect().getInfo(KdCURL::CURL_PRIMARY_IP, text));
  EXPECT_EQ(text, "127.0.0.1");
  ASSERT_OK(m_request.Get("a.txt"));
  EXPECT_OK(m_request.Collect().getInfo(KdCURL::CURL_EFFECTIVE_URL, text));
  EXPECT_EQ(text, "ftp://127.0.0.1:" + port + "/a.txt");
}

TEST_F(FtpQuery, WhatHttpAloneCanIsRefused) {
  const std::string log = m_server.Log();
  EXPECT_FAILS(m_request.doPostOperation("a.txt", "text", {}), IntCode(101),
               "Invalid OpType [6] for FTP protocol");
  EXPECT_FAILS(m_request.doPostOperation("a.txt", "text", 4, {}), IntCode(101),
               "Invalid OpType [8] for FTP protocol");
  EXPECT_FAILS(m_request.doPutOperation("a.txt", "text", 4, {}), IntCode(101),
               "Invalid OpType [9] for FTP protocol");
  EXPECT_FAILS(m_request.doDeleteOperation("a.txt", "text", 4, {}), IntCode(101),
               "Invalid OpType [9] for FTP protocol");
  EXPECT_EQ(m_server.Log(), log) << "nothing was sent";
  EXPECT_OK(m_request.Get("a.txt"));
}
