#!/bin/bash
# Runs the host scripts of examples/ against the Windows x64 build under Wine:
# registers Valmetra-445.Dll and ValueStack.dll into a private prefix
# (build/wine-demo, created on first use) and runs every examples/*.vbs and
# *.js with cscript. Builds nothing: run `make windows` (or `make demo`) first.
#
# A script names the classes it needs on a "requires:" line; one whose classes
# have no core yet (src/hosting/catalogue/classes.txt) is skipped with a note.
# Exit code: 0 when every script that ran finished cleanly.
# VALMETRA_WIN_BUILD=<dir prefix> takes the DLLs from <prefix>x64.
set -uo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
PREFIX=$ROOT/build/wine-demo
BUILD=${VALMETRA_WIN_BUILD:-$ROOT/build/win-}x64
export WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml=" WINEPREFIX=$PREFIX

winpath() { echo "Z:$(echo "$1" | tr '/' '\\')"; }
command -v wine >/dev/null || { echo "run-demo: wine is not installed (make deps)"; exit 1; }
dlls=("$BUILD/src/hosting/Valmetra-445.Dll" "$BUILD/components/valuestack/ValueStack.dll")
for path in "${dlls[@]}"; do
  if [ ! -f "$path" ]; then
    echo "run-demo: $path is missing; build it first (make windows)"
    exit 1
  fi
done

if [ ! -f "$PREFIX/system.reg" ]; then
  echo "run-demo: creating the Wine prefix $PREFIX"
  mkdir -p "$PREFIX"
  WINEARCH=win64 wineboot -i >/dev/null 2>&1
  wineserver -w
fi
for dll in "${dlls[@]}"; do
  if ! wine regsvr32 /s "$(winpath "$dll")" >/dev/null 2>&1; then
    echo "run-demo: registering $(basename "$dll") failed"
    exit 1
  fi
done

live=" $(awk '$1 == "class" && $7 != "-" {print $2}' "$ROOT/src/hosting/catalogue/classes.txt" | tr '\n' ' ') "
status=0
shopt -s nullglob
for script in "$ROOT"/examples/*.vbs "$ROOT"/examples/*.js; do
  name=$(basename "$script")
  missing=""
  for cls in $(grep -m1 -E "^(' *|// *)requires:" "$script" | sed -E "s/^(' *|\/\/ *)requires://"); do
    [[ $live == *" $cls "* ]] || missing="$missing $cls"
  done
  echo "==== $name"
  if [ -n "$missing" ]; then
    echo "(skipped: no core yet for$missing)"
    continue
  fi
  # Wine's cscript exits 0 even when a script dies of a runtime error, so
  # every example ends by printing "Done.": its absence is the failure sign.
  out=$(wine cscript //nologo "$(winpath "$script")" 2>&1)
  rc=$?
  printf '%s\n' "$out" | tr -d '\r'
  if [ $rc -ne 0 ] || [ "$(printf '%s\n' "$out" | tr -d '\r' | tail -n 1)" != "Done." ]; then
    echo "run-demo: $name failed (exit $rc)"
    status=1
  fi
done
wineserver -w
exit $status
