#!/usr/bin/env bash
# Builds the libFuzzer targets of the portable core (build/fuzz: clang, ASan +
# UBSan) and runs each one from its committed seeds (tests/fuzz/corpus/<target>)
# and, in the long form, the inputs earlier runs found (build/fuzz/corpus).
#   tests/fuzz/run.sh [seconds]   seconds per target, 60 by default (make fuzz)
#   tests/fuzz/run.sh --smoke     4 seconds per target from the seeds alone (make test)
# A crash, broken property, leak or hang fails that target with the input kept
# in build/fuzz/artifacts/. Executions and library calls per target go to
# build/fuzz/stats.txt, logs to build/fuzz/logs/.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
build="$root/build/fuzz"
seconds=${1:-60}
[ "$seconds" = --smoke ] && seconds=4
[[ "$seconds" =~ ^[1-9][0-9]*$ ]] || { echo "usage: $0 [seconds-per-target | --smoke]" >&2; exit 2; }
cxx=${VALMETRA_FUZZ_CXX:-$(command -v clang++ || command -v clang++-14 || true)}
[ -n "$cxx" ] || { echo "fuzz: clang++ not found (apt-get install clang libclang-rt-14-dev)" >&2; exit 2; }

mkdir -p "$build/logs" "$build/artifacts"
if ! cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER="$cxx" -DVALMETRA_FUZZ=ON \
     -DVALMETRA_TESTS=OFF >"$build/logs/configure.log" 2>&1 ||
   ! cmake --build "$build" -j "${FUZZ_JOBS:-2}" --target valmetra_fuzzers >"$build/logs/build.log" 2>&1; then
  grep -hE "error|Error" "$build"/logs/{configure,build}.log | head -40 >&2
  exit 2
fi
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1}" UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"

stats="$build/stats.txt"
printf "# %s, %s s per target%s\n%-12s %12s %8s %12s %7s  %s\n" "$(date -u +%FT%TZ)" "$seconds" "${1:+ ($1)}" \
  target executions exec/s calls corpus result >"$stats"
failed=()
for t in text operations; do
  work="$build/corpus/$t" log="$build/logs/$t.log"
  [ "${1:-}" = --smoke ] && work="$build/smoke-corpus/$t" && rm -rf "$work"  # the seeds alone
  mkdir -p "$work"
  rc=0
  # 4096 bytes: enough for long number strings (0xFE repeats) and 400 calls, short enough to mutate fast
  "$build/tests/fuzz/fuzz_$t" -max_total_time="$seconds" -timeout=30 -rss_limit_mb=2560 -max_len=4096 \
    -print_final_stats=1 -artifact_prefix="$build/artifacts/$t-" "$work" "$root/tests/fuzz/corpus/$t" >"$log" 2>&1 || rc=$?
  value() { awk -v k="$1" '$0 ~ k {v = $2} END {print v ? v : "?"}' "$log"; }
  [ $rc -eq 0 ] && result=ok || { result="FAILED (exit $rc, see $log)"; failed+=("$t"); grep -vE "^#[0-9]+\s+(NEW|REDUCE|pulse|INITED)" "$log" | tail -40 >&2; }
  printf "%-12s %12s %8s %12s %7s  %s\n" "$t" "$(value number_of_executed_units)" "$(value average_exec_per_sec)" \
    "$(value 'calls into the library')" "$(find "$work" -type f | wc -l)" "$result" >>"$stats"
done
cat "$stats"
[ ${#failed[@]} -eq 0 ] || { echo "fuzz: failed: ${failed[*]} (inputs in $build/artifacts/)" >&2; exit 1; }
