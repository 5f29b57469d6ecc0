#!/usr/bin/env bash
# What the library does, shown by zunet against servers on loopback. Usage: demo.sh BIN-FOLDER
set -euo pipefail
# shellcheck source=examples/nginx.sh
source "$(dirname "$0")/nginx.sh"
# shellcheck source=examples/sshd.sh
source "$(dirname "$0")/sshd.sh"
# shellcheck source=examples/vsftpd.sh
source "$(dirname "$0")/vsftpd.sh"
# shellcheck source=examples/pkcs12.sh
source "$(dirname "$0")/pkcs12.sh"
bin=$(realpath "$1")
zunet=$bin/zunet
folder=$(mktemp -d)
nginx_process=
sshd_process=
vsftpd_process=

clean_up() {
  local process
  for process in $nginx_process $sshd_process $vsftpd_process; do stop_process "$process"; done
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

say "Start nginx on loopback, with an empty folder to keep files in"
start_nginx "$folder" "dav_methods PUT DELETE; create_full_put_path on; autoindex on;"
url=http://127.0.0.1:$nginx_port
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

say "List the folder (KdProtocolReq::getFilesAndDirsInfoInFile, KdHTTPReq::collectFilesAndDir)"
run ls "$url/files/"

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

say "Move a file over SFTP, to an sshd on loopback (KdSFTPReq)"
chmod 711 "$folder"
start_sshd "$folder/ssh"
sftp=sftp://127.0.0.1:$sshd_port/~
login=(--user demo: --key "$folder/ssh/client" --insecure)
run put "$folder/out/middle.bin" "$sftp/sent.bin" "${login[@]}"
run size "$sftp/sent.bin" "${login[@]}"
run get "$sftp/sent.bin" -o "$folder/back/sent.bin" "${login[@]}"
cmp "$folder/out/middle.bin" "$folder/back/sent.bin"
run ls "$sftp/" "${login[@]}"
stop_process "$sshd_process"
sshd_process=

say "Move a file over FTP, to a vsftpd on loopback (KdFTPReq)"
start_vsftpd "$folder"
ftp=ftp://127.0.0.1:$vsftpd_port/in
login=(--user "ftp:$vsftpd_password")
run put "$folder/out/large.bin" "$ftp/new/large.bin" "${login[@]}"
run size "$ftp/new/large.bin" "${login[@]}"
run get "$ftp/new/large.bin" -o "$folder/back/ftp.bin" "${login[@]}"
cmp "$folder/out/large.bin" "$folder/back/ftp.bin"
run ls "$ftp/new/" "${login[@]}"
run delete "$ftp/new/large.bin" "${login[@]}"
stop_process "$vsftpd_process"
vsftpd_process=

say "Sign a file and let openssl check it (CurlWrapper::SignSHA256withRSA)"
make_pkcs12 "$folder" secret
openssl x509 -in "$folder/cert.pem" -noout -pubkey -out "$folder/public.pem"
echo secret >"$folder/phrase"
run sign "$folder/out/small.bin" --key "$folder/key.p12" --pass-file "$folder/phrase" \
  -o "$folder/small.sig"
openssl dgst -sha256 -verify "$folder/public.pem" -signature "$folder/small.sig" \
  "$folder/out/small.bin" | sed 's/^/   /'

say "Names, addresses, interfaces, a blacklist (CZuIPAddr, CZuIPAddrBlacklist)"
run resolve localhost --all
run interfaces
run cidr 10.1.2.3 10.0.0.0/8
printf '10.9.9.9' >"$folder/blacklist"
run blacklist "$folder/blacklist" 10.9.9.9 10.1.2.3 || true

say "A pair of sockets (CZuSocket::CreateSocketPair)"
"$bin/example_socket_pair" | sed 's/^/   /'

say "An accept that times out after a second (CZuSocket::AcceptWithTimeout)"
run listen 0 --timeout 1 </dev/null && exit 1

say "Ping the loopback, where a raw socket sees its own requests too (CZuPing)"
run ping 127.0.0.1 -c 2 || echo "   not allowed here, or nothing but the requests came"

say "Stop the server and remove the files"
stop_process "$nginx_process"
nginx_process=
