#!/usr/bin/env python3
r"""Writes the installer sources (wixl .wxs) and the registration record.

    genmsi.py --source <checkout> --arch x64|x86 --wxs <file> --files <dir>
        the package source (<dir> as written, so a relative one is taken
        from where wixl runs): both DLLs from <dir> into
        Program Files\KARVO\Valmetra, and every registry row that the DLLs'
        own DllRegisterServer writes for the machine, generated from the
        catalogue; build it with `wixl -a x64|x86 -o <msi> <file>`
    genmsi.py --source <checkout> --arch x64|x86 --record --dir <folder> [--hive HKLM|HKCU]
        the same rows as canonical lines (the form tests/deploy/reg.py compares) for
        DLLs installed in <folder>: what registration must add to the hive

The installer toolset has no class or type library tables of its own, so
the rows are plain Registry rows: the record that both DLLs' DllRegisterServer
write (src/hosting/com/registry.h), all under HKLM\Software\Classes:

  per class      CLSID\{clsid}                 = ProgID
                   InprocServer32              = DLL path, ThreadingModel = Apartment
                   ProgID, VersionIndependentProgID = ProgID
                   TypeLib = {libid}, Version = type library version
                   Programmable                (an empty key)
                 <ProgID>                      = class name, CLSID, CurVer = <ProgID>.1
                 <ProgID>.1                    = class name, CLSID
  type library   TypeLib\{libid}\<ver in hex> = description
                   0\win64|win32              = DLL path (the neutral locale)
                   FLAGS = 0, HELPDIR = the DLL's folder
  per interface  Interface\{iid}              = interface name; ProxyStubClsid and
                                                 ProxyStubClsid32 = the type library
                                                 marshaller; TypeLib = {libid},
                                                 Version = <ver in hex>

    genmsi.py --pin <msi> --epoch <seconds>
        makes a package wixl built reproducible: wixl stamps the summary
        information with the time of the build and a random package code;
        --pin sets both times to <seconds> (SOURCE_DATE_EPOCH) and the package
        code to a name-based GUID of the package's content, so one input gives
        one package and any change of content a new package code. The cabinet's
        file times come from the files (tools/dist-extra.sh sets them).

The installer spells HELPDIR with a trailing backslash ([INSTALLDIR]); the
folder is the same.
"""
import argparse
import hashlib
import os
import struct
import sys
import uuid
from dataclasses import dataclass
from xml.sax.saxutils import quoteattr

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import deploymodel  # noqa: E402
from gencatalogue import CatalogueError  # noqa: E402

# Fixed once: every product and component code below derives from it.
NAMESPACE = uuid.UUID("6f3c2a53-0c2e-4e55-9a51-8b7f5b3a0d21")
MANUFACTURER = "KARVO"
PRODUCT = "KARVO Valmetra"
CLASSES = "Software\\Classes\\"


@dataclass
class Row:
    key: str       # below Software\Classes
    name: str      # "" for the default value; None: a key without values
    value: str     # may hold {path} (the DLL's full path) and {dir} (its folder, no trailing \\)
    file: str      # the DLL this row belongs to


def rows(comp, arch):
    out = []

    def add(key, name, value):
        out.append(Row(key, name, value, comp.file))

    for c in comp.classes:
        base = "CLSID\\" + c.clsid
        add(base, "", c.progid)
        add(base + "\\InprocServer32", "", "{path}")
        add(base + "\\InprocServer32", "ThreadingModel", "Apartment")
        add(base + "\\ProgID", "", c.progid)
        add(base + "\\VersionIndependentProgID", "", c.progid)
        add(base + "\\TypeLib", "", comp.libid)
        add(base + "\\Version", "", comp.version)
        add(base + "\\Programmable", None, None)
        add(c.progid, "", c.name)
        add(c.progid + "\\CLSID", "", c.clsid)
        add(c.progid + "\\CurVer", "", c.cur_version)
        add(c.cur_version, "", c.name)
        add(c.cur_version + "\\CLSID", "", c.clsid)
    lib = f"TypeLib\\{comp.libid}\\{comp.hex_version()}"
    add(lib, "", comp.description)
    add(f"{lib}\\0\\{'win64' if arch == 'x64' else 'win32'}", "", "{path}")
    add(lib + "\\FLAGS", "", "0")
    add(lib + "\\HELPDIR", "", "{dir}")
    for c in comp.classes:
        base = "Interface\\" + c.iid
        add(base, "", c.interface)
        add(base + "\\ProxyStubClsid", "", deploymodel.PSOAINTERFACE)
        add(base + "\\ProxyStubClsid32", "", deploymodel.PSOAINTERFACE)
        add(base + "\\TypeLib", "", comp.libid)
        add(base + "\\TypeLib", "Version", comp.hex_version())
    return out


