#!/bin/bash
# Windows tests after the mingw builds, x64 then x86:
#  - the library's version record (tests/deploy checks each staged file's
#    machine type, exports and imports);
#  - under Wine, in a private prefix per arch (build/wine-x64, build/wine-x86):
#    the GoogleTest program passes and every tests/scripts/*.vbs and *.js
#    passes under that arch's cscript, with both DLLs registered by regsvr32;
#    unregistration then leaves no key of theirs (tests/deploy checks the
#    whole record registration writes and removes).
# x86 runs through the 32-bit Wine that tools/wine32/provide.sh makes
# available; when it cannot, that is a failure unless VALMETRA_SKIP_X86=1.
# Wine's cscript exits 0 when a script dies of an uncaught error, so a script
# passes only with its own "PASS <name>" line; a test program only with
# "[  PASSED  ]" and no "[  FAILED  ]". Ends with "x64: ...", "x86: ..." and
# "N passed, N failed, N skipped"; exit 1 on any failure.
# VALMETRA_WIN_BUILD=<prefix> reads builds from <prefix>x64 and <prefix>x86.
# run.sh --hostile SECONDS runs only the random hostile calls, SECONDS per
# arch (make fuzz), printing the seeds and the number of calls.
set -uo pipefail
HOSTILE=
[ "${1:-}" = --hostile ] && HOSTILE=${2:-300}
ROOT=$(cd "$(dirname "$0")/../.." && pwd)
BUILD_PREFIX=${VALMETRA_WIN_BUILD:-$ROOT/build/win-}
export WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
P=0 F=0 S=0 TP=0 TF=0 TS=0 FAILURES=() SUMMARY=()
pass() { P=$((P + 1)); echo "  ok    $*"; }
fail() { F=$((F + 1)); FAILURES+=("$*"); echo "  FAIL  $*"; }
winpath() { echo "Z:${1//\//\\}"; }
dlls() { echo "${BUILD_PREFIX}$1/src/hosting/Valmetra-445.Dll ${BUILD_PREFIX}$1/components/valuestack/ValueStack.dll"; }

version_check() {  # version_check <arch>: the library's version record, as windres reads it back
  local rc line missing=""
  rc=$(x86_64-w64-mingw32-windres -i "${BUILD_PREFIX}$1/src/hosting/Valmetra-445.Dll" -O rc 2>/dev/null |
    sed -n '/VERSIONINFO/,/^END/p' | sed 's/^ *//')
  while read -r line; do grep -qxF -- "$line" <<<"$rc" || missing="$missing [$line]"; done <<'EOF'
FILEVERSION 4, 0, 0, 1
PRODUCTVERSION 4, 0, 0, 1
FILETYPE 0x2
BLOCK "040904B0"
VALUE "FileDescription", "KARVO: Valmetra (4.45) --- Version 4.0x - 02-23-2009"
VALUE "FileVersion", "4.00.0001"
VALUE "InternalName", "Valmetra-445"
VALUE "OriginalFilename", "Valmetra-445.Dll"
VALUE "ProductName", "Valmetra"
VALUE "ProductVersion", "4.00.0001"
VALUE "OLESelfRegister", ""
VALUE "Translation", 0x409, 1200
EOF
  [ -z "$missing" ] && pass "$1 Valmetra-445.Dll: version record" || fail "$1 Valmetra-445.Dll version record lacks$missing"
}

# unregistered <arch>: no key under HKLM\Software\Classes names a GUID or ProgID of either DLL any more
# (tests/deploy compares the whole record that registration writes and removes).
unregistered() {
  local out=$WINEPREFIX/classes.reg keys left
  wine reg export 'HKLM\Software\Classes' "$(winpath "$out")" /y >/dev/null 2>&1
  keys=$(iconv -f UTF-16LE -t UTF-8 "$out" 2>/dev/null | grep '^\['); rm -f "$out"
  left=$(grep -oiFf <(printf '%s\n' '\KARVO_Valmetra.' '\ValueStack.ValueStack'
    awk '$1 ~ /^(typelib|class|interface)$/ {print $2}' "$ROOT/components/valuestack/identity.txt"
    awk '$1 == "library" {print $3} $1 == "class" {print $5; print $6}' "$ROOT/src/hosting/catalogue/classes.txt") \
    <<<"$keys" | sort -u | xargs)
  if [ -z "$keys" ]; then fail "$1: reg export gave no keys"
  elif [ -n "$left" ]; then fail "$1 unregistration leaves keys naming: $left"
  else pass "$1 unregistration removes every key"; fi
}

