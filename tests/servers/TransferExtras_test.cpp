#include <gmock/gmock.h>
#include <signal.h>

#include <chrono>
#include <vector>

#include "ZuNetwork/KdTransferIO.h"
#include "servers/FileRequest.h"
#include "support/FileServers.h"
#include "support/RawServer.h"

using testing::AllOf;
using testing::Each;
using testing::Ge;
using testing::HasSubstr;
using testing::Le;

namespace {

using Clock = std::chrono::steady_clock;

constexpr char kDirectives[] = R"(
location /dav/ { dav_methods PUT DELETE; create_full_put_path on; }
location = /agent { echo -n "$http_user_agent"; }
location = /from { return 302 /agent; }
)";

struct Progress {
  struct Step {
    curl_off_t toCome;
    curl_off_t come;
    curl_off_t toGo;
    curl_off_t gone;
  };
  std::vector<Step> steps;
  curl_off_t cancelAt = -1;  // bytes in either direction; -1: never

  static int Take(void* instance, curl_off_t toCome, curl_off_t come, curl_off_t toGo,
                  curl_off_t gone) {
    auto* const progress = static_cast<Progress*>(instance);
    progress->steps.push_back({toCome, come, toGo, gone});
    return progress->cancelAt >= 0 && come + gone >= progress->cancelAt ? 1 : 0;
  }
};

// Takes so many bytes and then no more.
struct Interruption {
  std::string text;
  size_t limit;

  static size_t Take(char* data, size_t size, size_t count, void* instance) {
    auto* const sink = static_cast<Interruption*>(instance);
    const size_t length = std::min(size * count, sink->limit - sink->text.size());
    sink->text.append(data, length);
    return length;
  }
};

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

class TransferExtras : public testing::Test {
 protected:
  TransferExtras() {
    WriteFile(m_http.Folder() / "www/file", m_bytes);
    WriteFile(m_ftp.Login() / "file", m_bytes);
    WriteFile(m_folder / "file", m_bytes);
  }

  std::string m_bytes = RandomBytes(1 << 20);
  curl_off_t m_size = 1 << 20;
  TempDir m_folder;
  std::string m_source = m_folder / "file";
  NginxServer m_http{kDirectives};
  FtpServer m_ftp;
  TestRequest m_request{m_http.Port()};
  FtpRequest m_ftpRequest{m_ftp.Port()};
};

}  // namespace

TEST_F(TransferExtras, ProgressTellsWhatComes) {
  Progress progress;
  ASSERT_OK(m_request.setProgressCallBack(&progress, Progress::Take));
  for (int round = 0; round < 2; ++round) {
    progress.steps.clear();
    ASSERT_OK(m_request.Get("/file"));
    ASSERT_GE(progress.steps.size(), 2U);
    curl_off_t before = 0;
    for (const Progress::Step& step : progress.steps) {
      EXPECT_TRUE(step.toCome == 0 || step.toCome == m_size);
      EXPECT_GE(step.come, before);
      EXPECT_EQ(step.gone, 0);
      before = step.come;
    }
    EXPECT_EQ(progress.steps.back().toCome, m_size);
    EXPECT_EQ(progress.steps.back().come, m_size);
  }
}

TEST_F(TransferExtras, ProgressTellsWhatGoes) {
  Progress progress;
  ASSERT_OK(m_ftpRequest.setProgressCallBack(&progress, Progress::Take));
  ASSERT_OK(m_ftpRequest.uploadFile(m_source.c_str(), "sent", m_bytes.size(), {}));
  ASSERT_FALSE(progress.steps.empty());
  EXPECT_EQ(progress.steps.back().toGo, m_size);
  EXPECT_EQ(progress.steps.back().gone, m_size);
  EXPECT_EQ(progress.steps.back().come, 0);
}

