# Shared helpers of the deployment tests (sourced by tests/deploy/*.sh).
#
# Prefixes: one pristine prefix, build/wine-dep-template, made by wineboot
# once and kept while the Wine version is the same; every test copies it into
# a fresh build/wine-dep-<test> (cp is about a second, wineboot ten), so each
# test starts from a freshly booted prefix that nothing has touched. A test's
# prefix is removed when it passes and kept for inspection when it fails.
#
# Staging: build/dep-stage/<arch>/ holds what `make dist` ships (the DLLs,
# valmetra-register.exe, KARVO.Valmetra.manifest) and build/dep-stage/*.msi;
# build/dep-tools/ holds the test clients. run.sh fills both.

DEP_ROOT=${DEP_ROOT:-$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)}
DEP_BUILD=$DEP_ROOT/build
DEP_STAGE=$DEP_BUILD/dep-stage
DEP_TOOLS=$DEP_BUILD/dep-tools
DEP_TEMPLATE=$DEP_BUILD/wine-dep-template
export WINEDEBUG=-all
# No Mono/Gecko download prompts when a prefix boots.
export WINEDLLOVERRIDES="mscoree,mshtml="
export PYTHONDONTWRITEBYTECODE=1
# Wine converts command lines and file names with the locale's character set:
# UTF-8, so a path with non-ASCII letters reaches Windows programs intact.
export LC_ALL=C.UTF-8

DEP_PASSED=${DEP_PASSED:-0}
DEP_FAILED=${DEP_FAILED:-0}
DEP_SKIPPED=${DEP_SKIPPED:-0}
DEP_TEST_FAILED=0

pass() { DEP_PASSED=$((DEP_PASSED + 1)); echo "  ok    $*"; }
fail() { DEP_FAILED=$((DEP_FAILED + 1)); DEP_TEST_FAILED=1; echo "  FAIL  $*"; }
skip() { DEP_SKIPPED=$((DEP_SKIPPED + 1)); echo "  SKIP  $*"; }
# expect <description> <command...>: passes when the command succeeds.
expect() { local what=$1; shift; if "$@"; then pass "$what"; else fail "$what"; fi; }

# Ends a test script: prints its tally for run.sh and exits 0 (run.sh sums).
finish() { echo "TALLY $DEP_PASSED $DEP_FAILED $DEP_SKIPPED"; exit 0; }

# --- prefixes --------------------------------------------------------------------

template_ready() {
  [ -f "$DEP_TEMPLATE/system.reg" ] && [ "$(cat "$DEP_TEMPLATE/.wine-version" 2>/dev/null)" = "$(wine --version)" ]
}

make_template() {
  template_ready && return 0
  rm -rf "$DEP_TEMPLATE"
  echo "  ..    booting the template prefix (once per Wine version)"
  WINEPREFIX=$DEP_TEMPLATE wineboot -i >/dev/null 2>&1
  WINEPREFIX=$DEP_TEMPLATE wineserver -w
  wine --version >"$DEP_TEMPLATE/.wine-version"
  template_ready
}

# fresh_prefix <name>: sets WINEPREFIX to a fresh copy of the template.
fresh_prefix() {
  make_template || { echo "cannot boot a Wine prefix" >&2; return 1; }
  export WINEPREFIX=$DEP_BUILD/wine-dep-$1
  WINEPREFIX=$WINEPREFIX wineserver -k 2>/dev/null || true
  rm -rf "$WINEPREFIX"
  cp -a "$DEP_TEMPLATE" "$WINEPREFIX"
}

# done_prefix: stops the prefix's wineserver; removes the prefix when the
# test passed.
done_prefix() {
  wineserver -k 2>/dev/null || true
  if [ "$DEP_TEST_FAILED" = 0 ]; then rm -rf "$WINEPREFIX"; else echo "  ..    kept $WINEPREFIX"; fi
}

