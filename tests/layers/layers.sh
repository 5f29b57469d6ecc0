#!/usr/bin/env bash
# layers.sh check|picture [ROOT]: reads which file of the libraries includes which.
#   check     fails where an include runs against the order in CONTRIBUTING.md
#   picture   prints the arrows between the families of files as a Mermaid flowchart
set -euo pipefail
shopt -s nullglob
here=$(dirname "$(realpath "$0")")
what=$1
cd "${2:-$here/../..}"

# "FILE HEADER" for every include, the header as it is written.
includes() {
  grep --with-filename '^ *# *include *["<]' {ZuUtils,ZuNetwork,zu}/{,internal/}*.{h,cpp} |
    sed -nE 's/^([^:]*): *# *include *["<]([^">]*)[">].*/\1 \2/p'
}

includes | awk -v what="$what" -f "$here/layers.awk" CONTRIBUTING.md -
