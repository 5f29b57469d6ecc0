#!/usr/bin/env bash
# Starts a server on loopback and the benchmarks against it. Usage: run.sh BIN-FOLDER [ARGUMENT...]
set -euo pipefail
PATH=$PATH:/usr/sbin:/sbin
bin=$(realpath "$1")
shift
folder=$(mktemp -d)
server=
clean_up() {
  if [[ -n $server ]]; then
    kill "$server" 2>/dev/null || true
    wait "$server" || true
  fi
  rm -rf "$folder"
}
trap clean_up EXIT

port=$((20000 + RANDOM % 12000))
mkdir "$folder/www" "$folder/tmp"
head -c 1K /dev/urandom >"$folder/www/1KiB.bin"
head -c 256M /dev/urandom >"$folder/www/256MiB.bin"
cat >"$folder/nginx.conf" <<CONF
daemon off;
master_process off;
pid $folder/nginx.pid;
events {}
http {
  access_log off;
  sendfile on;
  keepalive_requests 100000000;
  client_body_temp_path $folder/tmp/body;
  proxy_temp_path $folder/tmp/proxy;
  fastcgi_temp_path $folder/tmp/fastcgi;
  uwsgi_temp_path $folder/tmp/uwsgi;
  scgi_temp_path $folder/tmp/scgi;
  server {
    listen 127.0.0.1:$port;
    root $folder/www;
  }
}
CONF
nginx -p "$folder" -e "$folder/error.log" -c "$folder/nginx.conf" &
server=$!
for _ in {1..50}; do
  if (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then break; fi
  sleep 0.1
done

export ZUNETWORK_BENCH_URL=http://127.0.0.1:$port
"$bin/zunetwork_bench" --benchmark_counters_tabular=true "$@"
