#!/bin/sh
# Provides a 32-bit Wine for the test runners on a machine whose Wine has only
# its 64-bit half.
#
#   W32BIN=$(tools/wine32/provide.sh) || exit 1
#   PATH="$W32BIN${W32BIN:+:}$PATH"
#
# Prints nothing (and exits 0) when the system's Wine already runs a tiny i686
# program (checked once per Wine version); otherwise prints a directory with
# wine, wine64, wine32, wine-stable, wineboot, winepath and wineserver.  A prefix booted with
# `wineboot -i` under that PATH gets its 32-bit half; the 32-bit tools are then
# C:\windows\syswow64\cscript.exe and regsvr32.exe, and `wine32 X` starts the
# 32-bit loader first.
#
# How: Debian's wine32:i386 and libwine:i386 (at the installed wine64's exact
# version), the i386 libraries they need and qemu-user (bookworm-backports)
# are fetched with a private apt index and unpacked with dpkg-deb into a root
# under build/wine32/; the system's apt and dpkg state are never touched.  Both
# Wine halves sit side by side in that root so each finds the other by Wine's
# own relative paths.  The i386 loader runs natively when the kernel runs i386
# programs, otherwise under qemu-i386 with a small preload that restores the
# x86 trap number qemu leaves out of 32-bit signal contexts.
#
# Cache: build/wine32/ (VALMETRA_WINE32_CACHE overrides).  A finished set-up
# is marked by a stamp; anything short of it is redone, so an interrupted run
# is repaired by the next one; concurrent callers wait on a lock.  The second
# call only checks the stamp.  Failures exit non-zero with the reason on
# stderr; progress goes to stderr only while downloading.
# Environment:
#   VALMETRA_WINE32_EMULATE=1  use qemu-i386 even where i386 runs natively
#                              (also a launch-time switch for the launchers)
#   VALMETRA_WINE32_FORCE=1    provide our own even when the system has one
#   VALMETRA_WINE32_CACHE      cache directory
set -eu

here=$(cd "$(dirname "$0")" && pwd)
top=$(cd "$here/../.." && pwd)
cache=${VALMETRA_WINE32_CACHE:-$top/build/wine32}
emulate=${VALMETRA_WINE32_EMULATE:-0}
sysloader=/usr/lib/wine/wine64

die() { echo "wine32: $*" >&2; exit 1; }
say() { echo "wine32: $*" >&2; }

version=$(dpkg-query -W -f '${Version}' wine64 2>/dev/null) || version=
[ -n "$version" ] || die "the system's wine64 is not installed (make deps)"
stamp="$cache/ready-$version"

if [ -f "$stamp" ]; then
    echo "$cache/bin"
    exit 0
fi

# A system Wine that runs a tiny i686 program is used as it is (the answer is
# remembered per Wine version).
if [ "${VALMETRA_WINE32_FORCE:-0}" != 1 ] && [ "$emulate" != 1 ]; then
    [ -f "$cache/system-$version" ] && exit 0
    if [ -e /usr/lib/wine/wine ] || [ -e /usr/lib/i386-linux-gnu/wine/i386-windows/ntdll.dll ]; then
        probe=$cache/probe
        mkdir -p "$probe"
        printf 'int main(void) { return sizeof(void *) == 4 ? 42 : 1; }\n' > "$probe/p.c"
        if i686-w64-mingw32-gcc -o "$probe/p.exe" "$probe/p.c" 2>/dev/null; then
            rc=0
            WINEPREFIX=$probe/prefix WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml=" \
                timeout 300 wine "$probe/p.exe" >/dev/null 2>&1 </dev/null || rc=$?
            WINEPREFIX=$probe/prefix wineserver -k >/dev/null 2>&1 || true
            if [ "$rc" = 42 ]; then
                rm -rf "$probe"
                : > "$cache/system-$version"
                exit 0
            fi
        fi
        rm -rf "$probe"
    fi
fi

[ -x "$sysloader" ] || die "$sysloader missing"
mkdir -p "$cache"
# One set-up at a time; a caller that waited finds the stamp.
exec 9>"$cache/.lock"
flock 9
if [ -f "$stamp" ]; then
    echo "$cache/bin"
    exit 0
fi
root="$cache/root"
apt="$cache/apt"