TEST_F(TransferExtras, ProgressMayCancel) {
  RawServer slow({[](Peer& peer) {
    peer.ReadHttpRequest();
    peer.Send("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nbegin");
    peer.WaitForClose();
  }});
  TestRequest request(slow.Port());
  Progress progress;
  progress.cancelAt = 5;
  ASSERT_OK(request.setProgressCallBack(&progress, Progress::Take));
  EXPECT_FAILS(request.Get("/"), TransferCode(42), "Callback aborted");
  EXPECT_EQ(request.body.text, "begin");
  for (const Progress::Step& step : progress.steps) {
    const bool isLast = &step == &progress.steps.back();
    EXPECT_EQ(step.come, isLast ? 5 : 0) << "it is not asked again";
  }
  progress.cancelAt = 0;
  EXPECT_FAILS(request.Get("/"), TransferCode(42), "Callback aborted") << "before anything came";
  EXPECT_EQ(request.body.text, "");
}

TEST_F(TransferExtras, ProgressMayCancelAnUpload) {
  Progress progress;
  progress.cancelAt = 1;
  ASSERT_OK(m_ftpRequest.setProgressCallBack(&progress, Progress::Take));
  EXPECT_FAILS(m_ftpRequest.uploadFile(m_source.c_str(), "sent", m_bytes.size(), {}),
               TransferCode(42), "Callback aborted");
  progress.cancelAt = -1;
  EXPECT_OK(m_ftpRequest.uploadFile(m_source.c_str(), "sent", m_bytes.size(), {}));
  EXPECT_TRUE(ReadFile(m_ftp.Login() / "sent") == m_bytes);
}

TEST_F(TransferExtras, ProgressCanBeTakenAway) {
  Progress progress;
  progress.cancelAt = 0;
  ASSERT_OK(m_request.setProgressCallBack(&progress, Progress::Take));
  ASSERT_OK(m_request.setProgressCallBack(&progress, nullptr));
  ASSERT_OK(m_request.Get("/file"));
  EXPECT_TRUE(progress.steps.empty());
}

TEST_F(TransferExtras, OptionsSurviveRequests) {
  ASSERT_OK(m_request.setOption(CURLOPT_USERAGENT, std::string("agent/1 %s")));
  for (int round = 0; round < 2; ++round) {
    ASSERT_OK(m_request.Get("/agent"));
    EXPECT_EQ(m_request.body.text, "agent/1 %s");
  }
  ASSERT_OK(m_request.setOption(CURLOPT_USERAGENT, "agent/2"));
  ASSERT_OK(m_request.Get("/agent"));
  EXPECT_EQ(m_request.body.text, "agent/2");
}

TEST_F(TransferExtras, OptionsSurviveOperationsThatResetThem) {
  ASSERT_OK(m_request.setOption(CURLOPT_NOBODY, 1));
  ASSERT_OK(m_request.Get("/file"));
  EXPECT_EQ(m_request.body.text, "");
  double size = 0.0;
  ASSERT_OK(m_request.getFileInfo("/file", size)) << "this one sets it off at its end";
  ASSERT_OK(m_request.Get("/file"));
  EXPECT_EQ(m_request.body.text, "");
  ASSERT_OK(m_request.setOption(CURLOPT_NOBODY, 0));
  ASSERT_OK(m_request.setOption(CURLOPT_HTTPGET, 1));
  ASSERT_OK(m_request.Get("/file"));
  EXPECT_TRUE(m_request.body.text == m_bytes);
}

TEST_F(TransferExtras, OptionsTakeNumbersOfAllSizes) {
  ASSERT_OK(m_request.setOption(CURLOPT_MAXFILESIZE_LARGE, 1000LL));
  EXPECT_FAILS(m_request.Get("/file"), TransferCode(CURLE_FILESIZE_EXCEEDED), "[63]");
  ASSERT_OK(m_request.setOption(CURLOPT_MAXFILESIZE_LARGE, 5LL << 32));
  EXPECT_OK(m_request.Get("/file"));
  ASSERT_OK(m_request.setOption(CURLOPT_MAXREDIRS, 0L));
  EXPECT_FAILS(m_request.Get("/from"), TransferCode(CURLE_TOO_MANY_REDIRECTS), "[47]");
}

