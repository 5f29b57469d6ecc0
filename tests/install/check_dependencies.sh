#!/bin/bash
# check_dependencies.sh PREFIX: the package in PREFIX says in a sentence which headers of others are
# missing, and uses them where they are.
set -euo pipefail
prefix=$1
here=$(dirname "$(realpath "$0")")

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
  echo "$1" >&2
  exit 1
}

configure() { # TREE PREFIX-PATH
  cmake -S "$here/consumer" -B "$work/$1" -G Ninja -DCMAKE_PREFIX_PATH="$2" \
    -DCMAKE_IGNORE_PATH="/usr/include;/usr/include/x86_64-linux-gnu" >"$work/log" 2>&1
}

configure none "$prefix" && fail "headers are found where there are none"
log=$(tr --squeeze-repeats ' \n' ' ' <"$work/log")
for sentence in "The headers of libcurl (curl/curl.h) are not found: install them" \
  "The headers of Boost (boost/smart_ptr/shared_ptr.hpp) are not found: install them"; do
  [[ $log == *"$sentence"* ]] || fail "\"$sentence\" is not in: $log"
done

# Elsewhere: a folder with nothing but the system's.
for header in curl/curl.h boost/version.hpp; do
  name=${header%%/*}
  found=$(echo "#include <$header>" | "${CXX:-c++}" -x c++ -H -fsyntax-only - 2>&1 |
    sed -n '1s/^\. //p')
  mkdir --parents "$work/$name/include"
  ln -s "$(dirname "$found")" "$work/$name/include/$name"
done
configure curl "$prefix;$work/curl" && fail "Boost is found where there is none"
configure both "$prefix;$work/curl;$work/boost" || fail "$(<"$work/log")"
commands=$(ninja -C "$work/both" -t commands)
for folder in curl boost; do
  [[ $commands == *"-isystem $work/$folder/include"* ]] || fail "the $folder found is not used"
done
cmake --build "$work/both" --target consumer >"$work/log" || fail "$(<"$work/log")"
