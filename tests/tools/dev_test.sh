#!/usr/bin/env bash
# Runs a copy of the front door, with fakes of the programs that change the machine or take long.
# Usage: dev_test.sh DEV
# shellcheck disable=SC2016  # the fakes expand what is theirs
set -euo pipefail
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
chmod 755 "$folder"
mkdir "$folder/bin" "$folder/examples"
cp "$1" "$folder/dev"
export PATH=$folder/bin:$PATH CALLS=$folder/calls
unset CXX
failures=0

# NAME BODY: a program that writes down how it was called.
fake() {
  printf '#!/usr/bin/env bash\necho "${0##*/} $*" >>"$CALLS"\n%s\n' "$2" >"$folder/bin/$1"
  chmod +x "$folder/bin/$1"
}

# A machine without any of the packages, whose user may do everything.
new_machine() {
  rm -rf "$folder/build"
  INSTALLED=" "
  ABSENT_HEADERS=" "
  export INSTALLED ABSENT_HEADERS
  fake sudo 'exec "$@"'
  fake dpkg-query '[[ $INSTALLED == *" ${*: -1} "* ]] && echo -n installed'
  fake apt-get 'while [[ $1 == -* ]]; do [[ $1 != -o ]] || shift; shift; done
case "$*" in
  "install --simulate "*) for word in "${@:4}" libextra; do echo "Inst $word (1.0)"; done ;;
  "download "*) for word in "${@:2}"; do echo >"$word.deb"; done ;;
esac'
  fake dpkg-deb 'name=${2##*/} name=${name%.deb} name=${name%-bin}
name=${name/openssh-server/sshd} name=${name/openssh-client/ssh-keygen}
mkdir -p "$3/usr/sbin" && printf "#!/bin/sh\necho %s runs with \$LD_LIBRARY_PATH\n" "$name" >"$3/usr/sbin/$name"
chmod +x "$3/usr/sbin/$name"'
  fake c++ 'read -r line; name=${line#*<} name=${name%%>*}; [[ $ABSENT_HEADERS != *" $name "* ]]'
  fake cmake ''
  fake ctest ''
  printf '#!/bin/sh\necho demo "$@" >>"$CALLS"\n' >"$folder/examples/demo.sh"
  chmod +x "$folder/examples/demo.sh"
}

# A user who can become nobody else.
new_user() {
  fake sudo 'exit 1'
  fake apt-get 'exit 100'
}

# Runs the front door; what it calls is then in calls, what it prints in out.
dev() {
  : >"$CALLS"
  status=0
  "$folder/dev" "$@" >"$folder/out" 2>&1 || status=$?
}

# WHAT PATTERN [FILE]
expect() {
  if ! grep -qE -- "$2" "${3:-$CALLS}"; then
    printf '%s: nothing like "%s" in\n' "$1" "$2" && cat "${3:-$CALLS}"
    failures=$((failures + 1))
  fi
}
expect_none() {
  if grep -E -- "$2" "${3:-$CALLS}"; then
    printf '%s: not to be\n' "$1"
    failures=$((failures + 1))
  fi
}
expect_status() {
  if [[ $status != "$1" ]]; then
    printf '%s: status %s\n' "$2" "$status" && cat "$folder/out"
    failures=$((failures + 1))
  fi
}

servers='nginx|apache2|lighttpd|tinyproxy|vsftpd|openssh'

test_each_command_gets_what_it_needs() {
  new_machine
  dev build
  expect_status 0 build
  expect "build installs compilers" '^apt-get install .*g\+\+ cmake'
  expect_none "build installs no checkers and no servers" "^apt-get .*(clang|$servers)"
  expect "build builds dev" '^cmake --build build/dev'
  new_machine
  dev build release
  expect_none "a release needs no test packages" "gtest|clang|$servers"
  new_machine
  dev demo
  expect_status 0 demo
  expect "demo gets certificates" '^apt-get install .*ca-certificates'
  expect_none "demo gets nothing to test or lint" 'clang|gtest|apache2|lighttpd|tinyproxy'
  expect "demo runs" '^demo build/release/bin'
  new_machine
  dev lint
  expect "lint gets checkers" '^apt-get install .*clang-tidy'
}

