#include "support/FileServers.h"

#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace {

namespace fs = std::filesystem;

constexpr int kBob = 65533;
constexpr int kNoGroup = 65534;

// The password is s3cret.
constexpr char kShadow[] =
    "bob:$6$zunetwork$fXe38am8xSM4UlU3znhh/Kdn6KqV1X2LT4LiD/sSUEwRaGZnjqB7Y7bH/DYdtAas."
    "gkVXEYSQXkVQBkSHcoq20:19000:0:99999:7:::\n";

constexpr char kPam[] = "auth required pam_unix.so nodelay\naccount required pam_unix.so\n";

// $1 is the folder with the account files; the program and its arguments follow.
constexpr char kRun[] = R"(cd "$1" && shift &&
mount --bind passwd /etc/passwd && mount --bind shadow /etc/shadow &&
mount --bind pam /etc/pam.d/vsftpd && mount -t tmpfs tmpfs /run && mkdir -m 755 /run/sshd &&
exec "$@")";

// The command that runs `program` where bob exists; his home is `home`.
std::vector<std::string> WithBob(const TempDir& folder, const std::string& home,
                                 const std::vector<std::string>& program) {
  fs::permissions(folder.Path(), fs::perms{0711});
  WriteFile(folder / "passwd", ReadFile("/etc/passwd") + "bob:x:" + std::to_string(kBob) + ":" +
                                   std::to_string(kNoGroup) + ":Bob:" + home + ":/bin/sh\n");
  WriteFile(folder / "shadow", kShadow);
  WriteFile(folder / "pam", kPam);
  std::vector<std::string> command = {"unshare", "--mount", "--propagation", "private", "sh", "-c",
                                      kRun,      "sh",      folder.Path()};
  command.insert(command.end(), program.begin(), program.end());
  return command;
}

void MakeForBob(const fs::path& path) {
  fs::create_directories(path);
  GiveToBob(path);
}

void MakeKey(const fs::path& path) {
  Run({"ssh-keygen", "-q", "-t", "ecdsa", "-m", "PEM", "-N", "", "-f", path});
}

}  // namespace

void GiveToBob(const fs::path& path) {
  if (lchown(path.c_str(), kBob, kNoGroup) != 0) {
    throw std::system_error(errno, std::generic_category(), path.string());
  }
}

FtpServer::FtpServer(const std::string& directives) {
  const std::string folder = Folder().Path();
  MakeForBob(Root());
  MakeForBob(Login());
  fs::create_directories(Folder() / "empty");
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
pam_service_name=vsftpd
delay_failed_login=0
max_per_ip=0
log_ftp_protocol=YES
xferlog_enable=YES
vsftpd_log_file=)" + folder + "/vsftpd.log\nsecure_chroot_dir=" +
                                          folder + "/empty\nlisten_port=" + std::to_string(Port()) +
                                          "\n" + directives);
  // The "/./" ends the part of the path that clients do not see.
  Start(WithBob(Folder(), Root() / "." / "login", {"/usr/sbin/vsftpd", Folder() / "vsftpd.conf"}));
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
  for (const char* const key : {"host", "client", "other"}) MakeKey(Folder() / key);
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
  Start(WithBob(Folder(), Login(), {"/usr/sbin/sshd", "-D", "-e", "-f", Folder() / "sshd.conf"}));
}

std::string SftpServer::HostKeyHash() const {
  const std::string line = Run({"ssh-keygen", "-l", "-E", "sha256", "-f", Folder() / "host.pub"});
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
LoadModule mpm_prefork_module /usr/lib/apache2/modules/mod_mpm_prefork.so
LoadModule authz_core_module /usr/lib/apache2/modules/mod_authz_core.so
LoadModule autoindex_module /usr/lib/apache2/modules/mod_autoindex.so
LoadModule dir_module /usr/lib/apache2/modules/mod_dir.so
)" + directives);
  Start({"apache2", "-D", "FOREGROUND", "-f", configuration});
}