def all_rows(source, arch):
    return [r for comp in deploymodel.components(source) for r in rows(comp, arch)]


# --- the registration record as canonical lines --------------------------------

def record_lines(source, arch, folder, hive):
    """What registration adds: a K line per key from the identity key down and a
    V line per value, in the form tests/deploy/reg.py compares."""
    folder = folder.rstrip("\\")
    keys, values = set(), set()
    for r in all_rows(source, arch):
        prefix = f"{hive}\\SOFTWARE\\CLASSES\\"
        parts = r.key.split("\\")
        # Containers (CLSID, Interface, TypeLib) exist before; every key from
        # the identity (GUID or ProgID) down is the registration's own.
        first = 1 if parts[0].upper() in ("CLSID", "INTERFACE", "TYPELIB") else 0
        for i in range(first + 1, len(parts) + 1):
            keys.add("K " + (prefix + "\\".join(parts[:i])).upper())
        if r.name is None:
            continue
        value = r.value.replace("{path}", folder + "\\" + r.file).replace("{dir}", folder)
        name = r.name.lower() if r.name else "@"
        values.add(f"V {(prefix + r.key).upper()} | {name} | sz | {value}")
    return sorted(keys | values)


# --- the package source ------------------------------------------------------

def stable_guid(*parts):
    return str(uuid.uuid5(NAMESPACE, "/".join(parts))).upper()


