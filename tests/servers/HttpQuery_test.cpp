#include <gmock/gmock.h>

#include "ZuNetwork/KdTransferIO.h"
#include "servers/TestRequest.h"
#include "support/RawServer.h"
#include "support/Servers.h"

using testing::HasSubstr;

namespace {

constexpr char kDirectives[] = R"(
location = /nolength { echo text; }
location = /302 { return 302 /file; }
location /forbidden { return 403; }
location /private/ { auth_basic private; auth_basic_user_file passwords; }
location /listing/ { autoindex on; }
location /page/ { index index.html; }
)";

constexpr double kUntouched = -7.0;

class HttpQuery : public testing::Test {
 protected:
  HttpQuery() { WriteFile(Served("file"), "text"); }

  std::filesystem::path Served(const std::string& name) const {
    return m_server.Folder() / ("www/" + name);
  }

  std::string Url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(m_server.Port()) + path;
  }

  NginxServer m_server{kDirectives};
  TestRequest m_request{m_server.Port()};
};

}  // namespace

TEST_F(HttpQuery, FileInfoTellsTheSize) {
  for (const std::uintmax_t size :
       {std::uintmax_t{0}, std::uintmax_t{1}, std::uintmax_t{0xFFFFFFFE},
        std::uintmax_t{0x100000000}, std::uintmax_t{5} << 30}) {
    SCOPED_TRACE(size);
    WriteFile(Served("sparse"), "");
    std::filesystem::resize_file(Served("sparse"), size);
    double told = kUntouched;
    ASSERT_OK(m_request.getFileInfo("/sparse", told));
    EXPECT_EQ(told, static_cast<double>(size));
  }
}

TEST_F(HttpQuery, FileInfoFollowsRedirects) {
  double told = kUntouched;
  ASSERT_OK(m_request.getFileInfo("/302", told));
  EXPECT_EQ(told, 4.0);
}

TEST_F(HttpQuery, FileInfoWithoutALengthFails) {
  double told = kUntouched;
  EXPECT_FAILS(m_request.getFileInfo("/nolength", told), 0xEDD00000U,
               "File size recieved from server is invalid");
  EXPECT_EQ(told, kUntouched);
}

TEST_F(HttpQuery, FileInfoTakesALengthWithOnesBelowForUnknown) {
  for (const std::uintmax_t size : {std::uintmax_t{0xFFFFFFFF}, std::uintmax_t{0x1FFFFFFFF}}) {
    SCOPED_TRACE(size);
    WriteFile(Served("sparse"), "");
    std::filesystem::resize_file(Served("sparse"), size);
    double told = kUntouched;
    EXPECT_FAILS(m_request.getFileInfo("/sparse", told), 0xEDD00000U,
                 "File size recieved from server is invalid");
    EXPECT_EQ(told, kUntouched);
  }
}

TEST_F(HttpQuery, FileInfoOfWhatTheServerRefusesFails) {
  for (const char* const path : {"/absent", "/forbidden"}) {
    SCOPED_TRACE(path);
    double told = kUntouched;
    EXPECT_FAILS(m_request.getFileInfo(path, told), 0xEDD00000U, "Requested Operation Failed.");
    EXPECT_EQ(told, kUntouched);
  }
}

TEST_F(HttpQuery, ExistenceOfFilesAndDirectories) {
  WriteFile(Served("listing/file"), "text");
  WriteFile(Served("closed/file"), "text");  // listing it is forbidden
  const struct {
    const char* path;
    bool isFile;
    bool exists;
  } cases[] = {
      {"/file", true, true},       {"/listing/file", true, true}, {"/absent", true, false},
      {"/forbidden", true, false},  // any refusal reads as an absent file
      {"/listing", true, false},    // a page without a length is none either
      {"/listing", false, true},   {"/listing/", false, true},    {"/absent", false, false},
      {"/file", false, false},     {"/forbidden", false, true},  // and as a present directory
      {"/closed", false, true},
  };
  for (const auto& [path, isFile, exists] : cases) {
    SCOPED_TRACE(std::string(path) + (isFile ? " as a file" : " as a directory"));
    bool told = !exists;
    EXPECT_OK(m_request.checkIfFileOrDirExists(path, isFile, told));
    EXPECT_EQ(told, exists);
  }
}

TEST_F(HttpQuery, ExistenceOnAServerThatIsGoneIsAnError) {
  TestRequest request(FreePort());
  for (const bool untouched : {false, true}) {
    bool told = untouched;
    EXPECT_FAILS(request.checkIfFileOrDirExists("/file", true, told), IntCode(1),
                 "Failed to check if File exists.Error Code : [7]. Error Message [Failed to");
    EXPECT_FAILS(request.checkIfFileOrDirExists("/dir", false, told), IntCode(1),
                 "Failed to check if Directory exists. Error Code : [7]. Error Message [Failed to");
    EXPECT_EQ(told, untouched);
  }
}

TEST_F(HttpQuery, ADirectoryIsAskedForWithASlashAtItsEnd) {
  RawServer server({RawServer::Answer("HTTP/1.1 404 Gone\r\nContent-Length: 0\r\n\r\n")});
  TestRequest request(server.Port());
  bool told = true;
  ASSERT_OK(request.checkIfFileOrDirExists("a/b", false, told));
  EXPECT_FALSE(told);
  EXPECT_EQ(server.Received(1)[0].find("HEAD /a/b/ HTTP/1.1\r\n"), 0U);
}

TEST_F(HttpQuery, InfoTellsTheAddressOfTheServer) {
  m_request.setURL("localhost");
  m_request.setURLPath("/file");
  std::string told = "untouched";
  ASSERT_OK(m_request.getInfo(KdCURL::CURL_PRIMARY_IP, told));
  EXPECT_EQ(told, "127.0.0.1");
}

