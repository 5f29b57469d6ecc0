#!/usr/bin/env bash
# Runs the examples and checks what they print. Usage: examples_test.sh FOLDER-OF-THE-PROGRAMS
set -euo pipefail
# shellcheck source=examples/nginx.sh
source "$(dirname "$0")/../../examples/nginx.sh"
programs=$1
folder=$(mktemp -d)
servers=()

clean_up() {
  local server
  for server in "${servers[@]}"; do
    kill "$server" 2>/dev/null || true
    wait "$server" 2>/dev/null || true
  done
  rm -rf "$folder"
}
trap clean_up EXIT

fail() {
  echo "FAILED: $*" >&2
  exit 1
}

expect() { # WHAT EXPECTED ACTUAL
  [[ $2 == "$3" ]] || fail "$1: expected \"$2\", got \"$3\""
}

expect_match() { # WHAT PATTERN ACTUAL
  [[ $3 =~ $2 ]] || fail "$1: expected a match of \"$2\", got \"$3\""
}

expect_status() { # STATUS COMMAND...
  local expected=$1 status=0
  shift
  timeout 30 "$@" >"$folder/out" 2>"$folder/err" || status=$?
  expect "status of $*" "$expected" "$status"
}

run() { timeout 30 "$programs/example_$1" "${@:2}"; }

