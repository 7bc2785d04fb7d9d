#!/bin/bash
# Per-user registration with valmetra-register /user, fresh prefix, the DLLs in
# a folder whose name has spaces and non-ASCII letters:
#  - unregistering what was never registered succeeds and changes nothing;
#  - registration writes exactly the registration record under
#    HKCU\Software\Classes (read back with `reg export` and `reg query`), and
#    nothing anywhere in HKLM\Software;
#  - the record works: ProgID -> CLSID -> InprocServer32 path -> that DLL ->
#    DllGetClassObject -> object -> call by name, and the TypeLib record's path
#    holds the type library (Wine 8 activates classes from the machine hive
#    only, so CreateObject cannot show this under Wine);
#  - registering twice changes nothing; unregistering gives back HKCU as it was;
#    unregistering twice succeeds and changes nothing;
#  - beside a machine registration of the same DLLs, a per-user registration
#    and unregistration leave every machine key as it was.
set -uo pipefail
HERE=$(cd "$(dirname "$0")" && pwd)
source "$HERE/lib.sh"

fresh_prefix per-user || { fail "fresh prefix"; finish; }
D='C:\users\Public\Valmetra Tëst Ωmega'
put_dlls "$D"
put_files "$D" "$DEP_STAGE/x64/valmetra-register.exe"
R="$D\\valmetra-register.exe"
CLIENT=$(winpath_z "$DEP_TOOLS/x64/deploy_client.exe")
LIST=$(winpath_z "$CLASS_LIST")
S=$WORK/per-user
rm -rf "$S"; mkdir -p "$S"

# register_all <what> <switches...>: valmetra-register on both DLLs.
register_all() {
  local what=$1 dll; shift
  for dll in "${DLLS[@]}"; do
    expect "$what $dll" wine "$R" "$@" /quiet "$D\\$dll"
  done
}

# Failures come back as HRESULTs, printed and as the exit code (of which a
# POSIX shell sees the low byte).
while IFS='|' read -r what hr code args; do
  out=$(eval "wine \"\$R\" $args" 2>&1 | tr -d '\r'); rc=$?
  if grep -q "HRESULT $hr" <<<"$out" && [ "$rc" = "$code" ]; then pass "valmetra-register $what: $hr"
  else fail "valmetra-register $what: wanted $hr, exit $code; got exit $rc: $(tail -n 1 <<<"$out")"; fi
done <<'CASES'
with a DLL that does not exist|0x8007007E|126|/user 'C:\nowhere\none.dll'
with a DLL without DllRegisterServer|0x8007007F|127|/user 'C:\windows\system32\kernel32.dll'
with /user and /machine|0x80070057|87|/user /machine 'C:\x.dll'
without a DLL|0x80070057|87|/user
CASES

snapshot "$S/0"
register_all "/user /unregister, never registered:" /user /unregister
snapshot "$S/1"
check_registry "unregistering the unregistered changes no user key" unchanged "$S/0/cu-classes.reg" "$S/1/cu-classes.reg"
check_registry "... and no machine key" unchanged "$S/0/lm-software.reg" "$S/1/lm-software.reg"

register_all "/user" /user
snapshot "$S/2"
check_registry "HKCU\\Software\\Classes holds the registration record" \
  record --hive HKCU --dir "$D" "$S/0/cu-classes.reg" "$S/2/cu-classes.reg"
check_registry "HKLM\\Software untouched" unchanged "$S/0/lm-software.reg" "$S/2/lm-software.reg"

# The same, read key by key the way an administrator would look.
while read -r _ file clsid progid _ _ name _; do
  [ "$name" = IntegerData ] || [ "$name" = ValueStack ] || continue
  v=$(reg_value "HKCU\\Software\\Classes\\$progid\\CLSID")
  expect "reg query: HKCU $progid\\CLSID = $v" [ "$v" = "$clsid" ]
  v=$(reg_value "HKCU\\Software\\Classes\\CLSID\\$clsid\\InprocServer32")
  expect "reg query: HKCU CLSID\\$clsid\\InprocServer32 = $v" [ "$v" = "$D\\$file" ]
  expect "reg query: no $progid in HKLM" bash -c "! wine reg query 'HKLM\\Software\\Classes\\$progid' >/dev/null 2>&1"
  expect "reg query: no CLSID\\$clsid in HKLM" \
    bash -c "! wine reg query 'HKLM\\Software\\Classes\\CLSID\\$clsid' >/dev/null 2>&1"
done < <(grep '^class ' "$CLASS_LIST")

client "the HKCU record followed to working objects of every class" "$CLIENT" follow HKCU "$LIST"
# Informational: under Wine 8 the per-user record does not take part in activation.
if wine "$CLIENT" none "$LIST" >/dev/null 2>&1; then
  echo "  note  CoCreateInstance does not see the per-user record here (Wine reads the machine hive only)"
