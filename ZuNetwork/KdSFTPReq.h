#pragma once

#include "ZuNetwork/KdFTPReq.h"

namespace KdCURL {

// Requests over SFTP: as FTP, with "sftp://" for a server without scheme. A path that begins with
// "~/" starts in the home directory, any other one at the server's root. There are no reply codes.
//
// Any host key is taken, and a stranger in between reads the password, until the keys are checked:
//
//   error = request.setOption(CURLOPT_SSH_KNOWNHOSTS, "/home/bob/.ssh/known_hosts");
//
// A host without its line there is then libcurl's code 60.
//
// libcurl takes an empty file for one of unknown size: getFileInfo() refuses it, and it reads as
// absent. It does not look at a directory whose listing is not wanted: any path reads as that of a
// directory, present and no file.
class ZUNETWORK_API KdSFTPReq : public KdFTPReq {
 public:
  ~KdSFTPReq() override;
  CZuError splitServerAndURLPath(std::string& serverOut, std::string& urlPathOut) override;
};

}  // namespace KdCURL
