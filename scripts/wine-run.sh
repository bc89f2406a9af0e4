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
exec wine "$@"
