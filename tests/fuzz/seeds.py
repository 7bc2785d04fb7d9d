#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz targets (tests/fuzz/corpus/<target>/): the documented edge cases and the
inputs of the faults fuzzing found, encoded as each target reads its input (see the top of text_fuzzer.cpp and
operations_fuzzer.cpp); the smoke run replays them all. Run it again after changing an input format."""
import hashlib, os, struct  # noqa: E401

HERE = os.path.dirname(os.path.abspath(__file__))
ALPHABET = "0123456789012345,,,,    ..--++eE\t 5,0.1e9"  # fuzz::Input::text
CALM = bytes(4)  # round to nearest, nothing unmasked
# Both roundings changed, every exception unmasked, x87 precision 24 bits, FTZ and DAZ.
HOSTILE = struct.pack("<I", 0x000FFC0D)
# operations: environment bytes of one call (hostile_env of the byte, mixed): 27 unmasks invalid,
# denormal, division by zero, underflow and inexact with DAZ; 49 all but division by zero, FTZ+DAZ.
TRAPS = (27, 49)
NO_FAULT = 255  # operations: the byte that arms no injected history failure


def text(s):  # the bytes fuzz::Input::text turns into s, ended by 0xFF
    return b"".join(bytes([ALPHABET.index(c)]) if c in ALPHABET else b"\xf0" + struct.pack("<H", ord(c)) for c in s) + b"\xff"


def repeat(count_of_64):  # repeats the last character count_of_64 * 64 times (1..256); inside a text, before its end
    return bytes([0xFE, count_of_64 - 1])


def f32(*values):
    return struct.pack(f"<{len(values)}f", *values)


def u32(*values):
    return struct.pack(f"<{len(values)}I", *values)


def write(target, seeds):
    folder = os.path.join(HERE, "corpus", target)
    os.makedirs(folder, exist_ok=True)
    for name in os.listdir(folder):
        os.remove(os.path.join(folder, name))
    for data in seeds:
        with open(os.path.join(folder, "seed-" + hashlib.sha1(data).hexdigest()[:16]), "wb") as f:
            f.write(data)


def text_seeds():
    read, single, strings, percent = (bytes([k]) for k in range(4))
    numbers = [" 42 ", "-.5", "5.", ".5", "+7", "007", "1e3", "1.5E-07", "1e309", "-1e309", "1e-400", "-1e-400",
               "2.4703282292062328e-324", "2.4703282292062327e-324", "1.7976931348623158e308",
               "1.7976931348623159e308", ".", "-", "+-1", "1e", "1e+", "e5", "1.2.3", "1,5", "1 000", "&H10",
               "0x10", "Infinity", "NaN", "1d5", "\u00a012", "\uff11", "\t-0\t", "0e99999999999", "",
               "1" * 400 + "e-400", "0." + "0" * 350 + "1e350", "9" * 20, "1e-310"]
    seeds = [env + read + b"".join(text(s) for s in numbers[k::4]) for k in range(4) for env in (CALM, HOSTILE)]
    # Denormals, powers of two, the edges of plain and exponent notation; a denormal under the
    # host's DAZ was written "0" and trapped with the denormal exception unmasked.
    singles = f32(0.1, 1 / 3, 16777216.0, 10000005.0, 1.9999999, 1e-45, 9.99999974737875e-05, 1e7, 1e-5,
                  3.4028234663852886e38, -0.0, float("inf"), float("-inf"), float("nan"), 0.0001, 1234567.0,
                  1.5e-07, 1e20, -2.5, 9999999.0, 99999.99, 0.00012345, 1.1754943508222875e-38)
    bits = u32(0x00000001, 0x80000001, 0x007FFFFF, 0x00800000, 0x4B800000, 0x3F800000, 0x7F7FFFFF, 0x7F800001)
    seeds += [HOSTILE + single + singles, CALM + single + singles, HOSTILE + single + bits]
    ratios = f32(0.0, 0.145, 0.135, 0.005, 1 / 3, 0.125, 2 / 3, 2.0, 1.25, 0.5, -0.125, -0.001, 1e10,
                 3.4028234663852886e38, 1e-45, float("nan"), float("inf"))
    seeds += [HOSTILE + percent + ratios + bits, CALM + percent + ratios]

    here, include, piece, numeric = (bytes([k]) for k in range(4))
    nan, denormal = u32(0x7FC000C0), u32(0x000001C1)
    small = lambda v: u32((int(v * 4) & 0xFFFF) << 8)  # noqa: E731  a multiple of 1/4
    for s in ["4, 5,6", "4,,6", ",4", "7,", "", ",,", " 4 ,  5 , 6 ", "\t4\t,5", "2.7", "30000,30000,-30000",
              "1e39,1", "-.5, 5., 1.5E-07", "a, b", "1,2,"]:
        seeds.append(CALM + strings + here + text(s))
    # Found: AddNumericData compared a NaN (invalid) or a denormal (DAZ) in the host's environment;
    # DataHighest / DataLowest widened NaN and denormal items there; IntegerAverage's floor of a
    # text item ran there (inexact, denormal).
    seeds.append(HOSTILE + strings + numeric + nan + numeric + denormal + piece + denormal + piece + nan)
    seeds.append(HOSTILE + strings + piece + u32(0x800001C1) + include + text("2.7, 1e-310, -0.5") + piece + small(-7))
    seeds.append(CALM + strings + piece + small(3) + piece + small(4.25) + include + text("9"))
    # The 16-bit positions: a comma at 32,767, a last piece beyond 32,767 characters, 32,768 items.
    ones = text("1")[:-1] + repeat(256) + repeat(255) + text("1" * 61)[:-1]  # 32,766 characters
    seeds.append(CALM + strings + here + ones + text(",5"))
    seeds.append(CALM + strings + here + ones + text("11"))
    seeds.append(CALM + strings + here + text("1,")[:-1] + repeat(256) + repeat(256) + b"\xff" + include +
                 text("1,")[:-1] + repeat(2) + b"\xff")
    return seeds


def operations_seeds():
    """Every operation of every class, each after a put of Value, with a few argument and exponent
    choices and trapping environments."""
    seeds = []
    # (value put, arguments, exponent) selector bytes: 2 ^ -1070 (a denormal power, found
    # raising the denormal condition in the host's environment), the maxima, 0 and -0, NaN.
    for k, (v, args, n) in enumerate([(3, (3, 4, 6), 14), (13, (1, 13, 14), 3), (0, (0, 1, 2), 2),
                                      (25, (26, 21, 23), 1), (9, (7, 10, 12), 12)]):
        for cls in range(9):
            calls = bytearray()
            for op in range(64):
                env = TRAPS[(op + k) % 2]
                calls += bytes([cls, 2, v, 0, 0, 0, NO_FAULT, env])  # Value put (Default put, Occured * n)
                calls += bytes([cls | (op & 1) << 7, op, *args, n, NO_FAULT if k else op % 24, env])
            seeds.append(bytes(calls))
    # Counting to the limit of an IntegerPercent: 9 * 4095 occurrences.
    seeds.append(bytes([5, 2, 0, 0, 0, 16, NO_FAULT, 27] * 9 + [5, 6, 0, 0, 0, 0, NO_FAULT, 49]))
    return seeds


if __name__ == "__main__":
    write("text", text_seeds())
    write("operations", operations_seeds())
