#!/usr/bin/env bash
# What a program of the examples in the folder BIN prints of a download that is refused. Nobody
# listens on port 1.
set -euo pipefail
unset http_proxy HTTP_PROXY all_proxy ALL_PROXY
{ "$BIN/example_download" http://127.0.0.1:1 /file.txt /dev/null 2>&1 || true; } | sed -n '/^0x/,$p'
