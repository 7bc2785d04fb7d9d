#!/usr/bin/env python3
"""Writes the class list that deploy_client reads, from the catalogue.

    classes.py --source <checkout> [--only valmetra|valuestack]

One line per class: its file, CLSID, ProgIDs, interface, name and a probe:
a member called by name with nothing to pass (the value member or another
parameterless get, else a parameterless method), with the VARTYPE that the
catalogue says it returns. Then one line per type library. With --vbscript TEMPLATE: a VBScript that
does the same from a script host (see msi_use.vbs).
"""
import argparse
import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../tools"))
import deploymodel  # noqa: E402
import gencatalogue  # noqa: E402

VT = {None: 0, "I2": 2, "I4": 3, "R4": 4, "R8": 5, "BSTR": 8, "BOOL": 11, "VARIANT": 12}


def probe_of(cls):
    """A member that needs no argument: gets before methods, value member first."""
    gets = [m for m in cls.members if m.kind == "get"]
    gets.sort(key=lambda m: (m.name != cls.value_member, m.result != "BSTR", m.slot))
    if gets:
        return gets[0].name, "get", VT[gets[0].result]
    for m in cls.members:
        if m.kind == "method" and not m.params:
            return m.name, "method", VT[m.result]
    raise SystemExit(f"classes.py: {cls.name} has no member callable without arguments")


def lines(source, only=None):
    _, catalogue = gencatalogue.load(source)
    by_name = {c.name: c for c in catalogue}
    out = []
    for comp in deploymodel.components(source):
        if only and comp.key != only:
            continue
        for c in comp.classes:
            if comp.key == "valmetra":
                if by_name[c.name].members is None:
                    raise SystemExit(f"classes.py: no member file for {c.name}")
                name, kind, vt = probe_of(by_name[c.name])
            else:
                name, kind, vt = "Count", "get", VT["I4"]  # _ValueStack's entry count
            out.append(f"class {comp.file} {c.clsid} {c.progid} {c.cur_version} {c.iid} {c.name} {name} {kind} {vt}")
        major, minor = comp.version.split(".")
        out.append(f"typelib {comp.file} {comp.libid} {major} {minor} 0")  # filed under the neutral locale
    return out


def vbscript(template, class_lines):
    """The template with its line "' @CLASSES@" replaced by one block per class."""
    blocks = []
    for line in class_lines:
        words = line.split()
        if words[0] != "class":
            continue
        progid, name, probe, kind, vt = words[3], words[6], words[7], words[8], words[9]
        blocks += ["Set obj = Nothing", "On Error Resume Next", f'Set obj = CreateObject("{progid}")',
                   f'Check Err.Number = 0, "{name}: CreateObject(""{progid}"")"', "Err.Clear",
                   "If Not obj Is Nothing Then", "  created = created + 1"]
        if kind == "get":
            blocks += [f"  v = obj.{probe}",
                       f'  Check Err.Number = 0 And VarType(v) = {vt}, "{name}.{probe} read by name, VarType " & VarType(v)']
        else:
            blocks += [f"  obj.{probe}", f'  Check Err.Number = 0, "{name}.{probe} called by name"']
        blocks += ["End If", "On Error GoTo 0", ""]
    with open(template, encoding="utf-8") as f:
        text = f.read()
    return text.replace("' @CLASSES@\n", "\n".join(blocks) + "\n")


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--source", required=True)
    ap.add_argument("--only", choices=("valmetra", "valuestack"))
    ap.add_argument("--vbscript", metavar="TEMPLATE", help="write the VBScript host script from TEMPLATE")
    args = ap.parse_args()
    out = lines(args.source, args.only)
    if args.vbscript:
        sys.stdout.write(vbscript(args.vbscript, out))
    else:
        sys.stdout.write("\n".join(out) + "\n")
    return 0


if __name__ == "__main__":
    sys.exit(main())
