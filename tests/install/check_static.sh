#!/bin/bash
# check_static.sh SOURCE VERSION: with BUILD_SHARED_LIBS OFF the libraries in SOURCE become static
# ones, within another project too; installed, they are found by CMake and by pkg-config, and their
# programs do at their start what a shared library does when it is loaded. The compilers come from
# CC, CXX and CXXFLAGS.
set -euo pipefail
source=$1
version=$2
here=$(dirname "$(realpath "$0")")

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
  echo "$1" >&2
  exit 1
}

# Runs the program $1, which says whether the library got its chance before main().
check_load_time() {
  [[ $("$1") == "in time" ]] || fail "$1: $("$1")"
  readelf --dynamic "$1" | grep libZu && fail "$1 needs a shared library"
  return 0
}

cmake -S "$here/guest" -B "$work/guest" -G Ninja -DCMAKE_CXX_FLAGS_DEBUG=-O0 \
  -DCMAKE_BUILD_TYPE=Debug -DCMAKE_INSTALL_LIBDIR=lib -DBUILD_SHARED_LIBS=OFF \
  -DZUNETWORK_INSTALL=ON -DZUNETWORK_SOURCE="$source" -DKIND=STATIC >"$work/log" 2>&1 ||
  fail "$(<"$work/log")"
cmake --build "$work/guest" --parallel 2 >"$work/log" || fail "$(<"$work/log")"
check_load_time "$work/guest/programs/load_time"

prefix=$work/prefix
cmake --install "$work/guest" --prefix "$prefix" >/dev/null
[[ $(cd "$prefix/lib" && echo lib*) == "libZuNetwork.a libZuUtils.a libzu.a" ]] ||
  fail "installed are $(ls "$prefix/lib")"

cmake -S "$here/consumer" -B "$work/found" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >"$work/log" ||
  fail "$(<"$work/log")"
cmake --build "$work/found" >"$work/log" || fail "$(<"$work/log")"
for program in load_time early; do check_load_time "$work/found/$program"; done
[[ $("$work/found/consumer") == "ZuNetwork $version"*"0xEDD00007 (transfer 7)"* ]] ||
  fail "the refusal is not reported"

export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
read -r -a flags < <(pkg-config --cflags --static --libs zunetwork)
[[ ${flags[*]} != *curl* ]] || fail "libcurl would be linked: ${flags[*]}"
read -r -a own <<<"${CXXFLAGS:-}"
"${CC:-cc}" "${own[@]}" -o "$work/load_time" "$here/consumer/load_time.c" "${flags[@]}"
check_load_time "$work/load_time"
