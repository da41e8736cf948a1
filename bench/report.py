#!/usr/bin/env python3
"""Turns one run of tpa_bench (and of the JVM benchmark) into the tables of
docs/performance.md and the chart docs/performance.svg.

Usage: report.py RESULTS_DIR DOC SVG [BUILD_DIR]

RESULTS_DIR holds bench.json (Google Benchmark's JSON output), checks.txt
(the agreement check's summary) and, when the JVM ran, jvm.jsonl (one JSON
object per line from NativeQueryBench). The generated part of DOC is the text
between the lines "<!-- results:begin -->" and "<!-- results:end -->"; the
rest of DOC is kept as written. Standard library only.
"""

import json
import math
import os
import platform
import re
import subprocess
import sys

BEGIN = "<!-- results:begin -->"
END = "<!-- results:end -->"
PEERS = ["tpa", "tpa_locked", "hash", "marisa", "std_map"]
PEER_TITLES = {
    "tpa": "tpa",
    "tpa_locked": "tpa + lock",
    "hash": "hash maps",
    "marisa": "MARISA",
    "std_map": "std::map automaton",
}
COLOURS = {
    "tpa": "#1f77b4",
    "tpa_locked": "#17becf",
    "hash": "#2ca02c",
    "marisa": "#d62728",
    "std_map": "#9467bd",
}
TO_NS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


def load_benchmarks(path):
    """{(kind, peer or '', stream or '', size): benchmark entry}."""
    with open(path) as f:
        data = json.load(f)
    results = {}
    for b in data["benchmarks"]:
        if b.get("run_type") == "aggregate":
            continue
        parts = [p for p in b["name"].split("/") if ":" not in p]
        kind, size = parts[0], int(parts[-1])
        middle = parts[1:-1]
        peer = middle[0] if middle else ""
        stream = middle[1] if len(middle) > 1 else ""
        # CPU time: the benchmarks run on one thread, and on a shared machine
        # it is steadier than wall time.
        b["ns"] = b["cpu_time"] * TO_NS[b["time_unit"]]
        results[(kind, peer, stream, size)] = b
    return data.get("context", {}), results


def load_jvm(path):
    rows = {}
    if os.path.exists(path):
        with open(path) as f:
            for line in f:
                line = line.strip()
                if line.startswith("{"):
                    r = json.loads(line)
                    rows[(r["stream"], int(r["size"]))] = r
    return rows


def machine(build_dir):
    model = "unknown"
    with open("/proc/cpuinfo") as f:
        for line in f:
            if line.startswith("model name"):
                model = line.split(":", 1)[1].strip()
                break
    mem_kb = 0
    with open("/proc/meminfo") as f:
        for line in f:
            if line.startswith("MemTotal"):
                mem_kb = int(line.split()[1])
    compiler = "c++"
    cache = os.path.join(build_dir or "", "CMakeCache.txt")
    build_type = ""
    if build_dir and os.path.exists(cache):
        with open(cache) as f:
            for line in f:
                if line.startswith("CMAKE_CXX_COMPILER:"):
                    compiler = line.split("=", 1)[1].strip()
                if line.startswith("CMAKE_BUILD_TYPE:"):
                    build_type = line.split("=", 1)[1].strip()
    try:
        version = subprocess.run([compiler, "--version"], capture_output=True, text=True,
                                 check=False).stdout.splitlines()[0]
    except (OSError, IndexError):
        version = compiler
    return {
        "cpu": model,
        "nproc": os.cpu_count(),
        "memory": "%.1f GiB" % (mem_kb / 1024 / 1024),
        "kernel": platform.release(),
        "compiler": version,
        "build_type": build_type,
    }


def fmt(x, digits=0):
    if x is None:
        return "-"
    if digits == 0:
        return "{:,}".format(int(round(x)))
    return "{:,.{}f}".format(x, digits)


def ratio(a, b):
    return None if a is None or b is None or b == 0 else a / b


def sizes_of(results):
    return sorted({k[3] for k in results})


def query_ns(results, peer, stream, size):
    b = results.get(("Query", peer, stream, size))
    return b["ns"] if b else None


def counter(results, key, name):
    b = results.get(key)
    return b.get(name) if b else None


