#!/bin/bash
# check_hardening.sh FILE [fortified]: what a fault in the FILE, a library or a program, would be used
# for is closed. "fortified": calls of the C library that fill memory are checked as well.
set -euo pipefail
file=$1
fortified=${2:-}

status=0
expect() { # WHAT PATTERN TEXT
  if ! grep --quiet --extended-regexp -- "$2" <<<"$3"; then
    echo "$file: $1" >&2
    status=1
  fi
}

dynamic=$(readelf --dynamic --wide "$file")
segments=$(readelf --program-headers --wide "$file")
symbols=$(nm --dynamic --undefined-only "$file")
expect "symbols are bound while it runs" 'FLAGS_1.*NOW' "$dynamic"
expect "the table of symbols stays writable" 'GNU_RELRO' "$segments"
expect "the stack is executable" 'GNU_STACK .* RW  ' "$segments"
expect "its addresses are fixed" 'Type:.*DYN' "$(readelf --file-header "$file")"
expect "the stack is not guarded" '__stack_chk_fail' "$symbols"
expect "return addresses are not guarded" 'x86 feature:.*SHSTK' "$(readelf --notes --wide "$file")"
if [[ -n $fortified ]]; then
  expect "calls are not checked" '__[a-z]+_chk(@|$)' "$symbols"
fi

# Data that is only read lies in no segment that is executable.
expect "constants are executable" '^$' \
  "$(sed -nE 's/^ +[0-9]+ +(.*\.rodata.*)$/\1/p' <<<"$segments" | grep '\.text' || true)"
exit $status
