#!/usr/bin/env python3
"""Writes the performance report from the benchmark programs' output.

    report.py --mode full|smoke --x86 NOTE --out BASE platform=results.txt ...

Reads the RESULT and NOTE lines (bench/harness.h) of each run and writes
BASE.md (the table of goals with measured medians and ratios, the other
figures, then the hand-written analysis from bench/performance_notes.md) and
BASE.svg (the chart; bench/run.sh converts it to BASE.png). Standard library
only.
"""

import argparse
import datetime
import html
import json
import math
import os
import platform
import subprocess
import sys

# The goals, in the order of the table: (result id, what is measured,
# comparison, goal, the platforms where the goal applies).
GOALS = [
    ("invoke_i2_vs_vtable", "our Invoke / vtable call, IntegerData Add, VT_I2 by value", "<=", 4, ["wine"]),
    ("invoke_byref_vs_vtable", "our Invoke / vtable call, IntegerData Add, VT_BYREF|VT_VARIANT", "<=", 6, ["wine"]),
    ("stddispatch_i2_vs_invoke", "standard dispatch over our type library / our Invoke, Add, VT_I2", ">=", 30,
     ["wine"]),
    ("stddispatch_byref_vs_invoke", "standard dispatch over our type library / our Invoke, Add, by reference",
     ">=", 30, ["wine"]),
    ("getids_integerdata", "ITypeInfo::GetIDsOfNames / ours, IntegerData (54 entries)", ">=", 100, ["wine"]),
    ("getids_textconstants", "ITypeInfo::GetIDsOfNames / ours, TextConstants (133 names)", ">=", 100, ["wine"]),
    ("varr4fromstr_vs_core", "VarR4FromStr / our text-to-number", ">=", 10, ["wine"]),
    ("varbstrfromr4_vs_core", "VarBstrFromR4 / our number text", ">=", 30, ["wine"]),
    ("varformat_vs_core", "VarFormat \"##%\" / PercentDisplay core", ">=", 100, ["wine"]),
    ("average_scaling", "HereIsAStringOfNumbers + GiveMeYourNumbers + DataAverage, 32,767 / 1,024 items",
     "<=", 40, ["native", "wine"]),
    ("createinstance_vs_new", "IClassFactory::CreateInstance of an IntegerData / new of the same object", "<=", 2,
     ["wine"]),
    ("text_get_vs_sysalloc", "TextConstants get of one text / SysAllocStringLen of the same text", "<=", 2,
     ["wine"]),
]

# Further figures reported beside the goals.
EXTRA = [
    ("varbstrfromr4_vs_core_bstr", "VarBstrFromR4 / our number text made into a BSTR"),
    ("varformat_vs_core_bstr", "VarFormat \"##%\" / PercentDisplay core made into a BSTR"),
    ("average_scaling_new_object", "the round trip on a new object each time, 32,767 / 1,024 items"),
]


def read_results(run_arg):
    """platform=path -> (platform, {id: result}, {id: [notes]})"""
    name, path = run_arg.split("=", 1)
    results, notes = {}, {}
    with open(path, encoding="utf-8", errors="replace") as f:
        for line in f:
            line = line.strip()
            if line.startswith("RESULT "):
                r = json.loads(line[len("RESULT "):])
                results[r["id"]] = r
            elif line.startswith("NOTE "):
                n = json.loads(line[len("NOTE "):])
                notes.setdefault(n["id"], []).append(n["text"])
    return name, results, notes


def cell(text):
    """Text for a Markdown table cell."""
    return text.replace("|", "\\|")


def fmt_ns(ns):
    if ns >= 1e6:
        return f"{ns / 1e6:.2f} ms"
    if ns >= 1e3:
        return f"{ns / 1e3:.2f} µs"
    return f"{ns:.1f} ns"


def fmt_ratio(x):
    if x >= 100:
        return f"{x:.0f}"
    if x >= 10:
        return f"{x:.1f}"
    return f"{x:.2f}"


def met(comparison, goal, value):
    return value <= goal if comparison == "<=" else value >= goal


def applies(platform_name, targets):
    return any(platform_name == t or platform_name.startswith(t + "-") for t in targets)


