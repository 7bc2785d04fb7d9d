#!/bin/bash
# Windows tests after the mingw builds, x64 then x86:
#  - static checks of every DLL: PE32+/PE32, exactly the four in-process
#    server exports, nothing imported beyond system DLLs;
#  - under Wine, in a private prefix per arch (build/wine-x64, build/wine-x86):
#    registration writes every key, the GoogleTest program passes, every
#    tests/scripts/*.vbs and *.js passes under that arch's cscript, and
#    unregistration removes every key again.
# x86 runs through the 32-bit Wine that tools/wine32/provide.sh makes
# available; when it cannot, that is a failure unless VALMETRA_SKIP_X86=1.
# Wine's cscript exits 0 when a script dies of an uncaught error, so a script
# passes only with its own "PASS <name>" line; a test program only with
# "[  PASSED  ]". Ends with "x64: ...", "x86: ..." and "N passed, N failed,
# N skipped"; exit 1 on any failure.
# VALMETRA_WIN_BUILD=<prefix> reads builds from <prefix>x64 and <prefix>x86.
# run.sh --hostile SECONDS runs only the random hostile calls, SECONDS per
# arch (make fuzz), printing the seeds and the number of calls.
set -uo pipefail
HOSTILE=
[ "${1:-}" = --hostile ] && HOSTILE=${2:-300}
ROOT=$(cd "$(dirname "$0")/../.." && pwd)
BUILD_PREFIX=${VALMETRA_WIN_BUILD:-$ROOT/build/win-}
export WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
P=0 F=0 S=0 TP=0 TF=0 TS=0 FAILURES=()
pass() { P=$((P + 1)); echo "  ok    $*"; }
fail() { F=$((F + 1)); FAILURES+=("$*"); echo "  FAIL  $*"; }
skip() { S=$((S + 1)); echo "  SKIP  $*"; }
winpath() { echo "Z:${1//\//\\}"; }

dlls() {  # dlls <arch>: the two DLLs of that build
  echo "${BUILD_PREFIX}$1/src/hosting/Valmetra-445.Dll"
  echo "${BUILD_PREFIX}$1/components/valuestack/ValueStack.dll"
}

static_check() {  # static_check <arch> <dll>
  local objdump=x86_64-w64-mingw32-objdump magic=PE32+ dump exports dep bad=""
  [ "$1" = x86 ] && objdump=i686-w64-mingw32-objdump magic=PE32
  if ! dump=$("$objdump" -p "$2" 2>&1); then fail "$1 $(basename "$2"): not built or unreadable"; return; fi
  exports=$(awk '/^\[Ordinal\/Name Pointer\] Table/ {on=1; next} on && /^\t\[/ {print $3} on && /^$/ {exit}' <<<"$dump" | sort | xargs)
  for dep in $(awk '/DLL Name:/ {print tolower($3)}' <<<"$dump"); do
    case $dep in kernel32.dll|msvcrt.dll|ole32.dll|oleaut32.dll|advapi32.dll|user32.dll|ntdll.dll|shlwapi.dll|rpcrt4.dll|ucrtbase.dll|api-ms-win-*) ;; *) bad="$bad $dep" ;; esac
  done
  if ! grep -q "Magic.*($magic)" <<<"$dump"; then fail "$1 $(basename "$2"): not $magic"
  elif [ "$exports" != "DllCanUnloadNow DllGetClassObject DllRegisterServer DllUnregisterServer" ]; then fail "$1 $(basename "$2"): exports '$exports'"
  elif [ -n "$bad" ]; then fail "$1 $(basename "$2"): non-system imports$bad"
  else pass "$1 $(basename "$2"): $magic, four exports, system imports only"; fi
}

# Every key registration writes (GUIDs and ProgIDs, as they appear in a key name).
registry_names() {
  awk '$1 == "typelib" || $1 == "class" || $1 == "interface" {print $2}' "$ROOT/components/valuestack/identity.txt"
  echo '\ValueStack.ValueStack]'
  awk '$1 == "library" {print $3} $1 == "class" {print "\\KARVO_Valmetra." $2 "]"; print $5; print $6}' \
    "$ROOT/src/hosting/catalogue/classes.txt"
}

# registered <arch> <prefix> <yes|no>: every key is there (yes) or none is (no).
registered() {
  local out=$2/classes.reg keys missing="" present="" name
  WINEPREFIX=$2 wine reg export 'HKLM\Software\Classes' "$(winpath "$out")" /y >/dev/null 2>&1
  keys=$(iconv -f UTF-16LE -t UTF-8 "$out" 2>/dev/null | tr -d '\r' | grep '^\[' | tr 'A-Z' 'a-z')
  rm -f "$out"
  while read -r name; do
    name=$(tr 'A-Z' 'a-z' <<<"$name")
    if grep -qF -- "$name" <<<"$keys"; then present="$present $name"; else missing="$missing $name"; fi
  done < <(registry_names)
  if [ "$3" = yes ]; then
    [ -z "$missing" ] && pass "$1 registration writes every key" || fail "$1 keys missing after registration:$missing"
  else
    [ -z "$present" ] && pass "$1 unregistration removes every key" || fail "$1 keys left after unregistration:$present"
  fi
}

