# shellcheck shell=bash
# An nginx on loopback for scripts: start_nginx FOLDER DIRECTIVES serves FOLDER/www; the port is then
# in nginx_port and the process in nginx_process.
# shellcheck source=examples/process.sh
source "$(dirname "${BASH_SOURCE[0]}")/process.sh"

write_nginx_configuration() {
  local folder=$1 port=$2 directives=$3
  mkdir -p "$folder/www" "$folder/tmp"
  cat >"$folder/nginx.conf" <<CONF
daemon off;
master_process off;
pid $folder/nginx.pid;
events {}
http {
  access_log off;
  client_max_body_size 0;
  keepalive_requests 100000000;
  client_body_temp_path $folder/tmp/body;
  proxy_temp_path $folder/tmp/proxy;
  fastcgi_temp_path $folder/tmp/fastcgi;
  uwsgi_temp_path $folder/tmp/uwsgi;
  scgi_temp_path $folder/tmp/scgi;
  server {
    listen 127.0.0.1:$port;
    root $folder/www;
    $directives
  }
}
CONF
}

run_nginx() {
  local port=$1 folder=$2 directives=$3
  write_nginx_configuration "$folder" "$port" "$directives"
  exec nginx -p "$folder" -e stderr -c "$folder/nginx.conf"
}

# shellcheck disable=SC2034  # the results are the caller's
start_nginx() {
  start_server "$1/error.log" run_nginx "$@" || return
  nginx_port=$server_port
  nginx_process=$server_process
}
