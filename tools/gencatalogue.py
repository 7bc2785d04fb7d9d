#!/usr/bin/env python3
"""Generates code from the catalogue files (see src/hosting/catalogue/FORMAT.md).

Reads src/hosting/catalogue/classes.txt and the <Class>.members files and
writes into --out:
  text_constants_table.inc   the text table of TextConstants (all builds)
  valmetra.idl, catalogue_table.inc, com_objects.inc   (Windows builds)
"""
import argparse
import os
import re
import sys
from dataclasses import dataclass, field

TYPES = {"I2", "I4", "R4", "R8", "BOOL", "BSTR", "VARIANT"}


@dataclass
class Param:
    name: str
    type: str
    passing: str  # "val", "ref", "inout"


@dataclass
class Member:
    slot: int
    kind: str  # "method", "get", "put"
    name: str
    params: list
    result: str | None
    text: str | None = None      # TextConstants: the stored text
    alias: str | None = None     # TextConstants: member whose text it shares
    dispid: int = 0
    help: str | None = None      # the entry's one line of meaning


@dataclass
class Class:
    name: str
    instancing: str
    value_member: str | None
    clsid: str
    iid: str
    core_header: str | None
    core_type: str | None
    help: str | None = None          # the class's one line of meaning
    behaviour: str | None = None     # "How it behaves" (Markdown), when there is one
    members: list = field(default_factory=list)


@dataclass
class Library:
    name: str
    libid: str
    version: str
    lcid: str
    description: str


class CatalogueError(Exception):
    pass


def unescape(s):
    out, i = [], 0
    while i < len(s):
        c = s[i]
        if c == "\\" and i + 1 < len(s):
            n = s[i + 1]
            out.append({"n": "\n", "r": "\r", "t": "\t", "\\": "\\", '"': '"'}.get(n, n))
            i += 2
        else:
            out.append(c)
            i += 1
    return "".join(out)


MEMBER_RE = re.compile(
    r'^(method|get|put)\s+(\w+)\s*(?:\(([^)]*)\))?\s*(?:->\s*(\w+))?\s*(?:=\s*(@\w+|"(?:[^"\\]|\\.)*"))?\s*$')


HELP_MAX = 255  # object browsers show a help string on one line


def check_help(where, text):
    if not text:
        raise CatalogueError(f"{where}: empty help line")
    if len(text) > HELP_MAX:
        raise CatalogueError(f"{where}: help line longer than {HELP_MAX} characters")
    if any(not 32 <= ord(c) < 127 for c in text):
        raise CatalogueError(f"{where}: help line must be printable ASCII")
    return text


def parse_members(path):
    members = []
    with open(path, encoding="utf-8") as f:
        for lineno, raw in enumerate(f, 1):
            line = raw.rstrip("\n")
            if not line.strip() or line.lstrip().startswith("#"):
                continue
            if line[0] in " \t":  # an indented line: the help line of the entry above
                if not members or members[-1].help is not None:
                    raise CatalogueError(f"{path}:{lineno}: a help line follows an entry, once")
                members[-1].help = check_help(f"{path}:{lineno}", line.strip())
                continue
            m = MEMBER_RE.match(line.strip())
            if not m:
                raise CatalogueError(f"{path}:{lineno}: cannot read entry: {line}")
            kind, name, params_text, result, value = m.groups()
            params = []
            if params_text and params_text.strip():
                for p in params_text.split(","):
                    words = p.split()
                    passing = "val"
                    if words and words[0] in ("ref", "inout"):
                        passing = words.pop(0)
                    if len(words) != 2 or words[0] not in TYPES:
                        raise CatalogueError(f"{path}:{lineno}: bad parameter '{p.strip()}'")
                    params.append(Param(words[1], words[0], passing))
            if result is not None and result not in TYPES:
                raise CatalogueError(f"{path}:{lineno}: bad result type {result}")
            if kind == "get" and (params or result is None):
                raise CatalogueError(f"{path}:{lineno}: a get takes nothing and has a result")
            if kind == "put" and (len(params) != 1 or result is not None or params[0].passing != "val"):
                raise CatalogueError(f"{path}:{lineno}: a put takes one value and has no result")
            mem = Member(len(members) + 1, kind, name, params, result)
            if value is not None:
                if value.startswith("@"):
                    mem.alias = value[1:]
                else:
                    mem.text = unescape(value[1:-1])
            members.append(mem)
    for mem in members:
        if mem.help is None:
            mem.help = derived_help(mem, members, path)
    return members


def derived_help(mem, members, path):
    """An entry that serves a stored text needs no help line: the text says it."""
    text = mem.text
    if mem.alias is not None:
        text = next((m.text for m in members if m.name == mem.alias), None)
    if text is None:
        raise CatalogueError(f"{path}: {mem.kind} {mem.name} has no help line")
    shown = text
    blanks = []
    lead = len(text) - len(text.lstrip(" "))
    trail = len(text) - len(text.rstrip(" "))
    if lead:
        blanks.append(f"{lead} leading blank{'s' if lead > 1 else ''}")
    if trail:
        blanks.append(f"{trail} trailing blank{'s' if trail > 1 else ''}")
    note = f" ({', '.join(blanks)})" if blanks else ""
    what = "a Variant (String) holding" if mem.result == "VARIANT" else "the text"
    return check_help(f"{path}: {mem.name}", f'Returns {what} "{shown}"{note}.')


