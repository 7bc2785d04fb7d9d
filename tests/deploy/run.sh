#!/bin/bash
# Deployment tests: every way the library reaches a machine, under Wine, each
# from a fresh prefix (see lib.sh: a copy of one freshly booted template).
#
#   static.sh    no Wine: manifests and packages for x64 and x86 against the
#                catalogue and the built DLLs; x86 files are PE32
#   machine.sh   regsvr32 and valmetra-register /machine: the record equals
#                the catalogue's, classes activate, unregistration restores
#   per_user.sh  valmetra-register /user from a folder with spaces and
#                non-ASCII letters: HKCU record, HKLM untouched, the record
#                followed to working objects, twice/never-registered cases,
#                beside a machine registration
#   regfree.sh   nothing registered: application manifest, and the
#                activation-context API, create every class
#   msi.sh       wixl package: install, same keys as regsvr32, VBScript use,
#                uninstall leaves no key and no file
#   examples.sh  examples/cpp built with mingw and run against a registration
#
# Inputs are staged first into build/dep-stage (what `make dist` ships, made
# with tools/dist-extra.sh from the x64 and x86 builds); the test programs go
# to build/dep-tools. The x86 files are checked statically only when no
# 32-bit Wine is installed (loud SKIP).
#
# Environment: VALMETRA_DEPLOY_ONLY="per_user msi" runs a subset;
# VALMETRA_DEPLOY_BUILD=<dir> takes the x64 DLLs from that build directory.
# Ends with "N passed, N failed, N skipped"; exits 1 on any failure.
set -uo pipefail
HERE=$(cd "$(dirname "$0")" && pwd)
source "$HERE/lib.sh"

TESTS=${VALMETRA_DEPLOY_ONLY:-static machine per_user regfree msi examples}

# --- locating and staging ---------------------------------------------------------

find_output() {  # find_output <dir> <file name>: first match, skipping CMake scratch dirs
  [ -d "$1" ] || return 0
  find "$1" -path '*/CMakeFiles' -prune -o -type f -iname "$2" -print 2>/dev/null | sort | head -n 1
}

# The build directory holding an architecture's DLLs.
build_dir_of() {
  local arch=$1 d
  if [ "$arch" = x64 ] && [ -n "${VALMETRA_DEPLOY_BUILD:-}" ]; then echo "$VALMETRA_DEPLOY_BUILD"; return; fi
  for d in "$DEP_BUILD/win-$arch" "$DEP_BUILD/dep-$arch"; do
    if [ -n "$(find_output "$d" Valmetra-445.Dll)" ] && [ -n "$(find_output "$d" ValueStack.dll)" ]; then
      echo "$d"; return
    fi
  done
}

TRIPLE_x64=x86_64-w64-mingw32
TRIPLE_x86=i686-w64-mingw32
CXXFLAGS_W=(-std=c++20 -O2 -Wall -Wextra -Wpedantic -Wshadow -Werror -static -static-libgcc -static-libstdc++)

# compile <arch> <output> <sources...> -- <libs...>: only when a source is newer.
compile() {
  local arch=$1 out=$2; shift 2
  local srcs=() libs=() seen=0 s triple
  for s in "$@"; do
    if [ "$s" = -- ]; then seen=1; elif [ $seen = 0 ]; then srcs+=("$s"); else libs+=("$s"); fi
  done
  local stale=0
  [ -f "$out" ] || stale=1
  for s in "${srcs[@]}"; do [ "$s" -nt "$out" ] && stale=1; done
  [ $stale = 0 ] && return 0
  triple=TRIPLE_$arch
  mkdir -p "$(dirname "$out")"
  "${!triple}-g++-posix" "${CXXFLAGS_W[@]}" -o "$out" "${srcs[@]}" "${libs[@]}"
}

