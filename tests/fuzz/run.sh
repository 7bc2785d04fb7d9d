#!/usr/bin/env bash
# Builds the libFuzzer targets of the portable core (build/fuzz, clang, ASan +
# UBSan) and runs each of them for a while.
#
#   tests/fuzz/run.sh            60 seconds per target (make fuzz)
#   tests/fuzz/run.sh 600        600 seconds per target
#   tests/fuzz/run.sh --smoke    4 seconds per target (make test, CI)
#
# Each target starts from its committed seeds (tests/fuzz/corpus/<target>) and,
# in the long form, the inputs earlier runs found (build/fuzz/corpus/<target>).
# A crash, a broken property, a leak or a hang ends that target's run with the
# input kept in build/fuzz/artifacts/; the script goes on and exits non-zero.
# Executions (inputs run) and calls into the library per target go to
# build/fuzz/stats.txt; full logs to build/fuzz/logs/.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
build="$root/build/fuzz"
targets=(text operations)
max_len=4096  # enough for long number strings and 400 calls, short enough to mutate fast

seconds=60
mode=long
case "${1:-}" in
  "") ;;
  --smoke) seconds=4; mode=smoke ;;
  *[!0-9]* | 0)
    echo "usage: $0 [seconds-per-target | --smoke]" >&2
    exit 2 ;;
  *) seconds=$1 ;;
esac

cxx="${VALMETRA_FUZZ_CXX:-}"
if [ -z "$cxx" ]; then
  for candidate in clang++ clang++-14; do
    if command -v "$candidate" >/dev/null 2>&1; then cxx=$candidate; break; fi
  done
fi
if [ -z "$cxx" ]; then
  echo "fuzz: clang++ not found (apt-get install clang libclang-rt-14-dev)" >&2
  exit 2
fi

# Configure and build (idempotent: nothing is rebuilt when nothing changed).
mkdir -p "$build/logs"
if ! cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER="$cxx" \
     -DVALMETRA_FUZZ=ON -DVALMETRA_TESTS=OFF >"$build/logs/configure.log" 2>&1; then
  cat "$build/logs/configure.log" >&2
  exit 2
fi
if ! cmake --build "$build" -j "${FUZZ_JOBS:-2}" --target valmetra_fuzzers >"$build/logs/build.log" 2>&1; then
  grep -E "error|Error" "$build/logs/build.log" | head -40 >&2 || tail -40 "$build/logs/build.log" >&2
  exit 2
fi

export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"

stats="$build/stats.txt"
{
  echo "# fuzz run $(date -u +%Y-%m-%dT%H:%M:%SZ), $mode mode, $seconds s per target, $("$cxx" --version | head -1)"
  printf "%-16s %8s %12s %10s %12s %8s  %s\n" target seconds executions exec/s calls corpus result
} >"$stats"

failed=()
mkdir -p "$build/artifacts"
for t in "${targets[@]}"; do
  exe="$build/tests/fuzz/fuzz_$t"
  # The smoke run starts from the seeds alone, so its length does not grow
  # with the corpus that long runs collect.
  work="$build/corpus/$t"
  [ "$mode" = smoke ] && work="$build/smoke-corpus/$t" && rm -rf "$work"
  log="$build/logs/$t.log"
  mkdir -p "$work"
  rc=0
  "$exe" -max_total_time="$seconds" -timeout=30 -rss_limit_mb=2560 -max_len=$max_len -print_final_stats=1 \
    -artifact_prefix="$build/artifacts/$t-" "$work" "$root/tests/fuzz/corpus/$t" >"$log" 2>&1 || rc=$?
  execs=$(awk '/stat::number_of_executed_units/ {print $2}' "$log" | tail -1)
  rate=$(awk '/stat::average_exec_per_sec/ {print $2}' "$log" | tail -1)
  calls=$(awk '/calls into the library/ {print $2}' "$log" | tail -1)
  units=$(find "$work" -type f | wc -l)
  result=ok
  if [ "$rc" -ne 0 ]; then
    result="FAILED (exit $rc, see $log)"
    failed+=("$t")
  fi
  printf "%-16s %8s %12s %10s %12s %8s  %s\n" "$t" "$seconds" "${execs:-?}" "${rate:-?}" "${calls:-?}" "$units" \
    "$result" >>"$stats"
  if [ "$rc" -ne 0 ]; then
    echo "fuzz: $t failed; the end of its log:" >&2
    grep -vE "^#[0-9]+\s+(NEW|REDUCE|pulse|INITED)" "$log" | tail -40 >&2
  fi
done

cat "$stats"
if [ "${#failed[@]}" -ne 0 ]; then
  echo "fuzz: failed: ${failed[*]} (inputs in $build/artifacts/)" >&2
  exit 1
fi
