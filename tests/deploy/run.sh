#!/bin/bash
# Deployment tests, x64 then x86, each arch in one prefix copied from a booted
# template (build/wine-dep-template-<arch>, booted once per Wine version):
#   static    manifest, package and register tool against the catalogue and the DLLs
#   regfree   nothing registered: an application manifest, and the activation-context API
#   machine   regsvr32 and valmetra-register /machine: HKLM gains exactly the record;
#             every class activates; unregistration gives the registry back
#   per-user  valmetra-register /user from a folder with spaces and non-ASCII letters:
#             HKCU gains exactly the record, HKLM nothing; the record followed by hand
#             (Wine activates from HKLM only); unregistration gives HKCU back
#   msi       install (the record, the files), VBScript and C++ hosts, uninstall
#             leaves no key and no file
# x86 runs under the 32-bit Wine that tools/wine32/provide.sh makes available
# (VALMETRA_SKIP_X86=1 turns its absence into a skip). Prints per-arch counts,
# then "N passed, N failed, N skipped"; exits 1 on a failure.
set -uo pipefail
HERE=$(cd "$(dirname "$0")" && pwd)
ROOT=$(cd "$HERE/../.." && pwd)
B=$ROOT/build
STAGE=$B/dep-stage
W=$B/dep-work
export WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml=" PYTHONDONTWRITEBYTECODE=1
# Wine converts command lines with the locale's character set: UTF-8 keeps non-ASCII paths intact.
export LC_ALL=C.UTF-8
REG="python3 $HERE/reg.py"
DLLS=(Valmetra-445.Dll ValueStack.dll)
declare -A P=() F=() S=()