def wxs(source, arch, files_dir):
    comps = deploymodel.components(source)
    version = deploymodel.assembly_version(source)
    win64 = arch == "x64"
    pf = "ProgramFiles64Folder" if win64 else "ProgramFilesFolder"
    file_ids = {c.file: c.key + "_dll" for c in comps}
    out = ['<?xml version="1.0" encoding="utf-8"?>',
           "<!-- Generated by tools/genmsi.py from the catalogue. Do not edit. -->",
           '<Wix xmlns="http://schemas.microsoft.com/wix/2006/wi">',
           f'  <Product Id="{stable_guid("product", arch, version)}" Name="{PRODUCT} ({arch})" Language="1033" '
           f'Version="{version}" Manufacturer="{MANUFACTURER}" UpgradeCode="{stable_guid("upgrade", arch)}">',
           f'    <Package InstallerVersion="500" Compressed="yes" InstallScope="perMachine" '
           f'Description="{PRODUCT} in-process components ({arch})" Manufacturer="{MANUFACTURER}"/>',
           # A later version replaces this one; an earlier one does not install over it.
           '    <MajorUpgrade DowngradeErrorMessage="A newer version of KARVO Valmetra is already installed."/>',
           '    <Media Id="1" Cabinet="valmetra.cab" EmbedCab="yes"/>',
           '    <Directory Id="TARGETDIR" Name="SourceDir">',
           f'      <Directory Id="{pf}">',
           f'        <Directory Id="KARVODIR" Name="{MANUFACTURER}">',
           '          <Directory Id="INSTALLDIR" Name="Valmetra">']
    refs = []
    by_file = {}
    for r in all_rows(source, arch):
        by_file.setdefault(r.file, []).append(r)

    def registry(r):
        # Stable ids, so a rebuilt package has the same rows.
        rid = "reg_" + stable_guid("row", r.key, r.name or "").replace("-", "")
        key = quoteattr(CLASSES + r.key)
        if r.name is None:  # "*" with no value: a key created on install, removed on uninstall
            return f'              <RegistryValue Id="{rid}" Root="HKLM" Key={key} Name="*" Type="string" Value=""/>'
        value = r.value.replace("{path}", f"[#{file_ids[r.file]}]").replace("{dir}", "[INSTALLDIR]")
        name = f" Name={quoteattr(r.name)}" if r.name else ""
        return (f'              <RegistryValue Id="{rid}" Root="HKLM" Key={key}{name} Type="string" '
                f'Value={quoteattr(value)}/>')

    for comp in comps:
        cid = comp.key
        refs.append(cid)
        out.append(f'            <Component Id="{cid}" Guid="{stable_guid("component", arch, cid)}"'
                   f' Win64="{"yes" if win64 else "no"}">')
        out.append(f'              <File Id="{file_ids[comp.file]}" Name="{comp.file}" '
                   f'Source={quoteattr(os.path.join(files_dir, comp.file))} KeyPath="yes"/>')
        out += [registry(r) for r in by_file[comp.file]]
        out.append("            </Component>")
    # The maker's folder goes with the product when nothing else is in it
    # (a component without a key file: the folder is its key path).
    out += ["          </Directory>",
            f'          <Component Id="karvodir" Guid="{stable_guid("component", arch, "karvodir")}"'
            f' Win64="{"yes" if win64 else "no"}">',
            '            <RemoveFolder Id="remove_karvodir" On="uninstall"/>',
            "          </Component>"]
    refs.append("karvodir")
    out += ["        </Directory>", "      </Directory>", "    </Directory>",
            '    <Feature Id="Complete" Title="KARVO Valmetra" Level="1">']
    out += [f'      <ComponentRef Id="{r}"/>' for r in refs]
    out += ["    </Feature>", "  </Product>", "</Wix>"]
    return "\n".join(out) + "\n"


# --- reproducible packages ----------------------------------------------------
# An MSI is a compound file; its summary information is a property set stream.

ENDCHAIN = 0xFFFFFFFA  # sector numbers from here on end a chain or are free


def _chain(fat, start):
    out = []
    while start < ENDCHAIN:
        out.append(start)
        start = fat[start]
    return out