# Sets port.
start_example() {
  local log=$folder/$1.log wait
  : >"$log"
  "$programs/example_$1" 0 "${@:2}" >"$log" 2>&1 &
  servers+=($!)
  for wait in {1..200}; do
    if line=$(grep --max-count=1 '^listening on port ' "$log"); then
      port=${line##* }
      return
    fi
    sleep 0.05
  done
  fail "$1 does not listen after $wait looks: $(<"$log")"
}

# Sets line to the next one from a descriptor.
hear() {
  IFS= read -r -t 10 -u "$1" line || fail "nothing more to hear on descriptor $1"
}

test_cidr() {
  expect "address within" "10.1.2.3 is IPv4
10.1.2.3 is within 10.0.0.0/8
/8 is the mask 255.0.0.0" "$(run cidr 10.1.2.3 10.0.0.0/8)"
  expect_match "address outside" "outside 192.168.16.0/20" "$(run cidr 10.1.2.3 192.168.16.0/20)"
  expect_status 1 "$programs/example_cidr" 10.1.2.3 10.0.0.0
  expect_match "bad block" "Invalid CIDR block: \[10.0.0.0\]" "$(<"$folder/err")"
  expect_status 1 "$programs/example_cidr" nonsense 10.0.0.0/8
  expect_status 2 "$programs/example_cidr"
}

test_interfaces() {
  local listed
  listed=$(run interfaces)
  expect_match "interfaces" "IPv4 127.0.0.1 in 127.0.0.0" "$listed"
}

test_ping() {
  expect_status 2 "$programs/example_ping"
  expect_status 2 "$programs/example_ping" 127.0.53.53
  expect_match "address of a collision" "DNS name collision occured" "$(<"$folder/err")"
  if ((EUID != 0)); then
    expect_status 2 "$programs/example_ping" 127.0.0.1
    expect_match "without privilege" "Operation not permitted" "$(<"$folder/err")"
    return
  fi
  local listed
  listed=$(run ping 127.0.0.1)
  expect_match "log" "ZuPing: \[server - 127.0.0.1\] \[IP - 127.0.0.1\]" "$listed"
  expect_match "packets" $'1: [0-9]+ ms\n2: [0-9]+ ms\n' "$listed"
  expect_match "sum" "3 of 3 answered" "$listed"
}

test_echo() {
  local server client long
  long=$(printf 'x%.0s' {1..100000})
  for server in echo_server echo_server_c; do
    start_example "$server"
    for client in echo_client echo_client_c; do
      expect "$client of $server" "hello, world" "$(run "$client" 127.0.0.1 "$port" "hello, world")"
      expect "long text" "$long" "$(run "$client" localhost "$port" "$long")"
    done
  done
  expect_status 1 "$programs/example_echo_client" 127.0.0.1 1 text
  expect_match "no server" "Connection refused" "$(<"$folder/err")"
  expect_status 1 "$programs/example_echo_client_c" 127.0.0.1 1 text
  expect_match "no server" "Connection refused" "$(<"$folder/err")"
  for server in echo_server echo_server_c; do
    expect_status 1 "$programs/example_$server" "$port"
    expect_match "port in use" "Address already in use" "$(<"$folder/err")"
  done
}

test_second_address() {
  local client
  local private=(unshare --mount)
  ((EUID == 0)) || private+=(--map-root-user)
  printf '::1 two\n127.0.0.1 two\n' >"$folder/hosts"
  # shellcheck disable=SC2016  # the inner shell's
  private+=(sh -c 'mount --bind "$0" /etc/hosts && exec "$@"' "$folder/hosts")
  if ! "${private[@]}" true; then
    [[ ${CI:-} != true ]] || fail "no right to give a name two addresses"
    echo "left out: no right to give a name two addresses"
    return
  fi
  start_example echo_server # on IPv4 alone, which is the second
  for client in echo_client echo_client_c; do
    expect_status 0 "${private[@]}" "$programs/example_$client" two "$port" hello
    expect "$client" hello "$(<"$folder/out")"
    expect_status 1 "${private[@]}" "$programs/example_$client" two 1 hello
    expect_match "nobody on either" "Connection refused" "$(<"$folder/err")"
  done
}

test_chat() {
  local i
  start_example chat_server
  exec 3<>"/dev/tcp/127.0.0.1/$port"
  exec 4<>"/dev/tcp/127.0.0.1/$port"
  hear 3
  expect_match "newcomer" "^guest [0-9]+ has come$" "$line"
  exec 5<>"/dev/tcp/127.0.0.1/$port"
  for i in 3 4; do
    hear "$i"
    expect_match "newcomer" "has come" "$line"
  done
  printf 'hel' >&3
  sleep 0.1
  printf 'lo\nall\n' >&3
  for i in 4 5; do
    hear "$i"
    expect_match "first line" "^guest [0-9]+: hello$" "$line"
    hear "$i"
    expect_match "second line" "^guest [0-9]+: all$" "$line"
  done
  exec 3>&-
  for i in 4 5; do
    hear "$i"
    expect_match "farewell" "^guest [0-9]+ has left$" "$line"
  done
  printf 'still here\n' >&5
  hear 4
  expect_match "after the farewell" ": still here$" "$line"
  head -c 5000 /dev/zero | tr '\0' x >&5
  hear 4
  expect_match "line too long" "has left" "$line"
  exec 4>&- 5>&-
}

# Sets line to the server's verdict.
guess() { # PASSWORD
  exec 6<>"/dev/tcp/127.0.0.1/$port"
  line=
  if IFS= read -r -t 10 -N 10 -u 6 line; then
    printf '%s\n' "$1" >&6
    hear 6
  fi
  exec 6>&-
}

test_guard() {
  start_example guarded_server sesame
  guess sesame
  expect "right password" welcome "$line"
  for _ in 1 2 3; do
    guess nonsense
    expect "wrong password" wrong "$line"
  done
  guess sesame
  expect "fourth attempt" "" "$line"
  expect_match "log" "refused 127.0.0.1" "$(<"$folder/guarded_server.log")"

  echo 127.0.0.1 >"$folder/blacklist"
  echo 10.0.0.0/8 >>"$folder/blacklist"
  start_example guarded_server sesame "$folder/blacklist"
  guess sesame
  expect "blacklisted from the start" "" "$line"
  expect_match "half a list" "line 2 lists nobody" "$(<"$folder/guarded_server.log")"
  expect_status 1 "$programs/example_guarded_server" 0 sesame "$folder/missing"
  expect_match "no file" "Failed to open file" "$(<"$folder/err")"
}

test_settings() {
  printf 'colour=blue\n' >"$folder/settings"
  expect "settings" colour=blue "$(run settings "$folder/settings")"
  expect_status 1 "$programs/example_settings" "$folder/missing"
  expect_match "no file" "No such file or directory.*No settings in $folder/missing" \
    "$(<"$folder/err")"
}

test_transfers() {
  mkdir "$folder/web"
  start_nginx "$folder/web" "autoindex on;"
  servers+=("$nginx_process")
  mkdir "$folder/web/www/pub" "$folder/web/www/pub/deeper"
  printf 'some text' >"$folder/web/www/pub/file"
  run download "http://127.0.0.1:$nginx_port" /pub/file "$folder/file" 2>/dev/null
  expect "download" "some text" "$(<"$folder/file")"
  expect "list" $'deeper/\nfile' \
    "$(run list "http://127.0.0.1:$nginx_port" /pub/ "$folder/page" | sort)"
  expect_status 1 "$programs/example_list" "http://127.0.0.1:$nginx_port" /none/ "$folder/page"
  expect_match "no folder" "404" "$(<"$folder/err")"

  # A server that does not speak TLS, and a bundle that is not there; no word of the password.
  expect_status 1 "$programs/example_secure_download" "127.0.0.1:$nginx_port" /pub/file \
    "$folder/secret" bob s3cret
  expect_match "no TLS" "\(transfer (35|77)\)" "$(<"$folder/err")"
  [[ ! -e $folder/secret && $(<"$folder/err") != *s3cret* ]] || fail "password or file: $(<"$folder/err")"
}

test_cidr
test_interfaces
test_ping
test_echo
test_second_address
test_chat
test_guard
test_settings
test_transfers
echo "all examples did what they should"
