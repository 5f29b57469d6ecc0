#!/usr/bin/env bash
# Starts the servers on loopback and the benchmarks against them; those whose server is missing are
# skipped. Servers run on the first CPU, the benchmarks pin themselves to the last one.
# Usage: run.sh BIN-FOLDER [--report] [ARGUMENT...]
# With --report, docs/performance.md, its plots and the figures of the README are written anew.
set -euo pipefail
bench=$(dirname "$(realpath "$0")")
examples=$bench/../examples
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
report=
arguments=()
for argument in "$@"; do
  if [[ $argument == --report ]]; then report=1; else arguments+=("$argument"); fi
done

# In memory, where there is room for the files: a disk would be what is measured.
memory=/dev/shm
needed=$((1024 * 1024))
room=$(df --output=avail "$memory" 2>/dev/null | tail -n 1 || true)
if ((${room:-0} < needed)); then memory=${TMPDIR:-/tmp}; fi
folder=$(mktemp -d -p "$memory")
processes=()
# shellcheck disable=SC2317  # the trap below calls it
clean_up() {
  local process
  for process in "${processes[@]}"; do stop_process "$process"; done
  rm -rf "$folder"
}
trap clean_up EXIT

cpus=$(taskset -cp $$ | sed 's/.*: //')
taskset -cp "${cpus%%[-,]*}" $$ >/dev/null

# A server for TLS beside the plain one, whose certificate stands among those of the system.
start_https() {
  local folder=$1
  openssl req -x509 -newkey rsa:2048 -nodes -subj /CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1 \
    -keyout "$folder/tls.key" -out "$folder/tls.pem" 2>/dev/null
  cat /etc/ssl/certs/ca-certificates.crt "$folder/tls.pem" >"$folder/cas.pem"
  start_nginx "$folder" "ssl on; ssl_certificate $folder/tls.pem; ssl_certificate_key $folder/tls.key;"
}

mkdir "$folder/tls" "$folder/ftp"
start_nginx "$folder" "sendfile on; location /sink { return 200; }"
processes+=("$nginx_process")
head -c 1K /dev/urandom >"$folder/www/1KiB.bin"
head -c 256M /dev/urandom >"$folder/www/256MiB.bin"
head -c 64M "$folder/www/256MiB.bin" >"$folder/ftp/64MiB.bin"
head -c 16M "$folder/www/256MiB.bin" >"$folder/ftp/16MiB.bin"
make_pkcs12 "$folder" secret
export ZUNETWORK_BENCH_URL=http://127.0.0.1:$nginx_port
export ZUNETWORK_BENCH_FILES=$folder/ftp
export ZUNETWORK_BENCH_KEY=$folder/key.p12

start_https "$folder/tls"
processes+=("$nginx_process")
ln "$folder/www/1KiB.bin" "$folder/tls/www/"
export ZUNETWORK_BENCH_HTTPS=https://127.0.0.1:$nginx_port
export ZUNETWORK_BENCH_CAS=$folder/tls/cas.pem

if command -v sshd >/dev/null; then
  chmod 711 "$folder"
  give_to_server_user "$folder/ftp"
  start_sshd "$folder/ssh"
  processes+=("$sshd_process")
  export ZUNETWORK_BENCH_SFTP_USER=demo
  export ZUNETWORK_BENCH_SFTP=sftp://127.0.0.1:$sshd_port
  export ZUNETWORK_BENCH_SFTP_KEY=$folder/ssh/client
else
  echo "No sshd here: SFTP is not measured" >&2
fi
if command -v vsftpd >/dev/null; then
  start_vsftpd "$folder"
  processes+=("$vsftpd_process")
  export ZUNETWORK_BENCH_FTP_PASSWORD=$vsftpd_password
  export ZUNETWORK_BENCH_FTP=ftp://127.0.0.1:$vsftpd_port
else
  echo "No vsftpd here: FTP is not measured" >&2
fi

status=0
if [[ $report ]]; then arguments+=("--benchmark_out=$folder/results.json"); fi
taskset -c "$cpus" "$bin/zunetwork_bench" "${arguments[@]}" || status=$?
# Statuses above those of the judgement are crashes, which leave no results.
if [[ $report ]] && ((status <= 3)); then "$bench/report.py" "$folder/results.json" "$bench/.."; fi
exit "$status"
