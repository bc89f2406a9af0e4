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

# The Wine server and the system processes that the first program starts (services.exe,
# winedevice.exe, explorer.exe) inherit that program's standard error and outlive it. A test
# runner that reads a test's output until the pipe closes would then wait for the test that
# happened to start them until the server ends, which under a busy test run can be minutes. So
# when no server runs for this prefix, they are started here first, detached from our output.
server_running() {
  local pid
  for pid in $(pgrep -u "$(id -u)" '^wineserver' 2>/dev/null); do
    tr '\0' '\n' <"/proc/$pid/environ" 2>/dev/null | grep -qxF "WINEPREFIX=$WINEPREFIX" && return 0
  done
  return 1
}
if ! server_running; then
  wine cmd /c exit </dev/null >/dev/null 2>&1 || true
fi
exec wine "$@"
