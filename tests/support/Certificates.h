#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "support/TempDir.h"

// A certificate and its key, both PEM files.
struct Certificate {
  std::filesystem::path certificate;
  std::filesystem::path key;
};

// An authority and what it signed for servers of a test. Made by openssl.
class Certificates {
 public:
  Certificates();

  std::filesystem::path Authority() const { return m_folder / "authority.pem"; }
  std::filesystem::path OtherAuthority() const { return m_folder / "other.pem"; }  // signed nothing

  Certificate RightHost() const { return Named("right"); }  // for 127.0.0.1 and localhost
  Certificate WrongHost() const { return Named("wrong"); }  // for a name that no test uses
  Certificate Expired() const { return Named("expired"); }  // for 127.0.0.1, some years ago

 private:
  Certificate Named(const std::string& name) const {
    return {m_folder / (name + ".pem"), m_folder / (name + ".key")};
  }
  void MakeKeyAnd(const std::string& name, const std::vector<std::string>& what) const;
  void MakeAuthority(const std::string& name) const;
  void MakeLeaf(const std::string& name, const std::string& hosts, const std::string& start,
                const std::string& end) const;

  TempDir m_folder;
};
