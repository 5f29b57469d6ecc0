#!/bin/bash
# check_dynamic.sh LIBRARY SONAME [OWN]: the library has that name, and needs nothing that a program
# which transfers no files would have to install for it: libcurl and OpenSSL are loaded by name. It
# may need OWN, another library of the product.
set -euo pipefail
library=$1
soname=$2
own=${3:-}

allowed='libZuUtils\.so\.1|libstdc\+\+\.so\.6|libgcc_s\.so\.1|libm\.so\.6|libc\.so\.6'
allowed+='|ld-linux-x86-64\.so\.2|lib(a|ub|t)san\.so\.[0-9]+' # the last: sanitizer builds
allowed+=${own:+|${own//./\\.}}

fail() {
  echo "$library: $1" >&2
  exit 1
}

dynamic=$(readelf --dynamic --wide "$library")
actual=$(sed -nE 's/.*\(SONAME\).*\[(.*)\]$/\1/p' <<<"$dynamic")
[[ $actual == "$soname" ]] || fail "soname is '$actual', not '$soname'"

needed=$(sed -nE 's/.*\(NEEDED\).*\[(.*)\]$/\1/p' <<<"$dynamic")
[[ $needed == *libc.so.6* ]] || fail "not even libc is needed: the list cannot be read"
foreign=$(grep --invert-match --line-regexp --extended-regexp "$allowed" <<<"$needed" || true)
[[ -z $foreign ]] || fail "needs ${foreign//$'\n'/ }"
