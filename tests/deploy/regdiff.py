#!/usr/bin/env python3
"""Registry exports (`reg export`, UTF-16) as comparable line sets.

    regdiff.py canon <file.reg> [options]            canonical lines, sorted
    regdiff.py delta <before.reg> <after.reg> [opts] "+ line" for every key or value
                                                     that appeared or changed, "- line"
                                                     for every one that went
Options:
    --replace OLD=NEW   replace OLD (case-insensitive, also with a leading
                        \\\\?\\) in value data by NEW: the DLL's folder, so two
                        installs in different places compare equal
    --exclude PREFIX    drop keys under this path (case-insensitive), e.g. the
                        installer's own bookkeeping under Software\\Classes\\Installer
    --under PREFIX      keep only keys under this path

A canonical line is  K <KEY PATH>  for a key, and
V <KEY PATH> | <value name or @> | <type> | <data>  for a value; key paths in
upper case with the hive spelled out, since the registry ignores case in names.
"""
import argparse
import re
import sys

HIVES = {"HKEY_LOCAL_MACHINE": "HKLM", "HKEY_CURRENT_USER": "HKCU", "HKEY_CLASSES_ROOT": "HKCR",
         "HKEY_USERS": "HKU"}


def read_text(path):
    with open(path, "rb") as f:
        raw = f.read()
    if raw.startswith(b"\xff\xfe"):
        return raw[2:].decode("utf-16-le")
    return raw.decode("utf-8-sig")


def logical_lines(text):
    """Joins the continuation lines of hex data."""
    out, cur = [], ""
    for line in text.splitlines():
        if cur:
            cur += line.strip()
        else:
            cur = line
        if cur.endswith("\\") and not cur.startswith("["):
            cur = cur[:-1]
            continue
        out.append(cur)
        cur = ""
    if cur:
        out.append(cur)
    return out


def unquote(s):
    """A .reg quoted string body: \\\\ and \\" escapes."""
    return re.sub(r'\\(.)', r"\1", s)


def split_value(line):
    """'"name"=data' or '@=data' -> (name, type, data)."""
    if line.startswith("@="):
        name, rest = "@", line[2:]
    else:
        m = re.match(r'^"((?:[^"\\]|\\.)*)"=(.*)$', line)
        if not m:
            raise ValueError(f"cannot read value line: {line}")
        name, rest = unquote(m.group(1)), m.group(2)
    if rest.startswith('"'):
        return name, "sz", unquote(rest[1:-1])
    m = re.match(r"^(dword|hex(?:\([0-9a-f]+\))?):(.*)$", rest)
    if not m:
        raise ValueError(f"cannot read value data: {line}")
    kind, data = m.groups()
    return name, kind, data.replace(" ", "").lower()


def canon(path, replace=(), exclude=(), under=()):
    lines = set()
    key = None
    for line in logical_lines(read_text(path)):
        if not line.strip() or line.startswith("Windows Registry Editor") or line.startswith("REGEDIT"):
            continue
        if line.startswith("[") and line.endswith("]"):
            name = line[1:-1]
            if name.startswith("-"):
                key = None
                continue
            hive, _, rest = name.partition("\\")
            key = (HIVES.get(hive.upper(), hive.upper()) + ("\\" + rest if rest else "")).upper()
            if any(key.startswith(p) for p in exclude) or (under and not any(key.startswith(p) for p in under)):
                key = None
                continue
            lines.add(f"K {key}")
            continue
        if key is None:
            continue
        name, kind, data = split_value(line)
        if kind == "sz":
            for old, new in replace:
                data = re.sub(r"(\\\\\?\\)?" + re.escape(old), lambda _m, n=new: n, data, flags=re.IGNORECASE)
        lines.add(f"V {key} | {name.lower() if name != '@' else '@'} | {kind} | {data}")
    return lines


def prefixes(values):
    return tuple(v.upper() for v in values)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("command", choices=("canon", "delta"))
    ap.add_argument("files", nargs="+")
    ap.add_argument("--replace", action="append", default=[])
    ap.add_argument("--exclude", action="append", default=[])
    ap.add_argument("--under", action="append", default=[])
    args = ap.parse_args()
    replace = [tuple(r.split("=", 1)) for r in args.replace]
    opts = dict(replace=replace, exclude=prefixes(args.exclude), under=prefixes(args.under))
    if args.command == "canon":
        if len(args.files) != 1:
            ap.error("canon takes one file")
        out = sorted(canon(args.files[0], **opts))
    else:
        if len(args.files) != 2:
            ap.error("delta takes two files")
        before, after = canon(args.files[0], **opts), canon(args.files[1], **opts)
        out = sorted([f"+ {x}" for x in after - before] + [f"- {x}" for x in before - after],
                     key=lambda s: (s[2:], s[0]))
    sys.stdout.write("".join(x + "\n" for x in out))
    return 0


if __name__ == "__main__":
    sys.exit(main())