def size_title(size):
    return "%dk" % (size // 1000) if size % 1000 == 0 else str(size)


def query_table(results, sizes):
    lines = ["| rules | stream | " + " | ".join(PEER_TITLES[p] for p in PEERS) +
             " | tpa / hash | tpa / MARISA |",
             "|---|---|" + "---:|" * (len(PEERS) + 2)]
    for size in sizes:
        for stream, title in (("repeated", "hits"), ("distinct", "misses")):
            ns = {p: query_ns(results, p, stream, size) for p in PEERS}
            lines.append("| %s | %s | %s | %s | %s |" % (
                size_title(size), title, " | ".join(fmt(ns[p]) for p in PEERS),
                fmt(ratio(ns["tpa"], ns["hash"]), 2), fmt(ratio(ns["tpa"], ns["marisa"]), 2)))
    return lines


def build_table(results, sizes):
    lines = ["| rules | key chars | matcher | build ms | peak resident B/char |"
             " kept resident B/char | kept allocated B/char |",
             "|---|---:|---|---:|---:|---:|---:|"]
    for size in sizes:
        for p in ["tpa", "std_map", "hash", "marisa"]:
            build = results.get(("Build", p, "", size))
            mem = results.get(("Memory", p, "", size)) or {}
            lines.append("| %s | %s | %s | %s | %s | %s | %s |" % (
                size_title(size), fmt(mem.get("key_chars")), PEER_TITLES[p],
                fmt(build["ns"] / 1e6, 1) if build else "-", fmt(mem.get("peak_B_per_char"), 1),
                fmt(mem.get("retained_B_per_char"), 1), fmt(mem.get("allocated_B_per_char"), 1)))
    return lines


def reader_table(results, sizes):
    lines = ["| rules | document | reader MB/s | dictionary reserved, resident B/byte |"
             " dictionary filled, resident B/byte | parse peak B/byte | kept after parse B/byte |",
             "|---|---:|---:|---:|---:|---:|---:|"]
    for size in sizes:
        r = results.get(("Reader", "", "", size))
        m = results.get(("ReaderMemory", "", "", size)) or {}
        mbs = r["bytes_per_second"] / 1e6 if r and "bytes_per_second" in r else None
        lines.append("| %s | %s B | %s | %s | %s | %s | %s |" % (
            size_title(size), fmt(m.get("doc_bytes")), fmt(mbs, 1),
            fmt(m.get("dict_reserved_B_per_byte"), 2), fmt(m.get("dict_filled_B_per_byte"), 1),
            fmt(m.get("parse_peak_B_per_byte"), 1), fmt(m.get("parse_retained_B_per_byte"), 2)))
    return lines


def alloc_table(results, sizes):
    lines = ["| rules | allocations per cache-hit query | allocations per miss query |",
             "|---|---:|---:|"]
    for size in sizes:
        lines.append("| %s | %s | %s |" % (
            size_title(size),
            fmt(counter(results, ("Allocations", "tpa", "repeated", size), "allocs_per_query"), 3),
            fmt(counter(results, ("Allocations", "tpa", "distinct", size), "allocs_per_query"), 2)))
    return lines


def anatomy_table(results, sizes):
    lines = ["| rules | rule numbers tried | whole-key searches | bit runs | network prefixes |"
             " wildcard searches | ns per whole-key search | ns per wildcard search |"
             " key length |",
             "|---|---:|---:|---:|---:|---:|---:|---:|---:|"]
    for size in sizes:
        a = results.get(("Anatomy", "searches", "", size))
        whole = results.get(("Anatomy", "whole", "", size))
        partial = results.get(("Anatomy", "partial", "", size))
        if not a:
            continue
        lines.append("| %s | %s | %s | %s | %s | %s | %s | %s | %s |" % (
            size_title(size), fmt(a.get("rule_steps"), 2), fmt(a.get("whole"), 2),
            fmt(a.get("bits"), 2), fmt(a.get("prefix"), 2), fmt(a.get("partial"), 2),
            fmt(whole["ns"] if whole else None), fmt(partial["ns"] if partial else None),
            fmt((whole or {}).get("key_chars"), 1)))
    return lines


def jvm_table(jvm, results, sizes):
    if not jvm:
        return ["(The JVM benchmark did not run.)"]
    lines = ["| rules | stream | ns per nativeQuery | ns per query in C++ (tpa + lock) |"
             " JVM and JNI share | nativeBuild ms |",
             "|---|---|---:|---:|---:|---:|"]
    for size in sizes:
        for stream, title in (("repeated", "hits"), ("distinct", "misses")):
            r = jvm.get((stream, size))
            if not r:
                continue
            native = query_ns(results, "tpa_locked", stream, size)
            # Misses vary more between the two runs than the share is worth.
            share = None
            if native is not None and stream == "repeated":
                share = r["ns_per_query"] - native
            lines.append("| %s | %s | %s | %s | %s | %s |" % (
                size_title(size), title, fmt(r["ns_per_query"]), fmt(native), fmt(share),
                fmt(r["build_ms"], 1)))
    return lines


def verdict(text, ok):
    return "%s, %s" % (text, "met" if ok else "**not met**")


def target_cells(results, size):
    """The verdicts of one size, in the order of TARGETS."""
    hit = ratio(query_ns(results, "tpa", "repeated", size),
                query_ns(results, "hash", "repeated", size))
    miss = ratio(query_ns(results, "tpa", "distinct", size),
                 query_ns(results, "hash", "distinct", size))
    vs_marisa = ratio(query_ns(results, "tpa", "distinct", size),
                      query_ns(results, "marisa", "distinct", size))
    peak = counter(results, ("Memory", "tpa", "", size), "peak_B_per_char")
    naive = counter(results, ("Memory", "std_map", "", size), "peak_B_per_char")
    reserved = counter(results, ("ReaderMemory", "", "", size), "dict_reserved_B_per_byte")
    allocs = counter(results, ("Allocations", "tpa", "repeated", size), "allocs_per_query")
    cells = [
        None if hit is None else verdict("%.2fx" % hit, hit <= 2),
        None if miss is None else verdict("%.2fx" % miss, miss <= 3),
        None if vs_marisa is None else verdict("%.2fx" % vs_marisa, vs_marisa < 1),
        None if peak is None else verdict("%.1f B/char" % peak, peak <= 64),
        None if naive is None or not peak else "%.1f B/char, %.1fx" % (naive, naive / peak),
        None if reserved is None else verdict("%.2f B/byte" % reserved, reserved < 1),
        None if allocs is None else verdict("%.3f" % allocs, allocs == 0),
    ]
    return [c or "-" for c in cells]


TARGETS = [
    "cache hits within 2x the hash matcher (tpa / hash)",
    "misses within 3x the hash matcher (tpa / hash)",
    "misses faster than MARISA (tpa / MARISA)",
    "build peak at most 64 resident bytes per key character",
    "the std::map automaton, for comparison (and its multiple of tpa)",
    "the reader's dictionary adds no resident memory for untouched states (reserved)",
    "no heap allocation on a cache-hit query (allocations per query)",
]


def targets(results, sizes):
    columns = [target_cells(results, size) for size in sizes]
    lines = ["| target | " + " | ".join(size_title(s) for s in sizes) + " |",
             "|---|" + "---|" * len(sizes)]
    for row, title in enumerate(TARGETS):
        lines.append("| %s | %s |" % (title, " | ".join(c[row] for c in columns)))
    return lines


# ---- The chart -------------------------------------------------------------------

def svg_panel(x0, y0, w, h, title, ylabel, sizes, series, log_y, reference=None):
    """series: [(label, colour, dashed, [(size, value)])]; `reference` draws a
    dotted horizontal line at that value."""
    values = [v for _, _, _, pts in series for _, v in pts if v is not None and v > 0]
    if reference:
        values.append(reference)
    if not values:
        return []
    lo, hi = min(values), max(values)
    if log_y:
        lo, hi = 10 ** math.floor(math.log10(lo)), 10 ** math.ceil(math.log10(hi))
        ticks = [lo * 10 ** i for i in range(int(round(math.log10(hi / lo))) + 1)]
        scale = lambda v: (math.log10(v) - math.log10(lo)) / (math.log10(hi) - math.log10(lo))
    else:
        step = 10 ** math.floor(math.log10(hi)) / 2
        hi = math.ceil(hi / step) * step
        lo = 0
        ticks = [i * step for i in range(int(hi / step) + 1)]
        scale = lambda v: v / hi
    left, right, top, bottom = 60, 10, 30, 40
    pw, ph = w - left - right, h - top - bottom
    px = lambda i: x0 + left + (pw * i / max(1, len(sizes) - 1))
    py = lambda v: y0 + top + ph * (1 - scale(v))
    out = ['<text x="%g" y="%g" font-size="14" font-weight="bold">%s</text>' % (
        x0 + left, y0 + 18, title)]
    out.append('<rect x="%g" y="%g" width="%g" height="%g" fill="none" stroke="#999"/>' % (
        x0 + left, y0 + top, pw, ph))
    for t in ticks:
        y = py(t)
        out.append('<line x1="%g" y1="%g" x2="%g" y2="%g" stroke="#eee"/>' % (
            x0 + left, y, x0 + left + pw, y))
        out.append('<text x="%g" y="%g" font-size="11" text-anchor="end">%s</text>' % (
            x0 + left - 4, y + 4, fmt(t, 0 if t >= 1 else 1)))
    for i, s in enumerate(sizes):
        out.append('<text x="%g" y="%g" font-size="11" text-anchor="middle">%s</text>' % (
            px(i), y0 + top + ph + 16, size_title(s)))
    out.append('<text x="%g" y="%g" font-size="11" text-anchor="middle">rules (destinations)'
               '</text>' % (x0 + left + pw / 2, y0 + h - 6))
    out.append('<text x="%g" y="%g" font-size="11" text-anchor="middle" '
               'transform="rotate(-90 %g %g)">%s</text>' % (
                   x0 + 14, y0 + top + ph / 2, x0 + 14, y0 + top + ph / 2, ylabel))
    for label, colour, dashed, pts in series:
        coords = [(px(sizes.index(s)), py(v)) for s, v in pts if v is not None and v > 0]
        if not coords:
            continue
        dash = ' stroke-dasharray="6 4"' if dashed else ""
        out.append('<polyline fill="none" stroke="%s" stroke-width="2"%s points="%s"/>' % (
            colour, dash, " ".join("%.1f,%.1f" % c for c in coords)))
        for cx, cy in coords:
            out.append('<circle cx="%.1f" cy="%.1f" r="3" fill="%s"/>' % (cx, cy, colour))
    if reference:
        out.append('<line x1="%g" y1="%.1f" x2="%g" y2="%.1f" stroke="#000" '
                   'stroke-dasharray="2 3"/>' % (x0 + left, py(reference), x0 + left + pw,
                                                 py(reference)))
    return out


def svg_legend(x, y, entries):
    out = []
    for i, (label, colour, dashed) in enumerate(entries):
        ly = y + 16 * i
        dash = ' stroke-dasharray="6 4"' if dashed else ""
        out.append('<line x1="%g" y1="%g" x2="%g" y2="%g" stroke="%s" stroke-width="2"%s/>' % (
            x, ly, x + 24, ly, colour, dash))
        out.append('<text x="%g" y="%g" font-size="11">%s</text>' % (x + 30, ly + 4, label))
    return out


def chart(results, sizes):
    query_series = []
    legend = []
    for p in ["tpa", "hash", "marisa", "std_map"]:  # the locked path is drawn in the table only
        for stream, dashed, title in (("distinct", False, "misses"), ("repeated", True, "hits")):
            query_series.append((p, COLOURS[p], dashed,
                                 [(s, query_ns(results, p, stream, s)) for s in sizes]))
            legend.append(("%s, %s" % (PEER_TITLES[p], title), COLOURS[p], dashed))
    memory_series = []
    for p in ["tpa", "std_map", "hash", "marisa"]:
        memory_series.append((p, COLOURS[p], False, [
            (s, counter(results, ("Memory", p, "", s), "peak_B_per_char")) for s in sizes]))
    width, height = 1010, 380
    out = ['<svg xmlns="http://www.w3.org/2000/svg" width="%d" height="%d" '
           'font-family="sans-serif">' % (width, height),
           '<rect width="100%" height="100%" fill="white"/>']
    out += svg_panel(0, 0, 400, height, "Query time (log scale)", "ns per query", sizes,
                     query_series, True)
    out += svg_panel(400, 0, 380, height, "Build peak memory (log scale)",
                     "resident bytes per key character", sizes, memory_series, True,
                     reference=64)
    out += svg_legend(800, 40, legend)
    out.append('<line x1="%g" y1="%g" x2="%g" y2="%g" stroke="#000" stroke-dasharray="2 3"/>' % (
        800, 40 + 16 * len(legend) + 10, 824, 40 + 16 * len(legend) + 10))
    out.append('<text x="830" y="%g" font-size="11">64 B/char target</text>' % (
        40 + 16 * len(legend) + 14))
    out.append("</svg>")
    return "\n".join(out) + "\n"


def sections(results, jvm, sizes):
    """(title, introduction, table lines) of each generated section."""
    return [
        ("Targets", "", targets(results, sizes)),
        ("Query time, ns per query",
         "Hits: the repeated stream (12 hot application/destination pairs, every query a "
         "cache hit after the first round). Misses: the distinct stream (fresh destinations, "
         "nearly every query a cache miss). `tpa` is `Builder::query`; `tpa + lock` is "
         "`TarnPatternAnalyzer::query`, the path of the JNI bridge.",
         query_table(results, sizes)),
        ("Build time and memory",
         "Build: `tpa` and the std::map automaton from the document text (the reader "
         "included); the hash and MARISA matchers from the rules already in memory. Memory: "
         "resident bytes the build added at its peak and after it (kept), and heap bytes "
         "still allocated after it, per key character (the sum of the reader's three symbol "
         "totals, which size the automata). Each build measured in a fresh process.",
         build_table(results, sizes)),
        ("Reader", "", reader_table(results, sizes)),
        ("Heap allocations on the query path",
         "Counted by the benchmark binary's replacement of the global operator new.",
         alloc_table(results, sizes)),
        ("Anatomy of a miss",
         "Searches one query of the distinct stream makes (traced through `Map::get`, "
         "averaged over 20,000 queries; the application's search counts as one whole-key "
         "search), and the cost of one search of the include automaton on its own, without "
         "the cache, over the framed keys those queries searched.",
         anatomy_table(results, sizes)),
        ("From the JVM",
         "`nativeQuery` round trips from a JVM (NativeQueryBench over the JNI library), "
         "median of 7 rounds over the first 200,000 queries of each stream. The share of the "
         "JVM and the JNI crossing (two strings in, a boolean out) is the difference to the "
         "C++ time on hits; on misses the two runs differ more than that.",
         jvm_table(jvm, results, sizes)),
    ]


def main(argv):
    if len(argv) < 4:
        print(__doc__)
        return 2
    results_dir, doc_path, svg_path = argv[1], argv[2], argv[3]
    build_dir = argv[4] if len(argv) > 4 else None
    context, results = load_benchmarks(os.path.join(results_dir, "bench.json"))
    jvm = load_jvm(os.path.join(results_dir, "jvm.jsonl"))
    checks = ""
    checks_path = os.path.join(results_dir, "checks.txt")
    if os.path.exists(checks_path):
        with open(checks_path) as f:
            checks = f.read().rstrip()
    sizes = sizes_of(results)
    m = machine(build_dir)

    body = [BEGIN, "",
            "Run of %s. Machine: %s, %s cores (nproc), %s memory, Linux %s; %s, %s build." % (
                context.get("date", "unknown date"), m["cpu"], m["nproc"], m["memory"],
                m["kernel"], m["compiler"], m["build_type"] or "default")]
    for title, intro, lines in sections(results, jvm, sizes):
        body += ["", "### " + title, ""] + ([intro, ""] if intro else []) + lines
    body += ["", "### Agreement check", "",
             "Every peer answered these queries exactly as the library did:", "", "```",
             checks, "```", "", "![Query time and memory against rules size](performance.svg)",
             "", END]
    generated = "\n".join(body)

    doc = ""
    if os.path.exists(doc_path):
        with open(doc_path) as f:
            doc = f.read()
    if BEGIN in doc and END in doc:
        doc = doc[:doc.index(BEGIN)] + generated + doc[doc.index(END) + len(END):]
    else:
        doc = doc + ("\n" if doc else "") + generated + "\n"
    with open(doc_path, "w") as f:
        f.write(doc)
    with open(svg_path, "w") as f:
        f.write(chart(results, sizes))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
