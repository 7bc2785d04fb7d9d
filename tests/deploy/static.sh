#!/bin/bash
# Static checks of the staged deployment files, x64 and x86 (no Wine):
# manifests and packages against the catalogue and the built DLLs
# (staticcheck.py), valmetra-register.exe built for the right machine,
# importing only system DLLs (it ships beside the DLLs, with nothing else),
# and the generated class reference pages current.
set -uo pipefail
HERE=$(cd "$(dirname "$0")" && pwd)
source "$HERE/lib.sh"

for arch in x64 x86; do
  out=$(python3 "$HERE/staticcheck.py" --source "$DEP_ROOT" --arch "$arch" --stage "$DEP_STAGE")
  while IFS= read -r line; do
    case "$line" in
      "  ok    "*) pass "${line#  ok    }" ;;
      "  FAIL  "*) fail "${line#  FAIL  }" ;;
      *" passed, "*" failed") ;;
      *) echo "$line" ;;
    esac
  done <<<"$out"
done

SYSTEM_DLLS=" kernel32.dll msvcrt.dll ole32.dll oleaut32.dll advapi32.dll user32.dll ntdll.dll ucrtbase.dll "
for arch in x64 x86; do
  exe=$DEP_STAGE/$arch/valmetra-register.exe
  case $arch in
    x64) objdump=x86_64-w64-mingw32-objdump magic=PE32+ ;;
    x86) objdump=i686-w64-mingw32-objdump magic=PE32 ;;
  esac
  dump=$("$objdump" -p "$exe" 2>&1)
  if grep -q "Magic.*($magic)" <<<"$dump"; then pass "$arch: valmetra-register.exe is $magic"
  else fail "$arch: valmetra-register.exe is not $magic"; fi
  bad=""
  for dll in $(grep 'DLL Name:' <<<"$dump" | awk '{print tolower($3)}' | sort -u); do
    [[ "$SYSTEM_DLLS" == *" $dll "* ]] || bad="$bad $dll"
  done
  if [ -z "$bad" ]; then pass "$arch: valmetra-register.exe imports system DLLs only"
  else fail "$arch: valmetra-register.exe imports$bad"; fi
done
# The class reference pages are generated from the catalogue and kept current.
pages=$DEP_BUILD/dep-work/classes-pages
rm -rf "$pages"
if python3 "$DEP_ROOT/tools/gendocs.py" --source "$DEP_ROOT" --out "$pages" &&
   diff -r "$pages" "$DEP_ROOT/docs/classes" >/dev/null; then
  pass "docs/classes is what tools/gendocs.py writes from the catalogue"
else
  fail "docs/classes is stale: run python3 tools/gendocs.py --source . --out docs/classes"
fi

if ! dpkg -s wine32:i386 >/dev/null 2>&1; then
  skip "x86 UNDER WINE (registration, package install, activation): no 32-bit Wine here; the x86 files are checked statically only"
fi
finish
