#include "support/Certificates.h"

#include "support/Process.h"

namespace {

constexpr char kConfiguration[] = R"([req]
distinguished_name = name
[name]
[authority]
basicConstraints = critical,CA:TRUE
keyUsage = critical,keyCertSign,cRLSign
subjectKeyIdentifier = hash
[ca]
default_ca = signer
[signer]
database = index.txt
new_certs_dir = .
rand_serial = yes
default_md = sha256
policy = policy
unique_subject = no
[policy]
commonName = supplied
)";

// The configuration's paths are relative.
constexpr char kSign[] = R"(cd "$1" && openssl ca -batch -notext -config openssl.cnf \
  -cert authority.pem -keyfile authority.key -in "$2" -out "$3" -extfile "$4" \
  -startdate "$5" -enddate "$6")";

}  // namespace

Certificates::Certificates() {
  WriteFile(m_folder / "openssl.cnf", kConfiguration);
  MakeAuthority("authority");
  MakeAuthority("other");
  constexpr char kLoopback[] = "IP:127.0.0.1,DNS:localhost";
  constexpr char kStart[] = "20200101000000Z";
  constexpr char kEnd[] = "20990101000000Z";
  MakeLeaf("right", kLoopback, kStart, kEnd);
  MakeLeaf("wrong", "DNS:elsewhere.example", kStart, kEnd);
  MakeLeaf("expired", kLoopback, kStart, "20210101000000Z");
}

void Certificates::MakeKeyAnd(const std::string& name, const std::vector<std::string>& what) const {
  std::vector<std::string> command = {
      "openssl",         "req",     "-config",       m_folder / "openssl.cnf",
      "-newkey",         "ec",      "-pkeyopt",      "ec_paramgen_curve:P-256",
      "-nodes",          "-keyout", Named(name).key, "-subj",
      "/CN=Test " + name};
  command.insert(command.end(), what.begin(), what.end());
  Run(command);
}

void Certificates::MakeAuthority(const std::string& name) const {
  MakeKeyAnd(name, {"-x509", "-extensions", "authority", "-days", "3650", "-out",
                    Named(name).certificate});
}

void Certificates::MakeLeaf(const std::string& name, const std::string& hosts,
                            const std::string& start, const std::string& end) const {
  const std::string request = m_folder / (name + ".csr");
  const std::string extensions = m_folder / (name + ".ext");
  WriteFile(extensions, "basicConstraints = CA:FALSE\nsubjectAltName = " + hosts + "\n");
  WriteFile(m_folder / "index.txt", "");
  MakeKeyAnd(name, {"-new", "-out", request});
  Run({"sh", "-c", kSign, "sh", m_folder.Path(), request, Named(name).certificate, extensions,
       start, end});
}
