#!/bin/bash
# Builds and runs the benchmarks, natively and under Wine, and writes the
# report: docs/performance.md with the chart docs/performance.png beside it.
#
#   bench/run.sh           full run (about a minute); rewrites docs/performance.*
#   bench/run.sh --smoke   every benchmark for a moment, no timing assertions,
#                          report written to build/bench-smoke/ (CI)
#
# Build directories: the release presets the tests use (-O2 -DNDEBUG), so a
# benchmark measures the very DLL that was tested and nothing is compiled twice:
#   build/native-release  bench/core_bench
#   build/win-x64         Valmetra-445.Dll and bench/windows/valmetra_com_bench.exe
#   build/win-x86         the same for x86, run by the 32-bit Wine that
#                         tools/wine32/provide.sh makes available
#   build/wine-bench      the Wine prefix (created on first use; x86:
#                         build/wine-bench-x86); the DLL is loaded from its
#                         path, nothing is registered
# Raw results: build/bench-smoke/ or build/bench/, <side>.txt (the RESULT/NOTE
# lines of each run).
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
  OUT_DIR=$ROOT/build/bench-smoke RAW=$ROOT/build/bench-smoke
else
  OUT_DIR=$ROOT/docs RAW=$ROOT/build/bench
fi
mkdir -p "$OUT_DIR" "$RAW"

say() { echo "== $*"; }

# build <preset> <target...>: configure the preset on first use, then only rebuild.
build() {
  local preset=$1 log=$ROOT/build/bench-$1.log
  shift
  mkdir -p "$ROOT/build"
  { [ -f "$ROOT/build/$preset/CMakeCache.txt" ] || cmake --preset "$preset"; } >"$log" 2>&1 &&
    cmake --build --preset "$preset" -j "$JOBS" --target "$@" >>"$log" 2>&1 || {
    cat "$log"
    exit 1
  }
}

winpath() { echo "Z:$(echo "$1" | tr '/' '\\')"; }

# --- native ---------------------------------------------------------------------
say "native build (build/native-release)"
build native-release core_bench
say "native run"
"$ROOT/build/native-release/bench/core_bench" "${BENCH_ARGS[@]}" >"$RAW/native.txt"
RESULTS=("native=$RAW/native.txt")

# --- Windows under Wine -----------------------------------------------------------
run_windows() {  # run_windows <arch>
  local arch=$1 dir=$ROOT/build/win-$1 prefix=$ROOT/build/wine-bench dll exe
  [ "$arch" = x64 ] || prefix=$ROOT/build/wine-bench-$arch
  say "windows $arch build (build/win-$arch)"
  build "win-$arch" valmetra_dll valmetra_com_bench
  dll=$dir/src/hosting/Valmetra-445.Dll
  exe=$dir/bench/windows/valmetra_com_bench.exe
  if [ ! -f "$prefix/system.reg" ]; then
    say "creating Wine prefix $prefix"
    mkdir -p "$prefix"
    WINEPREFIX=$prefix wineboot -i >/dev/null 2>&1
    WINEPREFIX=$prefix wineserver -w
  fi
  say "windows $arch run (Wine $(wine --version 2>/dev/null))"
  WINEPREFIX=$prefix wine "$exe" "$(winpath "$dll")" "${BENCH_ARGS[@]}" | tr -d '
' >"$RAW/wine-$arch.txt"
  WINEPREFIX=$prefix wineserver -w
  RESULTS+=("wine-$arch=$RAW/wine-$arch.txt")
}

if ! command -v wine >/dev/null; then
  echo "wine is not installed (make deps installs it)" >&2
  exit 1
fi
run_windows x64
# x86: the system's 32-bit Wine, or the private one tools/wine32 provides
# (natively where the kernel runs i386 programs, else under qemu-i386).
X86_NOTE="ran"
if W32BIN=$("$ROOT/tools/wine32/provide.sh"); then
  if [ -n "$W32BIN" ]; then
    if [ "${VALMETRA_WINE32_EMULATE:-0}" != 1 ] && [ -f "$W32BIN/../root/native" ]; then X86_NOTE="ran with the private 32-bit Wine of tools/wine32, native i386"
    else X86_NOTE="ran with the private 32-bit Wine of tools/wine32 under qemu-i386 emulation (slower than the machine)"; fi
  fi
  PATH="$W32BIN${W32BIN:+:}$PATH" run_windows x86
else
  X86_NOTE="not run: tools/wine32/provide.sh could not provide a 32-bit Wine"
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