else
  echo "  note  CoCreateInstance resolves classes from the per-user record here"
fi

register_all "/user again" /user
snapshot "$S/3"
check_registry "registering twice changes no user key" unchanged "$S/2/cu-classes.reg" "$S/3/cu-classes.reg"
check_registry "... and no machine key" unchanged "$S/2/lm-software.reg" "$S/3/lm-software.reg"

register_all "/user /unregister" /user /unregister
snapshot "$S/4"
check_registry "unregistering gives back HKCU\\Software\\Classes as it was" unchanged "$S/0/cu-classes.reg" "$S/4/cu-classes.reg"
check_registry "... and HKLM\\Software untouched" unchanged "$S/0/lm-software.reg" "$S/4/lm-software.reg"

register_all "/user /unregister again" /user /unregister
snapshot "$S/5"
check_registry "unregistering twice changes nothing" unchanged "$S/4/cu-classes.reg" "$S/5/cu-classes.reg"

# Beside a machine registration of the same DLLs.
register_all "/machine" /machine
snapshot "$S/6"
register_all "/user beside /machine:" /user
snapshot "$S/7"
check_registry "beside a machine registration: HKCU holds the record" \
  record --hive HKCU --dir "$D" "$S/6/cu-classes.reg" "$S/7/cu-classes.reg"
check_registry "... and every machine key stays as it was" unchanged "$S/6/lm-software.reg" "$S/7/lm-software.reg"
register_all "/user /unregister beside /machine:" /user /unregister
snapshot "$S/8"
check_registry "per-user unregistration leaves the machine registration whole" \
  unchanged "$S/6/lm-software.reg" "$S/8/lm-software.reg"
check_registry "... and HKCU as before" unchanged "$S/6/cu-classes.reg" "$S/8/cu-classes.reg"
client "the machine registration still activates every class" "$CLIENT" com "$LIST"
register_all "/machine /unregister" /machine /unregister
snapshot "$S/9"
check_registry "in the end HKLM\\Software is as the fresh prefix had it" unchanged "$S/0/lm-software.reg" "$S/9/lm-software.reg"

# A DLL that registers through the runtime's RegisterTypeLib, which under Wine
# writes (and on unregistration deletes) interface records in HKLM's 32-bit
# view whatever HKEY_CLASSES_ROOT leads to: the tool's machine guard must
# keep the machine hive as it was, alone and beside a machine registration.
F="$D\\typelib_fixture.dll"
FLIB='{28C70D2B-EE62-4862-BF06-2402A23766B7}'
put_files "$D" "$DEP_TOOLS/x64/typelib_fixture.dll"
repaired=0
fixture() {  # fixture <what> <switches...>: valmetra-register on the fixture
  local what=$1 out; shift
  out=$(wine "$R" "$@" "$F" 2>&1 | tr -d '\r')
  if [ $? = 0 ] && grep -q "^\(un\)\?registered " <<<"$out"; then pass "$what"; else fail "$what: $out"; fi
  grep -q '^note: put back' <<<"$out" && repaired=$((repaired + 1))
}
fixture "RegisterTypeLib fixture: /user" /user
snapshot "$S/10"
check_registry "RegisterTypeLib fixture: no machine key written" unchanged "$S/9/lm-software.reg" "$S/10/lm-software.reg"
v=$(reg_value "HKCU\\Software\\Classes\\TypeLib\\$FLIB\\1.0\\0\\win64")
expect "RegisterTypeLib fixture: its type library recorded for the user ($v)" [ "$v" = "$F" ]
fixture "RegisterTypeLib fixture: /user /unregister" /user /unregister
snapshot "$S/11"
check_registry "RegisterTypeLib fixture: HKCU back as it was" unchanged "$S/9/cu-classes.reg" "$S/11/cu-classes.reg"
check_registry "... and HKLM untouched" unchanged "$S/9/lm-software.reg" "$S/11/lm-software.reg"
expect "RegisterTypeLib fixture: regsvr32 (machine)" wine regsvr32 /s "$F"
snapshot "$S/12"
fixture "RegisterTypeLib fixture beside its machine registration: /user" /user
fixture "RegisterTypeLib fixture beside its machine registration: /user /unregister" /user /unregister
snapshot "$S/13"
check_registry "RegisterTypeLib fixture: the machine registration is whole" \
  unchanged "$S/12/lm-software.reg" "$S/13/lm-software.reg"
expect "RegisterTypeLib fixture: regsvr32 /u" wine regsvr32 /s /u "$F"
echo "  note  the guard put back machine keys after $repaired of 4 per-user calls of the fixture"
done_prefix
finish
