#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "ZuNetwork/KdFTPReq.h"
#include "fakes/HttpReq.h"
#include "support/TempDir.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using KdCURL::FileSource;

class PutFile : public HttpReqTest {
 protected:
  PutFile() {
    WriteFile(m_path, "contents");
    fake.onPerform = [this](const FakeHandle& handle) {
      for (std::string piece; !(piece = handle.Read(3)).empty();) {
        if (piece.size() > 3) return CURLE_ABORTED_BY_CALLBACK;
        m_sent += piece;
      }
      return CURLE_OK;
    };
  }

  // What the read callback of the request gives, through the raw interface of libcurl.
  static size_t Read(const FakeHandle& handle, char* buffer, size_t size) {
    const auto read = reinterpret_cast<curl_read_callback>(
        const_cast<void*>(handle.Find(CURLOPT_READFUNCTION)->pointer));
    return read(buffer, 1, size, const_cast<void*>(handle.Find(CURLOPT_READDATA)->pointer));
  }

  static int Seek(const FakeHandle& handle, curl_off_t offset, int origin) {
    const auto seek = reinterpret_cast<curl_seek_callback>(
        const_cast<void*>(handle.Find(CURLOPT_SEEKFUNCTION)->pointer));
    return seek(const_cast<void*>(handle.Find(CURLOPT_SEEKDATA)->pointer), offset, origin);
  }

  TempDir m_folder;
  std::string m_path = m_folder / "file";
  std::string m_sent;
};

}  // namespace

TEST_F(PutFile, SetsTheUploadAndItsSizeAndTakesBothBack) {
  const void* source = nullptr;
  fake.onPerform = [&](const FakeHandle& handle) {
    source = handle.Find(CURLOPT_READDATA)->pointer;
    return CURLE_OK;
  };
  ASSERT_OK(req->putFile(m_path, "p", {}));
  const void* const none = nullptr;
  EXPECT_THAT(
      Options(),
      ElementsAre(Opt(CURLOPT_URL, "http://h/p"), Opt(CURLOPT_UPLOAD, 1L),
                  Opt(CURLOPT_INFILESIZE_LARGE, 8L), Opt(CURLOPT_READDATA, source),
                  Opt(CURLOPT_READFUNCTION, FileSource::Read), Opt(CURLOPT_SEEKDATA, source),
                  Opt(CURLOPT_SEEKFUNCTION, FileSource::Seek), Opt(CURLOPT_READDATA, none),
                  Opt(CURLOPT_READFUNCTION, none), Opt(CURLOPT_SEEKDATA, none),
                  Opt(CURLOPT_SEEKFUNCTION, none), Opt(CURLOPT_UPLOAD, 0L),
                  Opt(CURLOPT_INFILESIZE_LARGE, -1L)));
}

TEST_F(PutFile, GivesTheFileInPiecesWhateverElseWasSetToBeSent) {
  std::string other = "other";
  req->setReadCallBack(&other, [](char*, size_t, size_t, void*) { return size_t{0}; });
  ASSERT_OK(req->addFormValues("field", CURLFORM_COPYCONTENTS, "value"));
  ASSERT_OK(req->putFile(m_path, "p", {{"X", "1"}}));
  EXPECT_EQ(m_sent, "contents");
  ASSERT_EQ(fake.transfers.size(), 1U);
  EXPECT_THAT(fake.transfers[0].headers, ElementsAre("X:1")) << "no header of its own";
  EXPECT_THAT(fake.transfers[0].form, IsEmpty());
}

TEST_F(PutFile, NothingIsSentWithoutAFile) {
  EXPECT_FAILS(req->putFile("", "p", {}), IntCode(1), "Invalid source file path.");
  EXPECT_FAILS(req->putFile(m_path, "", {}), IntCode(1), "Invalid URL path.");
  EXPECT_FAILS(req->putFile(m_folder / "absent", "p", {}), ErrNoCode(ENOENT), "absent]");
  EXPECT_FAILS(req->putFile(m_folder.Path(), "p", {}), ErrNoCode(EISDIR), "Failed to open file [");
  EXPECT_FAILS(HttpReq(KdCURL::HTTP).putFile(m_path, "p", {}), IntCode(1),
               (kNotInitialized + "function.").c_str());
  EXPECT_THAT(Options(), IsEmpty());
  EXPECT_THAT(fake.transfers, IsEmpty());
}

