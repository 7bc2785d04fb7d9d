#!/usr/bin/env python3
"""Deployment checks that need the catalogue (tools/deploymodel.py, genmsi.py).

    reg.py classes                   the class list deploy_client reads
    reg.py vbs                       a VBScript host's check of every class, ends "PASS"
    reg.py diff ARCH A B [HIVE DIR]  registry snapshots A and B (deploy_client save): HIVE gained
                                     exactly the record for DLLs in DIR, the other hive nothing;
                                     without HIVE, nothing appeared, vanished or changed
    reg.py static ARCH STAGE         manifest and package against the catalogue and the DLLs
Prints what differs; exits 1 when anything does.
"""
import os
import re
import subprocess
import sys
import uuid
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
    out = []
    for comp in COMPS:
        for c in comp.classes:
            probe = ("Count", "get", 3)
            if comp.key == "valmetra":
                k = by_name[c.name]
                m = min((m for m in k.members if m.kind == "get" or not m.params), key=lambda m: (
                    m.kind != "get", m.name != k.value_member, m.result != "BSTR", m.slot))
                probe = (m.name, m.kind, VT.get(m.result, 0))
            out.append(f"class {comp.file} {c.clsid} {c.progid} {c.cur_version} {c.iid} {c.name} %s %s %s" % probe)
        out.append(f"typelib {comp.file} {comp.libid} " + comp.version.replace(".", " "))
    return out


def vbs():
    """Every class by ProgID, its probe called by name (this VBScript engine has no Execute, so each call is
    written out). cscript's exit code proves nothing under Wine: the script ends with "PASS"."""
    out = ["Dim obj, v, failures", "failures = 0", "On Error Resume Next"]
    for w in (x.split() for x in class_lines() if x.startswith("class")):
        call, vt = (f"v = obj.{w[7]}", f" Or VarType(v) <> {w[9]}") if w[8] == "get" else (f"obj.{w[7]}", "")
        out += ["Set obj = Nothing", "Err.Clear", f'Set obj = CreateObject("{w[3]}")', call,
                f'If Err.Number <> 0{vt} Then WScript.Echo "  FAIL  {w[3]}.{w[7]}": failures = failures + 1']
    return "\n".join(out + ['If failures = 0 Then WScript.Echo "PASS"'])


def canon(path, arch):
    """A snapshot (the platform's registry text format, keys relative to the saved key, which the file's
    second line names) as lines "K KEY" and "V KEY | name | type | data", key paths upper case. For x86
    keys are named as a 32-bit program sees them: Wow6432Node's content under the plain names; what only
    64-bit programs see (HKLM\\Software outside Classes, and Classes' CLSID and Interface trees) keeps a
    "64:" mark, so a write into the wrong view shows."""
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
        want = {fix(x) for x in genmsi.record_lines(ROOT, arch, folder, h)} if h == hive else set()
        # Beside the record: the containers, and an installed package's entry under Uninstall.
        got = {fix(x) for x in b - a if h != hive or not re.match(
            r"K \w+\\SOFTWARE\\CLASSES(\\(CLSID|INTERFACE|TYPELIB))?$|. HKLM\\SOFTWARE\\MICROSOFT\\WINDOWS\\"
            r"CURRENTVERSION\\UNINSTALL\\\{", x)}
        bad += [f"{h} missing: {x}" for x in sorted(want - got)] + [f"{h} unexpected: {x}" for x in sorted(got - want)]
        bad += [f"{h} vanished or changed: {x}" for x in sorted(a - b)]
    return bad


def static(arch, stage):
    folder, bad = os.path.join(stage, arch), []
    ns = {"a": "urn:schemas-microsoft-com:asm.v1"}
    root = ET.parse(os.path.join(folder, deploymodel.ASSEMBLY_NAME + ".manifest")).getroot()
    if root.find("a:assemblyIdentity", ns).get("processorArchitecture") != {"x64": "amd64", "x86": "x86"}[arch]:
        bad.append("manifest: processorArchitecture")
    for comp in COMPS:
        f = root.find(f"a:file[@name='{comp.file}']", ns)
        blob = open(os.path.join(folder, comp.file), "rb").read()
        for c in comp.classes:
            e = None if f is None else f.find(f"a:comClass[@clsid='{c.clsid}']", ns)
            if e is None or (e.get("progid"), e.get("threadingModel"), e.get("tlbid")) != \
                    (c.progid, "Apartment", comp.libid) or [p.text for p in e.findall("a:progid", ns)] != [c.cur_version]:
                bad.append(f"manifest: {c.name}")
            bad += [f"{comp.file} lacks {g}" for g in (c.clsid, c.iid) if uuid.UUID(g).bytes_le not in blob]
    msi = os.path.join(stage, f"KARVO-Valmetra-{arch}.msi")
    target = {"x64": "C:\\Program Files", "x86": "C:\\Program Files (x86)"}[arch] + "\\KARVO\\Valmetra"
    out = subprocess.run(["msiinfo", "export", msi, "Registry"], capture_output=True, text=True).stdout
    got = set()
    for _, hive, key, name, value, _ in (r.split("\t") for r in out.splitlines()[3:]):
        parts = key.split("\\")
        first = 3 if parts[2].upper() in ("CLSID", "INTERFACE", "TYPELIB") else 2
        got |= {"K HKLM\\" + "\\".join(parts[:i]).upper() for i in range(first + 1, len(parts) + 1)}
        if name != "*":
            value = re.sub(r"\[#(\w+)_dll\]", lambda m: target + "\\" + {c.key: c.file for c in COMPS}[m.group(1)],
                           value).replace("[INSTALLDIR]", target + "\\")
            value = value.rstrip("\\") if key.upper().endswith("\\HELPDIR") else value
            got.add(f"V HKLM\\{key.upper()} | {name.lower() or '@'} | sz | {value}" if hive == "2" else "HIVE " + hive)
    want = set(genmsi.record_lines(ROOT, arch, target, "HKLM"))
    bad += [f"package: missing {x}" for x in sorted(want - got)] + [f"package: extra {x}" for x in sorted(got - want)]
    info = subprocess.run(["msiinfo", "suminfo", msi], capture_output=True, text=True).stdout
    return bad + ([] if ("x64;" if arch == "x64" else "Intel;") in info else ["package template"])


if __name__ == "__main__":
    cmd, args = sys.argv[1], sys.argv[2:]
    if cmd in ("classes", "vbs"):
        sys.exit(print("\n".join(class_lines()) if cmd == "classes" else vbs()))
    bad = {"diff": diff, "static": static}[cmd](*args)
    print("\n".join("    " + x for x in bad[:30]))
    sys.exit(1 if bad else 0)
