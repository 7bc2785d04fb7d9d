#!/bin/bash
# Registration-free activation, fresh prefix where nothing of the library is
# registered: an application folder with the DLLs and KARVO.Valmetra.manifest
# (tools/genmanifest.py) beside
#  - deploy_client.exe with an application manifest naming the assembly: every
#    class created by CLSID and by ProgID, called by name, both type libraries
#    found, and ValueStack created by the library itself for the history;
#  - actctx_client.exe without a manifest: first proves that nothing resolves,
#    then activates KARVO.Valmetra.manifest with CreateActCtx/ActivateActCtx and
#    does the same.
# Neither writes a registry key.
set -uo pipefail
HERE=$(cd "$(dirname "$0")" && pwd)
source "$HERE/lib.sh"

fresh_prefix regfree || { fail "fresh prefix"; finish; }
A='C:\Reg Free App'
put_dlls "$A"
put_files "$A" "$DEP_STAGE/x64/KARVO.Valmetra.manifest" "$DEP_TOOLS/x64/deploy_client.exe"
cp "$DEP_TOOLS/x64/deploy_client.exe" "$(unix_of "$A")/actctx_client.exe"
python3 "$DEP_ROOT/tools/genmanifest.py" --source "$DEP_ROOT" --arch x64 --app "$(unix_of "$A")/deploy_client.exe.manifest"
LIST=$(winpath_z "$CLASS_LIST")
S=$WORK/regfree
rm -rf "$S"; mkdir -p "$S"

snapshot "$S/0"
client "application manifest: every class by CLSID and ProgID, by name, type libraries" \
  "$A\\deploy_client.exe" com "$LIST"
client "CreateActCtx/ActivateActCtx: nothing resolves before, every class after" \
  "$A\\actctx_client.exe" actctx "$A\\KARVO.Valmetra.manifest" "$LIST"
snapshot "$S/1"
check_registry "registration-free use writes no machine key" unchanged "$S/0/lm-software.reg" "$S/1/lm-software.reg"
check_registry "... and no user class key" unchanged "$S/0/cu-classes.reg" "$S/1/cu-classes.reg"
done_prefix
finish
