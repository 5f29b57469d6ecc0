#include "ZunetTest.h"
#include "support/FileServers.h"
#include "support/RawServer.h"

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace fs = std::filesystem;

namespace {

const std::string kWhole = "0123456789";
const std::string kEtag = "ETag: \"one\"\r\n";
const std::string kDates =
    "Last-Modified: Sat, 01 Jan 2022 10:00:00 GMT\r\nDate: Sat, 01 Jan 2022 10:00:05 GMT\r\n";

std::string Headers(const std::string& status, const std::string& fields, size_t length) {
  return "HTTP/1.1 " + status + "\r\n" + fields + "Content-Length: " + std::to_string(length) +
         "\r\nConnection: close\r\n\r\n";
}

std::string Answer(const std::string& status, const std::string& fields, const std::string& body) {
  return Headers(status, fields, body.size()) + body;
}

std::string Rest(const std::string& fields, const std::string& range, const std::string& body) {
  return Answer("206 Partial Content", fields + "Content-Range: bytes " + range + "\r\n", body);
}

class ZunetResume : public ZunetTest {
 protected:
  // Leaves the first four of ten bytes, and what the fields of their header tell.
  void LeavePart(const std::string& fields, const std::string& path = "/file") {
    m_scripts = {RawServer::Answer(Headers("200 OK", fields, kWhole.size()) + "0123")};
    m_path = path;
  }

  // Then the answers come in turn.
  Outcome Resume(std::vector<std::string> answers) {
    for (const std::string& answer : answers) m_scripts.push_back(RawServer::Answer(answer));
    m_server = std::make_unique<RawServer>(m_scripts);
    EXPECT_EQ(Get(m_path).status, 2);
    EXPECT_EQ(ReadFile(m_folder / "file.part"), "0123");
    EXPECT_FALSE(fs::exists(m_folder / "file"));
    return Get("/file");
  }

  Outcome Get(const std::string& path) {
    return RunZunet("get " + Local("http", m_server->Port(), path) + " -o file --resume");
  }

  std::string Request(size_t number) { return m_server->Received(number).back(); }

  void ExpectFile(const Outcome& outcome, const std::string& content) {
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(ReadFile(m_folder / "file"), content);
    EXPECT_THAT(Files(), ElementsAre("file"));
  }

  std::vector<RawServer::Script> m_scripts;
  std::string m_path;
  std::unique_ptr<RawServer> m_server;
};

}  // namespace

TEST_F(ZunetResume, GoesOnWhereItWasCutOff) {
  LeavePart(kEtag);
  ExpectFile(Resume({Rest(kEtag, "4-9/10", "456789")}), kWhole);
  EXPECT_THAT(Request(2),
              AllOf(HasSubstr("Range: bytes=4-\r\n"), HasSubstr("If-Range: \"one\"\r\n")));
}

TEST_F(ZunetResume, GoesOnByTheDateOfTheFile) {
  LeavePart(kDates);
  ExpectFile(Resume({Rest(kDates, "4-9/10", "456789")}), kWhole);
  EXPECT_THAT(Request(2), HasSubstr("If-Range: Sat, 01 Jan 2022 10:00:00 GMT\r\n"));
}

TEST_F(ZunetResume, WhatTellsNothingForSureStartsOver) {
  const std::string now =
      "Last-Modified: Sat, 01 Jan 2022 10:00:05 GMT\r\n"
      "Date: Sat, 01 Jan 2022 10:00:05 GMT\r\n";
  for (const std::string& fields : {std::string(), "ETag: W/\"one\"\r\n" + kDates, now,
                                    std::string("Last-Modified: nonsense\r\n")}) {
    SCOPED_TRACE(fields);
    LeavePart(fields);
    ExpectFile(Resume({Answer("200 OK", "", "abcdefghij")}), "abcdefghij");
    EXPECT_THAT(Request(2), Not(HasSubstr("Range")));
    fs::remove(m_folder / "file");
  }
}