stage() {
  local arch build tool triple
  rm -rf "$DEP_STAGE"
  mkdir -p "$DEP_STAGE"
  for arch in x64 x86; do
    build=$(build_dir_of "$arch")
    if [ -z "$build" ]; then
      echo "deploy: no $arch build with both DLLs (build the win-$arch preset first)" >&2
      return 1
    fi
    mkdir -p "$DEP_STAGE/$arch"
    cp "$(find_output "$build" Valmetra-445.Dll)" "$DEP_STAGE/$arch/Valmetra-445.Dll"
    cp "$(find_output "$build" ValueStack.dll)" "$DEP_STAGE/$arch/ValueStack.dll"
    cp "$(find_output "$build" valmetra.h)" "$DEP_STAGE/$arch/valmetra.h"
    tool=$(find_output "$build" valmetra-register.exe)
    if [ -z "$tool" ]; then
      # Until the preset builds it: the same sources, compiled directly.
      tool=$DEP_TOOLS/$arch/valmetra-register.exe
      compile "$arch" "$tool" "$DEP_ROOT"/tools/valmetra-register/*.cpp -- \
        -municode -DUNICODE -D_UNICODE -DWIN32_LEAN_AND_MEAN -lole32 -loleaut32 -ladvapi32 -luuid || return 1
    fi
    cp "$tool" "$DEP_STAGE/$arch/valmetra-register.exe"
    echo "  ..    $arch: DLLs from ${build#"$DEP_ROOT"/}"
  done
  "$DEP_ROOT/tools/dist-extra.sh" "$DEP_STAGE" >/dev/null || return 1
  python3 "$HERE/classes.py" --source "$DEP_ROOT" >"$DEP_STAGE/classes.txt" || return 1
  compile x64 "$DEP_TOOLS/x64/deploy_client.exe" "$HERE/deploy_client.cpp" -- -lole32 -loleaut32 -ladvapi32 -luuid &&
    build_fixture
}

# typelib_fixture.dll: a component that registers through RegisterTypeLib.
build_fixture() {
  local out=$DEP_TOOLS/x64/typelib_fixture.dll dir=$DEP_TOOLS/x64 s
  local stale=0
  [ -f "$out" ] || stale=1
  for s in "$HERE"/typelib_fixture.*; do [ "$s" -nt "$out" ] && stale=1; done
  [ $stale = 0 ] && return 0
  x86_64-w64-mingw32-widl --win64 -I/usr/include/wine/wine/windows -L/usr/lib/x86_64-linux-gnu/wine/x86_64-windows \
    -t -o "$dir/typelib_fixture.tlb" "$HERE/typelib_fixture.idl" &&
    x86_64-w64-mingw32-windres --include-dir "$dir" "$HERE/typelib_fixture.rc" -O coff -o "$dir/typelib_fixture.res" &&
    x86_64-w64-mingw32-g++-posix "${CXXFLAGS_W[@]}" -shared -o "$out" "$HERE/typelib_fixture.cpp" \
      "$dir/typelib_fixture.res" -loleaut32 -lole32
}

# --- running ----------------------------------------------------------------------

TOTAL_PASSED=0
TOTAL_FAILED=0
TOTAL_SKIPPED=0
FAILED_TESTS=()

echo "== deployment: staging"
if ! stage; then
  echo "deploy: staging failed"
  echo "0 passed, 1 failed, 0 skipped"
  exit 1
fi

for t in $TESTS; do
  echo "== deployment: $t"
  start=$(date +%s)
  mkdir -p "$DEP_BUILD/dep-logs"
  bash "$HERE/$t.sh" 2>&1 | tee "$DEP_BUILD/dep-logs/$t.log" | grep -av '^TALLY '
  out=$(grep -a '^TALLY ' "$DEP_BUILD/dep-logs/$t.log" | tail -n 1)
  if [ -z "$out" ]; then
    echo "  FAIL  $t.sh ended without a tally"
    TOTAL_FAILED=$((TOTAL_FAILED + 1))
    FAILED_TESTS+=("$t")
    continue
  fi
  read -r _ p f s <<<"$out"
  TOTAL_PASSED=$((TOTAL_PASSED + p))
  TOTAL_FAILED=$((TOTAL_FAILED + f))
  TOTAL_SKIPPED=$((TOTAL_SKIPPED + s))
  [ "$f" -gt 0 ] && FAILED_TESTS+=("$t")
  echo "   ($t: $p passed, $f failed, $s skipped, $(( $(date +%s) - start )) s)"
done

[ ${#FAILED_TESTS[@]} -gt 0 ] && echo "deployment tests with failures: ${FAILED_TESTS[*]}"
echo "deployment: $TOTAL_PASSED passed, $TOTAL_FAILED failed, $TOTAL_SKIPPED skipped"
echo "$TOTAL_PASSED passed, $TOTAL_FAILED failed, $TOTAL_SKIPPED skipped"
[ "$TOTAL_FAILED" -eq 0 ]