TEST_F(TransferExtras, OptionsTakeNoValueOfAnotherKind) {
  for (const int option :
       {int{CURLOPT_USERAGENT}, int{CURLOPT_WRITEDATA}, int{CURLOPT_WRITEFUNCTION},
        int{CURLOPT_SSLCERT_BLOB}, 10000, 20000, 99999}) {
    SCOPED_TRACE(option);
    const std::string text = "Option [" + std::to_string(option) + "] takes no such value";
    EXPECT_FAILS(m_request.setOption(option, 1), IntCode(1), text.c_str());
    EXPECT_FAILS(m_request.setOption(option, 1L), IntCode(1), text.c_str());
    EXPECT_FAILS(m_request.setOption(option, 1LL), IntCode(1), text.c_str());
  }
  for (const int option :
       {int{CURLOPT_NOBODY}, int{CURLOPT_MAXFILESIZE_LARGE}, int{CURLOPT_WRITEDATA},
        int{CURLOPT_HTTPHEADER}, int{CURLOPT_WRITEFUNCTION}, int{CURLOPT_POSTFIELDS},
        int{CURLOPT_ERRORBUFFER}, int{CURLOPT_SSLCERT_BLOB}, 0, 19999, 99999}) {
    SCOPED_TRACE(option);
    const std::string text = "Option [" + std::to_string(option) + "] takes no such value";
    EXPECT_FAILS(m_request.setOption(option, std::string("x")), IntCode(1), text.c_str());
  }
  EXPECT_OK(m_request.Get("/file"));
  EXPECT_TRUE(m_request.body.text == m_bytes);
}

TEST_F(TransferExtras, WhatLibcurlRefusesIsNotKept) {
  EXPECT_FAILS(m_request.setOption(9999, 1), TransferCode(CURLE_UNKNOWN_OPTION),
               "Failed to set option [9999]");
  EXPECT_FAILS(m_request.setOption(CURLOPT_PORT, 70000), TransferCode(CURLE_BAD_FUNCTION_ARGUMENT),
               "Failed to set option [3]");
  EXPECT_EQ(m_request.TransferResult(), CURLE_BAD_FUNCTION_ARGUMENT);
  EXPECT_OK(m_request.Get("/file"));
}

TEST_F(TransferExtras, ARefusedValueLeavesTheOneBefore) {
  // The upload sets this option itself, so only a value that is kept can show.
  ASSERT_OK(m_ftpRequest.setOption(CURLOPT_INFILESIZE_LARGE, 5LL));
  EXPECT_FAILS(m_ftpRequest.setOption(CURLOPT_INFILESIZE_LARGE, -2LL),
               TransferCode(CURLE_BAD_FUNCTION_ARGUMENT), "Failed to set option [30115]");
  EXPECT_FAILS(m_ftpRequest.uploadFile(m_source.c_str(), "sent", m_bytes.size(), {}),
               TransferCode(CURLE_PARTIAL_FILE), "[18]");
}

TEST_F(TransferExtras, NothingIsAcceptedBeforeInitialize) {
  KdCURL::KdHTTPReq request(KdCURL::HTTP);
  constexpr char kText[] =
      "KdProtocol class is not initialized yet. Call initialize function before any other "
      "function.";
  Progress progress;
  EXPECT_FAILS(request.setProgressCallBack(&progress, Progress::Take), IntCode(1), kText);
  EXPECT_FAILS(request.SetTimeOutMS(1), IntCode(1), kText);
  EXPECT_FAILS(request.SetConnectionTimeOutMS(1), IntCode(1), kText);
  EXPECT_FAILS(request.setMinimumSpeed(1, 1), IntCode(1), kText);
  EXPECT_FAILS(request.setNoSignal(true), IntCode(1), kText);
  EXPECT_FAILS(request.setOption(CURLOPT_NOBODY, 1), IntCode(1), kText);
  EXPECT_FAILS(request.setOption(CURLOPT_NOBODY, 1LL), IntCode(1), kText);
  EXPECT_FAILS(request.setOption(CURLOPT_USERAGENT, "x"), IntCode(1), kText);
  KdCURL::TransferTimes times;
  times.total = 5.0;
  EXPECT_TRUE(Failed(request.getTransferTimes(times)));
  EXPECT_EQ(times.total, 5.0);
}

