#!/usr/bin/env python3
"""Checks the shipped deployment files of one architecture without running them.

    staticcheck.py --source S --arch x64|x86 --stage DIR

DIR/<arch>/ holds the DLLs and KARVO.Valmetra.manifest, DIR/KARVO-Valmetra-<arch>.msi
the package. Checks:
  - the manifest is a well-formed assembly manifest of the right processor
    architecture; its <file> names are the DLLs' names exactly as they are on
    disk; it declares every class of the catalogue with its CLSID, ProgIDs,
    apartment threading and type library, each type library once with its
    version, and each interface's marshalling;
  - every identifier the manifest names is compiled into the DLL it names
    (so the manifest and the built DLLs come from the same catalogue);
  - the package: its template names the architecture, its components are 64-bit
    exactly on x64, its File table carries the two DLLs with their sizes, and its
    Registry table, read back through msiinfo, is the registration record
    (tools/genmsi.py --record) for Program Files\\KARVO\\Valmetra.
Prints one line per check and "N passed, N failed".
"""
import argparse
import os
import subprocess
import sys
import uuid
import xml.etree.ElementTree as ET

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "../../tools"))
import deploymodel  # noqa: E402
import genmsi  # noqa: E402

NS = {"a": "urn:schemas-microsoft-com:asm.v1"}
PROCESSOR = {"x64": "amd64", "x86": "x86"}
INSTALL_DIR = {"x64": "C:\\Program Files\\KARVO\\Valmetra", "x86": "C:\\Program Files (x86)\\KARVO\\Valmetra"}

passed = failed = 0


def check(ok, what, detail=""):
    global passed, failed
    if ok:
        passed += 1
        print(f"  ok    {what}")
    else:
        failed += 1
        print(f"  FAIL  {what}" + (f": {detail}" if detail else ""))


def guid_bytes(text):
    return uuid.UUID(text.strip("{}")).bytes_le


def check_manifest(source, arch, folder):
    path = os.path.join(folder, deploymodel.ASSEMBLY_NAME + ".manifest")
    try:
        root = ET.parse(path).getroot()
    except (OSError, ET.ParseError) as e:
        check(False, f"{arch}: manifest readable", str(e))
        return
    check(root.tag == "{%s}assembly" % NS["a"] and root.get("manifestVersion") == "1.0",
          f"{arch}: manifest is an assembly manifest")
    ident = root.find("a:assemblyIdentity", NS)
    check(ident is not None and ident.get("name") == deploymodel.ASSEMBLY_NAME and
          ident.get("processorArchitecture") == PROCESSOR[arch] and ident.get("type") == "win32" and
          ident.get("version") == deploymodel.assembly_version(source),
          f"{arch}: assembly identity {deploymodel.ASSEMBLY_NAME} {PROCESSOR[arch]}")
    on_disk = set(os.listdir(folder))
    files = {f.get("name"): f for f in root.findall("a:file", NS)}
    comps = deploymodel.components(source)
    for comp in comps:
        f = files.get(comp.file)
        check(f is not None and comp.file in on_disk, f"{arch}: <file name=\"{comp.file}\"> names a file on disk")
        if f is None:
            continue
        libs = f.findall("a:typelib", NS)
        check(len(libs) == 1 and libs[0].get("tlbid") == comp.libid and libs[0].get("version") == comp.version,
              f"{arch}: {comp.file} type library {comp.libid} {comp.version}")
        declared = {c.get("clsid"): c for c in f.findall("a:comClass", NS)}
        good = 0
        for c in comp.classes:
            e = declared.get(c.clsid)
            progids = [p.text for p in e.findall("a:progid", NS)] if e is not None else []
            if (e is not None and e.get("progid") == c.progid and progids == [c.cur_version] and
                    e.get("threadingModel") == "Apartment" and e.get("tlbid") == comp.libid):
                good += 1
            else:
                check(False, f"{arch}: comClass {c.name}")
        check(good == len(comp.classes) == len(declared),
              f"{arch}: {comp.file}: {good} of {len(comp.classes)} classes declared, "
              f"{len(declared)} comClass entries")
        # Cross-check with the build: the DLL holds every identifier.
        try:
            with open(os.path.join(folder, comp.file), "rb") as dll:
                blob = dll.read()
        except OSError as e:
            check(False, f"{arch}: {comp.file} readable", str(e))
            continue
        ids = [comp.libid] + [c.clsid for c in comp.classes] + [c.iid for c in comp.classes]
        absent = [g for g in ids if guid_bytes(g) not in blob]
        check(not absent, f"{arch}: {comp.file} contains all {len(ids)} identifiers the manifest names",
              " ".join(absent))
    stubs = {s.get("iid"): s for s in root.findall("a:comInterfaceExternalProxyStub", NS)}
    want = {c.iid: (c.interface, comp.libid) for comp in comps for c in comp.classes}
    check(set(stubs) == set(want) and all(
        stubs[i].get("name") == n and stubs[i].get("tlbid") == lib and
        stubs[i].get("proxyStubClsid32") == deploymodel.PSOAINTERFACE for i, (n, lib) in want.items()),
        f"{arch}: {len(want)} interfaces marshalled through their type library")


