#include "support/FileServers.h"

#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

#include "support/LeaveOut.h"

namespace {

namespace fs = std::filesystem;

constexpr int kBob = 65533;
constexpr int kNoGroup = 65534;

// As passwd(5) has it without a shadow file. The password is s3cret.
constexpr char kPassword[] =
    "$6$zunetwork$fXe38am8xSM4UlU3znhh/Kdn6KqV1X2LT4LiD/sSUEwRaGZnjqB7Y7bH/DYdtAas."
    "gkVXEYSQXkVQBkSHcoq20";

bool IsRoot() { return geteuid() == 0; }

std::string Library(const std::string& name) {
  return FindServerFile("/usr/lib/x86_64-linux-gnu/" + name);
}

// The command that runs `program` where bob exists, as root or as the user who runs the test; his
// home is `home`.
std::vector<std::string> WithBob(const TempDir& folder, const std::string& home,
                                 const std::vector<std::string>& program) {
  const uid_t user = IsRoot() ? kBob : geteuid();
  const gid_t group = IsRoot() ? kNoGroup : getegid();
  fs::permissions(folder.Path(), fs::perms{0711});
  WriteFile(folder / "passwd", ReadFile("/etc/passwd") + "bob:" + kPassword + ":" +
                                   std::to_string(user) + ":" + std::to_string(group) +
                                   ":Bob:" + home + ":/bin/sh\n");
  std::vector<std::string> command = {
      "env", "LD_PRELOAD=" + Library("libnss_wrapper.so") + ":" + Library("libuid_wrapper.so"),
      "NSS_WRAPPER_PASSWD=" + (folder / "passwd").string(), "NSS_WRAPPER_GROUP=/etc/group"};
  command.insert(command.end(), program.begin(), program.end());
  command[4] = FindProgram(command[4]);
  return command;
}

// vsftpd wants to be root, who shows a client nothing but its folder and then becomes its user. An
// ordinary user is root in a namespace of his own, where there is nobody else to become: there a
// library lets vsftpd believe that it did. Files stay as closed as they are to their owner.
std::vector<std::string> AsRoot(const std::vector<std::string>& program) {
  if (IsRoot()) return program;
  std::vector<std::string> command = {"unshare",
                                      "--user",
                                      "--map-root-user",
                                      "setpriv",
                                      "--bounding-set=-dac_override,-dac_read_search",
                                      "env",
                                      "UID_WRAPPER=1",
                                      "UID_WRAPPER_ROOT=1"};
  try {
    Run({"unshare", "--user", "--map-root-user", "true"});
  } catch (const std::runtime_error& error) {
    LeaveOut(std::string("vsftpd needs root or a user namespace: ") + error.what());
  }
  command.insert(command.end(), program.begin(), program.end());
  return command;
}

// sshd serves one user alone when it runs as that one, and needs no privilege for it.
std::vector<std::string> AsBob(const std::vector<std::string>& program) {
  if (!IsRoot()) return program;
  std::vector<std::string> command = {"setpriv", "--reuid=" + std::to_string(kBob),
                                      "--regid=" + std::to_string(kNoGroup), "--clear-groups"};
  command.insert(command.end(), program.begin(), program.end());
  return command;
}

void MakeForBob(const fs::path& path) {
  fs::create_directories(path);
  GiveToBob(path);
}

}  // namespace

void GiveToBob(const fs::path& path) {
  if (!IsRoot()) return;
  if (lchown(path.c_str(), kBob, kNoGroup) != 0) {
    throw std::system_error(errno, std::generic_category(), path.string());
  }
}

