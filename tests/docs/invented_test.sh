#!/usr/bin/env bash
# invented_test.sh BIN: the check of the documents notices code that is nowhere.
set -euo pipefail
bin=$1
here=$(dirname "$(realpath "$0")")

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
  echo "$1" >&2
  exit 1
}

document() { printf '%s\n' "$1" '```cpp' "$2" '```' >"$work/document.md"; }
check() { "$here/snippets.sh" "$bin" "$work/document.md" 2>&1; }

region='<!-- examples/settings.cpp [settings] -->'
document "$region" 'int made_up;'
[[ $(check) == *"-int made_up;"*"run tests/docs/snippets.sh --write"* ]] || fail "changed code passes"
document '' 'int made_up;'
[[ $(check) == *"does not say where it comes from"* ]] || fail "code of no source passes"
for source in examples/settings.cpp examples/missing.cpp 'examples/settings.cpp [missing]'; do
  document "<!-- $source -->" 'int made_up;'
  [[ $(check) == *"nothing is found by \"$source\""* ]] || fail "$source passes"
done
for line in './dev conquer' 'zunet gett x' 'echo | zunet get --outputt x'; do
  document '<!-- commands -->' "$line"
  check >/dev/null && fail "$line passes"
done
document '<!-- output: echo Source.cpp:17 -->' 'Source.cpp:99'
check || fail "line numbers count"
document '<!-- output: echo Source.cpp:17 -->' 'Sauce.cpp:17'
check >/dev/null && fail "names do not count"

document "$region" 'int made_up;'
"$here/snippets.sh" --write "$bin" "$work/document.md"
check || fail "what was written is not right"
