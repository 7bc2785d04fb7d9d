#!/bin/bash
# Windows tests, run after the mingw builds (make test-windows):
#
#  1. static checks of every built DLL, x64 and x86: PE32+/PE32, exactly the
#     four in-process server exports, no DLL imports beyond system DLLs;
#  2. under Wine, in a private prefix (build/wine-x64, made on first use):
#     register both DLLs with regsvr32, run the mingw GoogleTest programs,
#     run every tests/scripts/*.vbs and *.js through cscript, then check that
#     unregistering removes the registration keys again;
#  3. the same runtime tests for x86 where a 32-bit Wine is installed;
#     otherwise a loud SKIP (the x86 DLLs are still checked statically).
#
# A script passes when cscript exits 0 AND it printed its "PASS <name>" line:
# Wine's cscript exits 0 when a script dies of an uncaught runtime error, so
# the exit code alone proves nothing. A GoogleTest program likewise must print
# "[  PASSED  ]". Scripts may name the classes they need on a line
# "' requires: IntegerData LongData" (VBScript) or "// requires: ..." (JScript);
# a script whose classes have no core yet in src/hosting/catalogue/classes.txt
# is skipped with a message.
#
# Environment: VALMETRA_WINE_KEEP=1 keeps the registration after the run;
# VALMETRA_WIN_BUILD=<dir prefix> reads the builds from <prefix>x64 and
# <prefix>x86 instead of build/win-x64 and build/win-x86;
# VALMETRA_WINE_PREFIX=<dir> runs the x64 tests in that Wine prefix (x86 in
# <dir>-x86) instead of build/wine-x64 and build/wine-x86.
# Ends with the line "N passed, N failed, N skipped".
set -uo pipefail

ROOT=$(cd "$(dirname "$0")/../.." && pwd)
BUILD_PREFIX=${VALMETRA_WIN_BUILD:-$ROOT/build/win-}
export WINEDEBUG=-all
# No Mono/Gecko download prompts when a prefix is created.
export WINEDLLOVERRIDES="mscoree,mshtml="

PASSED=0
FAILED=0
SKIPPED=0
FAILURES=()

pass() { PASSED=$((PASSED + 1)); echo "  ok    $*"; }
fail() { FAILED=$((FAILED + 1)); FAILURES+=("$*"); echo "  FAIL  $*"; }
skip() { SKIPPED=$((SKIPPED + 1)); echo "  SKIP  $*"; }
banner() {
  echo "################################################################"
  for line in "$@"; do echo "## $line"; done
  echo "################################################################"
}

# Windows path of a file for wine (the Z: drive maps /).
winpath() { echo "Z:$(echo "$1" | tr '/' '\\')"; }

# --- locating build outputs --------------------------------------------------

DLL_NAMES=(Valmetra-445.Dll ValueStack.dll)

# built_dll <arch> <name>: where the build puts that DLL (as tools/dist.sh
# takes them); empty when it is not there.
built_dll() {
  local path
  case $2 in
    Valmetra-445.Dll) path=${BUILD_PREFIX}$1/src/hosting/Valmetra-445.Dll ;;
    ValueStack.dll) path=${BUILD_PREFIX}$1/components/valuestack/ValueStack.dll ;;
  esac
  [ -f "$path" ] && echo "$path"
  return 0
}

# --- 1. static checks ----------------------------------------------------------

# System DLLs a statically linked component may import.
SYSTEM_DLLS="kernel32.dll msvcrt.dll ole32.dll oleaut32.dll advapi32.dll user32.dll ntdll.dll
shlwapi.dll rpcrt4.dll ucrtbase.dll"

static_check() {  # static_check <arch> <objdump> <expected magic> <dll>
  local arch=$1 objdump=$2 magic=$3 dll=$4 name dump exports imports bad=""
  name="$arch $(basename "$dll")"
  if ! dump=$("$objdump" -p "$dll" 2>&1); then
    fail "$name: objdump failed: $dump"
    return
  fi
  if ! grep -q "Magic.*($magic)" <<<"$dump"; then
    fail "$name: not $magic ($(grep -m1 'Magic' <<<"$dump"))"
    return
  fi
  exports=$(awk '/^\[Ordinal\/Name Pointer\] Table/ {on=1; next} on && /^\t\[/ {print $3} on && /^$/ {exit}' <<<"$dump" | sort | tr '\n' ' ')
  if [ "$exports" != "DllCanUnloadNow DllGetClassObject DllRegisterServer DllUnregisterServer " ]; then
    fail "$name: exports are '$exports'"
    return
  fi
  imports=$(grep 'DLL Name:' <<<"$dump" | awk '{print tolower($3)}' | sort -u)
  for dep in $imports; do
    case " $(echo $SYSTEM_DLLS) " in *" $dep "*) continue ;; esac
    [[ $dep == api-ms-win-* ]] && continue
    bad="$bad $dep"
  done
  if [ -n "$bad" ]; then
    fail "$name: depends on non-system DLLs:$bad"
    return
  fi
  pass "$name: $magic, four exports, imports $(echo $imports)"
}

