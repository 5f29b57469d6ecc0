#!/usr/bin/env bash
# Starts a server on loopback and the benchmarks against it. Usage: run.sh BIN-FOLDER [ARGUMENT...]
set -euo pipefail
PATH=$PATH:/usr/sbin:/sbin
# shellcheck source=examples/nginx.sh
source "$(dirname "$0")/../examples/nginx.sh"
bin=$(realpath "$1")
shift
folder=$(mktemp -d)
nginx_process=
clean_up() {
  if [[ -n $nginx_process ]]; then stop_process "$nginx_process"; fi
  rm -rf "$folder"
}
trap clean_up EXIT

start_nginx "$folder" "sendfile on;"
head -c 1K /dev/urandom >"$folder/www/1KiB.bin"
head -c 256M /dev/urandom >"$folder/www/256MiB.bin"
export ZUNETWORK_BENCH_URL=http://127.0.0.1:$nginx_port
"$bin/zunetwork_bench" --benchmark_counters_tabular=true "$@"
