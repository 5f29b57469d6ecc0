#!/usr/bin/env bash
# Runs the address commands of the program. Usage: address_test.sh ZUNET
set -euo pipefail
PATH=$PATH:/usr/sbin:/sbin
zunet=$(realpath "$1")
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
failures=0

# expect STATUS OUTPUT ARGUMENT...: on failures of the program OUTPUT is part of the report.
expect() {
  local status=0 wanted=$1 text=$2 out
  shift 2
  out=$(timeout 60 "$zunet" "$@" 2>"$folder/err") || status=$?
  if [[ $wanted == 2 ]]; then
    [[ -z $out ]] || text="nothing on standard output"
    out=$(<"$folder/err")
    [[ $out == *"zunet: "*"$text"* ]] && out=$text
  fi
  if [[ $status != "$wanted" || $out != "$text" ]]; then
    printf 'zunet %s\n  expected %s: %s\n  got %s: %s\n' "$*" "$wanted" "$text" "$status" "$out"
    failures=$((failures + 1))
  fi
}

test_resolve() {
  expect 0 127.0.0.1 resolve -4 localhost
  expect 0 192.0.2.1 resolve 192.0.2.1
  expect 0 192.0.2.1 resolve --all 192.0.2.1
  expect 0 2001:db8::1 resolve 2001:DB8:0::1
  expect 2 "Failed to resolve 192.0.2.1: " resolve -6 192.0.2.1
  expect 2 "Failed to resolve ::1: " resolve --all -4 ::1
  expect 2 "DNS name collision occured" resolve 127.0.53.53
  expect 2 "DNS name collision occured" resolve --all 127.0.53.53
  expect 108 "" resolve -4 -6 localhost
  expect 106 "" resolve
}

test_name() {
  expect 0 localhost name 127.0.0.1
  expect 2 "Not an address: [localhost]" name localhost
  expect 2 "Not an address: []" name ""
}

test_cidr() {
  local text
  expect 0 inside cidr 192.168.1.77 192.168.1.0/24
  expect 1 outside cidr 192.168.2.1 192.168.1.0/24
  expect 0 inside cidr 10.0.0.1 10.0.0.1/32
  expect 1 outside cidr 10.0.0.2 10.0.0.1/32
  expect 0 inside cidr 10.0.0.2 192.168.0.0/0
  for text in 192.168.1.0 192.168.1.0/33 192.168.1.0/x 192.168.1.0/-1 192.168.1.0/ \
    192.168.1.0/24/x 192.168.1.0/024 ""; do
    expect 2 "Invalid CIDR block: [$text]." cidr 192.168.1.77 "$text"
  done
  expect 2 "Not an address: [nonsense]" cidr 192.168.1.77 nonsense/24
  expect 2 "Not an address: []" cidr 192.168.1.77 /24
  expect 2 "Not an IPv4 address: [fe80::]" cidr 192.168.1.77 fe80::/10
  expect 2 "Not an address: [nonsense]" cidr nonsense 0.0.0.0/8
  expect 2 "Not an IPv4 address: [::1]" cidr ::1 0.0.0.0/8
}

test_blacklist() {
  printf '10.0.0.1\n\n2001:db8::5\nname.invalid\n' >"$folder/list"
  expect 0 "10.0.0.2 not listed" blacklist "$folder/list" 10.0.0.2
  expect 1 "10.0.0.1 listed" blacklist "$folder/list" 10.0.0.1
  expect 1 $'10.0.0.2 not listed\n2001:db8::5 listed\n10.0.0.3 not listed' \
    blacklist "$folder/list" 10.0.0.2 2001:db8:0::5 10.0.0.3
  expect 2 "Not an address: [name.invalid]" blacklist "$folder/list" 10.0.0.1 name.invalid
  expect 2 "Failed to open file, FileName=$folder/none" blacklist "$folder/none" 10.0.0.1
  expect 2 "Failed to read file, FileName=$folder" blacklist "$folder" 10.0.0.1
  expect 106 "" blacklist "$folder/list"
  test_unused_lines
}

