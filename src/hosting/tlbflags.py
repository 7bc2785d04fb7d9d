#!/usr/bin/env python3
"""Marks the application-object classes of a type library as predeclared.

widl has no attribute for TYPEFLAG_FPREDECLID, so after widl has written the
type library (MSFT format) this sets that flag on every coclass that carries
TYPEFLAG_FAPPOBJECT, in place. Usage: tlbflags.py <file.tlb>
"""
import struct
import sys

TKIND_COCLASS = 5
TYPEFLAG_FAPPOBJECT = 0x01
TYPEFLAG_FPREDECLID = 0x08
HEADER_SIZE = 0x54
HELPDLL_FLAG = 0x100
TYPEINFO_FLAGS = 0x30  # offset of the type flags in a type info record


def mark_predeclared(data):
    magic, _, _, _, _, varflags, _, _, count = struct.unpack_from("<9i", data, 0)
    if magic != 0x5446534D:
        raise ValueError("not an MSFT type library")
    pos = HEADER_SIZE + (4 if varflags & HELPDLL_FLAG else 0)
    offsets = struct.unpack_from(f"<{count}i", data, pos)
    pos += 4 * count
    typeinfo_table, _ = struct.unpack_from("<2i", data, pos)  # first segment
    marked = 0
    for off in offsets:
        base = typeinfo_table + off
        kind = struct.unpack_from("<i", data, base)[0] & 0xF
        flags = struct.unpack_from("<i", data, base + TYPEINFO_FLAGS)[0]
        if kind == TKIND_COCLASS and flags & TYPEFLAG_FAPPOBJECT:
            struct.pack_into("<i", data, base + TYPEINFO_FLAGS, flags | TYPEFLAG_FPREDECLID)
            marked += 1
    return marked


def main():
    path = sys.argv[1]
    with open(path, "rb") as f:
        data = bytearray(f.read())
    marked = mark_predeclared(data)
    with open(path, "wb") as f:
        f.write(data)
    print(f"tlbflags: {marked} predeclared classes in {path}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
