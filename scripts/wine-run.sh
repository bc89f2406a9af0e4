#!/usr/bin/env bash
# Runs a Windows program under Wine in the project's own headless prefix (scripts/wine-prefix.sh).
#
# Wine's heap checks are on unless TERN_HEAP_CHECK=0 (the benchmarks turn them off): every heap
# call validates the block it is handed, and a free of a pointer that no allocation returned, or of
# a block freed before, prints a "warn:heap" or "err:heap" line. Such lines are taken out of the
# program's error output, so that output a test compares stays the program's own, and reported
# instead: on standard error, appended to the file $TERN_HEAP_LOG when that is set (./tern test and
# ./tern fuzz fail when it is not empty), and in the exit status, 70 in place of the program's.
# Every Windows program of the tests starts through here, and whatever it starts in turn inherits
# the checks.
set -euo pipefail
# shellcheck source=scripts/wine-prefix.sh
source "$(dirname "$0")/wine-prefix.sh"
heap_check=1
[ "${TERN_HEAP_CHECK:-1}" != 0 ] || heap_check=0
if [ $heap_check = 1 ]; then
  export WINEDEBUG="${WINEDEBUG:--all},err+heap,warn+heap"
else
  export WINEDEBUG="${WINEDEBUG:--all}"
fi
# No Mono or Gecko installers, and no window drivers: nothing here draws.
export WINEDLLOVERRIDES="${WINEDLLOVERRIDES:-mscoree,mshtml=;winex11.drv,winewayland.drv=}"
unset DISPLAY WAYLAND_DISPLAY
if [ ! -f "$WINEPREFIX/system.reg" ]; then
  mkdir -p "$(dirname "$WINEPREFIX")"
  # Two tests may start at once on a fresh prefix; one of them makes it.
  exec 9>"$WINEPREFIX.lock"
  flock 9
  [ -f "$WINEPREFIX/system.reg" ] || wine wineboot -i >/dev/null 2>&1
  flock -u 9
fi

# 64-bit programs start through Wine's 64-bit loader itself. Debian's `wine` launcher is a 32-bit
# program, which on machines that run 32-bit code through an emulator costs about 0.6 s a start.
wine=wine
wine64=/usr/lib/wine/wine64
if [ $# -gt 0 ] && [ -f "$1" ] && [ -x "$wine64" ]; then
  pe=$(od -An -tu4 -j60 -N4 "$1" 2>/dev/null | tr -d ' ')
  machine=$(od -An -tx2 -j$((${pe:-0} + 4)) -N2 "$1" 2>/dev/null | tr -d ' ')
  [ "$machine" = 8664 ] && wine=$wine64
fi

# The Wine server and the system processes that Wine starts on demand (services.exe,
# winedevice.exe, and explorer.exe, which also ends when no program has used the desktop for a
# moment and comes back with the next one) inherit the standard output and error of the program
# that happened to start them, and outlive it. A reader of a pipe waits until every writer has
# closed it, so a test runner would wait for as long as they live: minutes. Output that goes to a
# pipe or a socket is therefore written to a file here and passed on once the program has ended;
# output to a terminal or a file, which nobody waits on, goes straight through as it comes.
held() { [ -p "/dev/fd/$1" ] || [ -S "/dev/fd/$1" ]; }
if [ $heap_check = 0 ] && ! held 1 && ! held 2; then
  exec "$wine" "$@"
fi
# With the heap checks on, the error output is always held, as Wine's lines must be taken out of
# it. When both outputs go to one pipe (as a test runner reads them), they are held in one file,
# which keeps their order: a heap line then shows after the line the program wrote before it,
# such as the test that was running.
out=""
err=""
report=""
trap 'rm -f "$out" "$err" "$report"' EXIT
exec 3>&1 4>&2
if held 1; then out=$(mktemp); exec 3>"$out"; fi
merged=0
if [ $heap_check = 1 ] && [ -n "$out" ] && [ /dev/fd/1 -ef /dev/fd/2 ]; then
  merged=1
  exec 4>&3
elif [ $heap_check = 1 ] || held 2; then
  err=$(mktemp); exec 4>"$err"
fi
status=0
"$wine" "$@" 1>&3 2>&4 3>&- 4>&- || status=$?
exec 3>&- 4>&-

# Passes a held error output on without Wine's heap lines, which go to $report, each with the
# program's last line before it. A Wine line ends any line the program had begun on the same
# output, whose start stays in place.
heap_line='[0-9a-f]+:(err|warn):heap:'
pass_on() {
  if [ $heap_check = 0 ] || ! grep -Eq "$heap_line" "$1"; then cat "$1"; return; fi
  [ -n "$report" ] || report=$(mktemp)
  awk -v pattern="$heap_line" -v report="$report" '
    match($0, pattern) {
      printf "%s", substr($0, 1, RSTART - 1)
      print "  " substr($0, RSTART) (last == "" ? "" : "\n    after: " last) >>report
      next
    }
    { print; last = $0 }' "$1"
}
if [ $merged = 1 ]; then pass_on "$out"; elif [ -n "$out" ]; then cat "$out"; fi
[ -z "$err" ] || pass_on "$err" >&2
if [ -n "$report" ]; then
  {
    echo "wine-run.sh: Wine's heap checks failed in $* (the program's own status: $status)"
    cat "$report"
  } | tee -a "${TERN_HEAP_LOG:-/dev/null}" >&2
  exit 70
fi
exit "$status"
