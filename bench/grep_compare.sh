#!/usr/bin/env bash
# Times ternsearch against GNU grep -F on the same files in one run: a 256 MiB corpus made of the
# licence and copyright texts found on this machine, and a tree of 20,000 files (200 MiB) cut from
# it. Each case is the median of 5 runs; both tools write to a file (GNU grep stops at its first
# match when its output is /dev/null, and Wine writes there slowly). A run of the tool that
# searches nothing (--help) gives the floor of starting a program under Wine; the last column,
# (ternsearch - floor) / grep, is what the search itself costs against grep's whole run.
# Seconds, medians; the load average shows how busy the machine was.
#
#   bench/grep_compare.sh [TERNSEARCH.EXE]
#
# Without an argument it takes the x86_64 Release build of ./tern bench, else the x86_64 build.
# The corpus and the tree are made once, under build/bench-data.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build_root="${TERN_BUILD_DIR:-$root/build}"
exe=${1:-}
if [ -z "$exe" ]; then
  for candidate in "$build_root"/{bench-x86_64,x86_64}/bin/ternsearch.exe; do
    if [ -f "$candidate" ]; then exe=$candidate; break; fi
  done
fi
[ -f "$exe" ] || { echo "grep_compare: no ternsearch.exe; build first (./tern build)" >&2; exit 2; }
exe=$(cd "$(dirname "$exe")" && pwd)/$(basename "$exe")

# shellcheck source=scripts/wine-prefix.sh
source "$root/scripts/wine-prefix.sh"
export WINEDEBUG=-all
export WINEDLLOVERRIDES="${WINEDLLOVERRIDES:-mscoree,mshtml=;winex11.drv,winewayland.drv=}"
unset DISPLAY WAYLAND_DISPLAY
# A 64-bit program starts through Wine's 64-bit loader, as scripts/wine-run.sh starts it.
wine=wine
pe=$(od -An -tu4 -j60 -N4 "$exe" | tr -d ' ')
machine=$(od -An -tx2 -j$((pe + 4)) -N2 "$exe" | tr -d ' ')
if [ -x /usr/lib/wine/wine64 ] && [ "$machine" = 8664 ]; then wine=/usr/lib/wine/wine64; fi
# A Wine server that outlives each run (for a minute after the last), as it would for a user.
wineserver -p60 >/dev/null 2>&1 </dev/null || true

data="$build_root/bench-data"
corpus="$data/corpus.txt"
tree="$data/tree"
mkdir -p "$data"
if [ ! -f "$corpus" ]; then
  echo "grep_compare: making $corpus (256 MiB of licence and copyright texts)" >&2
  sources=$(ls /usr/share/common-licenses/* /usr/share/doc/*/copyright 2>/dev/null)
  [ -n "$sources" ] || { echo "grep_compare: no licence texts found" >&2; exit 2; }
  # shellcheck disable=SC2086
  while cat $sources; do :; done 2>/dev/null | head -c $((256 << 20)) >"$corpus.part" || true
  mv "$corpus.part" "$corpus"
fi
if [ ! -f "$tree/.complete" ]; then
  echo "grep_compare: making $tree (20,000 files, 200 MiB)" >&2
  rm -rf "$tree"
  mkdir -p "$tree"
  # 200 folders of 100 files of 10,485 bytes each, cut from the corpus.
  head -c $((20000 * 10485)) "$corpus" | (cd "$tree" && split -a 5 -d -b 10485 - f)
  (cd "$tree" && for d in $(seq -w 0 199); do
     mkdir "d$d" && mv $(printf "f%05d " $(seq $((10#$d * 100)) $((10#$d * 100 + 99)))) "d$d"/
   done)
  touch "$tree/.complete"
fi

out="$data/out.txt"
now() { date +%s%N; }
# Wall time in nanoseconds of "$@" run in $data with its output to $out.
timed() {
  local start
  start=$(now)
  (cd "$data" && "$@" >"$out" 2>/dev/null) || true
  echo $(( $(now) - start ))
}
median() { sort -n | sed -n 3p; }

rare=Sleepycat
common=Software
echo "ternsearch: $exe ($wine); load before: $(cut -d' ' -f1-3 /proc/loadavg)"
printf '%-28s %9s %9s %9s %7s %18s\n' case floor ternsearch grep ratio "(tern-floor)/grep"
# Five rounds of the floor, ternsearch and grep, interleaved so that a change of the machine's
# load meets all three alike; the medians of each. Each round starts with an untimed run, so that
# the floor and ternsearch both start right behind another program under Wine (Wine's own
# helper processes end when they have been idle for a moment, and the next start waits for them).
row() {
  local label=$1 tern_args=$2 grep_args=$3 floors=() terns=() greps=()
  for _ in 1 2 3 4 5; do
    timed "$wine" "$exe" --help >/dev/null
    floors+=("$(timed "$wine" "$exe" --help)")
    # shellcheck disable=SC2086
    terns+=("$(timed "$wine" "$exe" $tern_args)")
    # shellcheck disable=SC2086
    greps+=("$(timed grep $grep_args)")
  done
  awk -v l="$label" -v f="$(printf '%s\n' "${floors[@]}" | median)" \
      -v t="$(printf '%s\n' "${terns[@]}" | median)" \
      -v g="$(printf '%s\n' "${greps[@]}" | median)" \
      'BEGIN { printf "%-28s %9.3f %9.3f %9.3f %7.2f %18.2f\n", l, f / 1e9, t / 1e9, g / 1e9,
               t / g, (t - f) / g }'
}
for kind in rare common; do
  term=$rare
  [ $kind = common ] && term=$common
  row "-c $kind" "-c $term corpus.txt" "-F -c $term corpus.txt"
  row "-n $kind" "-n $term corpus.txt" "-F -n $term corpus.txt"
  row "-i -n $kind" "-i -n $term corpus.txt" "-F -i -n $term corpus.txt"
  row "-w -c $kind" "-w -c $term corpus.txt" "-F -w -c $term corpus.txt"
done
for kind in rare common; do
  term=$rare
  [ $kind = common ] && term=$common
  row "-r -n $kind (20,000 files)" "-r -n $term tree" "-r -F -n $term tree"
done
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