test_servers_are_unpacked() {
  new_machine
  dev setup
  expect_status 0 setup
  expect_none "no server is installed" "^apt-get install -.*($servers)"
  expect "servers are downloaded" "^apt-get .*download .*nginx"
  expect "with their libraries" "^apt-get .*download .*libextra"
  "$folder/build/servers/bin/sshd" >"$folder/out"
  expect "they find their libraries" "sshd runs with $folder/build/servers/usr/lib" "$folder/out"
  dev setup
  expect_none "once is enough" download
  new_machine
  INSTALLED=" nginx openssh-server "
  dev demo
  expect_none "what is installed stays in use" 'download .*(nginx|openssh-server)'
  expect "what is not is unpacked" 'download .*vsftpd'
}

# Some servers of root's run as somebody else.
test_servers_of_a_closed_folder_are_within_reach() {
  local servers
  if ((EUID != 0)); then return; fi
  new_machine
  chmod 700 "$folder"
  dev setup
  chmod 755 "$folder"
  expect_status 0 "setup in a closed folder"
  servers=$(realpath "$folder/build/servers")
  "$folder/build/servers/bin/sshd" >"$folder/out"
  expect "they are elsewhere" "sshd runs with /var/tmp/zunetwork-servers[.]" "$folder/out"
  rm -r "$servers"
}

test_other_compilers() {
  new_machine
  dev compilers
  expect "they are installed" '^apt-get install .*g[+][+]-11 clang'
  expect "GCC" '^cmake --preset dev -B build/g[+][+]-11 .*_CXX_COMPILER=g[+][+]-11 .*_C_COMPILER=gcc-11'
  expect "Clang" '^cmake --preset dev -B build/clang[+][+]-14 .*_CXX_COMPILER=clang[+][+]-14 .*=clang-14'
  expect "their tests run" '^ctest --test-dir build/clang[+][+]-14 .*--label-regex unit'
  new_machine
  dev compilers g++-13
  expect "any other" '^cmake --preset dev -B build/g[+][+]-13'
}

test_presets_may_be_left_out() {
  new_machine
  dev test -R Name
  expect "dev is tested" '^ctest --test-dir build/dev .*-R Name$'
  dev test asan -R Name
  expect "the preset that is named" '^ctest --test-dir build/asan .*-R Name$'
  dev test release
  expect "release is built with its tests" '^cmake --preset release .*-DZUNETWORK_BUILD_TESTS=ON'
  expect "and tested" '^ctest --test-dir build/release '
}

test_nightly_goes_on_after_a_failure() {
  new_machine
  fake ctest '[[ $* != *build/tsan* ]]'
  dev nightly
  expect_status 1 nightly
  expect "what failed is named" '^dev: failed: tsan$' "$folder/out"
  expect "the release is tried" '^ctest --test-dir build/release '
}

test_without_rights() {
  new_machine
  new_user
  ABSENT_HEADERS=" CLI/CLI.hpp gmock/gmock.h "
  dev build
  expect_status 0 "build without rights"
  expect "zunet is left out" '^cmake --preset dev .*-DZUNETWORK_BUILD_TOOLS=OFF'
  expect "tests are left out" '^cmake --preset dev .*-DZUNETWORK_BUILD_TESTS=OFF'
  expect "which is said" 'the program zunet.*\(libcli11-dev\)' "$folder/out"
  expect "with the reason" 'the tests \(libgtest-dev\)' "$folder/out"
  dev test
  expect_status 1 "no test at all"
  expect "which is said" 'no tests without GoogleTest' "$folder/out"
  ABSENT_HEADERS=" "
  dev test
  expect_status 0 "tests without servers"
  expect "servers are left out" '^ctest .*--label-exclude servers'
  expect "which is said" 'neither installed nor to be downloaded: nginx' "$folder/out"
  dev demo
  expect_status 1 "a demo without servers"
}

test_each_command_gets_what_it_needs
test_servers_are_unpacked
test_servers_of_a_closed_folder_are_within_reach
test_other_compilers
test_presets_may_be_left_out
test_nightly_goes_on_after_a_failure
test_without_rights
exit $((failures > 0))
