# shellcheck shell=bash
# An sshd on loopback for scripts: start_sshd FOLDER lets the user demo in with the new key
# FOLDER/client, who begins in FOLDER/files; the port is then in sshd_port and the process in
# sshd_process. The user exists for this server alone and has the rights of server_ids.
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
Subsystem sftp internal-sftp
CONF
}

# FOLDER COMMAND...: the command finds its account in FOLDER/passwd.
with_demo_account() {
  local library=/usr/lib/x86_64-linux-gnu/libnss_wrapper.so
  if [[ -e $unpacked_servers$library ]]; then library=$unpacked_servers$library; fi
  as_server_user env LD_PRELOAD="$library" NSS_WRAPPER_PASSWD="$1/passwd" \
    NSS_WRAPPER_GROUP=/etc/group "${@:2}"
}

run_sshd() {
  local port=$1 folder=$2
  write_sshd_configuration "$folder" "$port"
  with_demo_account "$folder" "$(command -v sshd)" -D -e -f "$folder/sshd.conf"
}

# shellcheck disable=SC2034  # the results are the caller's
start_sshd() {
  local folder=$1 key
  mkdir -p "$folder/files"
  give_to_server_user "$folder" "$folder/files"
  echo "demo:*:$server_ids::$folder/files:/bin/sh" >"$folder/passwd"
  for key in host client; do
    (with_demo_account "$folder" ssh-keygen -q -t ecdsa -m PEM -N '' -f "$folder/$key")
  done
  start_server "$folder/sshd.log" run_sshd "$folder" || return
  sshd_port=$server_port
  sshd_process=$server_process
}
