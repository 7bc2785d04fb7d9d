#!/bin/bash
# Deployment tests, x64 then x86: static checks (manifest against the catalogue, register tool kind),
# then the rows of PATHS in a Wine prefix copied from a booted template:
# registration-free, machine (regsvr32, valmetra-register /machine), per-user (valmetra-register /user
# from a folder with spaces and non-ASCII letters; Wine activates from HKLM only, so the record is
# followed by hand), the package. Every registration must add exactly the record to its hive and
# nothing to the other, every unregistration give the registry back.
# x86 runs under the 32-bit Wine that tools/wine32/provide.sh makes available
# (VALMETRA_SKIP_X86=1 turns its absence into a skip). Prints per-arch counts,
# then "N passed, N failed, N skipped"; exits 1 on a failure.
set -uo pipefail
HERE=$(cd "$(dirname "$0")" && pwd)
ROOT=$(cd "$HERE/../.." && pwd)
B=$ROOT/build STAGE=$ROOT/build/dep-stage W=$ROOT/build/dep-work
# Wine converts command lines with the locale's character set: UTF-8 keeps non-ASCII paths intact.
export WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml=" PYTHONDONTWRITEBYTECODE=1 LC_ALL=C.UTF-8
REG="python3 $HERE/reg.py"
declare -A N=()

