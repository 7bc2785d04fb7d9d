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
#
# The packages are reproducible: the files they carry get the time
# SOURCE_DATE_EPOCH (default: the time of the checkout's last commit) before
# wixl packs them, and genmsi.py --pin replaces the build time and the random
# package code wixl writes into the summary information.
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
DIST=${1:-$ROOT/dist}
export PYTHONDONTWRITEBYTECODE=1
if [ -z "${SOURCE_DATE_EPOCH:-}" ]; then
  SOURCE_DATE_EPOCH=$(git -C "$ROOT" log -1 --format=%ct 2>/dev/null) || SOURCE_DATE_EPOCH=
  [ -n "$SOURCE_DATE_EPOCH" ] || SOURCE_DATE_EPOCH=315532800  # 1980-01-01, the earliest cabinet time
fi

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
  touch -d "@$SOURCE_DATE_EPOCH" "$dir"/*
  (cd "$DIST" && TZ=UTC wixl -a "$arch" -o "KARVO-Valmetra-$arch.msi" "KARVO-Valmetra-$arch.wxs")
  python3 "$ROOT/tools/genmsi.py" --pin "$DIST/KARVO-Valmetra-$arch.msi" --epoch "$SOURCE_DATE_EPOCH"
  echo "dist-extra: $arch: KARVO.Valmetra.manifest, valmetra-register.exe, KARVO-Valmetra-$arch.msi"
done
