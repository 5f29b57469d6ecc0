# shellcheck shell=bash
# A vsftpd on loopback for scripts: start_vsftpd FOLDER serves FOLDER/ftp to the user ftp, who may
# write in FOLDER/ftp/in; the port is then in vsftpd_port, the process in vsftpd_process and the
# password, which nobody else is to know, in vsftpd_password: without root nothing is hidden that
# the user of the script may read or write.
# shellcheck source=examples/process.sh
source "$(dirname "${BASH_SOURCE[0]}")/process.sh"

write_vsftpd_configuration() {
  local folder=$1 port=$2
  cat >"$folder/vsftpd.conf" <<CONF
run_as_launching_user=YES
listen=YES
listen_address=127.0.0.1
listen_port=$port
background=NO
anonymous_enable=YES
local_enable=NO
secure_email_list_enable=YES
email_password_file=$folder/vsftpd.password
anon_root=$folder/ftp
anon_umask=022
ftp_username=nobody
write_enable=YES
anon_upload_enable=YES
anon_mkdir_write_enable=YES
anon_other_write_enable=YES
secure_chroot_dir=/proc
seccomp_sandbox=NO
isolate=NO
isolate_network=NO
connect_from_port_20=NO
pasv_address=127.0.0.1
CONF
  give_to_server_user "$folder/vsftpd.conf"
}

run_vsftpd() {
  local port=$1 folder=$2
  write_vsftpd_configuration "$folder" "$port"
  as_server_user vsftpd "$folder/vsftpd.conf"
}

# shellcheck disable=SC2034  # the results are the caller's
start_vsftpd() {
  local folder=$1
  mkdir -p "$folder/ftp/in"
  chmod 711 "$folder"
  vsftpd_password=$(head -c 12 /dev/urandom | od -An -tx1 | tr -d ' \n')
  (umask 077 && echo "$vsftpd_password" >"$folder/vsftpd.password")
  give_to_server_user "$folder/ftp/in" "$folder/vsftpd.password"
  start_server "$folder/vsftpd.log" run_vsftpd "$folder" || return
  vsftpd_port=$server_port
  vsftpd_process=$server_process
}
