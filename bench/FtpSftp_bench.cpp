// Files by FTP and SFTP, both ways, beside libcurl, linked and called in the same way, and POCO.

#include <Poco/Net/FTPClientSession.h>
#include <Poco/URI.h>
#include <fcntl.h>
#include <unistd.h>

#include <fstream>
#include <istream>
#include <memory>
#include <ostream>
#include <string>
#include <utility>

#include "Compare.h"
#include "PlainCurl.h"
#include "ZuNetwork/KdSFTPReq.h"

namespace {

// The other side of a transfer: a server, who asks there, whether each transfer has a connection of
// its own (or the server's process behind the one may be slower than that behind the other for all
// turns), and the names of a file to get, a file to send and the name it gets.
struct Peer {
  std::string server;
  std::string user;
  std::string password;
  std::string key;
  bool isNewConnection;
  std::string remoteFile;
  std::string localFile;
  std::string remoteTarget;
  size_t size;
};

// Each of the following has Download and Upload.

template <typename Request>
class Ours {
 public:
  explicit Ours(Peer peer) : m_peer(std::move(peer)) {
    if (Failed(m_request.initialize())) std::abort();
    if (Failed(m_request.setTraceCallBack(this, Silence))) std::abort();
    if (Failed(m_request.setCredentials(m_peer.user, m_peer.password))) std::abort();
    m_request.setURL(m_peer.server);
    const long forbidReuse = m_peer.isNewConnection ? 1 : 0;
    if (Failed(m_request.setOption(CURLOPT_FORBID_REUSE, forbidReuse))) std::abort();
    if (m_peer.key.empty()) return;
    if (Failed(m_request.setOption(CURLOPT_SSH_PRIVATE_KEYFILE, m_peer.key))) std::abort();
  }

  void Download() {
    size_t bytes = 0;
    m_request.setWriteCallBack(&bytes, CountBytes);
    if (Failed(m_request.download(m_peer.remoteFile.c_str(), {}))) std::abort();
    if (bytes != m_peer.size) std::abort();
  }

  void Upload() {
    if (Failed(m_request.uploadFile(m_peer.localFile.c_str(), m_peer.remoteTarget.c_str(),
                                    m_peer.size, {}))) {
      std::abort();
    }
  }

 private:
  Peer m_peer;
  Request m_request;
};

class Same {
 public:
  explicit Same(Peer peer) : m_peer(std::move(peer)) {
    m_curl.Set(CURLOPT_USERPWD, (m_peer.user + ":" + m_peer.password).c_str());
    m_curl.Set(CURLOPT_FORBID_REUSE, m_peer.isNewConnection ? 1L : 0L);
    if (!m_peer.key.empty()) m_curl.Set(CURLOPT_SSH_PRIVATE_KEYFILE, m_peer.key.c_str());
  }

  void Download() {
    size_t bytes = 0;
    SetUrl(m_peer.remoteFile);
    m_curl.SetCallBack(CURLOPT_WRITEDATA, CURLOPT_WRITEFUNCTION, &bytes, CountBytes);
    m_curl.Perform();
    m_curl.SetCallBack(CURLOPT_WRITEDATA, CURLOPT_WRITEFUNCTION, nullptr, nullptr);
    if (bytes != m_peer.size) std::abort();
  }

  void Upload() {
    int descriptor = open(m_peer.localFile.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor == -1) std::abort();
    SetUrl(m_peer.remoteTarget);
    m_curl.Set(CURLOPT_UPLOAD, 1L);
    m_curl.Set(CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(m_peer.size));
    m_curl.Set(CURLOPT_FTP_CREATE_MISSING_DIRS, 1L);
    m_curl.SetCallBack(CURLOPT_READDATA, CURLOPT_READFUNCTION, &descriptor, ReadFile);
    m_curl.Perform();
    m_curl.SetCallBack(CURLOPT_READDATA, CURLOPT_READFUNCTION, nullptr, nullptr);
    m_curl.Set(CURLOPT_UPLOAD, 0L);
    m_curl.Set(CURLOPT_INFILESIZE_LARGE, curl_off_t{0});
    close(descriptor);
  }

 private:
  static size_t ReadFile(char* buffer, size_t size, size_t count, void* instance) {
    const ssize_t length = read(*static_cast<int*>(instance), buffer, size * count);
    return length == -1 ? CURL_READFUNC_ABORT : static_cast<size_t>(length);
  }

