#!/bin/bash
# Builds the C++ examples with mingw-w64 against a dist folder:
#
#   examples/cpp/build.sh [x64|x86|all] [DIST] [OUT]
#
# DIST (default dist/) must hold <arch>/valmetra.h (make dist); the programs
# go to OUT/<arch>/ (default build/dep-examples/<arch>/), statically linked,
# so each is one .exe that needs nothing but the system's DLLs. x86 builds
# the 32-bit host programs, which load only the x86 DLLs (see README.md).
set -euo pipefail
HERE=$(cd "$(dirname "$0")" && pwd)
ROOT=$(cd "$HERE/../.." && pwd)
WHICH=${1:-all}
DIST=${2:-$ROOT/dist}
OUT=${3:-$ROOT/build/dep-examples}
[ "$WHICH" = all ] && WHICH="x64 x86"

for arch in $WHICH; do
  case $arch in
    x64) cxx=x86_64-w64-mingw32-g++-posix ;;
    x86) cxx=i686-w64-mingw32-g++-posix ;;
    *) echo "build.sh: x64, x86 or all" >&2; exit 2 ;;
  esac
  [ -f "$DIST/$arch/valmetra.h" ] || { echo "build.sh: $DIST/$arch/valmetra.h missing (make dist)" >&2; exit 1; }
  mkdir -p "$OUT/$arch"
  for example in early_bound late_bound registration_free; do
    "$cxx" -std=c++20 -O2 -Wall -Wextra -Werror -DUNICODE -D_UNICODE -static \
      -I "$DIST/$arch" -o "$OUT/$arch/$example.exe" "$HERE/$example.cpp" -lole32 -loleaut32 -luuid
  done
  echo "examples: $OUT/$arch: early_bound.exe late_bound.exe registration_free.exe"
done
