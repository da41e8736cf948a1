#!/usr/bin/env python3
"""The command-line comparison: `tpa query` against the hash-map and MARISA
peers (`tpa_peer`), each a process reading a rules document and answering
APP<TAB>DEST lines on stdin, timed as a user would time them.

    bench/cli_bench.py BUILD_DIR WORKLOAD_DIR SIZE[,SIZE...] [--doc DOC] [--reps N]

WORKLOAD_DIR holds SIZE-rules.json, SIZE-distinct.tsv and SIZE-hot.tsv
(`tpa_bench --tpa_write_cli=DIR --tpa_sizes=...`). Runs are interleaved
(every matcher once, then again), and the best of the repetitions is kept.
Per measure:
- build: process start to the answer of a single query (wall time; CPU time
  alongside, steadier on a shared machine);
- kept: resident memory once built, waiting for its first query;
- peak: the process's peak resident memory over a whole stream;
- ns/query: the least CPU time of a whole stream minus the least of the
  single-query runs, per query (parsing and writing included).
With --doc, the tables replace the part of DOC between the markers
<!-- cli:begin --> and <!-- cli:end -->.
"""
import os
import subprocess
import sys
import time

MATCHERS = ["tpa", "hash", "marisa"]


def command(build, matcher, rules):
    if matcher == "tpa":
        return [os.path.join(build, "tpa"), "query", rules]
    return [os.path.join(build, "bench", "tpa_peer"), matcher, rules]


def run(cmd, stdin_path=None, stdin_bytes=None):
    """Wall seconds, CPU seconds and peak KiB of one run."""
    start = time.monotonic()
    stdin = open(stdin_path, "rb") if stdin_path else subprocess.PIPE
    p = subprocess.Popen(cmd, stdin=stdin, stdout=subprocess.DEVNULL)
    if stdin_bytes is not None:
        p.stdin.write(stdin_bytes)
        p.stdin.close()
    _, status, usage = os.wait4(p.pid, 0)
    wall = time.monotonic() - start
    if stdin_path:
        stdin.close()
    if status != 0:
        sys.exit(f"cli_bench: {cmd} exited with {status}")
    return wall, usage.ru_utime + usage.ru_stime, usage.ru_maxrss


def kept(cmd):
    """Resident KiB once built: the process sleeps on its empty stdin with its
    CPU time standing still."""
    p = subprocess.Popen(cmd, stdin=subprocess.PIPE, stdout=subprocess.DEVNULL)
    last, rss = None, 0
    try:
        while True:
            time.sleep(0.05)
            with open(f"/proc/{p.pid}/stat") as f:
                fields = f.read().rsplit(")", 1)[1].split()
            state, cpu = fields[0], int(fields[11]) + int(fields[12])
            if state == "S" and cpu == last:
                with open(f"/proc/{p.pid}/status") as f:
                    for line in f:
                        if line.startswith("VmRSS:"):
                            rss = int(line.split()[1])
                break
            last = cpu
    finally:
        p.stdin.close()
        p.wait()
    return rss


def measure(build, workload, size, reps):
    rules = os.path.join(workload, f"{size}-rules.json")
    streams = {s: os.path.join(workload, f"{size}-{s}.tsv") for s in ("distinct", "hot")}
    with open(streams["distinct"], "rb") as f:
        first = f.readline()
    queries = {s: sum(1 for _ in open(path, "rb")) for s, path in streams.items()}
    best = {m: {} for m in MATCHERS}

    def keep(m, key, value):
        best[m][key] = min(best[m].get(key, value), value)

    for _ in range(reps):
        for m in MATCHERS:
            cmd = command(build, m, rules)
            wall, cpu, peak = run(cmd, stdin_bytes=first)
            keep(m, "build_ms", wall * 1e3)
            keep(m, "build_cpu_ms", cpu * 1e3)
            keep(m, "kept_kb", kept(cmd))
            for s, path in streams.items():
                _, scpu, speak = run(cmd, stdin_path=path)
                keep(m, f"{s}_cpu", scpu)
                keep(m, "peak_kb", max(peak, speak))
    # The least CPU time of the streams less the least of the builds: the
    # build's own spread would otherwise swamp a fast stream.
    for m in MATCHERS:
        for s in streams:
            spent = best[m][f"{s}_cpu"] - best[m]["build_cpu_ms"] / 1e3
            best[m][f"{s}_ns"] = max(spent, 0) * 1e9 / queries[s]
    return best, queries, os.path.getsize(rules)


def table(size, best, queries, doc_bytes):
    t, h, mar = best["tpa"], best["hash"], best["marisa"]
    rows = [
        ("build, process start to first answer (ms)", "build_ms", "{:,.0f}"),
        ("build, CPU time (ms)", "build_cpu_ms", "{:,.0f}"),
        ("peak resident memory (MB)", "peak_kb", "{:,.1f}"),
        ("resident once built (MB)", "kept_kb", "{:,.1f}"),
        ("hot stream (ns per query)", "hot_ns", "{:,.0f}"),
        ("distinct stream (ns per query)", "distinct_ns", "{:,.0f}"),
    ]
    out = [f"**{size:,} destinations** ({doc_bytes / 1e6:.1f} MB document, "
           f"{queries['distinct']:,} queries per stream)", "",
           "| measure | tpa | hash-map peer | MARISA peer | tpa / hash | tpa / MARISA |",
           "|---|---:|---:|---:|---:|---:|"]
    for label, key, fmt in rows:
        scale = 1024.0 if key.endswith("_kb") else 1.0
        cells = [fmt.format(x[key] / scale) for x in (t, h, mar)]
        ratios = [f"{t[key] / x[key]:.2f}" if x[key] else "-" for x in (h, mar)]
        out.append(f"| {label} | " + " | ".join(cells + ratios) + " |")
    return "\n".join(out) + "\n"


def main():
    args = sys.argv[1:]
    doc, reps = None, 3
    if "--doc" in args:
        i = args.index("--doc")
        doc = args[i + 1]
        del args[i:i + 2]
    if "--reps" in args:
        i = args.index("--reps")
        reps = int(args[i + 1])
        del args[i:i + 2]
    build, workload, sizes = args[0], args[1], [int(s) for s in args[2].split(",")]
    text = ""
    for size in sizes:
        best, queries, doc_bytes = measure(build, workload, size, reps)
        text += table(size, best, queries, doc_bytes) + "\n"
    print(text)
    if doc:
        with open(doc) as f:
            content = f.read()
        begin, end = "<!-- cli:begin -->", "<!-- cli:end -->"
        a, b = content.index(begin) + len(begin), content.index(end)
        stamp = time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime())
        content = content[:a] + f"\n\nRun of {stamp}, best of {reps}.\n\n" + text + content[b:]
        with open(doc, "w") as f:
            f.write(content)


if __name__ == "__main__":
    main()
