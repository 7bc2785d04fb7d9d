#!/bin/bash
# The x64 package, fresh prefix: `msiexec /i /qn` installs both DLLs into
# Program Files\KARVO\Valmetra and writes exactly the registration record
# (besides the installer's own bookkeeping), the same keys and values that
# regsvr32 wrote in machine.sh; a VBScript host and the C++ client use every
# class; `msiexec /x /qn` leaves no key (anywhere in HKLM\Software or
# HKCU\Software) and no file behind. Wine's installer keeps its own empty
# containers (Installer\Products, ...\UserData\S-1-5-18\Components, ...) and
# its package cache folder C:\windows\Installer once made, as Windows has them
# anyway: accepted when they hold no value and name no product, component or
# class.
set -uo pipefail
HERE=$(cd "$(dirname "$0")" && pwd)
source "$HERE/lib.sh"

fresh_prefix msi || { fail "fresh prefix"; finish; }
MSI=$(winpath_z "$DEP_STAGE/KARVO-Valmetra-x64.msi")
T='C:\Program Files\KARVO\Valmetra'
CLIENT=$(winpath_z "$DEP_TOOLS/x64/deploy_client.exe")
LIST=$(winpath_z "$CLASS_LIST")
S=$WORK/msi
rm -rf "$S"; mkdir -p "$S"
INSTALLER_KEYS='HKLM\SOFTWARE\CLASSES\INSTALLER'

# Every file and folder of drive C:, less the temporary folders and the
# installer's package cache folder itself (its content is listed).
files_of_prefix() { (cd "$WINEPREFIX/drive_c" && find . -path ./windows/temp -prune -o -path './users/*/Temp' -prune \
  -o ! -path ./windows/Installer -print | sort); }

# cscript registers the script host's own type libraries on its first run:
# that happens before the baseline, so it is not taken for the package's.
echo 'WScript.Echo "warm"' >"$S/warm.vbs"
wine cscript //nologo "$(winpath_z "$S/warm.vbs")" >/dev/null 2>&1
snapshot "$S/0"
export_hive 'HKCU\Software' "$S/0/cu-software.reg"
files_of_prefix >"$S/0/files"
expect "msiexec /i /qn" wine msiexec /i "$MSI" /qn
snapshot "$S/1"
check_registry "the package writes the registration record" \
  record --hive HKLM --dir "$T" --under 'HKLM\SOFTWARE\CLASSES' --exclude "$INSTALLER_KEYS" \
  "$S/0/lm-software.reg" "$S/1/lm-software.reg"
if [ -f "$WORK/machine/1/lm-software.reg" ]; then
  check_registry "the package and regsvr32 write the same keys and values" \
    pair --dir-a 'C:\Valmetra Machine' --dir-b "$T" --under 'HKLM\SOFTWARE\CLASSES' --exclude "$INSTALLER_KEYS" \
    "$WORK/machine/0/lm-software.reg" "$WORK/machine/1/lm-software.reg" "$S/0/lm-software.reg" "$S/1/lm-software.reg"
else
  skip "comparison with regsvr32 (machine.sh did not run)"
fi
for dll in "${DLLS[@]}"; do
  expect "installed $T\\$dll" cmp -s "$(unix_of "$T")/$dll" "$DEP_STAGE/x64/$dll"
done

python3 "$HERE/classes.py" --source "$DEP_ROOT" --vbscript "$HERE/msi_use.vbs" >"$S/msi_use.vbs"
out=$(wine cscript //nologo "$(winpath_z "$S/msi_use.vbs")" 2>&1 | tr -d '\r')
grep -E '  FAIL  ' <<<"$out" | sed 's/^  FAIL  /        vbscript: /'
n=$(grep -c '^  ok    ' <<<"$out")
if grep -q '^PASS msi_use' <<<"$out"; then pass "VBScript host: $(grep 'classes created' <<<"$out") ($n checks)"
else fail "VBScript host ($(tail -n 3 <<<"$out" | tr '\n' ' '))"; fi
client "C++ host: every class by CLSID and ProgID" "$CLIENT" com "$LIST"

expect "msiexec /x /qn" wine msiexec /x "$MSI" /qn
snapshot "$S/2"
export_hive 'HKCU\Software' "$S/2/cu-software.reg"
files_of_prefix >"$S/2/files"
check_registry "uninstall leaves no key in HKLM\\Software" unchanged \
  --allow-empty 'HKLM\SOFTWARE\CLASSES\INSTALLER' \
  --allow-empty 'HKLM\SOFTWARE\MICROSOFT\WINDOWS\CURRENTVERSION\INSTALLER' \
  "$S/0/lm-software.reg" "$S/2/lm-software.reg"
check_registry "... nor in HKCU\\Software" unchanged "$S/0/cu-software.reg" "$S/2/cu-software.reg"
left=$(comm -13 "$S/0/files" "$S/2/files")
gone=$(comm -23 "$S/0/files" "$S/2/files")
[ -n "$left" ] && sed 's/^/        left: /' <<<"$left" | head -n 20
[ -n "$gone" ] && sed 's/^/        gone: /' <<<"$gone" | head -n 20
expect "uninstall leaves no file and takes none" [ -z "$left$gone" ]
client "after uninstall no class resolves" "$CLIENT" none "$LIST"
done_prefix
finish