def msi_table(msi, table):
    out = subprocess.run(["msiinfo", "export", msi, table], capture_output=True, text=True, check=True).stdout
    rows = [line.rstrip("\r").split("\t") for line in out.splitlines()]
    return rows[3:]  # column names, types, table name


def check_package(source, arch, stage):
    msi = os.path.join(stage, f"KARVO-Valmetra-{arch}.msi")
    folder = os.path.join(stage, arch)
    try:
        info = subprocess.run(["msiinfo", "suminfo", msi], capture_output=True, text=True, check=True).stdout
    except (OSError, subprocess.CalledProcessError) as e:
        check(False, f"{arch}: package readable", str(e))
        return
    template = {"x64": "x64;1033", "x86": "Intel;1033"}[arch]
    check(f"Template: {template}" in info, f"{arch}: package template {template}")
    comps = msi_table(msi, "Component")
    wide = [c for c in comps if int(c[3]) & 256]
    if arch == "x64":
        check(wide == comps and len(comps) == 3, f"{arch}: three components (two DLLs, the maker's folder), all 64-bit")
    else:
        check(not wide, f"{arch}: no 64-bit component")
    files = {r[2].split("|")[-1]: int(r[3]) for r in msi_table(msi, "File")}
    for comp in deploymodel.components(source):
        size = os.path.getsize(os.path.join(folder, comp.file))
        check(files.get(comp.file) == size, f"{arch}: package carries {comp.file} ({size} bytes)")
    # The Registry table read back as the record it writes.
    ids = {c.key + "_dll": c.file for c in deploymodel.components(source)}
    target = INSTALL_DIR[arch]
    lines = set()
    for reg_id, root, key, name, value, _ in msi_table(msi, "Registry"):
        if root != "2" or not key.startswith("Software\\Classes\\"):
            check(False, f"{arch}: row {reg_id} under HKLM\\Software\\Classes", f"{root} {key}")
            continue
        prefix = "HKLM\\SOFTWARE\\CLASSES\\"
        rel = key[len("Software\\Classes\\"):]
        parts = rel.split("\\")
        first = 1 if parts[0].upper() in ("CLSID", "INTERFACE", "TYPELIB") else 0
        for i in range(first + 1, len(parts) + 1):
            lines.add("K " + (prefix + "\\".join(parts[:i])).upper())
        if name == "*" and value == "":
            continue
        for fid, fname in ids.items():
            value = value.replace(f"[#{fid}]", target + "\\" + fname)
        value = value.replace("[INSTALLDIR]", target + "\\")
        if rel.upper().endswith("\\HELPDIR"):
            value = value.rstrip("\\")
        lines.add(f"V {(prefix + rel).upper()} | {name.lower() if name else '@'} | sz | {value}")
    expected = set(genmsi.record_lines(source, arch, target, "HKLM"))
    for x in sorted(expected - lines)[:10]:
        print(f"      missing: {x}")
    for x in sorted(lines - expected)[:10]:
        print(f"      extra:   {x}")
    keys = sum(1 for x in expected if x.startswith("K "))
    check(lines == expected, f"{arch}: package registry rows are the registration record "
                             f"({keys} keys, {len(expected) - keys} values)")


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--source", required=True)
    ap.add_argument("--arch", required=True, choices=deploymodel.ARCHES)
    ap.add_argument("--stage", required=True)
    args = ap.parse_args()
    check_manifest(args.source, args.arch, os.path.join(args.stage, args.arch))
    check_package(args.source, args.arch, args.stage)
    print(f"{passed} passed, {failed} failed")
    return 0 if failed == 0 else 1


if __name__ == "__main__":
    sys.exit(main())
