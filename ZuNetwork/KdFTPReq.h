#pragma once

#include "ZuNetwork/KdProtocolReq.h"

namespace KdCURL {

// Requests over FTP and, with setSSL(), FTPS. A reply code from 100 to 399 is a success, and so is
// none at all. Uploads, downloads, listings, sizes and existence work; the POST, PUT and DELETE
// operations fail with ErrorInt 101, "Invalid OpType [%d] for FTP protocol".
//
// uploadFile() reads its source file, unless a read callback is set; missing directories on the
// server are created. The pairs given to an operation are sent as commands ("field:value") before
// the transfer. A proxy that is set is tunnelled through. libcurl hands size and date of a file,
// as lines like HTTP headers, to the write callback of a request that asks for no body.
//
// A path that begins with a slash is one from the server's root, any other one from the login
// directory.
class ZUNETWORK_API KdFTPReq : public KdProtocolReq {
 public:
  KdFTPReq() = default;

  CZuError isOperationSuccess(bool& bIsSucess) override;

  // Appends "name:value" to the commands that are sent before the transfer.
  CZuError setHeaders(const std::map<std::string, std::string>& headerMap) override;

  ~KdFTPReq() override;

  // Appends the entries of a listing of names, one a line. Every entry is reported as a directory
  // (`isFile` false), since names tell no more; IsFile() does. `sourcePath` is not used.
  //
  //                    strict (the default)           lenient (setLenientListing)
  //   a line ends in   CR LF                          LF, as libcurl delivers it, or CR LF
  //   without an end   the last line is ignored       the last line counts
  //   a name           the line as it is, also empty  what can be that of a file: not empty, "."
  //                                                   or "..", without slash or control character
  //   a zero byte      ends the listing               ErrorInt 101, with its position
  //
  // A strict name is what the server wrote: before a program makes a path of it, or shows it, it
  // has to look. ErrorInt 1 for a null list; a file that cannot be read has its own error.
  CZuError collectFilesAndDir(const std::string& fileName, std::vector<FileDirInfo>* vFilDirList,
                              std::string sourcePath) override;

  CZuError getFullWorkingURL(std::string& strURL) override;
  CZuError unsetOpTypeParameter() override;
  CZuError setMethodParameter() override;

  // Plain instead of extended passive mode.
  CZuError setDefaults() override;

  CZuError splitServerAndURLPath(std::string& serverOut, std::string& urlPathOut) override;

  // Asks for the path as a directory; a server that does not enter it means a file.
  CZuError IsFile(const std::string& sourcePath, bool& isFile) override;

  // Adds a command, as it is, to those that are sent before the next transfer: "DELE old.txt" for
  // FTP, "rm /home/bob/old.txt" for SFTP (see CURLOPT_QUOTE). That transfer is refused, with
  // ErrorInt 1, when the command holds CR, LF or NUL.
  CZuError addQuoteCommand(const std::string& command);

  // The ways to log in at an SSH server: CURLSSH_AUTH_* bits.
  CZuError setFTPAuth(int param);

  // The longest time to wait for a reply of the server, in seconds.
  CZuError SetFTPResponseTimeOut(long secs);

  // Requires TLS on the control connection; data connections stay plain.
  CZuError setSSL();

  // Lets the server connect to `host`:`port`, or, when both are empty, to the address of the
  // control connection and any port.
  CZuError setActiveMode(const std::string& host, const std::string& port);
  CZuError disableActiveMode();

 protected:
  // The split for a scheme such as "ftp://".
  void SplitByScheme(const std::string& scheme, std::string& serverOut,
                     std::string& urlPathOut) const;

  curl_slist* m_headerList = nullptr;  // owned; the lines given to CURLOPT_QUOTE

 private:
  ZUNETWORK_LOCAL CZuError OpenSourceFile(const FXCodeLocation& where);
};

}  // namespace KdCURL
