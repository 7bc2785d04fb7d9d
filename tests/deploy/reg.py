#!/usr/bin/env python3
"""Deployment checks that need the catalogue (tools/deploymodel.py, genmsi.py).

    reg.py classes                   the class list deploy_client reads
    reg.py diff ARCH A B [HIVE DIR]  registry snapshots A and B (deploy_client save): HIVE gained
                                     exactly the record for DLLs in DIR, the other hive nothing;
                                     without HIVE, nothing appeared, vanished or changed
    reg.py static ARCH STAGE         the registration-free manifest against the catalogue (the package: diff)
diff and static print what differs and exit 1 when anything does."""
import os
import re
import sys
import xml.etree.ElementTree as ET

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../..")
sys.path.insert(0, os.path.join(ROOT, "tools"))
import deploymodel  # noqa: E402
import gencatalogue  # noqa: E402
import genmsi  # noqa: E402

VT = {"I2": 2, "I4": 3, "R4": 4, "R8": 5, "BSTR": 8, "BOOL": 11, "VARIANT": 12}
COMPS = deploymodel.components(ROOT)


def class_lines():
    """class <file> <clsid> <progid> <progid.N> <iid> <name> <probe> <get|method> <VT>; typelib <file> <libid>
    <major> <minor>. The probe is a member callable without arguments: the value member first."""
    by_name = {c.name: c for c in gencatalogue.load(ROOT)[1]}
    for comp in COMPS:
        for c in comp.classes:
            probe = ("Count", "get", 3)
            if comp.key == "valmetra":
                k = by_name[c.name]
                m = min((m for m in k.members if m.kind == "get" or not m.params), key=lambda m: (
                    m.kind != "get", m.name != k.value_member, m.result != "BSTR", m.slot))
                probe = (m.name, m.kind, VT.get(m.result, 0))
            yield f"class {comp.file} {c.clsid} {c.progid} {c.cur_version} {c.iid} {c.name} %s %s %s" % probe
        yield f"typelib {comp.file} {comp.libid} " + comp.version.replace(".", " ")


def canon(path, arch):
    """A snapshot (the platform's registry text format, keys relative to the key its second line names) as
    lines "K KEY" and "V KEY | name | type | data", keys upper case. For x86 keys are named as a 32-bit
    program sees them (Wow6432Node's content under the plain names); what only 64-bit programs see (HKLM
    outside Classes, Classes' CLSID and Interface trees) is marked "64:", so a write into the wrong view shows."""
    text = open(path, encoding="utf-8", errors="surrogateescape").read()
    base = re.search(r"^;; All keys relative to REGISTRY\\\\(Machine|User\\\\[^\\\n]*)((?:\\\\.*)?)$", text, re.M)
    root = ("HKLM" if base.group(1) == "Machine" else "HKCU") + unescape(base.group(2)).upper()
    lines, key = set(), None  # the saved key itself ("[]") is left out: it may be created along the way
    for line in re.sub(r"\\\n\s*", "", text).splitlines():
        if m := re.match(r"^\[(.+)\] \d+$", line):
            # A key is written only with values or without subkeys: its parents are implied.
            parts = unescape(m.group(1)).upper().split("\\")
            lines |= {"K " + view(root + "\\" + "\\".join(parts[:i]), arch) for i in range(1, len(parts) + 1)}
            key = view(root + "\\" + "\\".join(parts), arch)
        elif key and (m := re.match(r'^(@|"((?:[^"\\]|\\.)*)")=(?:"(.*)"|([a-z0-9()]+):(.*))$', line)):
            name = "@" if m.group(1) == "@" else unescape(m.group(2)).lower()
            data = unescape(m.group(3)) if m.group(3) is not None else m.group(5).replace(" ", "")
            lines.add(f"V {key} | {name} | {'sz' if m.group(3) is not None else m.group(4)} | {data}")
    # Wine's copy of the TypeLib tree for 32-bit programs; the installer's own bookkeeping.
    return {x for x in lines if not re.search(r"\\CLASSES\\WOW6432NODE\\TYPELIB|CLASSES\\INSTALLER|"
                                              r"CURRENTVERSION\\INSTALLER", x)}