pass() { P[$ARCH]=$((${P[$ARCH]:-0} + 1)); echo "  ok    $ARCH: $*"; }
fail() { F[$ARCH]=$((${F[$ARCH]:-0} + 1)); echo "  FAIL  $ARCH: $*"; }
skip() { S[$ARCH]=$((${S[$ARCH]:-0} + 1)); echo "  SKIP  $ARCH: $*"; }
expect() { local what=$1; shift; if "$@" >"$W/out" 2>&1; then pass "$what"; else sed 's/^/        /' "$W/out" | head -n 30; fail "$what"; fi; }
wz() { echo "Z:${1//\//\\}"; }  # a Unix path as Wine programs see it
unix() { local p=${1#C:}; echo "$WINEPREFIX/drive_c${p//\\//}"; }

# client <what> <exe> <args...>: deploy_client's own checks as one; its failures shown.
client() {
  local what=$1 out; shift
  out=$(wine "$@" 2>&1 | tr -d '\r')
  grep 'FAIL' <<<"$out" | head -n 20
  if grep -q '^[0-9]* passed, 0 failed$' <<<"$out"; then pass "$what ($(tail -n 1 <<<"$out" | cut -d' ' -f1) checks)"
  else fail "$what: $(tail -n 1 <<<"$out")"; fi
}

# snap <n>: the registry as this arch's programs see it: HKLM\Software and the user's classes
# (deploy_client save: RegSaveKey takes a tenth of a second where `reg export` took seconds).
snap() {
  mkdir -p "$W/$1" && wine "$B/dep-tools/$ARCH/deploy_client.exe" save "$(wz "$W/$1")" >"$W/snap.out" 2>&1 ||
    { cat "$W/snap.out"; fail "registry snapshot $1"; }
}
# example <name>: the shipped C++ example (examples/cpp) from the registration-free folder ends "<name>: ok".
example() { expect "examples/cpp $1.exe" bash -c 'wine "$1" 2>&1 | tr -d "\r" | tee /dev/stderr | grep -q ": ok$"' _ "$A\\$1.exe"; }
files() { (cd "$WINEPREFIX/drive_c" && find . -path ./windows/temp -prune -o -path './users/*/Temp' -prune -o -print | grep -v '^./windows/Installer' | sort); }

stage() {
  rm -rf "$STAGE" && mkdir -p "$STAGE"
  for a in x64 x86; do
    mkdir -p "$STAGE/$a" "$B/dep-tools/$a" || return 1
    cp "$B/win-$a/src/hosting/Valmetra-445.Dll" "$B/win-$a/components/valuestack/ValueStack.dll" "$B/win-$a/gen/valmetra.h" \
      "$STAGE/$a/" || return 1
  done
  "$ROOT/examples/cpp/build.sh" all "$STAGE" "$B/dep-examples" >/dev/null || return 1
  "$ROOT/tools/dist-extra.sh" "$STAGE" >/dev/null || return 1
  $REG classes >"$STAGE/classes.txt" && $REG vbs >"$STAGE/use.vbs" || return 1
  for a in x64 x86; do
    t=$([ $a = x64 ] && echo x86_64 || echo i686)
    exe=$B/dep-tools/$a/deploy_client.exe
    [ "$exe" -nt "$HERE/deploy_client.cpp" ] || $t-w64-mingw32-g++-posix -std=c++20 -O2 -Wall -Wextra -Werror -static \
      -o "$exe" "$HERE/deploy_client.cpp" -lole32 -loleaut32 -ladvapi32 -luuid || return 1
  done
}

prefix() {  # a fresh copy of this arch's booted template
  local t=$B/wine-dep-template-$ARCH
  if [ "$(cat "$t/.wine-version" 2>/dev/null)" != "$(wine --version)" ]; then
    rm -rf "$t" && WINEPREFIX=$t wineboot -i >/dev/null 2>&1 && WINEPREFIX=$t wineserver -w &&
      wine --version >"$t/.wine-version" || return 1
  fi
  export WINEPREFIX=$B/wine-dep-$ARCH
  wineserver -k 2>/dev/null; rm -rf "$WINEPREFIX" && cp -a "$t" "$WINEPREFIX" && wineserver -p  # one server for the whole run
}

static() {
  expect "manifest and package against the catalogue and the DLLs" $REG static $ARCH "$STAGE"
  ${TRIPLE}-objdump -p "$STAGE/$ARCH/valmetra-register.exe" >"$W/dump"
  expect "valmetra-register.exe is $MAGIC and imports system DLLs only" bash -c "grep -q 'Magic.*($MAGIC)' '$W/dump' &&
    ! grep 'DLL Name' '$W/dump' | grep -viE ' (kernel32|msvcrt|ole32|oleaut32|advapi32|user32|ntdll|ucrtbase)\.dll'"
  [ $ARCH = x64 ] && rm -rf "$W/pages" && expect "docs/classes is what tools/gendocs.py writes from the catalogue" \
    bash -c "python3 '$ROOT/tools/gendocs.py' --source '$ROOT' --out '$W/pages' && diff -r '$W/pages' '$ROOT/docs/classes'"
}

paths() {
  local LIST CLIENT D R A M; LIST=$(wz "$STAGE/classes.txt"); CLIENT=$(wz "$B/dep-tools/$ARCH/deploy_client.exe")
  rm -rf "$W" && mkdir -p "$W"
  echo 'WScript.Echo 1' >"$W/warm.vbs"
  wine "$CSCRIPT" //nologo "$(wz "$W/warm.vbs")" >/dev/null 2>&1  # the script host registers itself once
  snap 0
  files >"$W/files0"

  # Registration-free: the assembly beside an application with a manifest, and beside one without.
  A='C:\Reg Free App'; mkdir -p "$(unix "$A")"
  cp "$STAGE/$ARCH"/{Valmetra-445.Dll,ValueStack.dll,KARVO.Valmetra.manifest} "$B/dep-tools/$ARCH/deploy_client.exe" "$(unix "$A")/"
  cp "$B/dep-tools/$ARCH/deploy_client.exe" "$(unix "$A")/actctx_client.exe"
  cp "$B/dep-examples/$ARCH"/*.exe "$(unix "$A")/"
  python3 "$ROOT/tools/genmanifest.py" --source "$ROOT" --arch $ARCH --app "$(unix "$A")/deploy_client.exe.manifest"
  client "registration-free: application manifest, every class and type library" "$A\\deploy_client.exe" com "$LIST"
  client "registration-free: nothing before CreateActCtx, every class after" "$A\\actctx_client.exe" actctx "$A\\KARVO.Valmetra.manifest" "$LIST"
  example registration_free
  snap 1
  expect "registration-free use writes no machine key" $REG same $ARCH "$W/0/lm.reg" "$W/1/lm.reg"
  expect "registration-free use writes no user key" $REG same $ARCH "$W/0/cu.reg" "$W/1/cu.reg"

  # Machine: regsvr32, then valmetra-register /machine, each undone.
  D='C:\Valmetra Machine'; mkdir -p "$(unix "$D")"; cp "$STAGE/$ARCH"/{*.dll,*.Dll,valmetra-register.exe} "$(unix "$D")/"
  R="$D\\valmetra-register.exe"
  for how in regsvr32 register; do
    for dll in "${DLLS[@]}"; do
      if [ $how = regsvr32 ]; then expect "regsvr32 $dll" wine "$REGSVR32" /s "$D\\$dll"
      else expect "valmetra-register /machine $dll" wine "$R" /machine /quiet "$D\\$dll"; fi
    done
    snap 2
    expect "$how: HKLM gains exactly the registration record" $REG record $ARCH HKLM "$D" "$W/1/lm.reg" "$W/2/lm.reg"
    expect "$how: no user key" $REG same $ARCH "$W/1/cu.reg" "$W/2/cu.reg"
    client "$how: every class by CLSID and ProgID, by name; type libraries" "$CLIENT" com "$LIST"
    [ $how = regsvr32 ] && example early_bound && example late_bound
    for dll in "${DLLS[@]}"; do
      if [ $how = regsvr32 ]; then expect "regsvr32 /u $dll" wine "$REGSVR32" /s /u "$D\\$dll"
      else expect "valmetra-register /machine /unregister $dll" wine "$R" /machine /unregister /quiet "$D\\$dll"; fi
    done
    snap 3
    expect "$how: unregistration gives HKLM back" $REG same $ARCH "$W/1/lm.reg" "$W/3/lm.reg"
  done
  client "after unregistration no class resolves" "$CLIENT" none "$LIST"

  # Per-user, from a folder with spaces and non-ASCII letters.
  M='C:\users\Public\Valmetra Tëst Ωmega'; mkdir -p "$(unix "$M")"; cp "$(unix "$D")"/* "$(unix "$M")/"; R="$M\\valmetra-register.exe"
  local OTHER OTHER_DLL rc; OTHER=$([ $ARCH = x64 ] && echo x86 || echo x64); OTHER_DLL=$(wz "$STAGE/$OTHER/Valmetra-445.Dll")
  while IFS='|' read -r what code args text; do
    eval "wine \"\$R\" $args" >"$W/reg.out" 2>&1; rc=$?
    eval "text=\"$text\""
    expect "valmetra-register $what: exit $code, '$text'" bash -c '[ "$1" = "$2" ] && grep -qF -- "$3" "$4"' _ "$rc" "$code" "$text" "$W/reg.out"
  done <<'CASES'
/?|0|/?|usage: valmetra-register
--help|0|--help|usage: valmetra-register
with a DLL that does not exist|126|/user 'C:\nowhere\none.dll'|not found
with the other bitness's DLL|193|/user "$OTHER_DLL"|use the $OTHER valmetra-register
with a program|193|/user "$R"|a program, not a library
with /user and /machine|87|/user /machine 'C:\x.dll'|usage: valmetra-register
CASES
  for n in 1 2; do
    for dll in "${DLLS[@]}"; do expect "valmetra-register /user $dll ($n)" wine "$R" /user /quiet "$M\\$dll"; done
    snap 4
    expect "/user ($n): HKCU gains exactly the registration record" $REG record $ARCH HKCU "$M" "$W/1/cu.reg" "$W/4/cu.reg"
    expect "/user ($n): HKLM untouched" $REG same $ARCH "$W/1/lm.reg" "$W/4/lm.reg"
  done
  client "/user: the HKCU record followed to working objects and type libraries" "$CLIENT" follow "$LIST"
  for dll in "${DLLS[@]}"; do expect "valmetra-register /user /unregister $dll" wine "$R" /user /unregister /quiet "$M\\$dll"; done
  snap 5
  expect "/user /unregister gives HKCU back" $REG same $ARCH "$W/1/cu.reg" "$W/5/cu.reg"
  expect "/user /unregister leaves HKLM" $REG same $ARCH "$W/1/lm.reg" "$W/5/lm.reg"

  # The package.
  local msi T; msi=$(wz "$STAGE/KARVO-Valmetra-$ARCH.msi"); T="$PF\\KARVO\\Valmetra"
  rm -rf "$(unix "$A")" "$(unix "$D")" "$(unix "$M")"
  expect "msiexec /i" wine msiexec /i "$msi" /qn
  snap 6
  expect "msi: HKLM gains exactly the registration record" $REG record $ARCH HKLM "$T" "$W/5/lm.reg" "$W/6/lm.reg"
  expect "msi: the DLLs installed" bash -c 'cmp "$1/Valmetra-445.Dll" "$2/Valmetra-445.Dll" && cmp "$1/ValueStack.dll" "$2/ValueStack.dll"' \
    _ "$(unix "$T")" "$STAGE/$ARCH"
  expect "msi: every class from VBScript" bash -c 'wine "$1" //nologo "$2" | tr -d "\r" | tee /dev/stderr | grep -qx PASS' _ "$CSCRIPT" "$(wz "$STAGE/use.vbs")"
  client "msi: every class from C++" "$CLIENT" com "$LIST"
  expect "msiexec /x" wine msiexec /x "$msi" /qn
  snap 7
  expect "uninstall leaves no key" $REG same $ARCH "$W/0/lm.reg" "$W/7/lm.reg"
  expect "... and no user key" $REG same $ARCH "$W/0/cu.reg" "$W/7/cu.reg"
  files >"$W/files7"
  expect "... and no file" diff "$W/files0" "$W/files7"
}

echo "== deployment"
mkdir -p "$W"
start=$(date +%s)
ARCH=x64
stage || { fail "staging (build the win-x64 and win-x86 presets first)"; }
for ARCH in x64 x86; do
  t0=$(date +%s)
  if [ $ARCH = x64 ]; then TRIPLE=x86_64-w64-mingw32 MAGIC=PE32+ REGSVR32=regsvr32 CSCRIPT=cscript PF='C:\Program Files'
  else TRIPLE=i686-w64-mingw32 MAGIC=PE32 REGSVR32='C:\windows\syswow64\regsvr32.exe' CSCRIPT='C:\windows\syswow64\cscript.exe' PF='C:\Program Files (x86)'; fi
  [ -f "$STAGE/KARVO-Valmetra-$ARCH.msi" ] || { fail "nothing staged"; continue; }
  static
  if [ $ARCH = x86 ]; then
    if W32BIN=$("$ROOT/tools/wine32/provide.sh"); then PATH="$W32BIN${W32BIN:+:}$PATH"
    elif [ "${VALMETRA_SKIP_X86:-}" = 1 ]; then skip "no 32-bit Wine (VALMETRA_SKIP_X86=1): registration, activation, package"; continue
    else fail "no 32-bit Wine: tools/wine32/provide.sh failed"; continue; fi
  fi
  if prefix; then paths; wineserver -k 2>/dev/null; else fail "cannot boot a Wine prefix"; fi
  [ "${F[$ARCH]:-0}" = 0 ] && rm -rf "$WINEPREFIX"
  echo "   ($ARCH: $(( $(date +%s) - t0 )) s)"
done
for a in x64 x86; do echo "$a: ${P[$a]:-0} passed, ${F[$a]:-0} failed, ${S[$a]:-0} skipped"; done
echo "$(( ${P[x64]:-0} + ${P[x86]:-0} )) passed, $(( ${F[x64]:-0} + ${F[x86]:-0} )) failed, $(( ${S[x64]:-0} + ${S[x86]:-0} )) skipped"
[ $(( ${F[x64]:-0} + ${F[x86]:-0} )) = 0 ]