TEST_F(TransferExtras, SignalsAreLeftAloneOnRequest) {
  // libcurl ignores SIGPIPE meanwhile, unless it is told to keep off signals.
  struct Look {
    bool isIgnored = false;
    static size_t Take(char*, size_t size, size_t count, void* look) {
      struct sigaction action {};
      sigaction(SIGPIPE, nullptr, &action);
      static_cast<Look*>(look)->isIgnored = action.sa_handler == SIG_IGN;
      return size * count;
    }
  };
  for (const bool noSignal : {false, true, false}) {
    Look look;
    ASSERT_OK(m_request.setNoSignal(noSignal));
    m_request.setWriteCallBack(&look, Look::Take);
    ASSERT_OK(m_request.download("/file", {}));
    EXPECT_EQ(look.isIgnored, !noSignal);
  }
}

TEST_F(TransferExtras, TimeLimitsMayBeMilliseconds) {
  RawServer silent({[](Peer& peer) { peer.WaitForClose(); }});
  const struct {
    const char* what;
    KdCURL::HTTPProtocol protocol;
    CZuError (KdCURL::KdProtocolReq::*set)(long);
  } cases[] = {
      {"whole request", KdCURL::HTTP, &KdCURL::KdProtocolReq::SetTimeOutMS},
      {"connecting, with TLS", KdCURL::HTTPS, &KdCURL::KdProtocolReq::SetConnectionTimeOutMS},
  };
  for (const auto& [what, protocol, set] : cases) {
    SCOPED_TRACE(what);
    TestRequest request(silent.Port(), protocol);
    ASSERT_OK(request.setSecured(false, ""));
    ASSERT_OK((request.*set)(300));
    const auto start = Clock::now();
    EXPECT_FAILS(request.Get("/"), TransferCode(CURLE_OPERATION_TIMEDOUT), "[28]");
    EXPECT_THAT(SecondsSince(start), AllOf(Ge(0.25), Le(10.0)));
  }
}

TEST_F(TransferExtras, ATransferThatIsTooSlowIsGivenUp) {
  RawServer slow({[](Peer& peer) {
    peer.ReadHttpRequest();
    peer.Send("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nbegin");
    peer.WaitForClose();
  }});
  TestRequest request(slow.Port());
  ASSERT_OK(request.setMinimumSpeed(1000, 1));
  const auto start = Clock::now();
  EXPECT_FAILS(request.Get("/"), TransferCode(CURLE_OPERATION_TIMEDOUT), "too slow");
  EXPECT_THAT(SecondsSince(start), AllOf(Ge(0.9), Le(15.0)));
  EXPECT_EQ(request.body.text, "begin");
}

TEST_F(TransferExtras, AnInterruptedDownloadGoesOnWhereItStopped) {
  const SftpServer sftp;
  WriteFile(sftp.Login() / "file", m_bytes);
  SftpRequest sftpRequest(sftp.Port());
  struct {
    KdCURL::KdProtocolReq& request;
    const char* path;
  } cases[] = {{m_request, "/file"}, {m_ftpRequest, "file"}, {sftpRequest, "~/file"}};
  for (const auto& [request, path] : cases) {
    SCOPED_TRACE(path);
    Interruption sink{"", 300001};
    request.setWriteCallBack(&sink, Interruption::Take);
    EXPECT_FAILS(request.download(path, {}), TransferCode(CURLE_WRITE_ERROR), "[23]");
    EXPECT_EQ(sink.text.size(), 300001U);
    sink.limit = m_bytes.size() + 1;
    request.setResumeOffset(static_cast<std::int64_t>(sink.text.size()));
    request.setWriteCallBack(&sink, Interruption::Take);
    EXPECT_OK(request.download(path, {}));
    EXPECT_TRUE(sink.text == m_bytes);
    // It counts for one request.
    sink.text.clear();
    request.setWriteCallBack(&sink, Interruption::Take);
    EXPECT_OK(request.download(path, {}));
    EXPECT_TRUE(sink.text == m_bytes);
  }
}

