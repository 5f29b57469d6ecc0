#!/usr/bin/env bash
# commits_test.sh CHECK: the check of commit subjects, in histories made for it.
set -euo pipefail
check=$1

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export GIT_CONFIG_GLOBAL=/dev/null GIT_CONFIG_SYSTEM=/dev/null
export GIT_AUTHOR_NAME=a GIT_AUTHOR_EMAIL=a@example.org GIT_COMMITTER_NAME=a
export GIT_COMMITTER_EMAIL=a@example.org

fail() {
  echo "FAILED: $*" >&2
  exit 1
}

commit() { git -C "$work/tree" commit --quiet --allow-empty --message "$1"; }

# A history whose first commit comes before the check, and whose second one brings it.
start() {
  rm -rf "$work/tree"
  git init --quiet "$work/tree"
  commit "Anything goes, at any length that somebody may have chosen long before there was a check"
  mkdir "$work/tree/.ci"
  cp "$check" "$work/tree/.ci/commits"
  git -C "$work/tree" add .ci
  commit "ci: check the subjects of commits"
}

passes() { "$work/tree/.ci/commits"; }
refuses() { # SUBJECT
  start
  commit "$1"
  passes 2>"$work/report" && fail "passes: $1"
  [[ $(<"$work/report") == *": $1" ]] || fail "told is: $(<"$work/report")"
}

start
passes || fail "commits before the check count"
commit "ZuSocket, ZuIPAddr: name the peer in errors"
commit "tests/servers: wait no longer than needed"
commit "zu: $(printf 'x%.0s' {1..68})"
passes || fail "good subjects"

refuses "Name the peer in errors"
refuses "ZuSocket:name the peer in errors"
refuses "zu: $(printf 'x%.0s' {1..69})"
refuses "Revert \"zu: something\""

git clone --quiet --depth 1 "file://$work/tree" "$work/shallow"
"$work/shallow/.ci/commits" || fail "a shallow clone is judged"
rm -rf "$work/tree/.git"
GIT_CEILING_DIRECTORIES=$work passes || fail "an archive is judged"
