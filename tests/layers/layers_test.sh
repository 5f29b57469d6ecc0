#!/usr/bin/env bash
# The order of the layers is kept, and breaking it is noticed: in copies of the sources to which an
# include was added.
set -euo pipefail
root=$(realpath "$(dirname "$0")/../..")
check=$root/tests/layers/layers.sh

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
  echo "$1" >&2
  exit 1
}

"$check" check "$root"

# Adds "FILE HEADER" pairs to a copy and expects the complaint.
expect() { # COMPLAINT FILE HEADER [FILE HEADER]
  local complaint=$1 report
  rm -rf "$work/tree"
  mkdir "$work/tree"
  cp -r "$root"/{ZuUtils,ZuNetwork,zu,CONTRIBUTING.md} "$work/tree"
  shift
  while (($# > 0)); do
    mkdir -p "$work/tree/$(dirname "$1")"
    printf '#include <%s>\n' "$2" >>"$work/tree/$1"
    shift 2
  done
  report=$("$check" check "$work/tree" 2>&1) && fail "passes, instead of: $complaint"
  [[ $report == "$complaint" ]] || fail "\"$report\" instead of \"$complaint\""
}

expect "ZuNetwork/ZuSocket_C.cpp includes ZuNetwork/ZuIPAddr.h of a layer above it" \
  ZuNetwork/ZuSocket_C.cpp ZuNetwork/ZuIPAddr.h
expect "ZuNetwork/KdProtocolReqOptions.cpp includes ZuNetwork/KdHTTPReq.h of a layer above it" \
  ZuNetwork/KdProtocolReqOptions.cpp ZuNetwork/KdHTTPReq.h
expect "ZuNetwork/KdHTTPReq.cpp includes ZuNetwork/ZuSocket_C.h of the other wing" \
  ZuNetwork/KdHTTPReq.cpp ZuNetwork/ZuSocket_C.h
expect "ZuNetwork/KdHTTPReq.cpp includes ZuNetwork/ZuIPAddr.h of the other wing" \
  ZuNetwork/KdHTTPReq.cpp ZuNetwork/internal/Made.h ZuNetwork/internal/Made.h ZuNetwork/ZuIPAddr.h
expect "ZuNetwork/internal/Made.h serves both wings and includes curl/curl.h" \
  ZuNetwork/KdHTTPReq.cpp ZuNetwork/internal/Made.h ZuNetwork/internal/Made.h curl/curl.h \
  ZuNetwork/ZuPing.cpp ZuNetwork/internal/Made.h
expect "ZuNetwork/ZuPing.h, which is installed, includes ZuNetwork/internal/Made.h, which is not" \
  ZuNetwork/ZuPing.h ZuNetwork/internal/Made.h
expect "zu/Address.cpp includes ZuNetwork/internal/Made.h of another library" \
  zu/Address.cpp ZuNetwork/internal/Made.h
expect "zu/Address.cpp includes ZuUtils/internal/Made.h of another library" \
  zu/Address.cpp ZuUtils/internal/Made.h ZuNetwork/KdTransferIO.cpp ZuUtils/internal/Made.h
expect "ZuUtils/ZuFile.cpp includes ZuNetwork/ZuSocket.h of the library above" \
  ZuUtils/ZuFile.cpp ZuNetwork/ZuSocket.h
expect "ZuNetwork/ZuPing.cpp includes zu/Deadline.h of the library above" \
  ZuNetwork/ZuPing.cpp zu/Deadline.h
expect "ZuNetwork/Newcomer.cpp stands in no layer of CONTRIBUTING.md" \
  ZuNetwork/Newcomer.cpp ZuUtils/ZuError.h
