#!/usr/bin/env python3
"""The command-line comparison: `tpa query` against the hash-set and MARISA
peers (`tpa_peer`), each a process reading a rules document and answering
APP<TAB>DEST lines on stdin, timed as a user would time them.

    bench/cli_bench.py BUILD_DIR WORKLOAD_DIR SIZE[,SIZE...] [--doc DOC] [--reps N]
                       [--before TPA [--before-label LABEL]]

WORKLOAD_DIR holds SIZE-rules.json, SIZE-distinct.tsv and SIZE-hot.tsv
(`tpa_bench --tpa_write_cli=DIR --tpa_sizes=SIZE --tpa_queries=N`). One
interleaved run: every repetition runs each measure for every matcher in
turn (tpa, hash, MARISA, and the two I/O baselines), and the least time of
the repetitions is kept. Per matcher and size:

- build: wall time from process start to the end of an empty stream (stdin
  at end of file at once), and its CPU time;
- peak: the process's peak resident memory over a whole stream (VmHWM read
  while it waits after its last answer; ru_maxrss would also count the
  harness's own pages, which the child shares until it executes);
- resident after the first answer: VmRSS once the first query of a stream
  was answered;
- per query: the stream is fed through a pipe. Once the first answer is out
  (the build is over), the CPU time of the process is read from
  /proc/PID/task/*/schedstat (nanoseconds); the rest of the stream follows,
  and once every answer is out, with stdin still open so the process is
  alive and idle, it is read again. The difference over the queries is the
  cost per query net of process start and build, with the reading and
  writing of lines included. The same for `tpa_peer null` (reads and writes
  lines with the peers' I/O, answers without looking) gives the cost of the
  line I/O alone, subtracted in the "net of line I/O" rows; `tpa query` on
  the empty document `[]` shows what tpa's own line I/O and an empty lookup
  cost.
--before adds another `tpa` binary (an earlier build of the library, e.g.
the commit before a change) as one more matcher of the same interleaved run,
so that before and after are measured under the same load.
The answers of every tpa, hash and MARISA to both streams are compared
(SHA-256 of the output); the run stops if they differ. With --doc, the tables replace
the part of DOC between <!-- cli:begin --> and <!-- cli:end -->.
"""
import fcntl
import hashlib
import os
import subprocess
import sys
import threading
import time

BASELINES = ["null", "tpa_empty"]
F_SETPIPE_SZ = 1031
PIPE_BYTES = 1 << 20


def command(build, matcher, rules, empty_rules, before=None):
    if matcher == "tpa":
        return [os.path.join(build, "tpa"), "query", rules]
    if matcher == "before":
        return [before, "query", rules]
    if matcher == "tpa_empty":
        return [os.path.join(build, "tpa"), "query", empty_rules]
    return [os.path.join(build, "bench", "tpa_peer"), matcher, rules]


