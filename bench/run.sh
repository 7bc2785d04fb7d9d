#!/bin/bash
# Builds and runs the benchmarks, natively and under Wine, and writes the
# report: docs/performance.md with the chart docs/performance.png beside it.
#
#   bench/run.sh           full run (about a minute); rewrites docs/performance.*
#   bench/run.sh --smoke   every benchmark for a moment, no timing assertions,
#                          report written to build/bench-smoke/ (CI)
#
# Build directories (configured on first use, then only rebuilt):
#   build/bench-native    native release build (-O2) of bench/core_bench
#   build/bench-win-x64   mingw x64 build of Valmetra-445.Dll and
#                         bench/windows/valmetra_com_bench.exe
#   build/bench-win-x86   the same for x86, only where a 32-bit Wine runs
#   build/wine-bench      the Wine prefix (created on first use; x86:
#                         build/wine-bench-x86); the DLL is loaded from its
#                         path, nothing is registered
# Raw results: build/bench-*/results.txt (the RESULT/NOTE lines of each run).
# The run fails when a benchmark program fails (its checks of the results of
# both sides of every ratio); goals that are missed are reported, not failed.
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
MODE=full
BENCH_ARGS=()
case "${1:-}" in
  --smoke) MODE=smoke; BENCH_ARGS=(--smoke) ;;
  "") ;;
  *) echo "usage: bench/run.sh [--smoke]" >&2; exit 2 ;;
esac
JOBS=${JOBS:-2}
export WINEDEBUG=-all
export WINEDLLOVERRIDES="mscoree,mshtml="  # no Mono/Gecko prompts when the prefix is made

if [ $MODE = smoke ]; then
  OUT_DIR=$ROOT/build/bench-smoke
else
  OUT_DIR=$ROOT/docs
fi
mkdir -p "$OUT_DIR"

say() { echo "== $*"; }

# configure <build dir> <cmake args...>: once; later runs only build.
configure() {
  local dir=$1
  shift
  if [ ! -f "$dir/CMakeCache.txt" ]; then
    cmake -S "$ROOT" -B "$dir" "$@" >"$dir.configure.log" 2>&1 || {
      cat "$dir.configure.log"
      exit 1
    }
  fi
}

winpath() { echo "Z:$(echo "$1" | tr '/' '\\')"; }

# --- native ---------------------------------------------------------------------
NATIVE=$ROOT/build/bench-native
say "native build ($NATIVE)"
configure "$NATIVE" -DCMAKE_BUILD_TYPE=Release "-DCMAKE_CXX_FLAGS_RELEASE=-O2 -DNDEBUG" \
  -DCMAKE_CXX_COMPILER=g++ -DVALMETRA_TESTS=OFF
cmake --build "$NATIVE" -j "$JOBS" --target core_bench >/dev/null
say "native run"
"$NATIVE/bench/core_bench" "${BENCH_ARGS[@]}" >"$NATIVE/results.txt"
RESULTS=("native=$NATIVE/results.txt")

# --- Windows under Wine -----------------------------------------------------------
run_windows() {  # run_windows <arch> <toolchain> <winearch>
  local arch=$1 toolchain=$2 winearch=$3 dir prefix dll exe
  dir=$ROOT/build/bench-win-$arch
  case $arch in
    x64) prefix=$ROOT/build/wine-bench ;;
    *) prefix=$ROOT/build/wine-bench-$arch ;;
  esac
  say "windows $arch build ($dir)"
  configure "$dir" -DCMAKE_TOOLCHAIN_FILE="$ROOT/cmake/$toolchain" -DCMAKE_BUILD_TYPE=Release \
    "-DCMAKE_CXX_FLAGS_RELEASE=-O2 -DNDEBUG" -DVALMETRA_TESTS=OFF
  cmake --build "$dir" -j "$JOBS" --target valmetra_dll valmetra_com_bench >/dev/null
  dll=$dir/src/hosting/Valmetra-445.Dll
  exe=$dir/bench/windows/valmetra_com_bench.exe
  if [ ! -f "$prefix/system.reg" ]; then
    say "creating Wine prefix $prefix"
    mkdir -p "$prefix"
    WINEPREFIX=$prefix WINEARCH=$winearch wineboot -i >/dev/null 2>&1
    WINEPREFIX=$prefix wineserver -w
  fi
  say "windows $arch run (Wine $(wine --version 2>/dev/null))"
  WINEPREFIX=$prefix wine "$exe" "$(winpath "$dll")" "${BENCH_ARGS[@]}" | tr -d '\r' >"$dir/results.txt"
  WINEPREFIX=$prefix wineserver -w
  RESULTS+=("wine-$arch=$dir/results.txt")
}

if ! command -v wine >/dev/null; then
  echo "wine is not installed (make deps installs it)" >&2
  exit 1
fi
run_windows x64 mingw-x86_64.cmake win64
# A 32-bit Wine needs the i386 loader and its PE DLLs (package wine32:i386).
X86_NOTE="ran"
if [ -e /usr/lib/wine/wine ] && [ -e /usr/lib/i386-linux-gnu/wine/i386-windows/ntdll.dll ]; then
  run_windows x86 mingw-i686.cmake win32
else
  X86_NOTE="not run: no 32-bit Wine on this machine (wine32:i386 is not installed)"
  say "x86: $X86_NOTE"
fi

# --- report ---------------------------------------------------------------------
say "report ($OUT_DIR/performance.md)"
python3 "$ROOT/bench/report.py" --mode "$MODE" --x86 "$X86_NOTE" --out "$OUT_DIR/performance" "${RESULTS[@]}"
if command -v rsvg-convert >/dev/null; then
  rsvg-convert -f png -o "$OUT_DIR/performance.png" "$OUT_DIR/performance.svg"
  rm -f "$OUT_DIR/performance.svg"
elif [ $MODE = full ]; then
  echo "rsvg-convert is missing (package librsvg2-bin; make deps installs it)" >&2
  exit 1
else
  echo "rsvg-convert is missing: chart left as $OUT_DIR/performance.svg"
fi
say "done"