TEST_F(HttpQuery, InfoTellsTheUrlThatAnswered) {
  const struct {
    const char* path;
    const char* effective;
  } cases[] = {{"/file", "/file"}, {"/302", "/file"}, {"file", "/file"}};
  for (const auto& [path, effective] : cases) {
    SCOPED_TRACE(path);
    m_request.setURLPath(path);
    std::string told = "untouched";
    ASSERT_OK(m_request.getInfo(KdCURL::CURL_EFFECTIVE_URL, told));
    EXPECT_EQ(told, Url(effective));
  }
}

TEST_F(HttpQuery, InfoAboutWhatTheServerRefusesFails) {
  m_request.setURLPath("/absent");
  std::string told = "untouched";
  EXPECT_FAILS(m_request.getInfo(KdCURL::CURL_PRIMARY_IP, told), 0xEDD00000U, "[404]");
  EXPECT_EQ(told, "untouched");
}

TEST_F(HttpQuery, ConnectionCheckIsTrueOnlyWhereNoServerAnswers) {
  TestRequest closed(FreePort());
  EXPECT_TRUE(closed.checkConnection());
  EXPECT_EQ(closed.TransferResult(), CURLE_COULDNT_CONNECT);

  TestRequest unresolvable(m_server.Port());
  unresolvable.setURL("nowhere.invalid");
  EXPECT_TRUE(unresolvable.checkConnection());
  EXPECT_EQ(unresolvable.TransferResult(), CURLE_COULDNT_RESOLVE_HOST);

  for (const char* const path : {"/file", "/absent", "/forbidden", "/private/"}) {
    SCOPED_TRACE(path);
    m_request.setURLPath(path);
    EXPECT_FALSE(m_request.checkConnection());
  }
}

TEST_F(HttpQuery, IsFileTakesTheAnswer404ForAFile) {
  WriteFile(Served("listing/file"), "text");
  const struct {
    const char* path;
    bool isFile;
  } cases[] = {{"/file", true},
               {"/listing/file", true},
               {"/listing", false},
               {"/listing/", false},
               {"/absent", true}};
  for (const auto& [path, isFile] : cases) {
    SCOPED_TRACE(path);
    bool told = !isFile;
    EXPECT_OK(m_request.IsFile(path, told));
    EXPECT_EQ(told, isFile);
  }
}

TEST_F(HttpQuery, IsFileFailsWhereTheServerRefusesOrIsGone) {
  TestRequest gone(FreePort());
  for (const bool untouched : {false, true}) {
    bool told = untouched;
    EXPECT_FAILS(m_request.IsFile("/forbidden", told), 0xEDD00000U, "[403]");
    EXPECT_FAILS(gone.IsFile("/file", told), TransferCode(CURLE_COULDNT_CONNECT), "[7]");
    EXPECT_EQ(told, untouched);
  }
}

TEST_F(HttpQuery, ListingPageGoesToTheWriteCallback) {
  WriteFile(Served("listing/a b.txt"), "text");
  WriteFile(Served("listing/sub/file"), "text");
  ASSERT_OK(m_request.Collect().getFilesAndDirsInfoInFile("/listing"));
  EXPECT_THAT(m_request.body.text, HasSubstr("href=\"a%20b.txt\""));
  EXPECT_THAT(m_request.body.text, HasSubstr("href=\"sub/\""));
  EXPECT_FAILS(m_request.Collect().getFilesAndDirsInfoInFile("/absent"), 0xEDD00000U, "[404]");
}

TEST_F(HttpQuery, ListingPageWithWholePathsIsCollected) {
  WriteFile(Served("page/index.html"),
            "<A HREF=\"/\">[To Parent Directory]</A><br>\n<A HREF=\"/page/sub/\">sub</A><br>\n"
            "<A HREF=\"/page/a%20b.txt\">a b.txt</A><br>\n<A HREF=\"/page/web.config\">w</A>\n");
  const auto received = m_server.Folder() / "received";
  KdCURL::FileSink sink;
  ASSERT_OK(sink.Open(received));
  m_request.setWriteCallBack(&sink, KdCURL::FileSink::Write);
  ASSERT_OK(m_request.getFilesAndDirsInfoInFile("/page"));
  ASSERT_OK(sink.Commit());
  std::vector<KdCURL::FileDirInfo> entries;
  ASSERT_OK(m_request.collectFilesAndDir(received, &entries, "/page/"));
  ASSERT_EQ(entries.size(), 2U);
  EXPECT_EQ(entries[0].name, "sub");
  EXPECT_FALSE(entries[0].isFile);
  EXPECT_EQ(entries[1].name, "a b.txt");
  EXPECT_TRUE(entries[1].isFile);
}

// nginx writes bare names, which the collector refuses.
TEST_F(HttpQuery, ListingPageWithRelativeLinksIsNotCollected) {
  WriteFile(Served("listing/file"), "text");
  const auto received = m_server.Folder() / "received";
  KdCURL::FileSink sink;
  ASSERT_OK(sink.Open(received));
  m_request.setWriteCallBack(&sink, KdCURL::FileSink::Write);
  ASSERT_OK(m_request.getFilesAndDirsInfoInFile("/listing/"));
  ASSERT_OK(sink.Commit());
  std::vector<KdCURL::FileDirInfo> entries;
  EXPECT_FAILS(m_request.collectFilesAndDir(received, &entries, "/listing/"), IntCode(101),
               "Invalid HTTP Reponse. Parsing the reponse file failed.");
  EXPECT_TRUE(entries.empty());
}