# --- private package index -------------------------------------------------
uri=$(sed -n 's/^URIs:[[:space:]]*\(http[^ ]*debian\)[[:space:]]*$/\1/p' \
        /etc/apt/sources.list.d/*.sources 2>/dev/null | head -n1)
[ -n "$uri" ] || uri=$(sed -n 's/^deb[[:space:]]\+\(\[[^]]*\][[:space:]]\+\)\?\(http[^ ]*debian\)[[:space:]].*/\2/p' \
        /etc/apt/sources.list 2>/dev/null | head -n1)
[ -n "$uri" ] || uri=http://deb.debian.org/debian
mkdir -p "$apt/etc/preferences.d" "$apt/etc/sources.list.d" "$apt/state/lists/partial" \
         "$apt/cache/archives/partial" "$apt/debs"
cat > "$apt/etc/sources.list" <<EOF
deb [arch=amd64,i386 signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] $uri bookworm main
deb [arch=amd64,i386 signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] $uri bookworm-backports main
EOF
: > "$apt/state/status"
aptopts="-o Dir::Etc=$apt/etc -o Dir::Etc::SourceList=$apt/etc/sources.list
 -o Dir::Etc::SourceParts=$apt/etc/sources.list.d -o Dir::Etc::PreferencesParts=$apt/etc/preferences.d
 -o Dir::State=$apt/state -o Dir::State::status=$apt/state/status
 -o Dir::Cache=$apt/cache -o APT::Architectures::=amd64 -o APT::Architectures::=i386
 -o Debug::NoLocking=1 -o APT::Sandbox::User=root -q"

if [ ! -f "$apt/indexed" ]; then
    say "fetching the package index (once; about 165 MB in all)"
    # shellcheck disable=SC2086
    apt-get $aptopts update >&2 || die "apt-get update failed"
    : > "$apt/indexed"
fi

qemuver=$(apt-cache $aptopts madison qemu-user 2>/dev/null |
          awk -F'|' '$3 ~ /backports/ {gsub(/ /,"",$2); print $2; exit}')
[ -n "$qemuver" ] || die "no qemu-user in bookworm-backports"
pkgs="wine32:i386=$version libwine:i386=$version libc6:i386 libgcc-s1:i386
      libfreetype6:i386 libpng16-16:i386 zlib1g:i386 libbrotli1:i386
      qemu-user:amd64=$qemuver"
# shellcheck disable=SC2086
(cd "$apt/debs" && apt-get $aptopts download $pkgs >&2) || die "apt-get download failed"

# --- the root ----------------------------------------------------------------
rm -rf "$root.new"
mkdir -p "$root.new"
for d in "$apt"/debs/*.deb; do dpkg-deb -x "$d" "$root.new"; done
r=$root.new
# Only qemu-i386 is needed of qemu-user's emulators (they are ~360 MB).
find "$r/usr/bin" -name 'qemu-*' ! -name qemu-i386 -exec rm -f {} +
rm -rf "$r/usr/share/doc" "$r/usr/share/man"
[ -x "$r/usr/lib/wine/wine" ] || die "wine32 package has no /usr/lib/wine/wine"

# 64-bit half beside the 32-bit one: unix side mirrored with ntdll.so a real
# copy (Wine takes its dll directory from where ntdll.so really is).
sys64=/usr/lib/x86_64-linux-gnu/wine
w64=$r/usr/lib/x86_64-linux-gnu/wine
mkdir -p "$w64/x86_64-unix"
for f in "$sys64"/x86_64-unix/*; do ln -sf "$f" "$w64/x86_64-unix/"; done
rm -f "$w64/x86_64-unix/ntdll.so"
cp "$sys64/x86_64-unix/ntdll.so" "$w64/x86_64-unix/ntdll.so"
ln -sfn "$sys64/x86_64-windows" "$w64/x86_64-windows"
rm -rf "$w64/i386-windows"
ln -sfn ../../i386-linux-gnu/wine/i386-windows "$w64/i386-windows"
mkdir -p "$r/usr/share"
rm -rf "$r/usr/share/wine"
ln -sfn /usr/share/wine "$r/usr/share/wine"

# zlib1.dll marked as a Wine builtin, as Debian does for the 64-bit side.
z=$r/usr/lib/i386-linux-gnu/wine/i386-windows/zlib1.dll
rm -f "$z"
cp /usr/i686-w64-mingw32/lib/zlib1.dll "$z" 2>/dev/null ||
    die "no i386 zlib1.dll (install libz-mingw-w64)"
{ printf 'Wine builtin DLL'; head -c 16 /dev/zero; } |
    dd of="$z" bs=1 seek=64 conv=notrunc status=none

lw=$r/usr/lib/wine
mv "$lw/wine" "$lw/wine.i386"
cp "$sysloader" "$lw/wine64"
cp /usr/lib/wine/wineserver64 "$lw/wineserver64"
ln -sf wineserver64 "$lw/wineserver"

# Guest side for qemu: root's own libraries only, and the trap-number fix.
mkdir -p "$r/etc"
: > "$r/etc/ld.so.cache"
if gcc -m32 -O2 -fPIC -shared -nostdlib -fno-stack-protector \
       -o "$r/usr/lib/valmetra-trapno.so" "$here/trapno.c" 2>"$cache/trapno.log"; then
    echo /usr/lib/valmetra-trapno.so > "$r/etc/ld.so.preload"
else
    die "cannot build the trap-number preload (gcc -m32); see $cache/trapno.log"
fi

qemu=$(ls "$r"/usr/bin/qemu-i386 2>/dev/null || true)
[ -x "$qemu" ] || die "qemu-user has no qemu-i386"

# The 32-bit loader's launcher, where the 64-bit loader looks for `wine`.
# Its argv[0] must name this launcher: the 32-bit loader finds wine64 by
# appending "64" to it.
cat > "$lw/wine" <<EOF
#!/bin/bash
root=$root
self=\$root/usr/lib/wine/wine
export WINELOADERNOEXEC=1
if [ "\${VALMETRA_WINE32_EMULATE:-0}" != 1 ] && [ -f "\$root/native" ]; then
    LD_LIBRARY_PATH="\$root/native-lib\${LD_LIBRARY_PATH:+:\$LD_LIBRARY_PATH}" \\
        exec -a "\$self" "\$root/usr/lib/wine/wine.i386" "\$@"
fi
exec "\$root/usr/bin/qemu-i386" -L "\$root" -0 "\$self" "\$root/usr/lib/wine/wine.i386" "\$@"
EOF
chmod +x "$lw/wine"

# Native runs use the host's i386 C library with the root's other libraries.
mkdir -p "$r/native-lib"
for f in "$r"/lib/i386-linux-gnu/* "$r"/usr/lib/i386-linux-gnu/*; do
    [ -f "$f" ] || continue
    case ${f##*/} in
        ld-linux*|libc.so*|libm.so*|libpthread*|libdl.so*|librt.so*|libresolv*|libutil*|libnss*|libanl*|libBrokenLocale*|libmvec*|libthread_db*|libc_malloc*|libmemusage*|libpcprofile*|libSegFault*) continue;;
    esac
    ln -sf "../${f#"$r"/}" "$r/native-lib/"
