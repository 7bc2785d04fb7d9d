#!/usr/bin/env python3
"""Checks what a registration did to the registry against the catalogue.

    regcheck.py --source S record --arch A --hive H --dir D BEFORE.reg AFTER.reg
        the keys and values that appeared between the two exports must be
        exactly the registration record (tools/genmsi.py --record) for DLLs in
        folder D; nothing may vanish or change; nothing else may appear but
        the containers Software\\Classes, CLSID, Interface, TypeLib (and Wow6432Node).
    regcheck.py --source S unchanged BEFORE.reg AFTER.reg
        nothing appeared, vanished or changed.
    regcheck.py --source S pair --dir-a DA --dir-b DB A0.reg A1.reg B0.reg B1.reg
        the two registrations (A: exports before/after, DLLs in DA; B likewise)
        added the same keys and values, paths compared relative to DA / DB.

Paths are compared relative to the DLLs' folder, and HELPDIR without a
trailing backslash (the installer's folder properties end in one).
Options --exclude PREFIX (repeatable) drop keys under PREFIX, e.g. the
installer's bookkeeping under HKLM\\SOFTWARE\\CLASSES\\INSTALLER; --under PREFIX
(repeatable) keeps only keys under PREFIX;
--allow-empty PREFIX (unchanged) accepts keys that appeared under PREFIX if they
hold no value and no identifier (GUID or packed code) is in their names: the
installer's own empty containers. Wine keeps the TypeLib tree shared between
registry views by copying it to Wow6432Node\\TypeLib; record sets such copies aside.
Prints what differs and a count line; exits 1 on a difference.
"""
import argparse
import os
import re
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
sys.path.insert(0, os.path.join(HERE, "../../tools"))
import deploymodel  # noqa: E402
import genmsi  # noqa: E402
import regdiff  # noqa: E402

CONTAINERS = ("CLSID", "INTERFACE", "TYPELIB", "WOW6432NODE")


def normalise(line, folder=None):
    if not line.startswith("V "):
        return line
    key, name, kind, data = line[2:].split(" | ", 3)
    if folder:
        data = re.sub(re.escape(folder.rstrip("\\")), "<DIR>", data, flags=re.IGNORECASE)
    if key.endswith("\\HELPDIR") and name == "@":
        data = data.rstrip("\\")
    return f"V {key} | {name} | {kind} | {data}"


def tokens(source):
    out = set()
    for comp in deploymodel.components(source):
        out.add(comp.libid.upper())
        for c in comp.classes:
            out |= {c.clsid.upper(), c.iid.upper(), c.progid.upper(), c.cur_version.upper()}
    return out


def is_ours(line, toks):
    key = line[2:].split(" | ", 1)[0]
    return any(part in toks for part in key.split("\\"))


def is_container(line):
    if not line.startswith("K "):
        return False
    parts = line[2:].split("\\")
    # <hive>\\SOFTWARE\\CLASSES[\\<container>[\\<container>]]: a fresh Wine
    # profile has no HKCU\\Software\\Classes until something writes there.
    return len(parts) >= 3 and parts[1] == "SOFTWARE" and parts[2] == "CLASSES" and \
        all(p in CONTAINERS for p in parts[3:])


IDENTITY_LIKE = re.compile(r"^(\{[0-9A-F-]{36}\}|[0-9A-F]{32})$")


def empty_bookkeeping(added, prefixes):
    """Keys under one of `prefixes` that hold no value and whose names carry
    no identifier (GUID or packed product/component code): containers the
    platform keeps for itself."""
    valued = {x[2:].split(" | ", 1)[0] for x in added if x.startswith("V ")}
    out = set()
    for x in added:
        if not x.startswith("K "):
            continue
        key = x[2:]
        if not any(key.startswith(p) for p in prefixes):
            continue
        if any(v == key or v.startswith(key + "\\") for v in valued):
            continue
        if any(IDENTITY_LIKE.match(part) for part in key.split("\\")):
            continue
        out.add(x)
    return out


def delta(before, after, exclude, under=()):
    b = regdiff.canon(before, exclude=exclude, under=under)
    a = regdiff.canon(after, exclude=exclude, under=under)
    return a - b, b - a