note() { N[$ARCH$1]=$((${N[$ARCH$1]:-0} + 1)) N[$1]=$((${N[$1]:-0} + 1)); printf '  %-4s  %s: %s\n' "$1" "$ARCH" "$2"; }
# expect <what> <command>: one check; the command's output is shown when it fails.
expect() { if eval "$2" >"$W/out" 2>&1 </dev/null; then note ok "$1"; else sed 's/^/        /' "$W/out" | head -n 30; note FAIL "$1"; fi; }
wz() { echo "Z:${1//\//\\}"; }  # a Unix path as Wine programs see it
unix() { local p=${1#C:}; echo "$WINEPREFIX/drive_c${p//\\//}"; }
# says <pattern> <command...>: the command's output matches; its exit code is left in RC.
says() { "${@:2}" >"$W/said" 2>&1; RC=$?; tr -d '\r' <"$W/said" | tee /dev/stderr | grep -q -- "$1"; }
each_dll() { for f in Valmetra-445.Dll ValueStack.dll; do "${@//@DLL@/$f}" || return; done; }
# snap <n> [<base> [<hive> <dir>]]: registry snapshot n, compared with snapshot base (reg.py diff).
# A save is tried twice: a Wine process started just as the prefix's server shuts down can fail to start.
snap() { mkdir -p "$W/$1" && { wine "$CLIENT" save "$(wz "$W/$1")" || { sleep 2; wine "$CLIENT" save "$(wz "$W/$1")"; } ||
  ! echo "deploy_client save: exit $?"; } &&
  { [ $# = 1 ] || $REG diff $ARCH "$W/$2" "$W/$1" "${@:3}"; }; }
# pe_kind <file>: this arch's kind of program, importing system DLLs only; a DLL exports exactly the four
# entry points of an in-process server.
pe_kind() { ${TRIPLE}-objdump -p "$STAGE/$ARCH/$1" >"$W/pe" && grep -q "Magic.*($MAGIC)" "$W/pe" &&
  ! grep "DLL Name" "$W/pe" | grep -viE " ((kernel32|msvcrt|ole32|oleaut32|advapi32|user32|ntdll|shlwapi|rpcrt4|ucrtbase)\.dll|api-ms-win-.*)$" &&
  { [[ $1 == *.exe ]] || awk '/^\[Ordinal\/Name Pointer\] Table/ {on=1; next} on && /^\t\[/ {print $3} on && /^$/ {exit}' "$W/pe" |
    sort | xargs | tee /dev/stderr | grep -qx "DllCanUnloadNow DllGetClassObject DllRegisterServer DllUnregisterServer"; }; }
files() { (cd "$WINEPREFIX/drive_c" && find . -path ./windows/temp -prune -o -path './users/*/Temp' -prune -o -print | grep -v '^./windows/Installer' | sort); }

PATHS='registration-free: application manifest, every class and type library|wine "$A\\deploy_client.exe" com "$LIST"
examples/cpp registration_free.exe|says "registration_free: ok$" wine "$A\\registration_free.exe"
registration-free use writes no key|snap 1 0
valmetra-register /machine both DLLs (it calls the entry point as regsvr32 does)|each_dll wine "$D\\valmetra-register.exe" /machine /quiet "$D\\@DLL@"
/machine: HKLM gains exactly the registration record, HKCU nothing|snap 2 1 HKLM "$D"
/machine: every class by ProgID and CLSID, by name; type libraries|wine "$CLIENT" com "$LIST"
examples/cpp early_bound.exe|says "early_bound: ok$" wine "$A\\early_bound.exe"
examples/cpp late_bound.exe|says "late_bound: ok$" wine "$A\\late_bound.exe"
regsvr32 /u both DLLs|each_dll wine "$REGSVR32" /s /u "$D\\@DLL@"
regsvr32 /u gives the registry back (as before registration, when nothing resolved)|snap 3 1
valmetra-register /?: exit 0, usage|says "usage: valmetra-register" wine "$R" /? && [ $RC = 0 ]
valmetra-register --help: exit 0, usage|says "usage: valmetra-register" wine "$R" --help && [ $RC = 0 ]
valmetra-register with a DLL that does not exist: exit 126, not found|says "not found" wine "$R" /user "C:\\nowhere\\none.dll" && [ $RC = 126 ]
valmetra-register with the $OTHER DLL: exit 193, use the $OTHER tool|says "use the $OTHER valmetra-register" wine "$R" /user "$(wz "$STAGE/$OTHER/Valmetra-445.Dll")" && [ $RC = 193 ]
valmetra-register with a program: exit 193, not a library|says "a program, not a library" wine "$R" /user "$R" && [ $RC = 193 ]
valmetra-register /user /machine: exit 87, usage|says "usage: valmetra-register" wine "$R" /user /machine "C:\\x.dll" && [ $RC = 87 ]
valmetra-register /user both DLLs|each_dll wine "$R" /user /quiet "$M\\@DLL@"
/user: HKCU gains exactly the registration record, HKLM nothing|snap 4 1 HKCU "$M"
valmetra-register /user both DLLs again: the same record|each_dll wine "$R" /user /quiet "$M\\@DLL@" && snap 5 1 HKCU "$M"
/user: the HKCU record followed to working objects and type libraries|wine "$CLIENT" follow "$LIST"
valmetra-register /user /unregister both DLLs|each_dll wine "$R" /user /unregister /quiet "$M\\@DLL@"
/user /unregister gives HKCU back and leaves HKLM|snap 6 1
msiexec /i|wine msiexec /i "$MSI" /qn
msi: HKLM gains exactly the registration record, HKCU nothing|snap 7 6 HKLM "$T"
msi: the DLLs installed|each_dll cmp "$(unix "$T")/@DLL@" "$STAGE/$ARCH/@DLL@"
msi: every class from C++|wine "$CLIENT" com "$LIST"
msiexec /x|wine msiexec /x "$MSI" /qn
uninstall leaves no key|snap 8 0
... and no file|rm -rf "$(unix "$A")" "$(unix "$D")" "$(unix "$M")" && files | diff "$W/files0" -'

stage() {
  rm -rf "$STAGE" && mkdir -p "$STAGE"
  for a in x64 x86; do
    mkdir -p "$STAGE/$a" "$B/dep-tools/$a" || return 1
    cp "$B/win-$a/src/hosting/Valmetra-445.Dll" "$B/win-$a/components/valuestack/ValueStack.dll" "$B/win-$a/gen/valmetra.h" \
      "$STAGE/$a/" || return 1
    exe=$B/dep-tools/$a/deploy_client.exe
    [ "$exe" -nt "$HERE/deploy_client.cpp" ] || $([ $a = x64 ] && echo x86_64 || echo i686)-w64-mingw32-g++-posix -std=c++20 \
      -O2 -Wall -Wextra -Werror -static -I "$ROOT/src" -o "$exe" "$HERE/deploy_client.cpp" -lole32 -loleaut32 -ladvapi32 -luuid || return 1
  done
  "$ROOT/examples/cpp/build.sh" all "$STAGE" "$B/dep-examples" >/dev/null && "$ROOT/tools/dist-extra.sh" "$STAGE" >/dev/null &&
    $REG classes >"$STAGE/classes.txt"
}

# A fresh copy of this arch's booted template, its snapshot 0, and the folders the paths use.
prefix() {
  local t=$B/wine-dep-template-$ARCH
  if [ "$(cat "$t/.wine-version" 2>/dev/null)" != "$(wine --version)" ]; then
    rm -rf "$t" && WINEPREFIX=$t wineboot -i >/dev/null 2>&1 && WINEPREFIX=$t wineserver -w &&
      wine --version >"$t/.wine-version" || return 1
  fi
  export WINEPREFIX=$B/wine-dep-$ARCH
  wineserver -k 2>/dev/null; rm -rf "$WINEPREFIX" && cp -a "$t" "$WINEPREFIX" && wineserver -p || return 1  # one server for the run
  snap 0 && files >"$W/files0" || return 1
  for d in "$A" "$D" "$M"; do mkdir -p "$(unix "$d")" && cp "$STAGE/$ARCH"/* "$(unix "$d")/" || return 1; done
  cp "$CLIENT" "$B/dep-examples/$ARCH"/*.exe "$(unix "$A")/" &&
    python3 "$ROOT/tools/genmanifest.py" --source "$ROOT" --arch $ARCH --app "$(unix "$A")/deploy_client.exe.manifest"
}

echo "== deployment"
rm -rf "$W" && mkdir -p "$W"
ARCH=x64
stage || note FAIL "staging (build the win-x64 and win-x86 presets first)"
expect "docs/classes is what tools/gendocs.py writes from the catalogue" \
  'python3 "$ROOT/tools/gendocs.py" --source "$ROOT" --out "$W/pages" && diff -r "$W/pages" "$ROOT/docs/classes"'
for ARCH in x64 x86; do
  if [ $ARCH = x64 ]; then TRIPLE=x86_64-w64-mingw32 MAGIC=PE32+ OTHER=x86 REGSVR32=regsvr32 PF='C:\Program Files'
  else TRIPLE=i686-w64-mingw32 MAGIC=PE32 OTHER=x64 REGSVR32='C:\windows\syswow64\regsvr32.exe' PF='C:\Program Files (x86)'; fi
  A='C:\Reg Free App' D='C:\Valmetra Machine' M='C:\users\Public\Valmetra Tëst Ωmega' T="$PF\\KARVO\\Valmetra"
  R="$M\\valmetra-register.exe" MSI=$(wz "$STAGE/KARVO-Valmetra-$ARCH.msi") LIST=$(wz "$STAGE/classes.txt") CLIENT=$B/dep-tools/$ARCH/deploy_client.exe
  [ -f "$STAGE/KARVO-Valmetra-$ARCH.msi" ] || { note FAIL "nothing staged"; continue; }
  expect "manifest against the catalogue" '$REG static $ARCH "$STAGE"'
  expect "valmetra-register.exe and both DLLs are $MAGIC, import system DLLs only; the DLLs export the four entry points" \
    'pe_kind valmetra-register.exe && each_dll pe_kind @DLL@'
  if [ $ARCH = x86 ] && ! W32BIN=$("$ROOT/tools/wine32/provide.sh"); then
    [ "${VALMETRA_SKIP_X86:-}" = 1 ] && note SKIP "no 32-bit Wine (VALMETRA_SKIP_X86=1): registration, activation, package" ||
      note FAIL "no 32-bit Wine: tools/wine32/provide.sh failed"; continue
  fi
  PATH="${W32BIN:-}${W32BIN:+:}$PATH"
  if prefix; then
    while IFS='|' read -r what cmd; do eval "what=\"$what\""; expect "$what" "$cmd"; done <<<"$PATHS"
  else note FAIL "cannot boot a Wine prefix"; fi
  wineserver -k 2>/dev/null
  [ "${N[${ARCH}FAIL]:-0}" = 0 ] && rm -rf "$WINEPREFIX"
done
for a in x64 x86 ""; do echo "${a:+$a: }${N[${a}ok]:-0} passed, ${N[${a}FAIL]:-0} failed, ${N[${a}SKIP]:-0} skipped"; done
[ "${N[FAIL]:-0}" = 0 ]