done

# PATH directory.
b=$cache/bin.new
rm -rf "$b"; mkdir -p "$b"
mk() { printf '#!/bin/sh\n%s\n' "$2" > "$b/$1"; chmod +x "$b/$1"; }
mk wine      "exec \"$root/usr/lib/wine/wine64\" \"\$@\""
mk wine64    "exec \"$root/usr/lib/wine/wine64\" \"\$@\""
mk wine-stable "exec \"$root/usr/lib/wine/wine64\" \"\$@\""
mk wine32    "exec \"$root/usr/lib/wine/wine\" \"\$@\""
mk wineboot  "exec \"$root/usr/lib/wine/wine64\" wineboot \"\$@\""
mk winepath  "exec \"$root/usr/lib/wine/wine64\" winepath \"\$@\""
mk wineserver "exec /usr/lib/wine/wineserver \"\$@\""

# Swap the new root in, then probe which way the i386 loader runs.
rm -rf "$root" "$cache/bin"
mv "$r" "$root"
mv "$b" "$cache/bin"
rm -f "$root/native"
if /lib/ld-linux.so.2 --library-path "$root/native-lib" --list \
       "$root/usr/lib/wine/wine.i386" >/dev/null 2>&1; then
    : > "$root/native"
fi
"$root/usr/bin/qemu-i386" -L "$root" "$root/lib/i386-linux-gnu/libc.so.6" 2>/dev/null |
    grep -q 'GNU C Library' || [ -f "$root/native" ] ||
    die "i386 programs run neither natively nor under qemu-i386"
rm -f "$cache"/ready-* "$apt"/debs/*.deb
: > "$stamp"
echo "$cache/bin"