TEST_F(ZunetResume, ChangedFileReplacesThePart) {
  LeavePart(kEtag);
  ExpectFile(Resume({Answer("200 OK", "ETag: \"two\"\r\n", "abcdefghijkl")}), "abcdefghijkl");
}

TEST_F(ZunetResume, PartOfAnotherUrlIsNotUsed) {
  LeavePart(kEtag, "/other");
  ExpectFile(Resume({Answer("200 OK", kEtag, "abcdefghij")}), "abcdefghij");
  EXPECT_THAT(Request(2), Not(HasSubstr("Range")));
}

TEST_F(ZunetResume, PartWithoutATagIsNotUsed) {
  WriteFile(m_folder / "file.part", "ABCD");
  for (const char* tag : {"", "nonsense", "0\nETag \"one\"\n10\n"}) {
    if (*tag != '\0') WriteFile(m_folder / "file.part.tag", tag);
    m_server = std::make_unique<RawServer>(
        std::vector<RawServer::Script>{RawServer::Answer(Answer("200 OK", kEtag, kWhole))});
    ExpectFile(Get("/file"), kWhole);
    EXPECT_THAT(Request(1), Not(HasSubstr("Range")));
    fs::remove(m_folder / "file");
    WriteFile(m_folder / "file.part", "ABCD");
  }
}

TEST_F(ZunetResume, AnswerThatIsNotTheRestStartsOver) {
  const std::string rests[] = {
      Rest(kEtag, "0-9/10", kWhole),                  // not from where the part ends
      Rest(kEtag, "3-9/10", "3456789"),               //
      Rest(kEtag, "4-10/11", "456789a"),              // of another size
      Rest("ETag: \"two\"\r\n", "4-9/10", "abcdef"),  // of another file
      Rest("", "4-9/10", "abcdef"),                   // of who knows which
      Rest(kEtag, "4-9/*", "456789"),                 // of who knows what size
      Rest(kEtag, "9-4/10", "456789"),                // nonsense
      Rest(kEtag, "4-9/99999999999999999999", "456789"),
      Rest(kEtag, "nonsense", "456789"),
      Answer("206 Partial Content", kEtag, "456789"),
      Answer("206 Partial Content", kEtag, ""),
      Answer("416 Range Not Satisfiable", "Content-Range: bytes */4\r\n", ""),
      Answer("416 Range Not Satisfiable", "", "page"),
  };
  for (const std::string& rest : rests) {
    SCOPED_TRACE(rest);
    LeavePart(kEtag);
    ExpectFile(Resume({rest, Answer("200 OK", kEtag, "abcdefghij")}), "abcdefghij");
    EXPECT_THAT(Request(3), Not(HasSubstr("Range")));
    fs::remove(m_folder / "file");
  }
}

TEST_F(ZunetResume, PartThatWasNotAskedForIsNeverTakenForTheFile) {
  LeavePart(kEtag);
  const std::string wrong = Rest(kEtag, "5-9/10", "56789");
  const Outcome outcome = Resume({wrong, wrong});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_FALSE(fs::exists(m_folder / "file"));
}

TEST_F(ZunetResume, ServerThatSendsLessIsAskedOnceMore) {
  LeavePart(kEtag);
  ExpectFile(Resume({Rest(kEtag, "4-6/10", "456"), Rest(kEtag, "7-9/10", "789")}), kWhole);
  EXPECT_THAT(Request(3), HasSubstr("Range: bytes=7-\r\n"));
}

TEST_F(ZunetResume, MoreBytesThanAnnouncedAreNoFile) {
  LeavePart(kEtag);
  const Outcome outcome = Resume({Rest(kEtag, "4-9/10", "456789and more")});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_FALSE(fs::exists(m_folder / "file"));
}

TEST_F(ZunetResume, RefusalKeepsThePart) {
  for (const char* status : {"304 Not Modified", "404 Not Found", "500 Error", "403 Forbidden"}) {
    SCOPED_TRACE(status);
    LeavePart(kEtag);
    EXPECT_EQ(Resume({Answer(status, kEtag, "")}).status, 2);
    EXPECT_FALSE(fs::exists(m_folder / "file"));
    EXPECT_EQ(ReadFile(m_folder / "file.part"), "0123");
    fs::remove(m_folder / "file.part");
  }
}

