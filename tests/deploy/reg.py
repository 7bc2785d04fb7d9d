#!/usr/bin/env python3
"""Deployment checks that need the catalogue (tools/deploymodel.py, genmsi.py).

    reg.py classes                   the class list deploy_client reads
    reg.py vbs                       a VBScript host's check of every class, ends "PASS"
    reg.py diff ARCH A B [HIVE DIR]  registry snapshots A and B (deploy_client save): HIVE gained
                                     exactly the record for DLLs in DIR, the other hive nothing;
                                     without HIVE, nothing appeared, vanished or changed
    reg.py static ARCH STAGE         manifest and package against the catalogue and the DLLs
diff and static print what differs and exit 1 when anything does."""
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


def vbs():
    """Every class by ProgID, its probe called by name (this VBScript engine has no Execute, so each call is
    written out), and the value history. cscript's exit code proves nothing under Wine: it ends with "PASS"."""
    out = ["Dim obj, v, failures", "failures = 0", "On Error Resume Next"]
    for w in (x.split() for x in class_lines() if x.startswith("class")):
        call, vt = (f"v = obj.{w[7]}", f" Or VarType(v) <> {w[9]}") if w[8] == "get" else (f"obj.{w[7]}", "")
        out += ["Set obj = Nothing", "Err.Clear", f'Set obj = CreateObject("{w[3]}")', call,
                f'If Err.Number <> 0{vt} Then WScript.Echo "  FAIL  {w[3]}.{w[7]}": failures = failures + 1']
    # The value history across objects: IntegerData finds ValueStack by its CLSID.
    out += ['Set a = CreateObject("KARVO_Valmetra.IntegerData"): Set b = CreateObject("KARVO_Valmetra.IntegerData")',
            "Err.Clear: a.Value = 5: a.Push: a.Value = 9: b.Pop", 'If Err.Number <> 0 Or b.Value <> 5 Then WScript.Echo '
            '"  FAIL  IntegerData: Push 5 on one object, Pop on another gives " & b.Value: failures = failures + 1']
    return "\n".join(out + ['If failures = 0 Then WScript.Echo "PASS"'])


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
    bad += [f"{comp.file} lacks {g}" for comp in COMPS for c in comp.classes for g in (c.clsid, c.iid)
            if uuid.UUID(g).bytes_le not in open(os.path.join(folder, comp.file), "rb").read()]
    # The package's Registry table, its formatted values resolved, against the record.
    msi = os.path.join(stage, f"KARVO-Valmetra-{arch}.msi")
    target = {"x64": "C:\\Program Files", "x86": "C:\\Program Files (x86)"}[arch] + "\\KARVO\\Valmetra"
    files = {f"[#{c.key}_dll]": target + "\\" + c.file for c in COMPS} | {"[INSTALLDIR]": target}
    got = set()
    for _, hive, key, name, value, _ in (r.split("\t") for r in msiinfo("export", msi, "Registry").splitlines()[3:]):
        h, parts = "HKLM" if hive == "2" else "ROOT" + hive, key.upper().split("\\")
        first = 3 if parts[2] in ("CLSID", "INTERFACE", "TYPELIB") else 2
        got |= {f"K {h}\\" + "\\".join(parts[:i]) for i in range(first + 1, len(parts) + 1)}
        if name != "*":
            got.add(f"V {h}\\{key.upper()} | {name.lower() or '@'} | sz | " + re.sub(r"\[[^]]*\]", lambda m: files[m[0]], value))
    want = set(genmsi.record_lines(ROOT, arch, target, "HKLM"))
    bad += [f"package: missing {x}" for x in sorted(want - got)] + [f"package: extra {x}" for x in sorted(got - want)]
    bad += [f"package: no {c.file}" for c in COMPS if f"\n{c.key}_dll\t{c.key}\t{c.file}\t" not in msiinfo("export", msi, "File")]
    return bad + ([] if ("x64;" if arch == "x64" else "Intel;") in msiinfo("suminfo", msi) else ["package template"])


def msiinfo(*args):
    return subprocess.run(["msiinfo", *args], capture_output=True, text=True).stdout


if __name__ == "__main__":
    cmd, args = sys.argv[1], sys.argv[2:]
    if cmd in ("classes", "vbs"):
        sys.exit(print("\n".join(class_lines()) if cmd == "classes" else vbs()))
    bad = {"diff": diff, "static": static}[cmd](*args)
    print("".join(f"    {x}\n" for x in bad[:30]), end="")
    sys.exit(1 if bad else 0)
