# shellcheck shell=bash
# An nginx on loopback for scripts: start_nginx FOLDER DIRECTIVES serves FOLDER/www; the port is then
# in nginx_port and the process in nginx_process.

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

# Ports may be taken: the server that stays and answers is ours.
start_nginx() {
  local folder=$1 directives=$2 _
  for _ in {1..5}; do
    nginx_port=$((20000 + RANDOM % 12000))
    write_nginx_configuration "$folder" "$nginx_port" "$directives"
    nginx -p "$folder" -e "$folder/error.log" -c "$folder/nginx.conf" &
    nginx_process=$!
    if wait_for_port "$nginx_port" "$nginx_process"; then return; fi
    stop_process "$nginx_process"
  done
  cat "$folder/error.log" >&2
  return 1
}

wait_for_port() {
  local port=$1 process=$2 _
  for _ in {1..50}; do
    kill -0 "$process" 2>/dev/null || return 1
    if (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then return 0; fi
    sleep 0.1
  done
  return 1
}

stop_process() {
  kill "$1" 2>/dev/null || true
  wait "$1" 2>/dev/null || true
}
