#!/usr/bin/env bash
# Runs a Windows program under Wine in the project's own headless prefix. The prefix lives in
# $WINEPREFIX when set, else in build/wineprefix of this checkout.
set -euo pipefail
export WINEPREFIX="${WINEPREFIX:-$(cd "$(dirname "$0")/.." && pwd)/build/wineprefix}"
export WINEDEBUG="${WINEDEBUG:--all}"
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
if ! held 1 && ! held 2; then
  exec "$wine" "$@"
fi
out=""
err=""
trap 'rm -f "$out" "$err"' EXIT
exec 3>&1 4>&2
if held 1; then out=$(mktemp); exec 3>"$out"; fi
if held 2; then err=$(mktemp); exec 4>"$err"; fi
status=0
"$wine" "$@" 1>&3 2>&4 3>&- 4>&- || status=$?
exec 3>&- 4>&-
[ -z "$out" ] || cat "$out"
[ -z "$err" ] || cat "$err" >&2
exit "$status"