def build_run(cmd):
    """Wall ms and CPU ms of a run on an empty stream."""
    start = time.monotonic()
    p = subprocess.Popen(cmd, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
    _, status, usage = os.wait4(p.pid, 0)
    wall = time.monotonic() - start
    if status != 0:
        sys.exit(f"cli_bench: {cmd} exited with {status}")
    return wall * 1e3, (usage.ru_utime + usage.ru_stime) * 1e3


def cpu_ns(pid):
    """CPU time of every live thread of `pid`, in nanoseconds."""
    total = 0
    for task in os.listdir(f"/proc/{pid}/task"):
        try:
            with open(f"/proc/{pid}/task/{task}/schedstat") as f:
                total += int(f.read().split()[0])
        except FileNotFoundError:
            pass
    return total


def status_kb(pid, field):
    """A memory figure of /proc/PID/status (VmRSS, VmHWM) in KiB."""
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith(field + ":"):
                return int(line.split()[1])
    return 0


class Output:
    """Reads a process's stdout, counting lines and hashing them."""

    def __init__(self, fd):
        self.fd, self.lines, self.digest = fd, 0, hashlib.sha256()

    def until(self, lines):
        while self.lines < lines:
            chunk = os.read(self.fd, 1 << 20)
            if not chunk:
                sys.exit("cli_bench: the matcher stopped answering")
            self.lines += chunk.count(b"\n")
            self.digest.update(chunk)


def stream_run(cmd, path, queries):
    """CPU ns per query after the first answer, resident KiB after the first
    answer, peak KiB, and the answers' digest."""
    p = subprocess.Popen(cmd, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    for pipe in (p.stdin, p.stdout):
        try:
            fcntl.fcntl(pipe.fileno(), F_SETPIPE_SZ, PIPE_BYTES)
        except OSError:
            pass  # a smaller pipe only means more wake-ups
    out = Output(p.stdout.fileno())
    with open(path, "rb") as f:
        first = f.readline()
        os.write(p.stdin.fileno(), first)
        out.until(1)
        kept = status_kb(p.pid, "VmRSS")
        before = cpu_ns(p.pid)
        offset, size = len(first), os.fstat(f.fileno()).st_size

        def feed():
            o = offset
            while o < size:
                o += os.sendfile(p.stdin.fileno(), f.fileno(), o, size - o)

        writer = threading.Thread(target=feed)
        writer.start()
        out.until(queries)
        writer.join()
        after = cpu_ns(p.pid)
        peak = status_kb(p.pid, "VmHWM")
    p.stdin.close()
    while os.read(p.stdout.fileno(), 1 << 16):
        pass
    status = p.wait()
    p.stdout.close()
    if status != 0:
        sys.exit(f"cli_bench: {cmd} exited with {status}")
    return (after - before) / (queries - 1), kept, peak, out.digest.hexdigest()


def load():
    with open("/proc/loadavg") as f:
        return float(f.read().split()[0])


def measure(build, workload, size, reps, before):
    compared = (["before"] if before else []) + ["tpa", "hash", "marisa"]
    rules = os.path.join(workload, f"{size}-rules.json")
    empty_rules = os.path.join(workload, "empty-rules.json")
    with open(empty_rules, "w") as f:
        f.write("[]\n")
    streams = {s: os.path.join(workload, f"{size}-{s}.tsv") for s in ("hot", "distinct")}
    queries = {s: sum(1 for _ in open(path, "rb")) for s, path in streams.items()}
    best = {m: {} for m in compared + BASELINES}
    loads = [load()]

    def keep(m, key, value, pick=min):
        best[m][key] = pick(best[m].get(key, value), value)

    for _ in range(reps):
        for m in compared:
            wall, cpu = build_run(command(build, m, rules, empty_rules, before))
            keep(m, "build_ms", wall)
            keep(m, "build_cpu_ms", cpu)
        loads.append(load())
        for s, path in streams.items():
            digests = {}
            for m in compared + BASELINES:
                ns, kept, peak, digests[m] = stream_run(
                    command(build, m, rules, empty_rules, before), path, queries[s])
                keep(m, f"{s}_ns", ns)
                keep(m, "kept_kb", kept)
                keep(m, "peak_kb", peak, max)
            if len({digests[m] for m in compared}) != 1:
                sys.exit(f"cli_bench: the answers to {path} differ: {digests}")
            loads.append(load())
    for m in compared:
        for s in streams:
            best[m][f"{s}_net_ns"] = best[m][f"{s}_ns"] - best["null"][f"{s}_ns"]
    return best, queries, os.path.getsize(rules), loads


ROWS = [
    ("build, process start to end of an empty stream (ms)", "build_ms", "{:,.0f}"),
    ("build, CPU time (ms)", "build_cpu_ms", "{:,.0f}"),
    ("peak resident memory (MB)", "peak_kb", "{:,.1f}"),
    ("resident after the first answer (MB)", "kept_kb", "{:,.1f}"),
    ("hot stream, ns per query net of build", "hot_ns", "{:,.0f}"),
    ("hot stream, ns per query net of build and line I/O", "hot_net_ns", "{:,.0f}"),
    ("distinct stream, ns per query net of build", "distinct_ns", "{:,.0f}"),
    ("distinct stream, ns per query net of build and line I/O", "distinct_net_ns", "{:,.0f}"),
]


def ratio(a, b):
    return f"{a / b:.2f}" if b > 0 else "n/a"


def table(size, best, queries, doc_bytes, loads, before_label):
    t, h, mar = best["tpa"], best["hash"], best["marisa"]
    b = best.get("before")
    head = ["tpa", "hash-set peer", "MARISA peer", "tpa / hash", "tpa / MARISA"]
    if b:
        head = [f"tpa {before_label}"] + head[:3] + [f"{before_label} / hash"] + head[3:]
    out = [f"**{size:,} destinations** ({doc_bytes / 1e6:.1f} MB document, "
           f"{queries['hot']:,} queries per stream; load average "
           f"{min(loads):.1f}-{max(loads):.1f} on 2 cores during the run)", "",
           "| measure | " + " | ".join(head) + " |",
           "|---|" + "---:|" * len(head)]
    for label, key, fmt in ROWS:
        scale = 1024.0 if key.endswith("_kb") else 1.0
        cells = [fmt.format(x[key] / scale) for x in ([b] if b else []) + [t, h, mar]]
        ratios = ([ratio(b[key], h[key])] if b else []) + [ratio(t[key], h[key]),
                                                           ratio(t[key], mar[key])]
        out.append(f"| {label} | " + " | ".join(cells + ratios) + " |")
    null, te = best["null"], best["tpa_empty"]
    out += ["", "Line I/O alone, ns per query (hot / distinct): the peers' reading and "
            f"writing (`tpa_peer null`) {null['hot_ns']:,.0f} / {null['distinct_ns']:,.0f}; "
            f"`tpa query` on the empty document `[]` {te['hot_ns']:,.0f} / "
            f"{te['distinct_ns']:,.0f}."]
    return "\n".join(out) + "\n"


def main():
    args = sys.argv[1:]
    doc, reps, before, before_label = None, 3, None, "before"
    for flag in ("--before", "--before-label"):
        if flag in args:
            i = args.index(flag)
            if flag == "--before":
                before = os.path.abspath(args[i + 1])
            else:
                before_label = args[i + 1]
            del args[i:i + 2]
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
        best, queries, doc_bytes, loads = measure(build, workload, size, reps, before)
        text += table(size, best, queries, doc_bytes, loads, before_label) + "\n"
        print(text, flush=True)
    if doc:
        with open(doc) as f:
            content = f.read()
        begin, end = "<!-- cli:begin -->", "<!-- cli:end -->"
        a, b = content.index(begin) + len(begin), content.index(end)
        stamp = time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime())
        content = (content[:a] + f"\n\nRun of {stamp}, least of {reps} interleaved repetitions.\n\n"
                   + text + content[b:])
        with open(doc, "w") as f:
            f.write(content)


if __name__ == "__main__":
    main()