def compound_stream(data, name):
    """Where the bytes of stream `name` lie in a compound file: a list of
    (offset, length) pieces, in stream order."""
    ssz = 1 << struct.unpack_from("<H", data, 0x1E)[0]
    msz = 1 << struct.unpack_from("<H", data, 0x20)[0]
    dir_start, = struct.unpack_from("<I", data, 0x30)
    cutoff, minifat_start = struct.unpack_from("<II", data, 0x38)
    difat_start, = struct.unpack_from("<I", data, 0x44)
    at = lambda n: (n + 1) * ssz  # noqa: E731
    per = ssz // 4
    fat_sectors = [n for n in struct.unpack_from("<109I", data, 0x4C) if n < ENDCHAIN]
    while difat_start < ENDCHAIN:
        entries = struct.unpack_from(f"<{per}I", data, at(difat_start))
        fat_sectors += [n for n in entries[:-1] if n < ENDCHAIN]
        difat_start = entries[-1]
    fat = [x for n in fat_sectors for x in struct.unpack_from(f"<{per}I", data, at(n))]
    entries = b"".join(data[at(n):at(n) + ssz] for n in _chain(fat, dir_start))
    root = stream = None
    for i in range(0, len(entries), 128):
        length, kind = struct.unpack_from("<HB", entries, i + 64)
        entry_name = entries[i:i + max(length - 2, 0)].decode("utf-16-le")
        start, size = struct.unpack_from("<II", entries, i + 116)
        if kind == 5:
            root = (start, size)
        elif kind == 2 and entry_name == name:
            stream = (start, size)
    if stream is None:
        raise OSError(f"no stream {name!r}")
    start, size = stream
    if size >= cutoff:
        pieces = [(at(n), ssz) for n in _chain(fat, start)]
    else:  # in the mini stream, which itself is a chain of the root entry
        minifat = [x for n in _chain(fat, minifat_start) for x in struct.unpack_from(f"<{per}I", data, at(n))]
        container = _chain(fat, root[0])
        pieces = []
        for m in _chain(minifat, start):
            off = m * msz
            pieces.append((at(container[off // ssz]) + off % ssz, msz))
    out, left = [], size
    for off, n in pieces:
        out.append((off, min(n, left)))
        left -= out[-1][1]
    return out


def pin_package(path, epoch):
    """Sets the summary information's times (created, last saved) to epoch and
    its revision number, the package code, to a GUID of the content."""
    with open(path, "rb") as f:
        data = bytearray(f.read())
    pieces = compound_stream(data, "\x05SummaryInformation")
    info = bytearray(b"".join(data[o:o + n] for o, n in pieces))
    section, = struct.unpack_from("<I", info, 44)
    count, = struct.unpack_from("<I", info, section + 4)
    props = dict(struct.unpack_from("<II", info, section + 8 + 8 * i) for i in range(count))
    filetime = (epoch + 11644473600) * 10_000_000
    for pid in (12, 13):  # PID_CREATE_DTM, PID_LASTSAVE_DTM
        if pid in props:
            at = section + props[pid]
            if struct.unpack_from("<I", info, at)[0] != 64:  # VT_FILETIME
                raise OSError(f"summary property {pid} is not a time")
            struct.pack_into("<Q", info, at + 4, filetime)
    revision = None
    if 9 in props:  # PID_REVNUMBER, a VT_LPSTR holding {GUID}
        at = section + props[9]
        kind, length = struct.unpack_from("<II", info, at)
        if kind != 30 or length < 39:
            raise OSError("the package code is not a GUID string")
        revision = at + 8
        info[revision:revision + 38] = b"{00000000-0000-0000-0000-000000000000}"

    def put():
        pos = 0
        for o, n in pieces:
            data[o:o + n] = info[pos:pos + n]
            pos += n
    put()
    if revision is not None:
        code = "{" + stable_guid("package", hashlib.sha256(data).hexdigest()) + "}"
        info[revision:revision + 38] = code.encode("ascii")
        put()
    with open(path, "wb") as f:
        f.write(data)


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--source")
    ap.add_argument("--arch", choices=deploymodel.ARCHES)
    ap.add_argument("--wxs", help="write the package source here")
    ap.add_argument("--files", help="folder holding Valmetra-445.Dll and ValueStack.dll (for --wxs)")
    ap.add_argument("--record", action="store_true", help="print the registration record")
    ap.add_argument("--dir", help="install folder of the DLLs (for --record), e.g. C:\\Program Files\\KARVO\\Valmetra")
    ap.add_argument("--hive", default="HKLM", choices=("HKLM", "HKCU"))
    ap.add_argument("--pin", metavar="MSI", help="make a built package reproducible (needs --epoch)")
    ap.add_argument("--epoch", type=int, help="the time for --pin, in seconds since 1970 (SOURCE_DATE_EPOCH)")
    args = ap.parse_args()
    if args.pin:
        if args.epoch is None:
            ap.error("--pin needs --epoch")
        try:
            pin_package(args.pin, args.epoch)
        except (OSError, struct.error, IndexError) as e:
            print(f"genmsi: {args.pin}: {e}", file=sys.stderr)
            return 1
        return 0
    if not args.source or not args.arch:
        ap.error("--source and --arch are needed")
    try:
        if args.wxs:
            if not args.files:
                ap.error("--wxs needs --files")
            text = wxs(args.source, args.arch, args.files)
            with open(args.wxs, "w", encoding="utf-8") as f:
                f.write(text)
        elif args.record:
            if not args.dir:
                ap.error("--record needs --dir")
            sys.stdout.write("".join(x + "\n" for x in record_lines(args.source, args.arch, args.dir, args.hive)))
        else:
            ap.error("give --wxs or --record")
    except (CatalogueError, OSError) as e:
        print(f"genmsi: {e}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
