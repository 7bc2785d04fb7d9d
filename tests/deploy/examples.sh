#!/bin/bash
# examples/cpp, built with examples/cpp/build.sh against the staged files:
#  - x86: the 32-bit host programs compile and are PE32 (no 32-bit Wine here
#    to run them: loud SKIP);
#  - x64, fresh prefix: registration_free.exe beside the assembly manifest with
#    nothing registered; then regsvr32, and early_bound.exe and late_bound.exe.
set -uo pipefail
HERE=$(cd "$(dirname "$0")" && pwd)
source "$HERE/lib.sh"

OUT=$DEP_BUILD/dep-examples
if "$DEP_ROOT/examples/cpp/build.sh" all "$DEP_STAGE" "$OUT" >/dev/null; then
  pass "examples/cpp/build.sh builds the x64 and x86 examples"
else
  fail "examples/cpp/build.sh"
  finish
fi
for exe in "$OUT"/x86/*.exe; do
  dump=$(i686-w64-mingw32-objdump -p "$exe")
  if grep -q 'Magic.*(PE32)' <<<"$dump"; then pass "x86 host $(basename "$exe") is PE32"
  else fail "x86 host $(basename "$exe") is not PE32"; fi
done
if dpkg -s wine32:i386 >/dev/null 2>&1; then
  skip "running the x86 hosts: 32-bit Wine is installed, but this script does not run 32-bit programs yet"
else
  skip "RUNNING THE x86 HOSTS: no 32-bit Wine here (wine32:i386 cannot be installed: the i386 index fails)"
fi

# run_example <what> <exe (Windows path)>: passes when it ends "<name>: ok".
run_example() {
  local what=$1 exe=$2 out
  out=$(wine "$exe" 2>&1 | tr -d '\r')
  sed 's/^/        /' <<<"$out"
  if grep -q ': ok$' <<<"$out"; then pass "$what"; else fail "$what"; fi
}

fresh_prefix examples || { fail "fresh prefix"; finish; }
A='C:\Example Host'
put_dlls "$A"
put_files "$A" "$DEP_STAGE/x64/KARVO.Valmetra.manifest" "$OUT"/x64/*.exe
run_example "registration_free.exe: activation-context API, nothing registered" "$A\\registration_free.exe"
for dll in "${DLLS[@]}"; do wine regsvr32 /s "$A\\$dll" || fail "regsvr32 $dll"; done
run_example "early_bound.exe: vtable calls through the widl header" "$A\\early_bound.exe"
run_example "late_bound.exe: IDispatch by name" "$A\\late_bound.exe"
done_prefix
finish
