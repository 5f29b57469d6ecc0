#include "support/Servers.h"

void Server::Start(const std::vector<std::string>& command) {
  m_process = std::make_unique<Process>(command, m_folder / "log");
  m_process->WaitForPort(m_port);
}

NginxServer::NginxServer(const std::string& directives) { Start("", directives); }

NginxServer::NginxServer(const std::string& directives, const Certificate& certificate) {
  Start(" ssl", "ssl_certificate " + certificate.certificate.string() + ";\nssl_certificate_key " +
                    certificate.key.string() + ";\n" + directives);
}

void NginxServer::Start(const std::string& listen, const std::string& directives) {
  const std::string configuration = Folder() / "nginx.conf";
  std::filesystem::create_directories(Folder() / "www");
  WriteFile(configuration, R"(daemon off;
master_process off;
pid nginx.pid;
error_log stderr;
load_module )" + FindServerFile("/usr/lib/nginx/modules/ngx_http_echo_module.so") +
                               R"(;
events { worker_connections 256; }
http {
  access_log off;
  client_body_temp_path body;
  proxy_temp_path proxy;
  fastcgi_temp_path fastcgi;
  uwsgi_temp_path uwsgi;
  scgi_temp_path scgi;
  client_max_body_size 0;
  server {
    root www;
    listen 127.0.0.1:)" + std::to_string(Port()) +
                               listen + ";\n" + directives + "\n  }\n}\n");
  Server::Start({"nginx", "-e", "stderr", "-p", Folder().Path(), "-c", configuration});
}

LighttpdServer::LighttpdServer(const std::string& directives) {
  const std::string folder = Folder().Path();
  const std::string configuration = Folder() / "lighttpd.conf";
  std::filesystem::create_directories(Folder() / "www");
  WriteFile(Folder() / "passwords", "bob:s3cret\n");
  WriteFile(configuration, R"(server.modules = ("mod_auth", "mod_authn_file", "mod_cgi")
server.bind = "127.0.0.1"
server.port = )" + std::to_string(Port()) +
                               "\nserver.document-root = \"" + folder +
                               "/www\"\nserver.upload-dirs = (\"" + folder + R"(")
cgi.assign = (".sh" => "/bin/sh")
auth.backend = "plain"
auth.backend.plain.userfile = ")" +
                               folder + R"(/passwords"
auth.require = (
  "/digest/" => ("method" => "digest", "realm" => "test", "require" => "valid-user"),
  "/basic/" => ("method" => "basic", "realm" => "test", "require" => "valid-user"))
)" + directives);
  Start({"lighttpd", "-D", "-m", FindServerFile("/usr/lib/lighttpd"), "-f", configuration});
}

TinyProxy::TinyProxy(const std::string& user, const std::string& password) {
  const std::string configuration = Folder() / "tinyproxy.conf";
  std::string text = "Port " + std::to_string(Port()) +
                     "\nListen 127.0.0.1\nAllow 127.0.0.1\nTimeout 60\nLogLevel Warning\n"
                     "PidFile \"" +
                     (Folder() / "pid").string() + "\"\nViaProxyName \"tinyproxy\"\n";
  if (!user.empty()) text += "BasicAuth " + user + " " + password + "\n";
  WriteFile(configuration, text);
  Start({"tinyproxy", "-d", "-c", configuration});
}