echo "== static checks"
for arch in x64 x86; do
  case $arch in
    x64) objdump=x86_64-w64-mingw32-objdump magic="PE32+" ;;
    x86) objdump=i686-w64-mingw32-objdump magic="PE32" ;;
  esac
  for dll in "${DLL_NAMES[@]}"; do
    path=$(built_dll $arch "$dll")
    if [ -z "$path" ]; then
      fail "$arch $dll: not built (looked below ${BUILD_PREFIX}$arch)"
    else
      static_check $arch $objdump "$magic" "$path"
    fi
  done
done

# --- 2./3. runtime tests under Wine ---------------------------------------------

# Classes with a core (classes.txt: core header column other than "-").
LIVE_CLASSES=" $(awk '$1 == "class" && $7 != "-" {print $2}' "$ROOT/src/hosting/catalogue/classes.txt" | tr '\n' ' ') "

# The classes a script names on its "requires:" line that have no core yet.
missing_classes() {
  local need cls out=""
  need=$(grep -m1 -E "^(' *|// *)requires:" "$1" | sed -E "s/^(' *|\/\/ *)requires://")
  for cls in $need; do
    [[ $LIVE_CLASSES == *" $cls "* ]] || out="$out $cls"
  done
  echo "$out"
}

prepare_prefix() {  # prepare_prefix <prefix> <winearch>
  local prefix=$1 winearch=$2
  if [ ! -f "$prefix/system.reg" ]; then
    mkdir -p "$prefix"
    echo "  creating Wine prefix $prefix"
    WINEPREFIX=$prefix WINEARCH=$winearch wineboot -i >/dev/null 2>&1
    WINEPREFIX=$prefix wineserver -w
  fi
  [ -f "$prefix/system.reg" ]
}

# The registry keys registration must create and unregistration remove.
registry_keys() {
  # ValueStack: identities are fixed in components/valuestack/identity.txt.
  awk '$1 == "typelib" {print "HKCR\\TypeLib\\" $2}
       $1 == "class" {print "HKCR\\CLSID\\" $2}
       $1 == "interface" {print "HKCR\\Interface\\" $2}' \
    "$ROOT/components/valuestack/identity.txt"
  echo 'HKCR\ValueStack.ValueStack'
  # The library: its type library, and per class the ProgID, CLSID and IID.
  awk '$1 == "library" {print "HKCR\\TypeLib\\" $3}
       $1 == "class" {print "HKCR\\KARVO_Valmetra." $2; print "HKCR\\CLSID\\" $5;
                      print "HKCR\\Interface\\" $6}' \
    "$ROOT/src/hosting/catalogue/classes.txt"
}