FtpServer::FtpServer(const std::string& directives) {
  const std::string folder = Folder().Path();
  MakeForBob(Root());
  MakeForBob(Login());
  WriteFile(Folder() / "vsftpd.log", "");  // it is made at the first connection only
  WriteFile(Folder() / "vsftpd.conf", R"(listen=YES
listen_address=127.0.0.1
background=NO
anonymous_enable=NO
local_enable=YES
local_umask=022
chroot_local_user=YES
passwd_chroot_enable=YES
allow_writeable_chroot=YES
write_enable=YES
seccomp_sandbox=NO
isolate=NO
isolate_network=NO
connect_from_port_20=NO
pasv_address=127.0.0.1
pam_service_name=other
delay_failed_login=0
max_per_ip=0
log_ftp_protocol=YES
xferlog_enable=YES
secure_chroot_dir=/proc
vsftpd_log_file=)" + folder + "/vsftpd.log\nlisten_port=" +
                                          std::to_string(Port()) + "\n" + directives);
  // The "/./" ends the part of the path that clients do not see.
  Start(AsRoot(WithBob(Folder(), Root() / "." / "login", {"vsftpd", Folder() / "vsftpd.conf"})));
}

FtpServer::FtpServer(const Certificate& certificate, const std::string& directives)
    : FtpServer("ssl_enable=YES\nrsa_cert_file=" + certificate.certificate.string() +
                "\nrsa_private_key_file=" + certificate.key.string() +
                "\nssl_ciphers=HIGH\nrequire_ssl_reuse=NO\nforce_local_data_ssl=NO\n"
                "force_local_logins_ssl=NO\n" +
                directives) {}

SftpServer::SftpServer() {
  const std::string folder = Folder().Path();
  MakeForBob(Login());
  for (const char* const key : {"host", "client", "other"}) {
    // It works for nobody who has no name.
    Run(WithBob(Folder(), Login(),
                {"ssh-keygen", "-q", "-t", "ecdsa", "-m", "PEM", "-N", "", "-f", Folder() / key}));
  }
  WriteFile(Folder() / "sshd.conf", "Port " + std::to_string(Port()) + "\nHostKey " + folder +
                                        "/host\nAuthorizedKeysFile " + folder + R"(/client.pub
ListenAddress 127.0.0.1
StrictModes no
UsePAM no
PidFile none
PasswordAuthentication yes
MaxStartups 100
Subsystem sftp internal-sftp
)");
  GiveToBob(Folder() / "host");
  GiveToBob(Folder() / "sshd.conf");
  Start(AsBob(WithBob(Folder(), Login(), {"sshd", "-D", "-e", "-f", Folder() / "sshd.conf"})));
}

std::string SftpServer::HostKeyHash() const {
  const std::string line = Run(WithBob(
      Folder(), Login(), {"ssh-keygen", "-l", "-E", "sha256", "-f", Folder() / "host.pub"}));
  constexpr char kName[] = "SHA256:";
  const size_t start = line.find(kName) + sizeof kName - 1;
  return line.substr(start, line.find(' ', start) - start);
}

ApacheServer::ApacheServer(const std::string& directives) {
  const std::string folder = Folder().Path();
  const std::string configuration = Folder() / "apache.conf";
  fs::permissions(Folder().Path(), fs::perms{0711});
  fs::create_directories(Folder() / "www");
  WriteFile(configuration, "ServerRoot " + folder + "\nListen 127.0.0.1:" + std::to_string(Port()) +
                               "\nPidFile " + folder + "/pid\nDefaultRuntimeDir " + folder +
                               "\nDocumentRoot " + folder + R"(/www
ServerName localhost
ErrorLog /dev/stderr
User nobody
Group nogroup
Define modules )" + FindServerFile("/usr/lib/apache2/modules") +
                               R"(
LoadModule mpm_prefork_module ${modules}/mod_mpm_prefork.so
LoadModule authz_core_module ${modules}/mod_authz_core.so
LoadModule autoindex_module ${modules}/mod_autoindex.so
LoadModule dir_module ${modules}/mod_dir.so
)" + directives);
  Start({"apache2", "-D", "FOREGROUND", "-f", configuration});
}