suite() {  # suite <arch> <cscript> <regsvr32>
  local arch=$1 cscript=$2 regsvr32=$3 exe=${BUILD_PREFIX}$1/tests/windows/valmetra_win_tests.exe out rc script joined
  export WINEPREFIX=$ROOT/build/wine-$arch
  echo "== $arch (Wine prefix $WINEPREFIX)"
  [ -f "$WINEPREFIX/system.reg" ] || { mkdir -p "$WINEPREFIX" && wineboot -i >/dev/null 2>&1 && wineserver -w; }
  [ -f "$WINEPREFIX/system.reg" ] || { fail "$arch: could not create the Wine prefix"; return; }
  register() { local d; for d in $(dlls "$arch"); do wine "$regsvr32" /s "$@" "$(winpath "$d")" >/dev/null 2>&1 || fail "$arch regsvr32 $* $(basename "$d")"; done; }
  register
  if [ -n "$HOSTILE" ]; then
    out=$(cd "$(dirname "$exe")" && VALMETRA_HOSTILE_SECONDS=$HOSTILE timeout $((HOSTILE + 300)) wine "$exe" \
      --gtest_filter=Calls.RandomHostileCalls 2>&1 | tr -d '\r'); rc=$?
    grep '^\[ random' <<<"$out" | sed 's/^/        /'
  else
    out=$(cd "$(dirname "$exe")" && timeout 300 wine "$exe" 2>&1 | tr -d '\r'); rc=$?
  fi
  if [ $rc -eq 0 ] && grep -q '\[  PASSED  \]' <<<"$out" && ! grep -q '\[  FAILED  \]' <<<"$out"; then
    pass "$arch $(basename "$exe")${HOSTILE:+ random hostile calls, $HOSTILE s}: $(grep -m1 '\[  PASSED  \]' <<<"$out")"
  else
    fail "$arch $(basename "$exe") (exit $rc)"
    grep -E '\[  FAILED  \]|: Failure$|Expected|Which is|Value of|Actual|seed' <<<"$out" | head -n 60 | sed 's/^/        /'
  fi
  mkdir -p "$WINEPREFIX/scripts"
  for script in $([ -z "$HOSTILE" ] && echo "$ROOT"/tests/scripts/*.vbs "$ROOT"/tests/scripts/*.js); do
    joined=$WINEPREFIX/scripts/$(basename "$script")
    cat "$ROOT/tests/scripts/lib/assert.${script##*.}" "$script" >"$joined"  # the script host has no include
    out=$(timeout 120 wine "$cscript" //nologo "$(winpath "$joined")" 2>&1 | tr -d '\r'); rc=$?
    if [ $rc -eq 0 ] && grep -q '^PASS ' <<<"$out" && ! grep -q '^FAIL' <<<"$out"; then pass "$arch $(grep -m1 '^PASS ' <<<"$out")"
    else fail "$arch script $(basename "$script") (exit $rc)"; sed 's/^/        /' <<<"${out:-(no output: died before Finish)}" | head -n 40; fi
  done
  register /u
  [ -z "$HOSTILE" ] && unregistered "$arch"
  wineserver -w
  unset WINEPREFIX
}

for arch in x64 x86; do
  START=$SECONDS
  echo "== $arch static checks"
  [ -z "$HOSTILE" ] && version_check $arch
  if ! command -v wine >/dev/null; then
    fail "$arch: wine is not installed (make deps installs it)"
  elif [ $arch = x64 ]; then
    suite x64 cscript regsvr32
  elif [ "${VALMETRA_SKIP_X86:-0}" = 1 ]; then
    S=$((S + 1)); echo "  SKIP  x86 runtime tests (VALMETRA_SKIP_X86=1)"
  elif ! W32BIN=$("$ROOT/tools/wine32/provide.sh"); then
    fail "x86: no 32-bit Wine (tools/wine32/provide.sh failed; VALMETRA_SKIP_X86=1 skips)"
  else
    PATH="$W32BIN${W32BIN:+:}$PATH" suite x86 'C:\windows\syswow64\cscript.exe' 'C:\windows\syswow64\regsvr32.exe'
  fi
  echo "== $arch took $((SECONDS - START)) s"
  SUMMARY+=("$arch: $P passed, $F failed, $S skipped")
  TP=$((TP + P)) TF=$((TF + F)) TS=$((TS + S)) P=0 F=0 S=0
done
echo
[ ${#FAILURES[@]} -gt 0 ] && { echo "Windows test failures:"; printf '  %s\n' "${FAILURES[@]}"; }
printf '%s\n' "${SUMMARY[@]}"
echo "$TP passed, $TF failed, $TS skipped"
[ $TF -eq 0 ]
