#!/usr/bin/env bash
# snippets.sh [--write] BIN DOCUMENT...: every block of code in the documents says in a comment above
# it where it comes from, and is what stands there:
#   <!-- FILE [NAME] ... -->    what the file has between two lines "// [NAME]" or "# [NAME]"
#   <!-- output: COMMAND -->    what the command prints, BIN being the folder of the programs; times
#                               and line numbers of sources, which move with every edit, are equal
#   <!-- commands -->           lines for a shell, whose programs have these commands and options
# With --write the blocks are replaced by what stands there.
set -euo pipefail
root=$(realpath "$(dirname "$0")/../..")
write=
if [[ $1 == --write ]]; then
  write=yes
  shift
fi
BIN=$(realpath "$1")
export BIN
shift
cd "$root"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
status=0

complain() {
  echo "$*" >&2
  status=1
}

# The region NAME of FILE, without its indentation.
region() { # FILE NAME
  awk -v mark="[$2]" '
    ($1 == "//" || $1 == "#") && $2 == mark && NF == 2 { inside = !inside; ++marks; next }
    inside {
      lines[++count] = $0
      match($0, /^ */)
      if (NF > 0 && (count == 1 || RLENGTH < indent)) indent = RLENGTH
    }
    END {
      for (i = 1; i <= count; ++i) print substr(lines[i], indent + 1)
      if (marks != 2 || count == 0) exit 1
    }' "$1"
}

regions() { # FILE [NAME]...
  local file=$1 name first=yes
  shift
  for name in "$@"; do
    if [[ -z $first ]]; then echo; fi
    first=
    name=${name#[}
    region "$file" "${name%]}" || return
  done
}

# What the block under the comment is to hold.
content() { # COMMENT
  local words
  if [[ $1 == "output: "* ]]; then
    bash -euo pipefail -c "${1#output: }"
  else
    read -r -a words <<<"$1"
    ((${#words[@]} > 1)) && regions "${words[@]}"
  fi
}

# Every "./dev WORD", "zunet WORD --option" and "cmake --preset NAME" of the lines is known to the
# program.
check_commands() { # WHERE
  local line words word help
  sed 's/ #.*//' | tr '|&;()' '\n' | while read -r line; do
    read -r -a words <<<"$line"
    case ${words[*]:0:2} in
      "./dev "*) help=$(./dev help) words=("${words[1]}") ;;
      "zunet "*)
        help=$("$BIN/zunet" --help && "$BIN/zunet" "${words[1]}" --help)
        mapfile -t words < <(printf '%s\n' "${words[@]:1}" | grep -e "^${words[1]}$" -e '^-[-a-zA-Z]')
        ;;
      "cmake --preset") help=$(cmake --list-presets) words=("\"${words[2]}\"") ;;
      *) continue ;;
    esac
    for word in "${words[@]}"; do
      grep --quiet --fixed-strings --word-regexp -- "$word" <<<"$help" ||
        complain "$1: $line: $word is unknown"
    done
    ((status == 0)) || return 1
  done
}

# Prints the document with the blocks as they are to be.
render() { # DOCUMENT
  local document=$1 line comment='' number=0 expected
  while IFS= read -r line; do
    number=$((number + 1))
    printf '%s\n' "$line"
    if [[ $line != '```'* ]]; then
      comment=
      if [[ $line =~ ^'<!-- '(.*)' -->'$ ]]; then comment=${BASH_REMATCH[1]}; fi
      continue
    fi
    : >"$work/block"
    while IFS= read -r line && [[ $line != '```' ]]; do
      number=$((number + 1))
      printf '%s\n' "$line" >>"$work/block"
    done
    number=$((number + 1))
    if [[ $comment == commands ]]; then
      check_commands "$document:$number" <"$work/block" || status=1
      cat "$work/block"
    elif [[ -z $comment ]]; then
      complain "$document:$number: the block before does not say where it comes from"
      cat "$work/block"
    elif expected=$(content "$comment"); then
      printf '%s\n' "$expected"
    else
      complain "$document:$number: nothing is found by \"$comment\""
      cat "$work/block"
    fi
    echo '```'
    comment=
  done <"$document"
}

plain() { sed -E 's/([[:alnum:]_]\.(cpp|h)):[0-9]+/\1:N/g; s/after [0-9]+ ms/after N ms/g' "$1"; }

for document in "$@"; do
  render "$document" >"$work/rendered"
  if [[ -n $write ]]; then
    cmp --quiet "$document" "$work/rendered" || cat "$work/rendered" >"$document"
  elif ! diff --unified --label "$document" --label "as it is to be" <(plain "$document") \
    <(plain "$work/rendered"); then
    complain "$document: run tests/docs/snippets.sh --write ${BIN#"$root"/} $document"
  fi
done
exit $status
