#pragma once

#include <memory>
#include <string>

#include "support/Certificates.h"
#include "support/Process.h"
#include "support/TempDir.h"

// A server program on a free port of 127.0.0.1, with a folder for its configuration and files.
// Constructors return once it answers and throw when it does not.
class Server {
 public:
  int Port() const { return m_port; }
  const TempDir& Folder() const { return m_folder; }

 protected:
  Server() = default;
  ~Server() = default;

  // The configuration is in the folder.
  void Start(const std::vector<std::string>& command);

 private:
  TempDir m_folder;
  int m_port = FreePort();
  std::unique_ptr<Process> m_process;  // ends before the folder goes
};

// nginx with the echo module. `directives` stand inside its server { }; files are served from
// Folder()/www, and "passwords" in a directive is Folder()/passwords.
class NginxServer : public Server {
 public:
  explicit NginxServer(const std::string& directives);
  NginxServer(const std::string& directives, const Certificate& certificate);

 private:
  void Start(const std::string& listen, const std::string& directives);
};

// lighttpd, for what nginx lacks. Files are served from Folder()/www; below /digest/ they want
// digest authentication, below /basic/ basic, both of bob with s3cret. A file that ends in ".sh" is
// run by the shell and given the request's body. `directives` stand at the end of its
// configuration.
class LighttpdServer : public Server {
 public:
  explicit LighttpdServer(const std::string& directives = "");
};

// An HTTP proxy, which puts "Via: 1.1 tinyproxy" into the requests it forwards. With a user it
// wants basic authentication.
class TinyProxy : public Server {
 public:
  explicit TinyProxy(const std::string& user = "", const std::string& password = "");
};
