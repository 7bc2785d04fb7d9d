#!/bin/bash
# Runs the suites that follow the builds side by side (most of their time is Wine starting processes), each
# into build/logs/, then prints every log whole, in order, and a line per suite. Exit 1 when any suite fails.
set -uo pipefail
ROOT=$(cd "$(dirname "$0")/.." && pwd)
LOGS=$ROOT/build/logs
mkdir -p "$LOGS"
# The suites' Wine prefixes take about 7 GB of build/ between them; a disk that fills up half-way fails them
# in ways that look like Wine faults, so a short disk is said once, here, before anything starts.
NEED_KB=$((8 * 1024 * 1024))
held=$(ls -d "$ROOT"/build/wine-* "$ROOT"/build/wine32 2>/dev/null | grep -v /wine-demo$ | xargs -r du -sk | awk '{s += $1} END {print s + 0}')
free=$(df -Pk "$ROOT/build" | awk 'NR == 2 {print $4}')
if [ $((held + free)) -lt $NEED_KB ]; then
  echo "run-suites: build/ has $((free / 1024)) MB free and its Wine prefixes hold $((held / 1024)) MB;" \
    "the suites need about $((NEED_KB / 1024)) MB between the two: free some disk space" >&2
  exit 1
fi
SUITES=("windows|tests/windows/run.sh" "deployment|tests/deploy/run.sh" "fuzz smoke|tests/fuzz/run.sh --smoke"
  "bench smoke|bench/run.sh --smoke")
start=$(date +%s) failed=0 summary=
for i in "${!SUITES[@]}"; do
  (t0=$(date +%s); cd "$ROOT" && ${SUITES[$i]#*|} >"$LOGS/$i.log" 2>&1; echo "$? $(($(date +%s) - t0))" >"$LOGS/$i.rc") &
done
wait
for i in "${!SUITES[@]}"; do
  name=${SUITES[$i]%%|*}
  read -r rc secs <"$LOGS/$i.rc" || rc=1 secs=?
  echo "===== $name (${SUITES[$i]#*|})" && cat "$LOGS/$i.log"
  [ "$rc" = 0 ] && summary+="  ok    $name ($secs s)"$'\n' || { summary+="  FAIL  $name ($secs s, exit $rc)"$'\n' failed=1; }
done
echo "===== suites ($(($(date +%s) - start)) s side by side)"
printf %s "$summary"
exit $failed
