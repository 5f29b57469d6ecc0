# shellcheck shell=bash
# Servers on loopback for scripts: those that ./dev unpacked, else those that are installed.
unpacked_servers=$(realpath -m "$(dirname "${BASH_SOURCE[0]}")/../build/servers")
PATH=$unpacked_servers/bin:$PATH:/usr/sbin:/sbin

# Servers that hold files need no right and run as the user of the script, or as nobody when that is
# root: server_ids is USER:GROUP, and as_server_user COMMAND... becomes the command.
server_ids=$EUID:$(id -g)
if ((EUID == 0)); then server_ids=$(id -u nobody):$(id -g nobody); fi
as_server_user() {
  if ((EUID != 0)); then exec "$@"; fi
  exec setpriv --reuid="${server_ids%:*}" --regid="${server_ids#*:}" --clear-groups "$@"
}
give_to_server_user() {
  if ((EUID == 0)); then chown "$server_ids" "$@"; fi
}

# start_server LOG FUNCTION ARGUMENT... calls FUNCTION PORT ARGUMENT..., which becomes the server by
# exec; the port is then in server_port and the process in server_process. Ports may be taken: the
# server that stays and answers is ours.
start_server() {
  local log=$1 function=$2 _
  for _ in {1..5}; do
    server_port=$((20000 + RANDOM % 12000))
    "$function" "$server_port" "${@:3}" 2>"$log" &
    server_process=$!
    if wait_for_port "$server_port" "$server_process"; then return; fi
    stop_process "$server_process"
  done
  cat "$log" >&2
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