def show(title, lines, limit=40):
    lines = sorted(lines)
    if not lines:
        return
    print(f"    {title}: {len(lines)}")
    for x in lines[:limit]:
        print(f"      {x}")
    if len(lines) > limit:
        print(f"      ... {len(lines) - limit} more")


def drop_typelib_mirror(lines):
    """Wine keeps the TypeLib tree shared between the registry views by
    copying it into the 32-bit view (Software\\Wow6432Node\\Classes, also
    seen as Software\\Classes\\Wow6432Node): a copy of a line that is there
    in the native view is the platform's, not the registration's."""
    out, mirrored = set(), 0
    for x in lines:
        m = re.match(r"^([KV] \w+\\SOFTWARE\\)(?:CLASSES\\WOW6432NODE|WOW6432NODE\\CLASSES)\\(TYPELIB\\.*)$", x)
        if m and m.group(1) + "CLASSES\\" + m.group(2) in lines:
            mirrored += 1
            continue
        out.add(x)
    return out, mirrored


def cmd_record(args, exclude):
    toks = tokens(args.source)
    added, removed = delta(args.files[0], args.files[1], exclude, args.under)
    added, mirrored = drop_typelib_mirror(added)
    expected = {normalise(x, args.dir) for x in genmsi.record_lines(args.source, args.arch, args.dir, args.hive)}
    ours = {normalise(x, args.dir) for x in added if is_ours(x, toks)}
    stray = {x for x in added if not is_ours(x, toks) and not is_container(x)}
    missing, extra = expected - ours, ours - expected
    show("expected but not written", missing)
    show("written but not expected", extra)
    show("written outside the record", stray)
    show("removed or changed", removed)
    keys = sum(1 for x in expected if x.startswith("K "))
    print(f"    {keys} keys and {len(expected) - keys} values compared with the record"
          + (f"; {mirrored} lines of the platform's 32-bit view copy of TypeLib set aside" if mirrored else ""))
    return 0 if not (missing or extra or stray or removed) else 1


def cmd_unchanged(args, exclude):
    added, removed = delta(args.files[0], args.files[1], exclude, args.under)
    allowed = empty_bookkeeping(added, tuple(x.upper() for x in args.allow_empty))
    added -= allowed
    if allowed:
        print(f"    {len(allowed)} empty keys of the platform's own bookkeeping left (no value, no identifier)")
    show("appeared or changed", added)
    show("vanished or changed", removed)
    return 0 if not (added or removed) else 1


def cmd_pair(args, exclude):
    a_add, a_rm = delta(args.files[0], args.files[1], exclude, args.under)
    b_add, b_rm = delta(args.files[2], args.files[3], exclude, args.under)
    a = {normalise(x, args.dir_a) for x in a_add}
    b = {normalise(x, args.dir_b) for x in b_add}
    show("only in the first", a - b)
    show("only in the second", b - a)
    show("the first removed or changed", a_rm)
    show("the second removed or changed", b_rm)
    keys = sum(1 for x in a & b if x.startswith("K "))
    print(f"    {keys} keys and {len(a & b) - keys} values equal in both")
    return 0 if a == b and not a_rm and not b_rm else 1


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--source", required=True)
    ap.add_argument("command", choices=("record", "unchanged", "pair"))
    ap.add_argument("files", nargs="+")
    ap.add_argument("--arch", choices=deploymodel.ARCHES, default="x64")
    ap.add_argument("--hive", choices=("HKLM", "HKCU"), default="HKLM")
    ap.add_argument("--dir")
    ap.add_argument("--dir-a")
    ap.add_argument("--dir-b")
    ap.add_argument("--exclude", action="append", default=[])
    ap.add_argument("--allow-empty", action="append", default=[],
                    help="unchanged: accept new keys under this prefix that hold no value and name no identifier")
    ap.add_argument("--under", action="append", default=[], help="compare only keys under this prefix")
    args = ap.parse_args()
    exclude = tuple(x.upper() for x in args.exclude)
    args.under = tuple(x.upper() for x in args.under)
    need = {"record": 2, "unchanged": 2, "pair": 4}[args.command]
    if len(args.files) != need:
        ap.error(f"{args.command} takes {need} exports")
    return {"record": cmd_record, "unchanged": cmd_unchanged, "pair": cmd_pair}[args.command](args, exclude)


if __name__ == "__main__":
    sys.exit(main())