def unescape(s):
    """The registry file's C-style escapes: \\xHHHH (1 to 4 digits), \\n, \\\\, \\" ..."""
    return re.sub(r"\\(x[0-9a-fA-F]{1,4}|.)", lambda m: chr(int(m.group(1)[1:], 16)) if m.group(1)[0] == "x"
                  and len(m.group(1)) > 1 else {"n": "\n", "r": "\r", "t": "\t", "0": "\0"}.get(m.group(1), m.group(1)), s)


def view(key, arch):
    if arch != "x86":
        return key
    hive, _, rest = key.partition("\\SOFTWARE")
    for shadow, plain in (("\\CLASSES\\WOW6432NODE", "\\CLASSES"), ("\\WOW6432NODE", "")):
        if rest == shadow or rest.startswith(shadow + "\\"):
            return hive + "\\SOFTWARE" + plain + rest[len(shadow):]
    if re.match(r"\\CLASSES(\\|$)", rest) and (hive == "HKCU" or not re.match(r"\\CLASSES\\(CLSID|INTERFACE)(\\|$)", rest)):
        return key  # shared by both views (Wine keeps one view of the user's classes)
    return "64:" + key


def diff(arch, before, after, hive=None, folder=""):
    bad, folder = [], folder.rstrip("\\")
    fix = lambda x: re.sub(re.escape(folder), "<DIR>", x.rstrip("\\") if "\\HELPDIR |" in x else x, flags=re.I)
    for h in ("HKLM", "HKCU"):
        a, b = (canon(os.path.join(d, h + ".reg"), arch) for d in (before, after))
        want, got = set(), b - a
        if h == hive:  # beside the record: the containers, and an installed package's entry under Uninstall
            want = {fix(x) for x in genmsi.record_lines(ROOT, arch, folder, h)}
            got = {fix(x) for x in got if not re.match(r"K \w+\\SOFTWARE\\CLASSES(\\(CLSID|INTERFACE|TYPELIB))?$|"
                                                       r". HKLM\\SOFTWARE\\MICROSOFT\\WINDOWS\\CURRENTVERSION\\UNINSTALL\\\{", x)}
        bad += [f"{h} missing: {x}" for x in sorted(want - got)] + [f"{h} unexpected: {x}" for x in sorted(got - want)]
        bad += [f"{h} vanished or changed: {x}" for x in sorted(a - b)]
    return bad


def static(arch, stage):
    folder, ns = os.path.join(stage, arch), {"a": "urn:schemas-microsoft-com:asm.v1"}
    root = ET.parse(os.path.join(folder, deploymodel.ASSEMBLY_NAME + ".manifest")).getroot()
    got = {(f.get("name"), e.get("clsid"), e.get("progid"), e.get("threadingModel"), e.get("tlbid"), e.get("version"),
            tuple(p.text for p in e.findall("a:progid", ns))) for f in root.findall("a:file", ns) for e in f}
    want = {(comp.file, None, None, None, comp.libid, comp.version, ()) for comp in COMPS} | {
        (comp.file, c.clsid, c.progid, "Apartment", comp.libid, None, (c.cur_version,)) for comp in COMPS for c in comp.classes}
    got |= {tuple(e.get(k) for k in ("name", "iid", "tlbid", "proxyStubClsid32"))  # the marshalling of each interface
            for e in root.findall("a:comInterfaceExternalProxyStub", ns)}
    want |= {(c.interface, c.iid, comp.libid, deploymodel.PSOAINTERFACE) for comp in COMPS for c in comp.classes}
    bad = [f"manifest: missing {x}" for x in want - got] + [f"manifest: extra {x}" for x in got - want]
    if root.find("a:assemblyIdentity", ns).get("processorArchitecture") != {"x64": "amd64", "x86": "x86"}[arch]:
        bad.append("manifest: processorArchitecture")
    return bad


if __name__ == "__main__":
    cmd, args = sys.argv[1], sys.argv[2:]
    if cmd == "classes":
        sys.exit(print("\n".join(class_lines())))
    bad = {"diff": diff, "static": static}[cmd](*args)
    print("".join(f"    {x}\n" for x in bad[:30]), end="")
    sys.exit(1 if bad else 0)
