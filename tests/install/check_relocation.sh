#!/bin/bash
# check_relocation.sh BUILD VERSION: an installation works where it is moved to, staged by DESTDIR
# as well, and knows neither where it was installed nor where it was built.
set -euo pipefail
build=$1
version=$2
here=$(dirname "$(realpath "$0")")

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
  echo "$1" >&2
  exit 1
}

# Checks the tree $1 that was installed as $2.
check_tree() {
  local binary folder
  "$here/check_package.sh" "$1" "$version" >/dev/null
  "$here/check_pkgconfig.sh" "$1" "$version" >/dev/null
  if [[ -e $1/bin/zunet ]]; then
    "$1/bin/zunet" --help >/dev/null
  fi
  for folder in "$2" "$build"; do
    grep --recursive --fixed-strings --binary-files=without-match "$folder" "$1" &&
      fail "the folder $folder is named"
  done
  for binary in "$1"/lib*/libZu*.so "$1"/bin/*; do
    [[ -e $binary ]] || continue
    readelf --dynamic "$binary" | sed -nE 's/.*\((RPATH|RUNPATH)\).*\[(.*)\]$/\2/p' |
      tr ':' '\n' | grep --invert-match "^\$ORIGIN" && fail "$binary looks into that folder"
  done
  return 0
}

cmake --install "$build" --prefix "$work/first" >/dev/null
mv "$work/first" "$work/second"
check_tree "$work/second" "$work/first"

target=/opt/zunetwork-$$
DESTDIR=$work/stage cmake --install "$build" --prefix "$target" >/dev/null
[[ ! -e $target ]] || fail "DESTDIR is not respected"
[[ $(ls "$work/stage") == opt ]] || fail "files outside of the prefix: $(ls "$work/stage")"
check_tree "$work/stage$target" "$target"
