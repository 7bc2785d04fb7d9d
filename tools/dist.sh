#!/bin/bash
# Collects the Windows build outputs into dist/<arch>/ (make dist, after the
# x64 and x86 builds):
#
#   dist/x64/ and dist/x86/, each with
#     Valmetra-445.Dll   the library
#     ValueStack.dll     the value history component
#     valmetra.tlb       the library's type library (also embedded in the DLL)
#     valmetra.idl       its IDL, generated from the class catalogue
#     valmetra.h         the C/C++ header widl made from that IDL
#     ValueStack.tlb, valuestack.idl, valuestack.h   the same for ValueStack
#
# These names are a contract for whoever consumes dist/. A missing input
# fails the run (after all of them were looked at).
# VALMETRA_WIN_BUILD=<dir prefix> reads <prefix>x64 and <prefix>x86 instead of
# build/win-x64 and build/win-x86.
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
PREFIX=${VALMETRA_WIN_BUILD:-$ROOT/build/win-}
status=0

for arch in x64 x86; do
  build=$PREFIX$arch
  out=$ROOT/dist/$arch
  rm -rf "$out"
  mkdir -p "$out"
  # dist name <- build output
  while read -r name src; do
    if [ -f "$src" ]; then
      cp "$src" "$out/$name"
    else
      echo "dist: $arch: missing $src" >&2
      status=1
    fi
  done <<LIST
Valmetra-445.Dll $build/src/hosting/Valmetra-445.Dll
valmetra.tlb $build/gen/valmetra.tlb
valmetra.idl $build/gen/valmetra.idl
valmetra.h $build/gen/valmetra.h
ValueStack.dll $build/components/valuestack/ValueStack.dll
ValueStack.tlb $build/components/valuestack/gen/ValueStack.tlb
valuestack.idl $ROOT/components/valuestack/valuestack.idl
valuestack.h $build/components/valuestack/gen/valuestack.h
LIST
  echo "dist/$arch:"
  ls -l "$out" | tail -n +2 | sed 's/^/  /'
done
[ $status -eq 0 ] || echo "dist: incomplete; build first (make windows)" >&2
exit $status