  void SetUrl(const std::string& path) {
    m_curl.Set(CURLOPT_URL, (m_peer.server + "/" + path).c_str());
    m_curl.Set(CURLOPT_HTTPPROXYTUNNEL, 1L);
  }

  Peer m_peer;
  SameCurl m_curl;
};

class PocoFtp {
 public:
  explicit PocoFtp(Peer peer) : m_peer(std::move(peer)) {}

  void Download() {
    Poco::Net::FTPClientSession session(m_uri.getHost(), m_uri.getPort(), m_peer.user,
                                        m_peer.password);
    std::istream& data = session.beginDownload(m_peer.remoteFile);
    size_t bytes = 0;
    while (data.read(m_buffer, sizeof m_buffer), data.gcount() > 0) {
      bytes += static_cast<size_t>(data.gcount());
    }
    session.endDownload();
    if (bytes != m_peer.size) std::abort();
  }

  void Upload() {
    Poco::Net::FTPClientSession session(m_uri.getHost(), m_uri.getPort(), m_peer.user,
                                        m_peer.password);
    std::ifstream file(m_peer.localFile, std::ios::binary);
    std::ostream& data = session.beginUpload(m_peer.remoteTarget);
    while (file.read(m_buffer, sizeof m_buffer), file.gcount() > 0) {
      data.write(m_buffer, file.gcount());
    }
    session.endUpload();
  }

 private:
  Peer m_peer;
  Poco::URI m_uri{m_peer.server};
  char m_buffer[16 * 1024] = {};
};

template <typename Client>
Timed Transfer(const char* name, const Peer& peer, bool isUpload) {
  return Call(name, [client = std::make_shared<Client>(peer), isUpload] {
    isUpload ? client->Upload() : client->Download();
  });
}

constexpr char kSameOptions[] = "linked libcurl with the same options";

const char* Operation(bool isUpload) { return isUpload ? "uploadFile" : "download"; }

void Ftp(benchmark::State& state, bool isUpload) {
  const char* const server = FromEnvironment(state, "ZUNETWORK_BENCH_FTP");
  const char* const folder = FromEnvironment(state, "ZUNETWORK_BENCH_FILES");
  const char* const password = FromEnvironment(state, "ZUNETWORK_BENCH_FTP_PASSWORD");
  if (server == nullptr || folder == nullptr || password == nullptr) return;
  const Peer peer{server,
                  "ftp",
                  password,
                  "",
                  true,
                  "64MiB.bin",
                  folder + std::string("/64MiB.bin"),
                  "in/64MiB.bin",
                  size_t{64} << 20};
  Compare(state, Ratio(1.02), Transfer<Ours<KdCURL::KdFTPReq>>(Operation(isUpload), peer, isUpload),
          Transfer<Same>(kSameOptions, peer, isUpload),
          {Transfer<PocoFtp>("POCO", peer, isUpload)});
}
ROW_OF(Ftp, "FTP/Download64MiB", false);
ROW_OF(Ftp, "FTP/Upload64MiB", true);

void Sftp(benchmark::State& state, bool isUpload) {
  const char* const server = FromEnvironment(state, "ZUNETWORK_BENCH_SFTP");
  const char* const user = FromEnvironment(state, "ZUNETWORK_BENCH_SFTP_USER");
  const char* const key = FromEnvironment(state, "ZUNETWORK_BENCH_SFTP_KEY");
  const char* const folder = FromEnvironment(state, "ZUNETWORK_BENCH_FILES");
  if (server == nullptr || user == nullptr || key == nullptr || folder == nullptr) return;
  const std::string file = folder + std::string("/16MiB.bin");
  const std::string remote = file.substr(1);  // the slash that ends the server is the first one
  const Peer peer{server, user, "", key, false, remote, file, remote + ".in", size_t{16} << 20};
  Compare(state, Ratio(1.02),
          Transfer<Ours<KdCURL::KdSFTPReq>>(Operation(isUpload), peer, isUpload),
          Transfer<Same>(kSameOptions, peer, isUpload));
}
ROW_OF(Sftp, "SFTP/Download16MiB", false);
ROW_OF(Sftp, "SFTP/Upload16MiB", true);

}  // namespace
