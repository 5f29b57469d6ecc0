#pragma once

#include <random>
#include <string>

#include "ZuNetwork/KdSFTPReq.h"
#include "servers/TestRequest.h"

// Requests of bob, who has an account on an FtpServer and an SftpServer.
template <typename Protocol>
class FileRequest : public LocalRequest<Protocol> {
 public:
  explicit FileRequest(int port) : LocalRequest<Protocol>(port) {
    EXPECT_OK(this->setCredentials("bob", "s3cret"));
  }
};

using FtpRequest = FileRequest<KdCURL::KdFTPReq>;
using SftpRequest = FileRequest<KdCURL::KdSFTPReq>;

// Bytes in which a lost, doubled or moved piece shows; the same ones for the same size.
inline std::string RandomBytes(size_t size) {
  std::mt19937 random(static_cast<unsigned>(size));
  std::string bytes(size, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random());
  return bytes;
}