run_scripts() {  # run_scripts <arch> <prefix> <scratch dir>
  local arch=$1 prefix=$2 scratch=$3 script base joined out rc missing lib
  mkdir -p "$scratch"
  shopt -s nullglob
  for script in "$ROOT"/tests/scripts/*.vbs "$ROOT"/tests/scripts/*.js; do
    base=$(basename "$script")
    missing=$(missing_classes "$script")
    if [ -n "$missing" ]; then
      skip "$arch script $base: no core yet for$missing"
      continue
    fi
    case $base in
      *.vbs) lib=$ROOT/tests/scripts/lib/assert.vbs ;;
      *.js) lib=$ROOT/tests/scripts/lib/assert.js ;;
    esac
    # One file: the helper library, then the test (no include in the host).
    joined=$scratch/$base
    cat "$lib" "$script" >"$joined"
    out=$(WINEPREFIX=$prefix timeout 300 wine cscript //nologo "$(winpath "$joined")" 2>&1)
    rc=$?
    if [ $rc -eq 0 ] && grep -q "^PASS " <<<"$out" && ! grep -q "^FAIL" <<<"$out"; then
      pass "$arch script $base: $(grep -m1 '^PASS ' <<<"$out" | tr -d '\r')"
    else
      fail "$arch script $base (exit $rc)"
      if [ -n "$out" ]; then
        sed 's/^/        /' <<<"$out" | tr -d '\r'
      else
        echo "        (no output: the script died before Finish?)"
      fi
    fi
  done
  shopt -u nullglob
}

run_gtests() {  # run_gtests <arch> <prefix>
  local arch=$1 prefix=$2 dir exe out rc found=0
  dir=${BUILD_PREFIX}$arch/tests/windows
  shopt -s nullglob
  for exe in "$dir"/*.exe; do
    found=1
    out=$(cd "$(dirname "$exe")" && WINEPREFIX=$prefix timeout 600 wine "$exe" 2>&1)
    rc=$?
    if [ $rc -eq 0 ] && grep -q '\[  PASSED  \]' <<<"$out" && ! grep -q '\[  FAILED  \]' <<<"$out"; then
      pass "$arch $(basename "$exe"): $(grep -m1 '\[  PASSED  \]' <<<"$out" | tr -d '\r')"
    else
      fail "$arch $(basename "$exe") (exit $rc)"
      tr -d '\r' <<<"$out" | grep -E '\[  FAILED  \]|Failure|error|Expected|Which is|Value of|Actual' | head -n 60 | sed 's/^/        /'
    fi
  done
  shopt -u nullglob
  if [ $found -eq 0 ]; then
    banner "SKIP: no GoogleTest programs in ${BUILD_PREFIX}$arch/tests/windows" \
           "(the mingw test programs have not been built)"
    skip "$arch GoogleTest programs: none built"
  fi
}

runtime_tests() {  # runtime_tests <arch> <winearch>
  local arch=$1 winearch=$2 prefix dll path key
  prefix=$ROOT/build/wine-$arch
  if [ -n "${VALMETRA_WINE_PREFIX:-}" ]; then
    prefix=$VALMETRA_WINE_PREFIX
    [ "$arch" = x64 ] || prefix=$prefix-$arch
  fi
  echo "== runtime tests, $arch (Wine prefix $prefix)"
  if ! prepare_prefix "$prefix" "$winearch"; then
    fail "$arch: could not create the Wine prefix $prefix"
    return
  fi
  local paths=()
  for dll in "${DLL_NAMES[@]}"; do
    path=$(built_dll $arch "$dll")
    [ -n "$path" ] && paths+=("$path")
  done
  if [ ${#paths[@]} -ne ${#DLL_NAMES[@]} ]; then
    fail "$arch: DLLs missing, runtime tests not run"
    return
  fi
  for path in "${paths[@]}"; do
    if WINEPREFIX=$prefix wine regsvr32 /s "$(winpath "$path")" >/dev/null 2>&1; then
      pass "$arch regsvr32 $(basename "$path")"
    else
      fail "$arch regsvr32 $(basename "$path")"
    fi
  done

  run_gtests "$arch" "$prefix"
  # The test programs may unregister (round trips); the scripts need the
  # registration again.
  for path in "${paths[@]}"; do
    WINEPREFIX=$prefix wine regsvr32 /s "$(winpath "$path")" >/dev/null 2>&1 ||
      fail "$arch regsvr32 $(basename "$path") (before the scripts)"
  done
  run_scripts "$arch" "$prefix" "$prefix-scripts"

  # Unregistration removes what registration made; then register again so
  # the prefix stays usable (unless asked to keep it clean).
  local left=""
  for path in "${paths[@]}"; do
    WINEPREFIX=$prefix wine regsvr32 /u /s "$(winpath "$path")" >/dev/null 2>&1 ||
      fail "$arch regsvr32 /u $(basename "$path")"
  done
  while read -r key; do
    if WINEPREFIX=$prefix wine reg query "$key" >/dev/null 2>&1; then left="$left $key"; fi
  done < <(registry_keys)
  if [ -z "$left" ]; then
    pass "$arch unregister removes the CLSID and ProgID keys"
  else
    fail "$arch keys left after unregister:$left"
  fi
  if [ "${VALMETRA_WINE_KEEP:-0}" = 1 ]; then
    for path in "${paths[@]}"; do
      WINEPREFIX=$prefix wine regsvr32 /s "$(winpath "$path")" >/dev/null 2>&1
    done
  fi
  WINEPREFIX=$prefix wineserver -w
}

if ! command -v wine >/dev/null; then
  banner "FAIL: wine is not installed (make deps installs it)"
  fail "wine missing"
else
  runtime_tests x64 win64
  # A 32-bit Wine needs the i386 loader and its PE DLLs (package wine32:i386).
  if [ -e /usr/lib/wine/wine ] && [ -e /usr/lib/i386-linux-gnu/wine/i386-windows/ntdll.dll ]; then
    runtime_tests x86 win32
  else
    banner "SKIP: x86 runtime tests: no 32-bit Wine on this machine" \
           "(wine32:i386 is not installed; the x86 DLLs were only checked statically)"
    skip "x86 runtime tests (no 32-bit Wine)"
  fi
fi

echo
if [ $FAILED -gt 0 ]; then
  echo "Windows test failures:"
  printf '  %s\n' "${FAILURES[@]}"
fi
echo "$PASSED passed, $FAILED failed, $SKIPPED skipped"
[ $FAILED -eq 0 ]
