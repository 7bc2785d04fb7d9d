#!/bin/bash
# make demo: the library from a script host's side, in a private Wine prefix.
#
#   examples/run-demo.sh [--no-build]
#
# 1. Builds Valmetra-445.Dll and ValueStack.dll for x64 and x86 (the presets
#    win-x64 and win-x86, those two targets only). The build's output goes to
#    build/logs/demo-build.log and is shown only when the build fails.
# 2. Registers both into build/wine-demo (created on first use): the x64 DLLs
#    with regsvr32, the x86 DLLs with the 32-bit regsvr32 (syswow64) of the
#    32-bit Wine that tools/wine32/provide.sh provides.
# 3. Runs every examples/*.vbs and *.js with cscript, under a heading naming
#    the classes the script exercises (its "requires:" line). A script whose
#    "hosts:" line names x86 runs in the 32-bit cscript as well.
#
# A script whose classes have no core yet (src/hosting/catalogue/classes.txt)
# is skipped with a note. Wine's cscript exits 0 even when a script dies of a
# runtime error, so every example ends by printing "Done.": its absence is the
# failure sign (the line itself is not shown).
# Exit code: 0 when the build, the registrations and every script succeeded.
# VALMETRA_WIN_BUILD=<dir prefix> takes the DLLs from <prefix>x64 and
# <prefix>x86 and builds nothing (as does --no-build with build/win-*).
# JOBS: parallel compile jobs (default: the number of processors).
set -uo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
PREFIX=$ROOT/build/wine-demo
LOGS=$ROOT/build/logs
BUILD=${VALMETRA_WIN_BUILD:-$ROOT/build/win-}
build=1
[ -n "${VALMETRA_WIN_BUILD:-}" ] && build=0
[ "${1:-}" = --no-build ] && build=0
export WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml=" WINEPREFIX=$PREFIX

winpath() { echo "Z:$(echo "$1" | tr '/' '\\')"; }
dlls() { echo "$BUILD$1/src/hosting/Valmetra-445.Dll" "$BUILD$1/components/valuestack/ValueStack.dll"; }
command -v wine >/dev/null || { echo "run-demo: wine is not installed (make deps)"; exit 1; }
mkdir -p "$LOGS"

if [ $build = 1 ]; then
  log=$LOGS/demo-build.log
  echo "== Building Valmetra-445.Dll and ValueStack.dll for x64 and x86 (log: build/logs/demo-build.log)"
  if ! (for preset in win-x64 win-x86; do
          cmake --preset "$preset" && cmake --build --preset "$preset" -j "${JOBS:-$(nproc)}" --target valmetra_dll valuestack || exit 1
        done) >"$log" 2>&1; then
    cat "$log"
    echo "run-demo: the build failed (log: $log)"
    exit 1
  fi
fi
for path in $(dlls x64) $(dlls x86); do
  [ -f "$path" ] || { echo "run-demo: $path is missing; build it first (make demo)"; exit 1; }
done

# The 32-bit half: the system's Wine when it has one, else the private one.
# Its set-up (a download, once) reports to the log only.
x86=1
if W32BIN=$("$ROOT/tools/wine32/provide.sh" 2>>"$LOGS/demo-wine32.log"); then
  export PATH="$W32BIN${W32BIN:+:}$PATH"
else
  x86=0
fi
# A prefix made without the 32-bit half (by an older demo) is made again.
if [ -f "$PREFIX/system.reg" ] && [ $x86 = 1 ] && [ ! -f "$PREFIX/drive_c/windows/syswow64/cscript.exe" ]; then
  wineserver -k 2>/dev/null
  rm -rf "$PREFIX"
fi
if [ ! -f "$PREFIX/system.reg" ]; then
  echo "== Creating the Wine prefix build/wine-demo"
  mkdir -p "$PREFIX"
  WINEARCH=win64 wineboot -i >/dev/null 2>&1
  wineserver -w
fi

register() {  # register <regsvr32> <dll>...
  local tool=$1 dll; shift
  for dll in "$@"; do
    if ! wine "$tool" /s "$(winpath "$dll")" >/dev/null 2>&1; then
      echo "run-demo: $tool could not register $dll"
      return 1
    fi
  done
}
register regsvr32 $(dlls x64) || exit 1
if [ $x86 = 1 ]; then
  register 'C:\windows\syswow64\regsvr32.exe' $(dlls x86) || exit 1
  echo "== Registered in build/wine-demo: the x64 DLLs (regsvr32) and the x86 DLLs (syswow64\\regsvr32)"
else
  echo "== Registered in build/wine-demo: the x64 DLLs (regsvr32); no 32-bit Wine (log: build/logs/demo-wine32.log)"
fi

live=" $(awk '$1 == "class" && $7 != "-" {print $2}' "$ROOT/src/hosting/catalogue/classes.txt" | tr '\n' ' ') "
status=0
ran=0
# run <cscript> <script>: prints the script's output without the final
# "Done.", which must be there.
run() {
  local out rc name
  name=$(basename "$2")
  out=$(wine "$1" //nologo "$(winpath "$2")" 2>&1)
  rc=$?
  out=$(printf '%s\n' "$out" | tr -d '\r')
  if [ "$rc" -eq 0 ] && [ "$(printf '%s\n' "$out" | tail -n 1)" = "Done." ]; then
    printf '%s\n' "$out" | sed '$d'
    ran=$((ran + 1))
  else
    [ -z "$out" ] || printf '%s\n' "$out"
    echo "run-demo: $name failed (exit $rc, no \"Done.\")"
    status=1
  fi
}
shopt -s nullglob
for script in "$ROOT"/examples/*.vbs "$ROOT"/examples/*.js; do
  name=examples/$(basename "$script")
  classes=$(grep -m1 -E "^(' *|// *)requires:" "$script" | sed -E "s/^(' *|\/\/ *)requires: *//")
  hosts=$(grep -m1 -E "^(' *|// *)hosts:" "$script" | sed -E "s/^(' *|\/\/ *)hosts: *//")
  missing=""
  for cls in $classes; do
    [[ $live == *" $cls "* ]] || missing="$missing $cls"
  done
  if [[ " $hosts " == *" x86 "* ]]; then
    echo "== ${classes// /, } in a 64-bit and a 32-bit host ($name)"
  else
    echo "== ${classes// /, } ($name)"
  fi
  if [ -n "$missing" ]; then
    echo "(skipped: no core yet for$missing)"
    continue
  fi
  run cscript "$script"
  if [[ " $hosts " == *" x86 "* ]]; then
    if [ $x86 = 1 ]; then
      run 'C:\windows\syswow64\cscript.exe' "$script"
    else
      echo "run-demo: no 32-bit host: tools/wine32/provide.sh failed (log: build/logs/demo-wine32.log)"
      status=1
    fi
  fi
done
wineserver -w
if [ $status = 0 ]; then
  echo "== Done: $ran script runs, every one finished cleanly"
fi
exit $status
