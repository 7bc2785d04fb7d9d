#!/bin/bash
# Machine registration, fresh prefix: regsvr32 adds to HKLM\Software exactly
# the registration record (tools/genmsi.py --record, from the catalogue) under
# Software\Classes, and nothing to HKCU; every class activates through it
# by CLSID and ProgID and answers a call by name; regsvr32 /u gives back the
# hive as it was. valmetra-register /machine does the same as regsvr32. The
# exports of the regsvr32 registration are kept in build/dep-work for msi.sh,
# which compares the installer's keys with them.
set -uo pipefail
HERE=$(cd "$(dirname "$0")" && pwd)
source "$HERE/lib.sh"

fresh_prefix machine || { fail "fresh prefix"; finish; }
D='C:\Valmetra Machine'
put_dlls "$D"
CLIENT=$(winpath_z "$DEP_TOOLS/x64/deploy_client.exe")
LIST=$(winpath_z "$CLASS_LIST")
S=$WORK/machine
rm -rf "$S"; mkdir -p "$S"

snapshot "$S/0"
for dll in "${DLLS[@]}"; do
  expect "regsvr32 $dll" wine regsvr32 /s "$D\\$dll"
done
snapshot "$S/1"
check_registry "regsvr32: HKLM\\Software gains exactly the registration record" \
  record --hive HKLM --dir "$D" "$S/0/lm-software.reg" "$S/1/lm-software.reg"
check_registry "regsvr32: HKCU\\Software\\Classes untouched" unchanged "$S/0/cu-classes.reg" "$S/1/cu-classes.reg"
client "registered classes activate by CLSID and ProgID and answer by name" "$CLIENT" com "$LIST"

for dll in "${DLLS[@]}"; do
  expect "regsvr32 /u $dll" wine regsvr32 /s /u "$D\\$dll"
done
snapshot "$S/2"
check_registry "regsvr32 /u: HKLM\\Software as before registration" unchanged "$S/0/lm-software.reg" "$S/2/lm-software.reg"
client "after regsvr32 /u no class resolves" "$CLIENT" none "$LIST"

R="$D\\valmetra-register.exe"
put_files "$D" "$DEP_STAGE/x64/valmetra-register.exe"
for dll in "${DLLS[@]}"; do
  expect "valmetra-register /machine $dll" wine "$R" /machine /quiet "$D\\$dll"
done
snapshot "$S/3"
check_registry "valmetra-register /machine writes what regsvr32 wrote" \
  pair --dir-a "$D" --dir-b "$D" "$S/0/lm-software.reg" "$S/1/lm-software.reg" "$S/0/lm-software.reg" "$S/3/lm-software.reg"
for dll in "${DLLS[@]}"; do
  expect "valmetra-register /machine /unregister $dll" wine "$R" /machine /unregister /quiet "$D\\$dll"
done
snapshot "$S/4"
check_registry "valmetra-register /machine /unregister: HKLM\\Software as before" \
  unchanged "$S/0/lm-software.reg" "$S/4/lm-software.reg"
done_prefix
finish
