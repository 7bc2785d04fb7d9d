#!/bin/bash
# The deployment part of `make dist`, run after tools/dist.sh:
#
#   tools/dist-extra.sh [DIST]            (DIST defaults to dist/)
#
# For each architecture (x64, x86) whose DIST/<arch>/ holds Valmetra-445.Dll
# and ValueStack.dll it adds
#   DIST/<arch>/valmetra-register.exe      per-user / per-machine registration tool
#                                          (copied from build/win-<arch>/ unless present)
#   DIST/<arch>/KARVO.Valmetra.manifest    side-by-side assembly manifest
#   DIST/KARVO-Valmetra-<arch>.wxs         the installer source (sources relative to DIST)
#   DIST/KARVO-Valmetra-<arch>.msi         the installer (wixl -a x64|x86)
# All of it is generated from the catalogue (tools/genmanifest.py,
# tools/genmsi.py). Fails when an architecture's DLLs are missing.
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
DIST=${1:-$ROOT/dist}
export PYTHONDONTWRITEBYTECODE=1

command -v wixl >/dev/null || { echo "dist-extra: wixl not found (Debian package wixl)" >&2; exit 1; }

for arch in x64 x86; do
  dir=$DIST/$arch
  for f in Valmetra-445.Dll ValueStack.dll; do
    [ -f "$dir/$f" ] || { echo "dist-extra: $dir/$f missing (run tools/dist.sh first)" >&2; exit 1; }
  done
  if [ ! -f "$dir/valmetra-register.exe" ]; then
    tool=$ROOT/build/win-$arch/tools/valmetra-register/valmetra-register.exe
    [ -f "$tool" ] || { echo "dist-extra: $tool missing (build the win-$arch preset)" >&2; exit 1; }
    cp "$tool" "$dir/"
  fi
  python3 "$ROOT/tools/genmanifest.py" --source "$ROOT" --arch "$arch" --out "$dir"
  python3 "$ROOT/tools/genmsi.py" --source "$ROOT" --arch "$arch" --files "$arch" \
    --wxs "$DIST/KARVO-Valmetra-$arch.wxs"
  (cd "$DIST" && wixl -a "$arch" -o "KARVO-Valmetra-$arch.msi" "KARVO-Valmetra-$arch.wxs")
  echo "dist-extra: $arch: KARVO.Valmetra.manifest, valmetra-register.exe, KARVO-Valmetra-$arch.msi"
done
