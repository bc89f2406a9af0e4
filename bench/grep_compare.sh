#!/usr/bin/env bash
# Times ternsearch against GNU grep -F and ripgrep (rg -F, one thread, no memory map: it reads as
# ternsearch reads) on the same files in one run: a 256 MiB corpus made of the licence and
# copyright texts found on this machine, and a tree of 20,000 files (200 MiB) cut from it. Each
# case is the median of 5 runs; the tools write to a file (GNU grep stops at its first match when
# its output is /dev/null, and Wine writes there slowly). A run of the tool that searches nothing
# (--help) gives the floor of starting a program under Wine; (ternsearch - floor) / grep and
# (ternsearch - floor) / rg are what the search itself costs against the other tools' whole runs.
# For the tree, a bare walk (tern_tree_walk, beside ternsearch.exe) that opens, reads and closes
# every file on one thread with the same calls and searches nothing is the floor that Wine's file
# calls set; ternsearch / walk below 1 means that reading ahead on other threads hides part of it.
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
# Reads the files under $data/$1 into the page cache. This machine's kernel reclaims file pages
# that have lain unused for a while, so without it the first tool of a round could read part of
# its input from disk while the others find it in memory; each tool starts with it all cached.
warm() { find "$data/$1" -type f -print0 | xargs -0 cat >/dev/null; }

rare=Sleepycat
common=Software
walker=$(dirname "$exe")/tern_tree_walk.exe
have_rg=0
command -v rg >/dev/null 2>&1 && have_rg=1
echo "ternsearch: $exe ($wine); load before: $(cut -d' ' -f1-3 /proc/loadavg)"
# Five rounds of each tool, interleaved so that a change of the machine's load meets all alike;
# the medians of each. Each round starts with an untimed run, so that the floor and ternsearch
# both start right behind another program under Wine (Wine's own helper processes end when they
# have been idle for a moment, and the next start waits for them).
# rounds INPUT TERN_ARGS GREP_ARGS RG_ARGS [WALK_DIR]: sets floor, tern, grep_s, rg_s, walk
# (seconds); INPUT is what the tools read, warmed before each of them.
rounds() {
  local input=$1 tern_args=$2 grep_args=$3 rg_args=$4 walk_dir=${5:-}
  local floors=() terns=() greps=() rgs=() walks=()
  for _ in 1 2 3 4 5; do
    timed "$wine" "$exe" --help >/dev/null
    floors+=("$(timed "$wine" "$exe" --help)")
    warm "$input"
    # shellcheck disable=SC2086
    terns+=("$(timed "$wine" "$exe" $tern_args)")
    warm "$input"
    # shellcheck disable=SC2086
    greps+=("$(timed grep $grep_args)")
    if [ "$have_rg" = 1 ]; then
      warm "$input"
      # shellcheck disable=SC2086
      rgs+=("$(timed rg -F -j1 --no-mmap $rg_args)")
    fi
    if [ -n "$walk_dir" ]; then
      timed "$wine" "$exe" --help >/dev/null
      warm "$input"
      walks+=("$(timed "$wine" "$walker" "$walk_dir")")
    fi
  done
  seconds() { if [ $# -gt 0 ]; then printf '%s\n' "$@" | median | awk '{ print $1 / 1e9 }'; else echo 0; fi; }
  floor=$(seconds "${floors[@]}")
  tern=$(seconds "${terns[@]}")
  grep_s=$(seconds "${greps[@]}")
  rg_s=$(seconds "${rgs[@]}")
  walk=$(seconds "${walks[@]}")
}
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (b > 0) printf "%.2f", a / b; else printf "-" }'; }
printf '%-16s %7s %10s %7s %7s %16s %14s\n' case floor ternsearch grep rg "(tern-floor)/grep" \
  "(tern-floor)/rg"
for kind in rare common; do
  term=$rare
  [ $kind = common ] && term=$common
  for flags in "-c" "-n" "-i -n" "-w -c"; do
    # shellcheck disable=SC2086
    rounds corpus.txt "$flags $term corpus.txt" "-F $flags $term corpus.txt" "$flags $term corpus.txt"
    net=$(awk -v t="$tern" -v f="$floor" 'BEGIN { print t - f }')
    printf '%-16s %7.3f %10.3f %7.3f %7s %16s %14s\n' "$flags $kind" "$floor" "$tern" "$grep_s" \
      "$([ "$have_rg" = 1 ] && printf '%.3f' "$rg_s" || echo -)" "$(ratio "$net" "$grep_s")" \
      "$(ratio "$net" "$rg_s")"
  done
done
echo
printf '%-28s %7s %7s %10s %7s %7s %15s %14s\n' case floor walk ternsearch grep rg ternsearch/walk \
  "(tern-floor)/rg"
for kind in rare common; do
  term=$rare
  [ $kind = common ] && term=$common
  if [ -f "$walker" ]; then walk_dir=tree; else walk_dir=""; fi
  rounds tree "-r -n $term tree" "-r -F -n $term tree" "-n $term tree" "$walk_dir"
  net=$(awk -v t="$tern" -v f="$floor" 'BEGIN { print t - f }')
  printf '%-28s %7.3f %7s %10.3f %7.3f %7s %15s %14s\n' "-r -n $kind (20,000 files)" "$floor" \
    "$([ -n "$walk_dir" ] && printf '%.3f' "$walk" || echo -)" "$tern" "$grep_s" \
    "$([ "$have_rg" = 1 ] && printf '%.3f' "$rg_s" || echo -)" "$(ratio "$tern" "$walk")" \
    "$(ratio "$net" "$rg_s")"
done
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
