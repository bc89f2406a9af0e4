#!/usr/bin/env bash
# The compiler launcher of the MSVC-ABI cross builds: ccache for clang-cl. CMake ends clang-cl's
# command line with `-- /abs/source.cpp` (the `--` keeps clang-cl from reading the path as a
# /option), behind which ccache 4.7 finds no input file and caches nothing; the path is handed
# over relative to the build folder instead, which neither mistakes. And ccache is told that
# clang-cl-14 is clang-cl, which it does not guess from that name.
n=$#
if [ "$n" -ge 2 ] && [ "${*:n-1:1}" = "--" ]; then
  source_file=${*:n:1}
  set -- "${@:1:n-2}" "$(realpath --relative-to=. "$source_file")"
fi
CCACHE_COMPILERTYPE=clang-cl exec ccache "$@"