TEST_F(TransferExtras, AnInterruptedUploadGoesOnWhereItStopped) {
  constexpr size_t kThere = 300001;
  const SftpServer sftp;
  SftpRequest sftpRequest(sftp.Port());
  struct {
    KdCURL::KdProtocolReq& request;
    const char* path;
    std::filesystem::path stored;
  } cases[] = {{m_ftpRequest, "sent", m_ftp.Login() / "sent"},
               {sftpRequest, "~/sent", sftp.Login() / "sent"}};
  for (const auto& [request, path, stored] : cases) {
    SCOPED_TRACE(path);
    WriteFile(stored, m_bytes.substr(0, kThere));
    GiveToBob(stored);
    request.setResumeOffset(kThere);
    ASSERT_OK(request.uploadFile(m_source.c_str(), path, m_bytes.size(), {}));
    EXPECT_TRUE(ReadFile(stored) == m_bytes);
    // It counts for one request.
    ASSERT_OK(request.uploadFile(m_source.c_str(), path, m_bytes.size(), {}));
    EXPECT_TRUE(ReadFile(stored) == m_bytes);
    // A callback of the caller's begins with what is missing.
    std::filesystem::resize_file(stored, kThere);
    KdCURL::MemorySource rest(m_bytes.data() + kThere, m_bytes.size() - kThere);
    request.setResumeOffset(kThere);
    request.setReadCallBack(&rest, KdCURL::MemorySource::Read);
    ASSERT_OK(request.uploadFile("name", path, m_bytes.size(), {}));
    EXPECT_TRUE(ReadFile(stored) == m_bytes);
  }
}

TEST_F(TransferExtras, AServerThatCannotResumeIsAnError) {
  RawServer whole({RawServer::Answer("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n0123456789")});
  TestRequest request(whole.Port());
  request.setResumeOffset(5);
  EXPECT_FAILS(request.Get("/"), TransferCode(33), "[33]");
  EXPECT_EQ(request.body.text, "");
  EXPECT_THAT(whole.Received(1).at(0), HasSubstr("\r\nRange: bytes=5-\r\n"));
  m_ftpRequest.setResumeOffset(m_size + 1);
  EXPECT_FAILS(m_ftpRequest.Get("file"), TransferCode(36), "[36]");
  m_request.setResumeOffset(m_size + 1);
  EXPECT_FAILS(m_request.Get("/file"), TransferCode(0), "[416]");
}

TEST_F(TransferExtras, TimesAreZeroBeforeATransfer) {
  KdCURL::TransferTimes times;
  times.total = 5.0;
  times.address = "x";
  ASSERT_OK(m_request.getTransferTimes(times));
  EXPECT_EQ(times.total, 0.0);
  EXPECT_EQ(times.bytesReceived, 0);
  EXPECT_EQ(times.address, "");
  EXPECT_EQ(times.httpVersion, "");
}

TEST_F(TransferExtras, TimesTellHowTheTransferWent) {
  const Certificates certificates;
  const NginxServer https(kDirectives, certificates.RightHost());
  WriteFile(https.Folder() / "www/file", m_bytes);
  TestRequest httpsRequest(https.Port(), KdCURL::HTTPS);
  ASSERT_OK(httpsRequest.setSecured(true, certificates.Authority()));
  struct {
    KdCURL::KdProtocolReq& request;
    const char* path;
    bool hasTls;
    const char* version;
  } cases[] = {{m_request, "/file", false, "1.1"},
               {httpsRequest, "/file", true, "1.1"},
               {m_ftpRequest, "file", false, ""}};
  for (const auto& [request, path, hasTls, version] : cases) {
    SCOPED_TRACE(std::string(path) + (hasTls ? " with TLS" : ""));
    TextSink sink;
    request.setWriteCallBack(&sink, TextSink::Take);
    const auto start = Clock::now();
    ASSERT_OK(request.download(path, {}));
    const double elapsed = SecondsSince(start);
    KdCURL::TransferTimes times;
    ASSERT_OK(request.getTransferTimes(times));
    EXPECT_GT(times.connect, 0.0);
    EXPECT_GE(times.connect, times.nameLookup);
    EXPECT_EQ(times.tls > times.connect, hasTls) << times.tls;
    EXPECT_GT(times.firstByte, times.tls);
    EXPECT_GE(times.total, times.firstByte);
    EXPECT_LE(times.total, elapsed + 0.01);
    EXPECT_EQ(times.bytesReceived, m_size);
    EXPECT_EQ(times.bytesSent, 0);
    EXPECT_NEAR(static_cast<double>(times.receiveSpeed) * times.total, static_cast<double>(m_size),
                0.05 * static_cast<double>(m_size));
    EXPECT_EQ(times.sendSpeed, 0);
    EXPECT_EQ(times.address, "127.0.0.1");
    EXPECT_EQ(times.httpVersion, version);
  }
}

