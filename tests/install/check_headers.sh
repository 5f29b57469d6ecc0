#!/bin/bash
# check_headers.sh PREFIX SOURCE: the public headers of SOURCE, and nothing else, are installed in
# PREFIX; each compiles alone, and twice, without a warning.
set -euo pipefail
prefix=$1
source=$2

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

(cd "$source" && find ZuUtils ZuNetwork zu -maxdepth 1 -name '*.h' | sort) >"$work/expected"
(cd "$prefix/include" && find . -type f -printf '%P\n' | sort) >"$work/installed"
diff "$work/expected" "$work/installed"

while read -r header; do
  printf '#include <%s>\n#include <%s>\n' "$header" "$header" >"$work/${header//\//.}.cpp"
done <"$work/installed"
find "$work" -name '*.cpp' -print0 |
  xargs --null --max-args=1 --max-procs=2 "${CXX:-c++}" -std=c++17 -I"$prefix/include" \
    -Wall -Wextra -Wpedantic -Wshadow -Werror -fsyntax-only
