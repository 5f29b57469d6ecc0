#!/bin/bash
# check_pkgconfig.sh PREFIX VERSION: a program is built with what pkg-config tells about PREFIX.
set -euo pipefail
prefix=$1
version=$2
source=$(dirname "$(realpath "$0")")/consumer

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
  echo "$1" >&2
  exit 1
}

folder=$(dirname "$(find "$prefix" -name zunetwork.pc)")
export PKG_CONFIG_PATH=$folder

[[ $(pkg-config --modversion zunetwork) == "$version" ]] || fail "another version is told"
pkg-config --print-errors --exists 'zunetwork >= 1.0'
missing=$(PKG_CONFIG_LIBDIR=$folder pkg-config --print-errors --cflags zunetwork 2>&1 || true)
[[ $missing == *"'libcurl', required by 'zunetwork', not found"* ]] || fail "told is: $missing"
pkg-config --exists 'zunetwork >= 2.0' && fail "version 2.0 is promised"

read -r -a flags < <(pkg-config --cflags --libs zunetwork)
read -r -a own <<<"${CXXFLAGS:-}"
[[ ${flags[*]} != *-lcurl* ]] || fail "libcurl would be linked: ${flags[*]}"
libraries=$(pkg-config --variable=libdir zunetwork)
"${CXX:-c++}" -std=c++17 "${own[@]}" -Wall -Wextra -Werror -DVERSION="\"$version\"" \
  -o "$work/consumer" "$source/consumer.cpp" "${flags[@]}"
report=$(LD_LIBRARY_PATH=$libraries "$work/consumer") || fail "$report"
echo "$report"
[[ $report == *"0xEDD00007 (transfer 7)"* ]] || fail "the refusal is not reported"
