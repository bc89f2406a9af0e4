# Sourced by the project's scripts: the Wine prefix that every program of the project runs in.
# $WINEPREFIX when it is set; else `wineprefix` in the build folder ($TERN_BUILD_DIR, or build/ of
# this checkout), so that each checkout and build folder has a prefix of its own.
: "${WINEPREFIX:=${TERN_BUILD_DIR:-$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)/build}/wineprefix}"
export WINEPREFIX