suite() {  # suite <arch> <cscript> <regsvr32>
  local arch=$1 cscript=$2 regsvr32=$3 prefix=$ROOT/build/wine-$1 dll exe out rc script lib joined
  echo "== $arch (Wine prefix $prefix)"
  if [ ! -f "$prefix/system.reg" ]; then
    mkdir -p "$prefix" && WINEPREFIX=$prefix wineboot -i >/dev/null 2>&1 && WINEPREFIX=$prefix wineserver -w
  fi
  [ -f "$prefix/system.reg" ] || { fail "$arch: could not create the Wine prefix"; return; }
  export WINEPREFIX=$prefix
  register() { local d; for d in $(dlls "$arch"); do wine "$regsvr32" /s "$@" "$(winpath "$d")" >/dev/null 2>&1 || fail "$arch regsvr32 $* $(basename "$d")"; done; }
  register
  if [ -n "$HOSTILE" ]; then
    exe=${BUILD_PREFIX}$arch/tests/windows/valmetra_win_tests.exe
    out=$(cd "$(dirname "$exe")" && VALMETRA_HOSTILE_SECONDS=$HOSTILE timeout $((HOSTILE + 300)) wine "$exe" \
      --gtest_filter=Calls.RandomHostileCalls 2>&1 | tr -d '\r'); rc=$?
    grep '^\[ random' <<<"$out" | sed 's/^/        /'
    if [ $rc -eq 0 ] && grep -q '\[  PASSED  \] 1 test' <<<"$out"; then pass "$arch random hostile calls, $HOSTILE s"
    else fail "$arch random hostile calls (exit $rc)"; grep -E 'Failure|seed|Expected' <<<"$out" | head -n 30; fi
    register /u
    wineserver -w
    unset WINEPREFIX
    return
  fi
  registered "$arch" "$prefix" yes
  for exe in ${BUILD_PREFIX}$arch/tests/windows/valmetra_win_tests.exe; do
    [ -f "$exe" ] || { fail "$arch: $exe not built"; continue; }
    out=$(cd "$(dirname "$exe")" && timeout 300 wine "$exe" 2>&1); rc=$?
    if [ $rc -eq 0 ] && grep -q '\[  PASSED  \]' <<<"$out" && ! grep -q '\[  FAILED  \]' <<<"$out"; then
      pass "$arch $(basename "$exe"): $(grep -m1 '\[  PASSED  \]' <<<"$out" | tr -d '\r')"
    else
      fail "$arch $(basename "$exe") (exit $rc)"
      tr -d '\r' <<<"$out" | grep -E '\[  FAILED  \]|: Failure$|Expected|Which is|Value of|Actual' | head -n 60 | sed 's/^/        /'
    fi
  done
  register  # the test program's round trips may have unregistered
  mkdir -p "$prefix/scripts"
  for script in "$ROOT"/tests/scripts/*.vbs "$ROOT"/tests/scripts/*.js; do
    lib=$ROOT/tests/scripts/lib/assert.${script##*.}
    joined=$prefix/scripts/$(basename "$script")
    cat "$lib" "$script" >"$joined"  # the script host has no include
    out=$(timeout 120 wine "$cscript" //nologo "$(winpath "$joined")" 2>&1 | tr -d '\r'); rc=$?
    if [ $rc -eq 0 ] && grep -q '^PASS ' <<<"$out" && ! grep -q '^FAIL' <<<"$out"; then
      pass "$arch $(grep -m1 '^PASS ' <<<"$out")"
    else
      fail "$arch script $(basename "$script") (exit $rc)"
      sed 's/^/        /' <<<"${out:-(no output: died before Finish)}" | head -n 40
    fi
  done
  register /u
  registered "$arch" "$prefix" no
  wineserver -w
  unset WINEPREFIX
}

summary() {  # summary <arch>: keep this arch's line and fold its counts into the totals
  echo "== $1 took $((SECONDS - START)) s"
  SUMMARY+=("$1: $P passed, $F failed, $S skipped")
  TP=$((TP + P)) TF=$((TF + F)) TS=$((TS + S)) P=0 F=0 S=0
}

SUMMARY=()
for arch in x64 x86; do
  START=$SECONDS
  echo "== $arch static checks"
  [ -z "$HOSTILE" ] && for dll in $(dlls $arch); do static_check $arch "$dll"; done
  if ! command -v wine >/dev/null; then
    fail "$arch: wine is not installed (make deps installs it)"
  elif [ $arch = x64 ]; then
    suite x64 cscript regsvr32
  elif [ "${VALMETRA_SKIP_X86:-0}" = 1 ]; then
    skip "x86 runtime tests (VALMETRA_SKIP_X86=1)"
  elif ! W32BIN=$("$ROOT/tools/wine32/provide.sh"); then
    fail "x86: no 32-bit Wine (tools/wine32/provide.sh failed; VALMETRA_SKIP_X86=1 skips)"
  else
    PATH="$W32BIN${W32BIN:+:}$PATH" suite x86 'C:\windows\syswow64\cscript.exe' 'C:\windows\syswow64\regsvr32.exe'
  fi
  summary $arch
done
echo
[ ${#FAILURES[@]} -gt 0 ] && { echo "Windows test failures:"; printf '  %s\n' "${FAILURES[@]}"; }
printf '%s\n' "${SUMMARY[@]}"
echo "$TP passed, $TF failed, $TS skipped"
[ $TF -eq 0 ]