TEST_F(ZunetResume, ConditionsOfTheCallersAreRefused) {
  for (const char* header : {"'Range: bytes=0-1'", "'If-None-Match: x'", "'if-range: x'"}) {
    const Outcome outcome =
        RunZunet(std::string("get http://127.0.0.1:1/ -o file --resume -H ") + header);
    EXPECT_GT(outcome.status, 2) << header;
  }
  EXPECT_GT(RunZunet("get http://127.0.0.1:1/ -o - --resume").status, 2);
}

TEST_F(ZunetResume, DeviceKeepsNoPart) {
  m_server = std::make_unique<RawServer>(
      std::vector<RawServer::Script>{RawServer::Answer(Answer("200 OK", kEtag, kWhole))});
  fs::create_symlink("/dev/null", m_folder / "file");
  EXPECT_EQ(Get("/file").status, 0);
  EXPECT_THAT(Files(), ElementsAre("file"));
  EXPECT_FALSE(fs::exists("/dev/null.part.tag"));
}

TEST_F(ZunetResume, WorksWithAServerOfToday) {
  const NginxServer nginx("location / { max_ranges 1; }");
  const auto served = nginx.Folder() / "www/file";
  const std::string get = "get " + Local("http", nginx.Port(), "/file") + " -o file --resume";
  std::string content(3 << 20, 'a');
  WriteFile(served, content);
  // The first attempt ends for want of room.
  EXPECT_EQ(RunZunet(get, "ulimit -f 2048; trap '' XFSZ;").status, 2);
  ASSERT_EQ(fs::file_size(m_folder / "file.part"), 1u << 20);
  ExpectFile(RunZunet(get), content);

  EXPECT_EQ(RunZunet(get, "ulimit -f 2048; trap '' XFSZ;").status, 2);
  content.assign(3 << 20, 'b');
  WriteFile(served, content);
  fs::last_write_time(served, fs::file_time_type::clock::now() - std::chrono::hours(1));
  ExpectFile(RunZunet(get), content);
}

TEST_F(ZunetResume, FilesOfFtpAndSftpAreKnownByTimeAndSize) {
  const FtpServer ftp;
  const SftpServer sftp;
  const std::string known = " --insecure --user bob:s3cret";
  const struct {
    fs::path served;
    std::string get;
  } cases[] = {{ftp.Login() / "file", "get " + Local("ftp", ftp.Port(), "/file")},
               {sftp.Login() / "file", "get " + Local("sftp", sftp.Port(), "/~/file")}};
  const std::string cutOff = "ulimit -f 2048; trap '' XFSZ;";
  for (const auto& [served, url] : cases) {
    SCOPED_TRACE(url);
    const std::string get = url + known + " -o file --resume";
    const auto renew = [&served = served](char letter, int hour, size_t size) {
      WriteFile(served, std::string(size, letter));
      GiveToBob(served);
      fs::last_write_time(served, fs::file_time_type::clock::now() - std::chrono::hours(hour));
      return std::string(size, letter);
    };
    std::string content = renew('a', 9, 3 << 20);
    EXPECT_EQ(RunZunet(get, cutOff).status, 2);
    ASSERT_EQ(fs::file_size(m_folder / "file.part"), 1u << 20);
    // What is there is not asked for again.
    const std::string part(1 << 20, 'P');
    WriteFile(m_folder / "file.part", part);
    ExpectFile(RunZunet(get), part + content.substr(part.size()));
    // Another time, another size, and one that is smaller than the part.
    for (const auto& [hour, size] : {std::pair<int, size_t>{8, 3 << 20}, {9, 2 << 20}, {7, 100}}) {
      content = renew('a', 9, 3 << 20);
      EXPECT_EQ(RunZunet(get, cutOff).status, 2);
      content = renew('b', hour, size);
      ExpectFile(RunZunet(get), content);
    }
    fs::remove(m_folder / "file");
  }
}