# Unix path of a Windows path in the current prefix (C: only).
unix_of() { local p=${1#[Cc]:}; echo "$WINEPREFIX/drive_c$(echo "$p" | tr '\\' '/')"; }

# --- registry ----------------------------------------------------------------------

# export_hive <key> <file>: `reg export` of a key (UTF-16 .reg file). A key
# that does not exist (HKCU\Software\Classes in a fresh prefix) exports as an
# empty file; any other failure leaves no file, which the checks report.
export_hive() {
  rm -f "$2"
  wine reg export "$1" "$(winpath_z "$2")" /y >/dev/null 2>&1 && return 0
  if ! wine reg query "$1" >/dev/null 2>&1; then echo "Windows Registry Editor Version 5.00" >"$2"; fi
}

# Z: path of a Unix file, for Wine programs.
winpath_z() { echo "Z:$(echo "$1" | tr '/' '\\')"; }

# snapshot <dir>: exports all of HKLM\Software (lm-software.reg) and the
# user's classes (cu-classes.reg) into <dir>.
snapshot() {
  mkdir -p "$1"
  export_hive 'HKLM\Software' "$1/lm-software.reg"
  export_hive 'HKCU\Software\Classes' "$1/cu-classes.reg"
}

REGDIFF="python3 $DEP_ROOT/tests/deploy/regdiff.py"
REGCHECK="python3 $DEP_ROOT/tests/deploy/regcheck.py --source $DEP_ROOT"

# --- staged files and the test client -----------------------------------------------

DLLS=(Valmetra-445.Dll ValueStack.dll)
CLASS_LIST=$DEP_STAGE/classes.txt

# put_files <windows folder> <files...>: copies staged or built files into the prefix.
put_files() {
  local dir; dir=$(unix_of "$1"); shift
  mkdir -p "$dir"
  cp "$@" "$dir/"
}

# put_dlls <windows folder>: the two x64 DLLs.
put_dlls() { put_files "$1" "$DEP_STAGE/x64/Valmetra-445.Dll" "$DEP_STAGE/x64/ValueStack.dll"; }

# client <what> <exe (Windows path)> <args...>: runs deploy_client, relays its
# failures, and counts it as one passed check when all of its checks passed.
client() {
  local what=$1 exe=$2; shift 2
  local out summary
  out=$(wine "$exe" "$@" 2>&1 | tr -d '\r')
  summary=$(grep -E '^[0-9]+ passed, [0-9]+ failed$' <<<"$out" | tail -n 1)
  grep '  FAIL  ' <<<"$out" | sed 's/^  FAIL  /        client: /'
  if [ -n "$summary" ] && [[ "$summary" == *" 0 failed" ]]; then
    pass "$what (${summary%%, *} checks)"
  else
    fail "$what (${summary:-no summary: $(tail -n 3 <<<"$out" | tr '\n' ' ')})"
  fi
}

# check_registry <description> <regcheck arguments...>: runs regcheck.py,
# shows its report indented, passes or fails with its count line.
check_registry() {
  local what=$1; shift
  local out rc count
  out=$($REGCHECK "$@" 2>&1); rc=$?
  count=$(grep -E 'compared|equal in both' <<<"$out" | sed 's/^ *//')
  grep -vE 'compared|equal in both' <<<"$out" | sed '/^$/d'
  if [ $rc = 0 ]; then pass "$what${count:+ ($count)}"; else fail "$what"; fi
}

# reg_value <key> [<value name>]: the data of a value, as `reg query` shows it
# (reg writes to a pipe in the OEM code page, 437 under this locale).
reg_value() {
  local out
  if [ $# -gt 1 ]; then out=$(wine reg query "$1" /v "$2" 2>/dev/null); else out=$(wine reg query "$1" /ve 2>/dev/null); fi
  awk -F'    ' '/REG_SZ/ {print $NF}' <<<"$out" | tr -d '\r' | head -n 1 | iconv -f CP437 -t UTF-8
}

WORK=$DEP_BUILD/dep-work
