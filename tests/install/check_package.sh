#!/bin/bash
# check_package.sh PREFIX VERSION: a CMake project finds what is installed in PREFIX, builds against
# it and runs. The compiler comes from CXX and CXXFLAGS.
set -euo pipefail
prefix=$1
version=$2
source=$(dirname "$(realpath "$0")")/consumer

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
unset LD_LIBRARY_PATH

fail() {
  echo "$1" >&2
  exit 1
}

cmake -S "$source" -B "$work" -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_PREFIX_PATH="$prefix" >"$work/configure.log" || fail "$(cat "$work/configure.log")"
cmake --build "$work" >"$work/build.log" || fail "$(cat "$work/build.log")"

report=$("$work/consumer") || fail "$report"
echo "$report"
[[ $report == "ZuNetwork $version"$'\n'* ]] || fail "another version was found"
[[ $report == *"0xEDD00007 (transfer 7)"*"/KdCURL.7.0x7"* ]] || fail "the refusal is not reported"
[[ $report == *"KdProtocolReq.cpp:"*"CZuError KdCURL::KdProtocolReq::download("* ]] ||
  fail "the report does not say where it comes from"

report=$("$work/utils_consumer") || fail "$report"
[[ $report == *"[/nowhere/at/all]: No such file or directory"*", int main(), while trying" ]] ||
  fail "$report"
[[ $(readelf --dynamic "$work/utils_consumer") == *libZuUtils.so.1* ]] || fail "nothing is linked"
[[ $(readelf --dynamic "$work/utils_consumer") != *libZuNetwork* ]] ||
  fail "the utilities alone need the network library"

[[ $("$work/plain") == 127.0.0.1 ]] || fail "the C program says otherwise"
for program in load_time early; do
  [[ $("$work/$program") == "in time" ]] || fail "$program: $("$work/$program")"
done

# The libraries that run are those of the prefix.
ldd "$work/consumer" | grep libZu
[[ $(ldd "$work/consumer" | grep --count "=> $(realpath "$prefix")/lib.*/libZu") == 2 ]] ||
  fail "the consumer does not run with the libraries in $prefix"
