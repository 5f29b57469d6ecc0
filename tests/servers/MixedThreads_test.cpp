#include <gmock/gmock.h>

#include <functional>
#include <thread>
#include <vector>

#include "servers/FileRequest.h"
#include "support/FileServers.h"

namespace {

constexpr char kDirectives[] = R"(
location /dav/ { dav_methods PUT DELETE; create_full_put_path on; }
)";
constexpr int kThreads = 16;
constexpr int kRounds = 3;

// Puts a text, gets it back and deletes it.
void RunHttp(TestRequest& request, const std::string& name) {
  const std::string path = "/dav/" + name;
  for (int round = 0; round < kRounds; ++round) {
    const std::string text = RandomBytes(50000 + static_cast<size_t>(round));
    EXPECT_OK(
        request.doPutOperation(path.c_str(), text.data(), static_cast<long>(text.size()), {}));
    EXPECT_OK(request.Get(path.c_str()));
    EXPECT_TRUE(request.body.text == text);
    EXPECT_OK(request.doDeleteOperation(path.c_str(), "", 0, {}));
    EXPECT_FAILS(request.Get(path.c_str()), TransferCode(0), "[404]");
  }
}

// Uploads a file, gets it back, asks for its size, lists its folder and misses another one.
template <typename Request>
void RunFiles(Request& request, const std::string& folder, const std::string& name) {
  const TempDir local;
  const std::string path = folder + "/" + name + "/file";
  for (int round = 0; round < kRounds; ++round) {
    const std::string text = RandomBytes(50000 + static_cast<size_t>(round));
    WriteFile(local / "source", text);
    EXPECT_OK(request.uploadFile((local / "source").c_str(), path.c_str(), text.size(), {}));
    EXPECT_OK(request.Get(path.c_str()));
    EXPECT_TRUE(request.body.text == text);
    double size = 0.0;
    EXPECT_OK(request.Collect().getFileInfo(path, size));
    EXPECT_EQ(size, static_cast<double>(text.size()));
    EXPECT_OK(request.Collect().getFilesAndDirsInfoInFile(folder + "/" + name));
    EXPECT_THAT(request.body.text, testing::HasSubstr("file\n"));
    EXPECT_FAILS(request.Get((path + ".absent").c_str()), TransferCode(CURLE_REMOTE_FILE_NOT_FOUND),
                 "[78]");
  }
}

}  // namespace

TEST(MixedThreads, EveryProtocolAtTheSameTime) {
  const Certificates certificates;
  const NginxServer http(kDirectives);
  const NginxServer https(kDirectives, certificates.RightHost());
  const FtpServer ftp(certificates.RightHost());
  const SftpServer sftp;
  const std::function<void(const std::string& name)> work[] = {
      [&](const std::string& name) {
        TestRequest request(http.Port());
        RunHttp(request, name);
      },
      [&](const std::string& name) {
        TestRequest request(https.Port(), KdCURL::HTTPS);
        EXPECT_OK(request.setSecured(true, certificates.Authority()));
        RunHttp(request, name);
      },
      [&](const std::string& name) {
        FtpRequest request(ftp.Port());
        RunFiles(request, "/login", name);
      },
      [&](const std::string& name) {
        FtpRequest request(ftp.Port());
        EXPECT_OK(request.setSecured(true, certificates.Authority()));
        EXPECT_OK(request.setSSL());
        RunFiles(request, "/login", name);
      },
      [&](const std::string& name) {
        SftpRequest request(sftp.Port());
        RunFiles(request, "~", name);
      },
  };
  KdCURL::KdProtocolReq::initializeCurlLibrary();
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (size_t i = 0; i < kThreads; ++i) {
    threads.emplace_back(work[i % std::size(work)], "thread" + std::to_string(i));
  }
  for (std::thread& thread : threads) thread.join();
}
