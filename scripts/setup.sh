#!/usr/bin/env bash
# Installs what the build needs on a Debian 12 machine, and nothing when it is all there already
# (it says what it installs, and never lets apt remove a package):
# the MinGW-w64 -posix cross compilers, CMake, Ninja, the GoogleTest sources and Wine with its
# 32- and 64-bit halves, Python for the tests that drive the example servers and check the DLL's
# boundary, and for the builds in Microsoft's ABI clang-cl, lld-link, the LLVM tools, libc++'s
# headers and Wine's development files.
# `setup.sh bench [DIR]` also fetches Google Benchmark's source package into DIR/benchmark (by
# default build/third_party/benchmark of the checkout) and installs ripgrep, which
# bench/grep_compare.sh times beside GNU grep; `setup.sh docs` installs Doxygen.
set -euo pipefail

want_bench=0
want_docs=0
[ "${1:-}" = bench ] && want_bench=1
[ "${1:-}" = docs ] && want_docs=1

root=$(cd "$(dirname "$0")/.." && pwd)
third_party="${2:-$root/build/third_party}"

as_root() { if [ "$(id -u)" = 0 ]; then "$@"; else sudo "$@"; fi; }
have() { command -v "$1" >/dev/null 2>&1; }
installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q 'install ok installed'; }

updated=0
apt_update() {
  if [ "$updated" = 0 ]; then
    echo "setup: apt-get update" >&2
    # A stale index of one suite (seen with bookworm-security's i386 one) must not stop the
    # install: apt keeps the lists it could fetch.
    as_root apt-get update -qq >/dev/null 2>&1 || echo "setup: apt-get update reported errors; going on" >&2
    updated=1
  fi
}

export DEBIAN_FRONTEND=noninteractive

# apt_install WHY PACKAGE...: installs the packages, saying what and why. apt is asked first what
# it would do (apt-get -s), and nothing is installed if that would remove any package: a stale
# index (seen with the i386 one of bookworm-security) has made apt remove dozens, the compilers
# among them. Options for apt-get (other sources) come from the array apt_opts.
apt_opts=()
apt_install() {
  local why=$1
  shift
  local plan
  plan=$(as_root apt-get "${apt_opts[@]}" -s install --no-install-recommends "$@" 2>&1) ||
    { echo "$plan" >&2; echo "setup: apt cannot install $* ($why)" >&2; exit 1; }
  if grep -q '^Remv ' <<<"$plan"; then
    echo "setup: installing $* ($why) would remove packages, so nothing was installed:" >&2
    grep '^Remv ' <<<"$plan" >&2
    exit 1
  fi
  echo "setup: installing $* ($why)" >&2
  as_root apt-get "${apt_opts[@]}" install -y -qq --no-install-recommends "$@" >/dev/null
}

pkgs=()
have i686-w64-mingw32-g++-posix || pkgs+=(g++-mingw-w64-i686-posix)
have x86_64-w64-mingw32-g++-posix || pkgs+=(g++-mingw-w64-x86-64-posix)
have cmake || pkgs+=(cmake)
have ninja || pkgs+=(ninja-build)
[ -f /usr/src/googletest/CMakeLists.txt ] || pkgs+=(googletest)
have dpkg-source || pkgs+=(dpkg-dev)
have python3 || pkgs+=(python3)
[ "$want_docs" = 1 ] && ! have doxygen && pkgs+=(doxygen)
[ "$want_bench" = 1 ] && ! have rg && pkgs+=(ripgrep)
if [ "${#pkgs[@]}" -gt 0 ]; then
  apt_update
  apt_install "the build's tools" "${pkgs[@]}"
fi

# Wine: both halves, from bookworm and bookworm-updates only. The i386 index of the security suite
# has at times lagged behind the amd64 one, which leaves wine32 uninstallable ("held broken
# packages"); all four packages go in one call so apt never drops the 64-bit half for the 32-bit.
if ! installed wine32:i386 || ! installed wine64 || ! have wine; then
  if ! dpkg --print-foreign-architectures | grep -qx i386; then
    echo "setup: adding the i386 architecture to dpkg (32-bit Wine)" >&2
    as_root dpkg --add-architecture i386
  fi
  src_dir=$(mktemp -d)
  cat >"$src_dir/bookworm.sources" <<'SRC'
Types: deb
URIs: http://deb.debian.org/debian
Suites: bookworm bookworm-updates
Components: main
Signed-By: /usr/share/keyrings/debian-archive-keyring.gpg
SRC
  apt_opts=(-o Dir::Etc::SourceList=/dev/null -o "Dir::Etc::SourceParts=$src_dir")
  as_root apt-get "${apt_opts[@]}" update -qq >/dev/null 2>&1 || true
  apt_install "Wine, 32- and 64-bit" wine wine64 libwine:amd64 wine32:i386 libwine:i386
  apt_opts=()
  rm -rf "$src_dir"
fi