def assign_dispids(cls):
    """Value member 0; other properties 0x68030000 + k counted from the last
    property in slot order; methods 0x60030000 + k continuing the count; the
    average classes skip the number after their properties."""
    props = []
    for m in cls.members:
        if m.kind in ("get", "put") and m.name != cls.value_member and m.name not in props:
            props.append(m.name)
    prop_ids = {name: 0x68030000 + (len(props) - 1 - i) for i, name in enumerate(props)}
    k = len(props)
    if cls.name in ("SingleAverage", "IntegerAverage"):
        k += 1
    for m in cls.members:
        if m.kind in ("get", "put"):
            m.dispid = 0 if m.name == cls.value_member else prop_ids[m.name]
        else:
            m.dispid = 0x60030000 + k
            k += 1


def find_members_file(source, name):
    for d in ("src/hosting/catalogue", "src/text", "src/values", "src/stats", "src/frame"):
        p = os.path.join(source, d, name + ".members")
        if os.path.exists(p):
            return p
    return None


def load(source):
    lib = None
    classes = []
    folder = os.path.join(source, "src/hosting/catalogue")
    path = os.path.join(folder, "classes.txt")
    with open(path, encoding="utf-8") as f:
        for lineno, raw in enumerate(f, 1):
            line = raw.strip()
            if not line or line.startswith("#"):
                continue
            if line.startswith("library "):
                m = re.match(r'^library\s+(\w+)\s+\{([0-9a-fA-F-]{36})\}\s+(\d+\.\d+)\s+(0x[0-9a-fA-F]+)\s+"(.*)"$', line)
                if not m:
                    raise CatalogueError(f"{path}:{lineno}: bad library line")
                lib = Library(*m.groups())
                continue
            m = re.match(r'^(class\s.*?)\s+"(.*)"$', line)
            if not m:
                raise CatalogueError(f"{path}:{lineno}: a class line ends in its help text, quoted")
            w = m.group(1).split()
            if w[0] != "class" or len(w) != 8:
                raise CatalogueError(f"{path}:{lineno}: bad class line")
            _, name, inst, value, clsid, iid, header, ctype = w
            cls = Class(name, inst, None if value == "-" else value, clsid.strip("{}"), iid.strip("{}"),
                        None if header == "-" else header, None if ctype == "-" else ctype,
                        check_help(f"{path}:{lineno}", m.group(2)))
            bpath = os.path.join(folder, name + ".behaviour.md")
            if os.path.exists(bpath):
                with open(bpath, encoding="utf-8") as f:
                    cls.behaviour = f.read().strip() + "\n"
            mpath = find_members_file(source, name)
            if mpath is None:
                cls.members = None  # only the Windows outputs need every member list
            else:
                cls.members = parse_members(mpath)
                assign_dispids(cls)
            classes.append(cls)
    if lib is None:
        raise CatalogueError("classes.txt has no library line")
    return lib, classes


def cxx_literal(s, prefix):
    """A C++ wide string literal of s (prefix "u" for char16_t, "L" for wchar_t)."""
    out = [prefix + '"']
    for ch in s:
        o = ord(ch)
        if ch in '"\\':
            out.append("\\" + ch)
        elif 32 <= o < 127:
            out.append(ch)
        else:
            out.append(f'\\x{o:04x}"{prefix}"')
    out.append('"')
    return "".join(out)


def cxx_u16(s):
    return cxx_literal(s, "u")


def write_if_changed(path, text):
    if os.path.exists(path):
        with open(path, encoding="utf-8") as f:
            if f.read() == text:
                return
    with open(path, "w", encoding="utf-8") as f:
        f.write(text)


def gen_text_table(classes):
    """Texts stored once; each member names the index of its stored text."""
    tc = next((c for c in classes if c.name == "TextConstants"), None)
    texts, index_of, rows = [], {}, []
    if tc is not None and tc.members is not None:
        by_name = {m.name: m for m in tc.members}
        for m in tc.members:
            if m.text is not None:
                index_of[m.name] = len(texts)
                texts.append(m.text)
        for m in tc.members:
            if m.alias is not None:
                target = by_name.get(m.alias)
                if target is None or target.text is None:
                    raise CatalogueError(f"TextConstants: {m.name} shares the text of unknown {m.alias}")
                index_of[m.name] = index_of[m.alias]
        for m in tc.members:
            rows.append((m, index_of.get(m.name, -1)))
    lines = ["// Generated by tools/gencatalogue.py from src/text/TextConstants.members. Do not edit.",
             "// VALMETRA_TEXT(text): the stored texts, each once.",
             "// VALMETRA_TEXT_MEMBER(slot, name, text index or -1 when the core builds it)",
             "#ifdef VALMETRA_TEXT"]
    lines += [f"VALMETRA_TEXT({cxx_u16(t)})" for t in texts]
    lines += ["#endif", "#ifdef VALMETRA_TEXT_MEMBER"]
    lines += [f"VALMETRA_TEXT_MEMBER({m.slot}, {m.name}, {i})" for m, i in rows]
    lines += ["#endif", ""]
    return "\n".join(lines)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--source", required=True)
    ap.add_argument("--out", required=True)
    ap.add_argument("--windows", action="store_true",
                    help="also write the IDL, dispatch tables and COM objects")
    args = ap.parse_args()
    try:
        lib, classes = load(args.source)
    except CatalogueError as e:
        print(f"gencatalogue: {e}", file=sys.stderr)
        return 1
    os.makedirs(args.out, exist_ok=True)
    write_if_changed(os.path.join(args.out, "text_constants_table.inc"), gen_text_table(classes))
    gencom = None
    if args.windows:
        import gencom  # Windows outputs: IDL, dispatch tables, COM objects
    missing = [c.name for c in classes if c.members is None]
    if gencom is not None and missing:
        print(f"gencatalogue: no member file for {', '.join(missing)}", file=sys.stderr)
        return 1
    if gencom is not None:
        gencom.generate(lib, classes, args.out, write_if_changed)
    return 0


if __name__ == "__main__":
    sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
    sys.exit(main())
