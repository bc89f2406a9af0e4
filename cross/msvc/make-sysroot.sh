#!/usr/bin/env bash
# Lays out, for one architecture, what an MSVC-ABI cross build links against and does not find on
# a Linux machine: Wine's import libraries under Microsoft's names, MinGW's COM support headers,
# and the runtime stand-in (runtime/) built as Microsoft's static runtime libraries are named.
#   make-sysroot.sh i686|x86_64 OUT_DIR
# OUT_DIR gets include/, lib/ and a stamp; a second run with nothing changed does nothing. The
# x86_64 import libraries come from the installed libwine-dev; the i386 ones from the same version
# of libwine-dev:i386, fetched with apt-get download and unpacked into OUT_DIR (never installed:
# installing the i386 package can make apt remove the compilers).
set -euo pipefail

arch=${1:?architecture (i686 or x86_64)}
out=${2:?output folder}
here=$(cd "$(dirname "$0")" && pwd)
case "$arch" in
  i686) target=i686-pc-windows-msvc wine_arch=i386 ;;
  x86_64) target=x86_64-pc-windows-msvc wine_arch=x86_64 ;;
  *) echo "make-sysroot.sh: unknown architecture $arch" >&2; exit 2 ;;
esac

wine_version=$(dpkg-query -W -f='${Version}' libwine-dev 2>/dev/null || true)
if [ -z "$wine_version" ]; then
  echo "make-sysroot.sh: libwine-dev is not installed (./tern setup installs it)" >&2
  exit 1
fi
stamp=$( (cat "$0" "$here"/runtime/* "$here"/include/*; echo "$wine_version";
          command -v clang-cl-14 llvm-lib-14 llvm-ar-14) | sha256sum)
[ "$(cat "$out/stamp" 2>/dev/null)" = "$stamp" ] && exit 0

rm -rf "$out"
mkdir -p "$out/include" "$out/lib" "$out/obj"

# Wine's import libraries for this architecture.
if [ "$arch" = x86_64 ]; then
  wine_lib=/usr/lib/x86_64-linux-gnu/wine/x86_64-windows
else
  deb_dir="$out/wine-i386"
  mkdir -p "$deb_dir"
  (cd "$deb_dir" && apt-get download -qq -o APT::Sandbox::User=root \
     "libwine-dev:i386=$wine_version" >/dev/null)
  dpkg-deb -x "$deb_dir"/libwine-dev_*_i386.deb "$deb_dir/root"
  wine_lib="$deb_dir/root/usr/lib/i386-linux-gnu/wine/i386-windows"
fi
[ -f "$wine_lib/libkernel32.a" ] || { echo "make-sysroot.sh: no import libraries in $wine_lib" >&2; exit 1; }

# Under Microsoft's names (kernel32.lib, ...), which CMake and the compiler's default-library
# records ask for. Wine's C runtime import libraries for older runtimes stay out: the programs use
# ucrtbase.dll and vcruntime140.dll, and msvcrt.lib is the stand-in's name. ucrtbase's import
# library also carries Wine's own program entry points and mains (crt_*.o), which would take the
# place of the stand-in's and skip the C++ constructors: they are removed from the copy.
for a in "$wine_lib"/lib*.a; do
  name=$(basename "$a" .a)
  name=${name#lib}
  case "$name" in
    msvcr*|winecrt0) continue ;;
  esac
  ln -s "$a" "$out/lib/$name.lib"
done
rm "$out/lib/ucrtbase.lib"
cp "$wine_lib/libucrtbase.a" "$out/lib/ucrtbase.lib"
llvm-ar-14 t "$out/lib/ucrtbase.lib" | grep '^crt_' | xargs -r llvm-ar-14 d "$out/lib/ucrtbase.lib"

# MinGW's COM support headers, which work in the MSVC ABI with include/_mingw.h.
mingw_include=/usr/share/mingw-w64/include
for h in comdef.h comdefsp.h comip.h comutil.h; do
  cp "$mingw_include/$h" "$out/include/$h"
done

# The runtime stand-in. /Zl: its objects name no default library of their own.
flags=(--target="$target" -fms-compatibility-version=19.29 /nologo /c /O2 /GS- /Zl /EHsc /MD
       /std:c++17 /W4 /WX
       -imsvc /usr/lib/llvm-14/include/c++/v1 -imsvc "$here/include" -imsvc "$out/include"
       -imsvc /usr/include/wine/wine/msvcrt -imsvc /usr/include/wine/wine/windows
       -DWINE_UNICODE_NATIVE 
       -D_LIBCPP_DISABLE_VISIBILITY_ANNOTATIONS -D_LIBCPP_DISABLE_EXTERN_TEMPLATE
       -D_LIBCPP_NO_AUTO_LINK -DWIN32_LEAN_AND_MEAN)
for src in "$here"/runtime/*.cpp; do
  clang-cl-14 "${flags[@]}" "/Fo$out/obj/$(basename "$src" .cpp).obj" -- "$src"
done
llvm-lib-14 /nologo "/out:$out/lib/msvcrt.lib" "$out"/obj/*.obj
# The same for the debug and static runtime names that CMake's configurations ask for.
for name in msvcrtd libcmt libcmtd; do cp "$out/lib/msvcrt.lib" "$out/lib/$name.lib"; done
# oldnames.lib (the POSIX names) stays empty: the library and its programs use the underscored ones.
llvm-lib-14 /nologo "/out:$out/lib/oldnames.lib" "$out/obj/dll_main_stub.obj"
rm -rf "$out/obj"

echo "$stamp" >"$out/stamp"