# 32-bit programs. Some virtual machines of this kind run no 32-bit x86 code at all (the kernel
# answers "Exec format error"), so 32-bit Wine cannot start there. On such a machine the i386 Wine
# binaries run through QEMU's user-mode emulator, registered with binfmt_misc. Bookworm's QEMU 7.2
# ignores Wine's MAP_FIXED_NOREPLACE reservations and takes about a minute to start each program;
# the QEMU 10 of bookworm-backports starts one in a fraction of a second.
if ! /usr/lib/wine/wine --version >/dev/null 2>&1; then
  qemu=/usr/bin/qemu-i386
  if ! "$qemu" --version 2>/dev/null | grep -qE 'version (9|[1-9][0-9])\.'; then
    tmp=$(mktemp -d)
    mkdir -p "$tmp/lists/partial"
    cat >"$tmp/backports.sources" <<'SRC'
Types: deb
URIs: http://deb.debian.org/debian
Suites: bookworm-backports
Components: main
Signed-By: /usr/share/keyrings/debian-archive-keyring.gpg
SRC
    apt_opts=(-o Dir::Etc::SourceList=/dev/null -o "Dir::Etc::SourceParts=$tmp" -o "Dir::State::Lists=$tmp/lists")
    as_root apt-get "${apt_opts[@]}" update -qq >/dev/null 2>&1 || true
    apt_install "bookworm-backports' QEMU, to run 32-bit Wine" qemu-user
    apt_opts=()
    rm -rf "$tmp"
  fi
  binfmt=/proc/sys/fs/binfmt_misc
  [ -e "$binfmt/register" ] || as_root mount -t binfmt_misc binfmt_misc "$binfmt"
  if [ ! -e "$binfmt/qemu-i386" ]; then
    magic='\x7fELF\x01\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\x03\x00'
    mask='\xff\xff\xff\xff\xff\xfe\xfe\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff'
    echo "setup: registering QEMU for 32-bit programs" >&2
    echo ":qemu-i386:M::$magic:$mask:$qemu:F" | as_root tee "$binfmt/register" >/dev/null
  fi
  /usr/lib/wine/wine --version >/dev/null 2>&1 || { echo "setup: 32-bit Wine still cannot start" >&2; exit 1; }
fi

# Microsoft's ABI (cross/msvc): clang-cl (clang-tools-14), lld-link, llvm-rc, llvm-lib, llvm-ar
# and the tools that read the DLL's exports (llvm-14), libc++'s headers, and libwine-dev for Wine's MSVC-mode headers and x86_64 import
# libraries, at the version of the installed Wine. The i386 import libraries come from
# libwine-dev:i386, which cross/msvc/make-sysroot.sh downloads and unpacks into the build tree
# itself: installing it may make apt remove the compilers.
msvc=()
have clang-cl-14 || msvc+=(clang-tools-14)
have lld-link-14 || msvc+=(lld-14)
for tool in llvm-rc-14 llvm-lib-14 llvm-ar-14 llvm-readobj-14 llvm-undname-14; do
  have "$tool" || { msvc+=(llvm-14); break; }
done
[ -f /usr/lib/llvm-14/include/c++/v1/vector ] || msvc+=(libc++-14-dev)
if ! installed libwine-dev; then
  msvc+=("libwine-dev=$(dpkg-query -W -f='${Version}' libwine:amd64)")
fi
if [ "${#msvc[@]}" -gt 0 ]; then
  apt_update
  apt_install "the builds in Microsoft's ABI" "${msvc[@]}"
fi

# Google Benchmark ships only as a Linux build; its source package builds under MinGW.
if [ "$want_bench" = 1 ] && [ ! -f "$third_party/benchmark/CMakeLists.txt" ]; then
  echo "setup: fetching Google Benchmark's source package into $third_party/benchmark" >&2
  mkdir -p "$third_party"
  tmp=$(mktemp -d)
  cat >"$tmp/src.sources" <<'SRC'
Types: deb-src
URIs: http://deb.debian.org/debian
Suites: bookworm
Components: main
Signed-By: /usr/share/keyrings/debian-archive-keyring.gpg
SRC
  mkdir -p "$tmp/lists/partial"
  opts=(-o Dir::Etc::SourceList=/dev/null -o "Dir::Etc::SourceParts=$tmp" -o "Dir::State::Lists=$tmp/lists"
        -o APT::Sandbox::User=root)
  as_root apt-get "${opts[@]}" update -qq >/dev/null 2>&1 || true
  (cd "$tmp" && apt-get "${opts[@]}" source --download-only -qq benchmark >/dev/null)
  archive=$(ls "$tmp"/benchmark_*.orig.tar.gz | head -n 1)
  rm -rf "$third_party/benchmark"
  mkdir -p "$third_party/benchmark"
  tar -xzf "$archive" -C "$third_party/benchmark" --strip-components=1
  rm -rf "$tmp"
fi
