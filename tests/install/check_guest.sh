#!/bin/bash
# check_guest.sh SOURCE: another project takes the sources SOURCE in; it gets shared libraries where
# it keeps its own, and nothing else. The compiler comes from CXX and CXXFLAGS.
set -euo pipefail
source=$1
here=$(dirname "$(realpath "$0")")

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
  echo "$1" >&2
  exit 1
}

cmake -S "$here/guest" -B "$work" -G Ninja -DCMAKE_CXX_FLAGS_DEBUG=-O0 -DCMAKE_BUILD_TYPE=Debug \
  -DZUNETWORK_SOURCE="$source" -DFETCH=ON -DKIND=SHARED >"$work/log" 2>&1 || fail "$(<"$work/log")"
grep --quiet '^BUILD_SHARED_LIBS' "$work/CMakeCache.txt" && fail "BUILD_SHARED_LIBS is set"
[[ $(ctest --test-dir "$work" --show-only) == *"Total Tests: 0"* ]] || fail "there are tests"
cmake --build "$work" --parallel 2 >"$work/log" || fail "$(<"$work/log")"

report=$("$work/programs/consumer") || fail "$report"
[[ $report == *"0xEDD00007 (transfer 7)"* ]] || fail "the refusal is not reported: $report"
for library in ZuUtils ZuNetwork; do
  [[ -e $work/libraries/lib$library.so.1 ]] || fail "lib$library is not where the project wants it"
done
cmake --install "$work" --prefix "$work/prefix" >/dev/null
[[ ! -e $work/prefix ]] || fail "something is installed: $(find "$work/prefix")"
