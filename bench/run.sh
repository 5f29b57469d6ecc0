#!/usr/bin/env bash
# Starts the servers on loopback and the benchmarks against them; those whose server is missing are
# skipped. Usage: run.sh BIN-FOLDER [ARGUMENT...]
set -euo pipefail
PATH=$PATH:/usr/sbin:/sbin
examples=$(dirname "$0")/../examples
# shellcheck source=examples/nginx.sh
source "$examples/nginx.sh"
# shellcheck source=examples/sshd.sh
source "$examples/sshd.sh"
# shellcheck source=examples/vsftpd.sh
source "$examples/vsftpd.sh"
# shellcheck source=examples/pkcs12.sh
source "$examples/pkcs12.sh"
bin=$(realpath "$1")
shift

# In memory, where there is room for the files: a disk would be what is measured.
memory=/dev/shm
needed=$((4 * 1024 * 1024))
room=$(df --output=avail "$memory" 2>/dev/null | tail -n 1 || true)
if ((${room:-0} < needed)); then memory=${TMPDIR:-/tmp}; fi
folder=$(mktemp -d -p "$memory")
nginx_process=
sshd_process=
vsftpd_process=
clean_up() {
  local process
  for process in $nginx_process $sshd_process $vsftpd_process; do stop_process "$process"; done
  rm -rf "$folder"
}
trap clean_up EXIT

start_nginx "$folder" "sendfile on;"
mkdir "$folder/ftp"
head -c 1K /dev/urandom >"$folder/www/1KiB.bin"
head -c 256M /dev/urandom >"$folder/www/256MiB.bin"
ln "$folder/www/256MiB.bin" "$folder/ftp/256MiB.bin"
truncate -s 1G "$folder/ftp/1GiB.bin"
make_pkcs12 "$folder" secret
export ZUNETWORK_BENCH_URL=http://127.0.0.1:$nginx_port
export ZUNETWORK_BENCH_FILES=$folder/ftp
export ZUNETWORK_BENCH_KEY=$folder/key.p12

if command -v sshd >/dev/null; then
  start_sshd "$folder/ssh"
  ZUNETWORK_BENCH_SFTP_USER=$(id -un)
  export ZUNETWORK_BENCH_SFTP_USER
  export ZUNETWORK_BENCH_SFTP=sftp://127.0.0.1:$sshd_port
  export ZUNETWORK_BENCH_SFTP_KEY=$folder/ssh/client
else
  echo "No sshd here: SFTP is not measured" >&2
fi
if ((EUID == 0)) && command -v vsftpd >/dev/null; then
  start_vsftpd "$folder"
  export ZUNETWORK_BENCH_FTP=ftp://127.0.0.1:$vsftpd_port
else
  echo "No vsftpd here, or not root to run it: FTP is not measured" >&2
fi
"$bin/zunetwork_bench" --benchmark_counters_tabular=true "$@"
