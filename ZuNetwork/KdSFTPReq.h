#pragma once

#include "ZuNetwork/KdFTPReq.h"

namespace KdCURL {

// Requests over SFTP: as FTP, with "sftp://" for a server without scheme.
class ZUNETWORK_API KdSFTPReq : public KdFTPReq {
 public:
  ~KdSFTPReq() override;
  CZuError splitServerAndURLPath(std::string& serverOut, std::string& urlPathOut) override;
};

}  // namespace KdCURL