# Lines that list nobody are named, and are a failure on demand.
test_unused_lines() {
  printf '%s\n' 10.0.0.1 $'10.0.0.2\r' ' 10.0.0.3' '# a comment' 10.0.0.0/24 name.invalid \
    $'red\x1b[31m' >"$folder/odd"
  expect 1 $'10.0.0.1 listed\n10.0.0.2 not listed' blacklist "$folder/odd" 10.0.0.1 10.0.0.2
  expect 2 "Not every line of $folder/odd could be used" \
    blacklist "$folder/odd" 10.0.0.1 --strict
  expect_unused "$folder/odd" 2 '[10.0.0.2\x0d]' 'line ends of another system'
  expect_unused "$folder/odd" 3 '[ 10.0.0.3]' 'a line is a name or an address'
  expect_unused "$folder/odd" 4 '[# a comment]' 'there are no comments'
  expect_unused "$folder/odd" 5 '[10.0.0.0/24]' 'blocks are not taken'
  expect_unused "$folder/odd" 6 '[name.invalid]' ''
  expect_unused "$folder/odd" 7 '[red\x1b[31m]' ''
  printf '10.0.0.1\n' >"$folder/good"
  expect 0 "10.0.0.2 not listed" blacklist "$folder/good" 10.0.0.2 --strict
}

# expect_unused FILE NUMBER TEXT HINT: the command before said so.
expect_unused() {
  if ! grep -F "zunet: $1:$2 lists nobody: " "$folder/err" | grep -F "$3" | grep -qF "$4"; then
    printf 'line %s of %s is not named with %s, %s\n' "$2" "$1" "$3" "$4"
    failures=$((failures + 1))
  fi
}

# In a network of its own, with names of its own.
test_private_network() {
  printf '%s\n' "127.0.0.1 localhost" "10.77.0.1 One.Example two.example" "10.77.0.2 one.example" \
    "2001:db8:0:12::5 six.example one.example" $'10.77.0.3 red\x1b[31m.example' >"$folder/hosts"
  mount --bind "$folder/hosts" /etc/hosts
  expect 0 10.77.0.1 resolve two.example
  expect 0 2001:db8:0:12::5 resolve -6 one.example
  expect 0 $'10.77.0.1\n10.77.0.2' resolve -4 --all one.example
  expect 0 six.example name 2001:db8:0:12::5
  expect 0 'red\x1b[31m.example' name 10.77.0.3
  expect 2 "Failed to find the name of 10.77.0.99: " name 10.77.0.99

  ip link set lo up
  ip link add va address 02:00:00:00:0a:0b type veth peer name vb
  ip addr add 10.77.0.1/24 dev va
  ip addr add 10.77.1.1/24 dev va
  expect 0 $'127.0.0.1 127.0.0.0\n10.77.0.1 10.77.0.0\n10.77.1.1 10.77.1.0\n::1 0.0.0.0' interfaces
  expect 0 $'02:00:00:00:0A:0B\n02:00:00:00:0A:0B' interfaces --mac
  expect 0 one.example interfaces --names
  expect 108 "" interfaces --mac --names
  test_unreadable_table
}

# A device where devices may not be opened stands in for the table of IPv6 addresses.
test_unreadable_table() {
  local status=0 listed
  mkdir "$folder/nodev"
  mount -t tmpfs -o nodev tmpfs "$folder/nodev"
  if ! mknod "$folder/nodev/if_inet6" c 1 3 2>/dev/null; then
    echo "No right to make a device: an unreadable table of IPv6 addresses is not tested"
    umount "$folder/nodev"
    return
  fi
  # Each process has a folder of its own for the table; the program takes over the one of the shell.
  listed=$(bash -c 'mount --bind "$1" "/proc/$$/net" && exec "$2" interfaces' bash \
    "$folder/nodev" "$zunet" 2>"$folder/err") || status=$?
  if [[ $status != 2 || $listed != *"10.77.0.1 10.77.0.0"* ||
    $(<"$folder/err") != *"IPv6 addresses are missing here"*"/proc/net/if_inet6"*"Permission denied"* ]]; then
    printf 'zunet interfaces without the table: %s, %s, %s\n' "$status" "$listed" "$(<"$folder/err")"
    failures=$((failures + 1))
  fi
  umount "$folder/nodev"
}

if [[ ${2:-} == private ]]; then
  test_private_network
  exit $((failures > 0))
fi

test_resolve
test_name
test_cidr
test_blacklist
own_network="unshare --map-root-user --net --mount"
((EUID != 0)) || own_network="unshare --net --mount"
if ! $own_network ip link show >/dev/null 2>&1; then
  echo "No right to make a network: interfaces and names are not tested"
  [[ ${CI:-} != true ]] || exit 1
elif ! $own_network "$0" "$zunet" private; then
  failures=$((failures + 1))
fi
exit $((failures > 0))
