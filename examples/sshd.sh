# shellcheck shell=bash
# An sshd on loopback for scripts: start_sshd FOLDER lets the user who runs it in with the new key
# FOLDER/client; the port is then in sshd_port and the process in sshd_process.
# shellcheck source=examples/process.sh
source "$(dirname "${BASH_SOURCE[0]}")/process.sh"

write_sshd_configuration() {
  local folder=$1 port=$2
  cat >"$folder/sshd.conf" <<CONF
Port $port
ListenAddress 127.0.0.1
HostKey $folder/host
AuthorizedKeysFile $folder/client.pub
StrictModes no
UsePAM no
PidFile none
PermitRootLogin yes
Subsystem sftp internal-sftp
CONF
}

run_sshd() {
  local port=$1 folder=$2
  write_sshd_configuration "$folder" "$port"
  exec /usr/sbin/sshd -D -e -f "$folder/sshd.conf"
}

# shellcheck disable=SC2034  # the results are the caller's
start_sshd() {
  local folder=$1 key
  mkdir -p "$folder"
  if ((EUID == 0)); then mkdir -p /run/sshd; fi
  for key in host client; do ssh-keygen -q -t ecdsa -m PEM -N '' -f "$folder/$key"; done
  start_server "$folder/sshd.log" run_sshd "$folder" || return
  sshd_port=$server_port
  sshd_process=$server_process
}