TEST_F(PutFile, AFormIsSentAgainAfterwards) {
  ASSERT_OK(req->putFile(m_path, "p", {}));
  fake.onPerform = nullptr;
  ASSERT_OK(req->addFormValues("field", CURLFORM_COPYCONTENTS, "value"));
  ASSERT_OK(req->uploadFile(m_path.c_str(), "p", 8, {}));
  EXPECT_EQ(fake.transfers.back().form.size(), 1U);
}

TEST_F(PutFile, TheFileIsClosedHoweverTheRequestEnds) {
  const auto open = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  };
  const auto before = open();
  ASSERT_OK(req->putFile(m_path, "p", {}));
  EXPECT_EQ(open(), before);
  fake.onPerform = [](const FakeHandle&) { return CURLE_COULDNT_CONNECT; };
  EXPECT_FAILS(req->putFile(m_path, "p", {}), TransferCode(7), "CURL perform failed.");
  EXPECT_EQ(open(), before);
}

TEST_F(PutFile, AGrowingFileIsSentAsItWasWhenItWasOpened) {
  fake.onPerform = [this](const FakeHandle& handle) {
    WriteFile(m_path, "contents and more");
    for (std::string piece; !(piece = handle.Read(5)).empty();) m_sent += piece;
    return CURLE_OK;
  };
  ASSERT_OK(req->putFile(m_path, "p", {}));
  EXPECT_EQ(m_sent, "contents");
}

TEST_F(PutFile, AFileThatBecomesShorterEndsTheRequestAndIsNamed) {
  fake.onPerform = [this](const FakeHandle& handle) {
    EXPECT_EQ(truncate(m_path.c_str(), 3), 0);
    char buffer[8] = {};
    EXPECT_EQ(Read(handle, buffer, sizeof buffer), 3U);
    EXPECT_EQ(Read(handle, buffer, sizeof buffer), size_t{CURL_READFUNC_ABORT});
    return CURLE_ABORTED_BY_CALLBACK;
  };
  EXPECT_FAILS(req->putFile(m_path, "p", {}), TransferCode(42),
               ("Failed to read file [" + m_path + "]: No data available").c_str());
}

TEST_F(PutFile, ABodyIsSentAgainFromItsStart) {
  fake.onPerform = [this](const FakeHandle& handle) {
    EXPECT_EQ(handle.Read(5), "conte");
    EXPECT_EQ(Seek(handle, 0, SEEK_SET), CURL_SEEKFUNC_OK);
    EXPECT_EQ(Seek(handle, 0, SEEK_END), CURL_SEEKFUNC_CANTSEEK);
    while (m_sent.size() < 8) m_sent += handle.Read(5);
    EXPECT_EQ(Seek(handle, 6, SEEK_SET), CURL_SEEKFUNC_OK);
    EXPECT_EQ(handle.Read(5), "ts");
    EXPECT_EQ(handle.Read(5), "");
    return CURLE_OK;
  };
  ASSERT_OK(req->putFile(m_path, "p", {}));
  EXPECT_EQ(m_sent, "contents");
}

TEST_F(PutFile, WhatTellsNoSizeIsSentToItsEnd) {
  const std::string pipe = m_folder / "pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  std::thread writer([&] { WriteFile(pipe, "piped"); });
  ASSERT_OK(req->putFile(pipe, "p", {}));
  writer.join();
  EXPECT_EQ(m_sent, "piped");
  EXPECT_EQ(fake.transfers[0].Option(CURLOPT_INFILESIZE_LARGE), "-1");
  m_sent.clear();
  ASSERT_OK(req->putFile("/proc/version", "p", {}));
  EXPECT_EQ(m_sent, ReadFile("/proc/version"));
  EXPECT_EQ(fake.transfers[1].Option(CURLOPT_INFILESIZE_LARGE), "-1");
  WriteFile(m_path, "");
  ASSERT_OK(req->putFile(m_path, "p", {}));
  EXPECT_EQ(fake.transfers[2].Option(CURLOPT_INFILESIZE_LARGE), "0");
}

TEST_F(PutFile, OverFtpItIsAnUploadOfTheSameFile) {
  KdCURL::KdFTPReq ftp;
  ASSERT_OK(ftp.initialize());
  ftp.setURL("h");
  ASSERT_OK(ftp.putFile(m_path, "p", {}));
  EXPECT_EQ(m_sent, "contents");
  EXPECT_EQ(fake.transfers[0].url, "ftp://h/p");
  EXPECT_EQ(fake.transfers[0].Option(CURLOPT_UPLOAD), "1");
  EXPECT_EQ(fake.transfers[0].Option(CURLOPT_INFILESIZE_LARGE), "8");
}