def machine_lines():
    lines = []
    cpu = ""
    try:
        with open("/proc/cpuinfo") as f:
            for line in f:
                if line.startswith("model name"):
                    cpu = line.split(":", 1)[1].strip()
                    break
    except OSError:
        pass
    lines.append(f"- Machine: {cpu or platform.processor()}, {os.cpu_count()} logical processors, "
                 f"{platform.system()} {platform.release()}")

    def version(cmd):
        try:
            out = subprocess.run(cmd, capture_output=True, text=True, timeout=30).stdout.strip()
            return out.splitlines()[0] if out else "?"
        except (OSError, subprocess.SubprocessError):
            return "?"

    lines.append(f"- Compilers: {version(['g++', '--version'])}; "
                 f"{version(['x86_64-w64-mingw32-g++-posix', '--version'])}")
    lines.append(f"- Wine: {version(['wine', '--version'])}")
    return lines


def chart_svg(rows):
    """rows: (label, platform, Stats dict, comparison, goal, met)"""
    width, left, right, top, row_h = 980, 430, 70, 46, 30
    height = top + row_h * len(rows) + 40
    lo, hi = -0.5, 3.5  # log10 of the ratio axis: 0.3 .. 3000
    plot_w = width - left - right

    def x(v):
        v = min(max(v, 10 ** lo), 10 ** hi)
        return left + (math.log10(v) - lo) / (hi - lo) * plot_w

    out = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
           f'font-family="DejaVu Sans, Arial, sans-serif" font-size="12">',
           f'<rect width="{width}" height="{height}" fill="white"/>',
           f'<text x="10" y="18" font-size="14" font-weight="bold">Ratios against their goals '
           f'(median, bar from 1; whisker min-max over repetitions; log scale)</text>',
           f'<text x="10" y="34" fill="#555">green: goal met, red: missed; black tick: the goal</text>']
    for p in range(0, 4):
        for mult in (1, 3):
            v = mult * 10 ** p
            if 10 ** lo <= v <= 10 ** hi:
                gx = x(v)
                out.append(f'<line x1="{gx:.1f}" y1="{top - 4}" x2="{gx:.1f}" y2="{height - 34}" '
                           f'stroke="{"#ccc" if mult == 1 else "#eee"}"/>')
                out.append(f'<text x="{gx:.1f}" y="{height - 20}" text-anchor="middle" fill="#555">{v:g}</text>')
    for i, (label, plat, ratio, comparison, goal, ok) in enumerate(rows):
        y = top + i * row_h
        cy = y + row_h / 2
        colour = "#2e8b57" if ok else "#c0392b"
        out.append(f'<text x="{left - 8}" y="{cy + 4:.1f}" text-anchor="end">{html.escape(label)} '
                   f'<tspan fill="#777">[{html.escape(plat)}]</tspan></text>')
        x1, x2 = x(1), x(ratio["median"])
        out.append(f'<rect x="{min(x1, x2):.1f}" y="{cy - 7:.1f}" width="{abs(x2 - x1):.1f}" height="14" '
                   f'fill="{colour}" opacity="0.8"/>')
        out.append(f'<line x1="{x(ratio["min"]):.1f}" y1="{cy:.1f}" x2="{x(ratio["max"]):.1f}" y2="{cy:.1f}" '
                   f'stroke="black" stroke-width="1.5"/>')
        for end in ("min", "max"):
            ex = x(ratio[end])
            out.append(f'<line x1="{ex:.1f}" y1="{cy - 4:.1f}" x2="{ex:.1f}" y2="{cy + 4:.1f}" stroke="black"/>')
        gx = x(goal)
        out.append(f'<line x1="{gx:.1f}" y1="{cy - 11:.1f}" x2="{gx:.1f}" y2="{cy + 11:.1f}" stroke="black" '
                   f'stroke-width="3"/>')
        out.append(f'<text x="{width - right + 6}" y="{cy + 4:.1f}">{fmt_ratio(ratio["median"])} '
                   f'<tspan fill="#777">{html.escape(comparison)}{goal:g}</tspan></text>')
    out.append("</svg>")
    return "\n".join(out) + "\n"


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--mode", choices=["full", "smoke"], default="full")
    ap.add_argument("--x86", default="")
    ap.add_argument("--out", required=True, help="path without extension")
    ap.add_argument("runs", nargs="+", help="platform=results.txt")
    args = ap.parse_args()

    runs = [read_results(run_arg) for run_arg in args.runs]
    rows_md, chart_rows, missing = [], [], []
    met_count = total = 0
    for rid, what, comparison, goal, targets in GOALS:
        for plat, results, _ in runs:
            if not applies(plat, targets):
                continue
            r = results.get(rid)
            if r is None:
                missing.append(f"{rid} ({plat})")
                continue
            ratio = r["ratio"]
            ok = met(comparison, goal, ratio["median"])
            total += 1
            met_count += ok
            rows_md.append(
                f"| {cell(what)} | {plat} | {fmt_ns(r['a_ns']['median'])} / {fmt_ns(r['b_ns']['median'])} | "
                f"**{fmt_ratio(ratio['median'])}** ({fmt_ratio(ratio['min'])}–{fmt_ratio(ratio['max'])}) | "
                f"{comparison.replace('<=', '≤').replace('>=', '≥')} {goal:g} | {'met' if ok else '**missed**'} |")
            chart_rows.append((rid, plat, ratio, comparison.replace("<=", "≤").replace(">=", "≥"), goal, ok))

    extra_md = []
    for rid, what in EXTRA:
        for plat, results, _ in runs:
            r = results.get(rid)
            if r is not None:
                extra_md.append(f"| {cell(what)} | {plat} | {fmt_ns(r['a_ns']['median'])} / {fmt_ns(r['b_ns']['median'])} | "
                                f"{fmt_ratio(r['ratio']['median'])} ({fmt_ratio(r['ratio']['min'])}–"
                                f"{fmt_ratio(r['ratio']['max'])}) |")
    single_md = []
    for plat, results, _ in runs:
        for rid, r in results.items():
            if r["kind"] == "single":
                single_md.append(f"| {cell(r['what'])} | {plat} | {fmt_ns(r['a_ns']['median'])} "
                                 f"({fmt_ns(r['a_ns']['min'])}–{fmt_ns(r['a_ns']['max'])}) |")
    notes_md = []
    for plat, _, notes in runs:
        for rid, texts in notes.items():
            for t in texts:
                notes_md.append(f"- `{rid}` ({plat}): {t}")

    reps = sorted({r["reps"] for _, results, _ in runs for r in results.values()})
    now = datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d %H:%M UTC")
    md = ["# Performance", ""]
    if args.mode == "smoke":
        md += ["**Smoke run**: every benchmark ran for a moment only; the figures below mean nothing.", ""]
    md += [
        "Generated by `bench/run.sh` (`make bench`) on " + now + "; the analysis after the tables is",
        "`bench/performance_notes.md`. Every ratio is taken inside one process: both sides run",
        "alternately in each repetition, one ratio per repetition, and the table gives the median with",
        f"the minimum and maximum over the repetitions ({', '.join(str(x) for x in reps)} repetitions of a",
        "batch of calls lasting about 20 ms each). The time columns are the medians per call of the two",
        "sides (numerator / denominator of the ratio). `native` is the core built for Linux; `wine-x64`",
        "and `wine-x86` are Valmetra-445.Dll and the Windows benchmark program of that architecture",
        "under Wine.",
        "",
        f"Goals met: **{met_count} of {total}**.",
        "",
        "| measured | run | per call: numerator / denominator | ratio: median (min–max) | goal | |",
        "|---|---|---|---|---|---|",
        *rows_md,
        "",
    ]
    if args.x86:
        md += [f"x86: {args.x86}.", ""]
    if missing:
        md += ["Not measured: " + ", ".join(missing) + ".", ""]
    md += [f"![Ratios against their goals]({os.path.basename(args.out)}.png)", "",
           "## Further figures", "",
           "| measured | run | per call: numerator / denominator | ratio: median (min–max) |",
           "|---|---|---|---|", *extra_md, "",
           "Per-call times of the core, for orientation:", "",
           "| measured | run | median (min–max) |", "|---|---|---|", *single_md, ""]
    if notes_md:
        md += ["Notes of the benchmark programs:", "", *notes_md, ""]
    md += ["## Setup", "", *machine_lines(), ""]
    notes_path = os.path.join(os.path.dirname(os.path.abspath(__file__)), "performance_notes.md")
    with open(notes_path, encoding="utf-8") as f:
        md += [f.read().rstrip(), ""]

    with open(args.out + ".md", "w", encoding="utf-8") as f:
        f.write("\n".join(md))
    with open(args.out + ".svg", "w", encoding="utf-8") as f:
        f.write(chart_svg(chart_rows))
    print(f"goals met: {met_count} of {total}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
