# shellcheck shell=bash
# A vsftpd on loopback for scripts of root's: start_vsftpd FOLDER serves FOLDER/ftp to everyone, who
# may write in FOLDER/ftp/in; the port is then in vsftpd_port and the process in vsftpd_process.
# shellcheck source=examples/process.sh
source "$(dirname "${BASH_SOURCE[0]}")/process.sh"

write_vsftpd_configuration() {
  local folder=$1 port=$2
  cat >"$folder/vsftpd.conf" <<CONF
listen=YES
listen_address=127.0.0.1
listen_port=$port
background=NO
anonymous_enable=YES
local_enable=NO
no_anon_password=YES
anon_root=$folder/ftp
anon_umask=022
ftp_username=ftp
write_enable=YES
anon_upload_enable=YES
anon_mkdir_write_enable=YES
anon_other_write_enable=YES
secure_chroot_dir=$folder/empty
seccomp_sandbox=NO
isolate=NO
isolate_network=NO
connect_from_port_20=NO
pasv_address=127.0.0.1
CONF
}

run_vsftpd() {
  local port=$1 folder=$2
  write_vsftpd_configuration "$folder" "$port"
  exec /usr/sbin/vsftpd "$folder/vsftpd.conf"
}

# shellcheck disable=SC2034  # the results are the caller's
start_vsftpd() {
  local folder=$1
  mkdir -p "$folder/ftp/in" "$folder/empty"
  chmod 711 "$folder"
  chown ftp "$folder/ftp/in"
  start_server "$folder/vsftpd.log" run_vsftpd "$folder" || return
  vsftpd_port=$server_port
  vsftpd_process=$server_process
}
