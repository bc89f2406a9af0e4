#!/usr/bin/env bash
# Prints ternsearch's arguments as Wine should get them, each followed by a NUL: the FILE
# operands as Windows paths on Wine's Z: drive, everything else as it is. The options (up to "--"
# or the first argument that is none, as ternsearch reads them) and TERM are never translated,
# even when TERM names an existing path; "-" (standard input) stays "-".
#   scripts/ternsearch-args.sh ARGUMENTS... | xargs -0 ...
set -euo pipefail

# shellcheck source=scripts/wine-prefix.sh
source "$(dirname "$0")/wine-prefix.sh"
prefix=$WINEPREFIX
# The Z: drive of a prefix is the Linux root unless someone changed it; then Wine's own
# translation (a program start of its own) is asked.
to_windows() {
  if [ "$(readlink "$prefix/dosdevices/z:" 2>/dev/null)" = / ]; then
    local path
    path=$(realpath -ms -- "$1")
    printf 'Z:%s' "${path//\//\\}"
  else
    winepath -w -- "$1" 2>/dev/null || printf '%s' "$1"
  fi
}

out=()
while [ $# -gt 0 ]; do
  if [ "$1" = -- ]; then
    out+=("$1")
    shift
    break
  fi
  [ "${#1}" -ge 2 ] && [ "${1:0:1}" = - ] || break
  out+=("$1")
  shift
done
if [ $# -gt 0 ]; then
  out+=("$1")  # TERM
  shift
fi
for file in "$@"; do
  if [ "$file" = - ]; then out+=("$file"); else out+=("$(to_windows "$file")"); fi
done
[ "${#out[@]}" -eq 0 ] || printf '%s\0' "${out[@]}"
