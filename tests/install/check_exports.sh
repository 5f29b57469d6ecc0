#!/bin/bash
# check_exports.sh LIBRARY PATTERNS...: every symbol that the library exports, as a C++ programmer
# writes it, matches a line (an extended regular expression) of the files PATTERNS.
set -euo pipefail
library=$1
shift

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cat "$@" | sed -E '/^(#|$)/d' >"$work/patterns"
nm --dynamic --demangle --defined-only --no-sort "$library" |
  sed -E 's/^[0-9a-f]* [A-Za-z] //' | sort --unique >"$work/symbols"

if [[ ! -s $work/patterns || ! -s $work/symbols ]]; then
  echo "$library: nothing to compare" >&2
  exit 1
fi
if grep --invert-match --extended-regexp --file="$work/patterns" "$work/symbols" >"$work/foreign"; then
  echo "$library exports what is not its own:" >&2
  cat "$work/foreign" >&2
  exit 1
fi
