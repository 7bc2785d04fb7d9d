#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz targets into tests/fuzz/corpus/<target>/.

The seeds are the documented edge cases, encoded the way each target decodes
its input (see the comment at the top of each *_fuzzer.cpp). Run it again
after changing an input format; libFuzzer takes it from there.
"""
import hashlib
import os
import random
import struct
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
ALPHABET = "0123456789012345,,,,    ..--++eE\t 5,0.1e9"  # fuzz_support.h kNumberAlphabet
NO_ENV = bytes(4)  # the host environment bits: 0 is round to nearest, nothing unmasked
HOSTILE_ENV = struct.pack("<I", 0x000FFC0D)  # downward/upward rounding, traps unmasked, FTZ+DAZ


def text(s):
    """Bytes that decode_text turns into s, ended by 0xFF."""
    out = bytearray()
    for ch in s:
        if ch in ALPHABET:
            out.append(ALPHABET.index(ch))
        else:
            out += bytes([0xF0]) + struct.pack("<H", ord(ch))
    return bytes(out)


def repeat(count_of_64):
    """Repeats the previous character count_of_64 * 64 times (1..256)."""
    return bytes([0xFE, count_of_64 - 1])


def f32(x):
    return struct.pack("<f", x)


def f32_bits(b):
    return struct.pack("<I", b)


def write(target, seeds):
    folder = os.path.join(HERE, "corpus", target)
    os.makedirs(folder, exist_ok=True)
    for name in os.listdir(folder):
        if name.startswith("seed-"):
            os.remove(os.path.join(folder, name))
    for data in seeds:
        name = "seed-" + hashlib.sha1(data).hexdigest()[:16]
        with open(os.path.join(folder, name), "wb") as f:
            f.write(data)


def number_string():
    here, include, piece, numeric = 0, 1, 2, 3

    def small(n):  # action 4: AddAPieceOfData(n) for -25 <= n <= 25
        return bytes([5 * (n + 25) + 4])

    seeds = []
    for s in ["4, 5,6", "4, 5, 6", "4,,6", ",4", "7,", "", ",,", " 4 ,  5 , 6 ", "\t4\t,5",
              "2.7", "30000,30000,-30000", "1e39,1", "-.5, 5., 1.5E-07", "a, b", "1,2,"]:
        seeds.append(NO_ENV + bytes([here]) + text(s) + b"\xff")
    seeds.append(HOSTILE_ENV + bytes([here]) + text("0.1, 2.5,3.5") + b"\xff" + small(-7) + small(3))
    seeds.append(NO_ENV + small(3) + small(4) + small(8) + bytes([include]) + text("9") + b"\xff")
    seeds.append(NO_ENV + bytes([piece]) + f32_bits(0x7FC000C0) + bytes([numeric]) + f32_bits(0x000001C1))
    # A comma at position 32,767 and a last piece beyond 32,767 characters.
    ones = text("1") + repeat(256) + repeat(255) + text("1" * 61)  # 32,766 characters
    seeds.append(NO_ENV + bytes([here]) + ones + text(",5") + b"\xff")
    seeds.append(NO_ENV + bytes([here]) + ones + text("11") + b"\xff")
    # Many items: 32,767 and more.
    seeds.append(NO_ENV + bytes([here]) + text("1,") + repeat(256) + repeat(256) + b"\xff" + bytes([include]) +
                 text("1,") + repeat(2) + b"\xff")
    return seeds


def text_to_number():
    seeds = []
    numbers = [" 42 ", "-.5", "5.", ".5", "+7", "007", "1e3", "1.5E-07", "1e309", "-1e309", "1e-400",
               "-1e-400", "2.4703282292062328e-324", "2.4703282292062327e-324", "1.7976931348623158e308",
               "1.7976931348623159e308", ".", "-", "+-1", "1e", "1e+", "e5", "1.2.3", "1,5", "1 000",
               "&H10", "0x10", "Infinity", "NaN", "1d5", "\u00a012", "\uff11", "\t-0\t", "0e99999999999",
               "1" * 400 + "e-400", "0." + "0" * 350 + "1e350", "9" * 20]
    for i, s in enumerate(numbers):
        env = HOSTILE_ENV if i % 2 else NO_ENV
        seeds.append(env + f32(0.1) + struct.pack("<I", 0x8000 + i) + text(s))
    for v in [1.0 / 3, 16777216.0, 3.4028234663852886e38, 1.401298464324817e-45, 9.99999974737875e-05]:
        seeds.append(NO_ENV + f32(v) + struct.pack("<I", 32767))
    return seeds


def text_forms():
    values = [0.1, 1.0 / 3, 16777216.0, 10000005.0, 1.9999999, 1.401298464324817e-45, 9.99999974737875e-05,
              1e7, 1e-5, 3.4028234663852886e38, -0.0, float("inf"), float("-inf"), float("nan"), 0.0001,
              1234567.0, 1.5e-07, 1e20, -2.5, 9999999.0, 99999.99, 0.00012345, 1.1754943508222875e-38]
    seeds = [NO_ENV + b"".join(f32(v) for v in values)]
    seeds.append(HOSTILE_ENV + b"".join(f32(v) for v in values[:8]))
    seeds.append(NO_ENV + b"".join(f32_bits(b) for b in (0x00000001, 0x007FFFFF, 0x00800000, 0x4B800000,
                                                         0x3F800000, 0x7F7FFFFF, 0x7F800001)))
    return seeds


def percent_display():
    ratios = [0.0, 0.145, 0.135, 0.005, 1.0 / 3, 0.125, 2.0 / 3, 2.0, 1.25, 0.5, -0.125, 1e10,
              3.4028234663852886e38, 1.401298464324817e-45, float("nan"), float("inf")]
    body = b"".join(f32(v) for v in ratios)
    seeds = []
    for occ, samples in [(0, 0), (1, 3), (1, 8), (2, 3), (2, 0), (5, 4), (29, 200), (0, 7)]:
        for kind in range(4):  # the counter class: bits 12-13 of the samples word
            seeds.append(NO_ENV + struct.pack("<HH", occ, samples | kind << 12) + body[:16])
    seeds.append(HOSTILE_ENV + struct.pack("<HH", 29, 200) + body)
    return seeds


def operations():
    rng = random.Random(8)
    return [bytes(rng.randrange(256) for _ in range(n)) for n in (16, 64, 200, 512, 1024, 2048, 4000)]


def main():
    write("number_string", number_string())
    write("text_to_number", text_to_number())
    write("text_forms", text_forms())
    write("percent_display", percent_display())
    write("operations", operations())
    return 0


if __name__ == "__main__":
    sys.exit(main())
