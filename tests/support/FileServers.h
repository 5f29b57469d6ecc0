#pragma once

#include <filesystem>
#include <string>

#include "support/Servers.h"

// Servers of files that log users in: bob with the password s3cret, who exists for these servers
// alone: a library that is loaded before theirs shows them an account file of the test's. For an
// ordinary user who runs the tests, bob is that user by another name.

// vsftpd. Clients see Root() as "/" and begin in Login(); both belong to bob.
class FtpServer : public Server {
 public:
  // `directives` are lines of vsftpd.conf.
  explicit FtpServer(const std::string& directives = "");

  // With TLS for whoever asks for it.
  explicit FtpServer(const Certificate& certificate, const std::string& directives = "");

  std::filesystem::path Root() const { return Folder() / "root"; }
  std::filesystem::path Login() const { return Root() / "login"; }

  // Connections, commands and answers so far, one a line.
  std::string Log() const { return ReadFile(Folder() / "vsftpd.log"); }
};

// sshd with its SFTP server. Clients begin in Login(), which belongs to bob; "/" is the machine's.
class SftpServer : public Server {
 public:
  SftpServer();

  std::filesystem::path Login() const { return Folder() / "login"; }
  std::filesystem::path Key() const { return Folder() / "client"; }  // opens bob's account
  std::filesystem::path PublicKey() const { return Folder() / "client.pub"; }
  std::filesystem::path OtherKey() const { return Folder() / "other"; }  // opens nothing

  // SHA-256 of the server's public key, in base64.
  std::string HostKeyHash() const;
};

// Apache with its module for listings. `directives` stand at the end of its configuration; files
// are served from Folder()/www.
class ApacheServer : public Server {
 public:
  explicit ApacheServer(const std::string& directives);
};

// Gives the file or folder to bob, unless it is his as everything that the tests make.
void GiveToBob(const std::filesystem::path& path);
