#!/usr/bin/env bash
# Real files over HTTP: a server on loopback, and zunet against it. Usage: demo.sh PATH-OF-ZUNET
set -euo pipefail
PATH=$PATH:/usr/sbin:/sbin
zunet=$(realpath "$1")
folder=$(mktemp -d)
server=

stop_server() {
  if [[ -z $server ]]; then return; fi
  kill "$server" 2>/dev/null || true
  wait "$server" 2>/dev/null || true
  server=
}
clean_up() {
  stop_server
  rm -rf "$folder"
}
trap clean_up EXIT

step=0
say() {
  step=$((step + 1))
  printf '\n%d. %s\n' "$step" "$*"
}
run() {
  printf '   $ zunet %s\n' "$*"
  "$zunet" "$@" 2>&1 | sed 's/^/   /'
}

write_configuration() {
  mkdir -p "$folder/www" "$folder/tmp"
  cat >"$folder/nginx.conf" <<CONF
daemon off;
master_process off;
pid $folder/nginx.pid;
events {}
http {
  access_log off;
  client_max_body_size 0;
  client_body_temp_path $folder/tmp/body;
  proxy_temp_path $folder/tmp/proxy;
  fastcgi_temp_path $folder/tmp/fastcgi;
  uwsgi_temp_path $folder/tmp/uwsgi;
  scgi_temp_path $folder/tmp/scgi;
  server {
    listen 127.0.0.1:$1;
    root $folder/www;
    dav_methods PUT DELETE;
    create_full_put_path on;
  }
}
CONF
}

# Ports may be taken: the server that stays and answers is ours.
start_server() {
  local attempt wait
  for attempt in 1 2 3 4 5; do
    port=$((20000 + RANDOM % 12000))
    write_configuration "$port"
    nginx -p "$folder" -e "$folder/error.log" -c "$folder/nginx.conf" &
    server=$!
    for wait in {1..50}; do
      kill -0 "$server" 2>/dev/null || break
      if (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then return; fi
      sleep 0.1
    done
    echo "   attempt $attempt on port $port failed after $wait looks"
    stop_server
  done
  cat "$folder/error.log" >&2
  exit 1
}

say "Start nginx on loopback, with an empty folder to keep files in"
start_server
url=http://127.0.0.1:$port
echo "   $url"

say "Make three files: 1 byte, 1 MiB and 64 MiB of noise"
mkdir "$folder/out" "$folder/back"
printf 'x' >"$folder/out/small.bin"
head -c 1M /dev/urandom >"$folder/out/middle.bin"
head -c 64M /dev/urandom >"$folder/out/large.bin"
(cd "$folder/out" && sha256sum ./*.bin | sed 's/^/   /')

say "Upload them (KdHTTPReq::doPutOperation)"
for name in small middle large; do
  run put "$folder/out/$name.bin" "$url/files/$name.bin"
done

say "Ask the server for their sizes (KdHTTPReq::getFileInfo)"
for name in small middle large; do
  run size "$url/files/$name.bin"
done

say "Ask what exists (KdHTTPReq::checkIfFileOrDirExists)"
run exists "$url/files/small.bin"
run exists "$url/nothing-here" || true

say "Download them (KdHTTPReq::download)"
for name in small middle large; do
  run get "$url/files/$name.bin" -o "$folder/back/$name.bin"
done

say "Compare the checksums"
for name in small middle large; do
  cmp "$folder/out/$name.bin" "$folder/back/$name.bin"
done
(cd "$folder/back" && sha256sum ./*.bin | sed 's/^/   /')
echo "   what came back is what was sent"

say "Delete one (KdHTTPReq::doDeleteOperation)"
run delete "$url/files/small.bin"

say "Ask for it again: the report of a failure lists every place it passed (CZuError::AsString)"
run get "$url/files/small.bin" -o "$folder/back/small.bin" && exit 1
echo "   the file of the earlier download is still whole: $(wc -c <"$folder/back/small.bin") byte"

say "Pipe 1 GiB of noise from one zunet to another (CZuSocketSelector)"
"$zunet" listen 0 --timeout 10 </dev/null 2>"$folder/listen.log" | sha256sum >"$folder/received" &
receiver=$!
until grep -q 'listening on port' "$folder/listen.log"; do
  kill -0 "$receiver"
  sleep 0.1
done
port=$(sed -n 's/.*listening on port //p' "$folder/listen.log")
head -c 1G /dev/urandom | tee >(sha256sum >"$folder/sent") | "$zunet" connect 127.0.0.1 "$port"
wait "$receiver"
until [[ -s $folder/sent ]]; do sleep 0.1; done
cmp "$folder/sent" "$folder/received"
sed 's/^/   /' "$folder/received"

say "Stop the server and remove the files"
stop_server