TEST_F(TransferExtras, TimesTellAboutUploadsToo) {
  ASSERT_OK(m_ftpRequest.uploadFile(m_source.c_str(), "sent", m_bytes.size(), {}));
  KdCURL::TransferTimes times;
  ASSERT_OK(m_ftpRequest.getTransferTimes(times));
  EXPECT_EQ(times.bytesSent, m_size);
  EXPECT_EQ(times.bytesReceived, 0);
  EXPECT_GT(times.sendSpeed, 0);
  EXPECT_GT(times.total, 0.0);
}

TEST_F(TransferExtras, TimesTellTheOldVersionOfHttp) {
  RawServer old({RawServer::Answer("HTTP/1.0 200 OK\r\n\r\ntext")});
  TestRequest request(old.Port());
  ASSERT_OK(request.Get("/"));
  KdCURL::TransferTimes times;
  ASSERT_OK(request.getTransferTimes(times));
  EXPECT_EQ(times.httpVersion, "1.0");
}

TEST_F(TransferExtras, SinksTakeTransfers) {
  const std::string path = m_folder / "received";
  KdCURL::FileSink file;
  ASSERT_OK(file.Open(path));
  m_request.setWriteCallBack(&file, KdCURL::FileSink::Write);
  ASSERT_OK(m_request.download("/file", {}));
  ASSERT_OK(file.Commit());
  EXPECT_TRUE(ReadFile(path) == m_bytes);

  KdCURL::StringSink text(m_bytes.size());
  m_request.setWriteCallBack(&text, KdCURL::StringSink::Write);
  ASSERT_OK(m_request.download("/file", {}));
  EXPECT_TRUE(text.GetText() == m_bytes);
}

TEST_F(TransferExtras, AFullSinkEndsTheTransfer) {
  KdCURL::FileSink disk;
  ASSERT_OK(disk.Open("/dev/full"));
  m_request.setWriteCallBack(&disk, KdCURL::FileSink::Write);
  EXPECT_FAILS(m_request.download("/file", {}), TransferCode(23), "[23]");
  EXPECT_FAILS(disk.Commit(), ErrNoCode(ENOSPC), "/dev/full");

  KdCURL::StringSink text(m_bytes.size() - 1);
  m_request.setWriteCallBack(&text, KdCURL::StringSink::Write);
  EXPECT_FAILS(m_request.download("/file", {}), TransferCode(23), "[23]");
  EXPECT_TRUE(text.IsOverLimit());
  EXPECT_TRUE(text.GetText() == m_bytes.substr(0, text.GetText().size()));
}

TEST_F(TransferExtras, ASourceThatCannotBeReadCancelsTheTransfer) {
  KdCURL::FileSource closed;
  m_ftpRequest.setReadCallBack(&closed, KdCURL::FileSource::Read);
  EXPECT_FAILS(m_ftpRequest.uploadFile("name", "sent", 10, {}),
               TransferCode(CURLE_ABORTED_BY_CALLBACK), "[42]");
  KdCURL::FileSource open;
  ASSERT_OK(open.Open(m_source));
  m_ftpRequest.setReadCallBack(&open, KdCURL::FileSource::Read);
  EXPECT_OK(m_ftpRequest.uploadFile("name", "sent", m_bytes.size(), {}));
  EXPECT_TRUE(ReadFile(m_ftp.Login() / "sent") == m_bytes);
}
