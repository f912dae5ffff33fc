#!/usr/bin/env python3
"""Runs the echo-server benchmark matrix and writes the report into bench/results/.

    python3 bench/run.py              full matrix (about 15-20 minutes on 2 cores)
    python3 bench/run.py --quick      a small subset (under a minute)
    python3 bench/run.py --syscalls   also count syscalls per packet for each server
    python3 bench/run.py --rows pipeline:64:100,pingpong:65536:10 --runs 15
                                      only those rows of the full matrix (MODE:SIZE:CONNS),
                                      many runs each: a closer look at rows within the spread

Every server runs pinned to one core (--server-cpu) and every client run to another
(--client-cpu). The servers are started once (an echo instance and a --sink instance of each)
and the client runs are interleaved A/B: run k of a scenario visits the servers in an order
rotated by k, so slow drifts of the machine spread over all servers. Each cell reports the
median with min-max over --runs runs (default 5).

Outputs (prefix "quick-" in --quick mode, "rows-" with --rows, so the committed full report
stays):
    results/report.md   the tables, the machine description and the goal summary
    results/raw.jsonl   one JSON line per client run (bench_client's output plus "run")
    results/mib_s.png   MiB/s per packet size and server (ping-pong), if gnuplot is present
    results/mib_s.dat   the chart's data
    results/ratio.png   every server's packets/s over quolnet-peek's per row, paired per run
                        (linear scale), with ratio.dat; the report has the same as a table,
                        with the CPU per packet beside it
    results/extras.json the iperf3, syscall and machine figures, for --report-only

Beside packets/s, every timed run records the server's user and kernel CPU time per packet
(srv_user_ns, srv_sys_ns in raw.jsonl, from /proc/PID/stat). The user share is the server's
own code, apart from the loopback TCP work that every server causes in the kernel alike.

    python3 bench/run.py --backend       also quolnet on its io_uring back end (quolnet-uring)

    python3 bench/run.py --report-only   rewrites report.md and the chart from raw.jsonl and
                                         extras.json, without running anything

    python3 bench/run.py --tls        the TLS rows instead (about 8 minutes): quolnet over TLS
                                      (peek and callback modes, and peek with handshakes not held
                                      to a share of the loop's time) against Asio over asio::ssl,
                                      with quolnet plain on the same rows in the same run;
                                      outputs get the prefix tls- (tls-report.md, tls-raw.jsonl,
                                      tls-extras.json; --report-only --tls rewrites the report);
                                      with --rows (MODE:SIZE:CONNS of the TLS rows, MODE also
                                      connect or resume) the prefix tls-rows-

TLS rows: ping-pong 64 B and 1 KiB with 10, 100 and 1000 connections, pipelined 64 B, streaming
64 KiB, and new connections per second (10 at a time, each one handshake, one 64 B echo and a
reset) with full and with resumed handshakes. Every TLS side runs OpenSSL with TLS 1.3 only and
the one cipher suite TLS_AES_128_GCM_SHA256; both servers load the same certificate and key (an
ECDSA P-256 self-signed pair made for the run by the openssl command, else each server makes
its own in memory) and issue one session ticket per handshake. The client makes the echo rows'
handshakes before its warm-up, so those rows time application records only.
"""
import argparse
import datetime
import json
import os
import platform
import re
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import threading
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
REFERENCE = "quolnet-peek"

SERVERS = [
    # label, binary, extra arguments
    ("quolnet-peek", "bench_server_quolnet", ["--mode", "peek"]),
    ("quolnet-cb", "bench_server_quolnet", ["--mode", "callback"]),
    ("epoll", "bench_server_epoll", []),
    ("libevent", "bench_server_libevent", []),
    ("asio", "bench_server_asio", []),
    ("uring", "bench_server_uring", []),  # hand-written io_uring loop; only when liburing is installed
]

# --backend: quolnet again on its io_uring back end (an "ENV:" argument is put in the server's
# environment instead of its command line).
# quolnet-uring-all and quolnet-all cork every reply (--cork all): each tick's replies leave in
# the end-of-tick flush, on io_uring one call to the kernel for all of them.
BACKEND_SERVERS = [
    ("quolnet-uring", "bench_server_quolnet", ["--mode", "peek", "ENV:QUOLNET_IO_BACKEND=io_uring"]),
    ("quolnet-uring-all", "bench_server_quolnet",
     ["--mode", "peek", "--cork", "all", "ENV:QUOLNET_IO_BACKEND=io_uring"]),
    ("quolnet-all", "bench_server_quolnet", ["--mode", "peek", "--cork", "all"]),
]

# The TLS rows' servers: label, binary, extra arguments (TLS ones added at run time), whether
# the client speaks TLS to it.
TLS_SERVERS = [
    ("quolnet-tls", "bench_server_quolnet", ["--mode", "peek"], True),
    ("quolnet-tls-cb", "bench_server_quolnet", ["--mode", "callback"], True),
    # handshakes not held to a share of the loop's time (ConnectorMgrOptions::handshake_cpu_share 0)
    ("quolnet-tls-hs0", "bench_server_quolnet", ["--mode", "peek", "--handshake-share", "0"], True),
    ("asio-tls", "bench_server_asio_tls", [], True),
    ("quolnet-plain", "bench_server_quolnet", ["--mode", "peek"], False),
]

SIZE_NAMES = {64: "64 B", 512: "512 B", 1024: "1 KiB", 16384: "16 KiB", 65536: "64 KiB", 262144: "256 KiB"}


def full_matrix():
    rows = []
    for size in (64, 1024, 16384, 65536, 262144):
        for conns in (1, 10, 100, 1000):
            rows.append({"mode": "pingpong", "size": size, "conns": conns, "depth": 1})
    for size in (64, 512):
        rows.append({"mode": "pipeline", "size": size, "conns": 100, "depth": 16})
    rows.append({"mode": "stream", "size": 65536, "conns": 1, "depth": 1})
    return rows


def tls_matrix():
    rows = []
    for size in (64, 1024):
        for conns in (10, 100, 1000):
            rows.append({"mode": "pingpong", "size": size, "conns": conns, "depth": 1})
    rows.append({"mode": "pipeline", "size": 64, "conns": 100, "depth": 16})
    rows.append({"mode": "stream", "size": 65536, "conns": 1, "depth": 1})
    rows.append({"mode": "connect", "size": 64, "conns": 10, "depth": 1})
    rows.append({"mode": "resume", "size": 64, "conns": 10, "depth": 1})
    return rows


def quick_matrix():
    return [
        {"mode": "pingpong", "size": 64, "conns": 10, "depth": 1},
        {"mode": "pingpong", "size": 16384, "conns": 10, "depth": 1},
        {"mode": "pipeline", "size": 512, "conns": 100, "depth": 16},
        {"mode": "stream", "size": 65536, "conns": 1, "depth": 1},
    ]


def selected_rows(args):
    """The rows this run measures: --rows picks rows of the full matrix by MODE:SIZE:CONNS."""
    if args.quick:
        return quick_matrix()
    matrix = tls_matrix() if getattr(args, "tls", False) else full_matrix()
    if not args.rows:
        return matrix
    wanted = []
    for item in args.rows.split(","):
        parts = item.strip().split(":")
        if len(parts) != 3 or not parts[1].isdigit() or not parts[2].isdigit():
            sys.exit("--rows: %r is not MODE:SIZE:CONNS" % item)
        wanted.append((parts[0], int(parts[1]), int(parts[2])))
    rows = [r for r in matrix if (r["mode"], r["size"], r["conns"]) in wanted]
    missing = [w for w in wanted if w not in [(r["mode"], r["size"], r["conns"]) for r in rows]]
    if missing:
        sys.exit("--rows: not in the matrix: %s" % ", ".join("%s:%d:%d" % m for m in missing))
    return rows


def output_prefix(args):
    if getattr(args, "tls", False):
        return "tls-rows-" if args.rows else "tls-"
    return "quick-" if args.quick else ("rows-" if args.rows else "")


def syscall_rows():
    return [
        {"mode": "pingpong", "size": 64, "conns": 10, "depth": 1},
        {"mode": "pipeline", "size": 64, "conns": 100, "depth": 16},
        {"mode": "pingpong", "size": 65536, "conns": 10, "depth": 1},
        {"mode": "stream", "size": 65536, "conns": 1, "depth": 1},
    ]


def row_key(r):
    return (r["mode"], r["size"], r["conns"], r["depth"])


def row_name(r):
    size = SIZE_NAMES.get(r["size"], "%d B" % r["size"])
    if r["mode"] == "pingpong":
        return "ping-pong %s x%d" % (size, r["conns"])
    if r["mode"] == "pipeline":
        return "pipelined %s x%d, %d in flight" % (size, r["conns"], r["depth"])
    if r["mode"] == "connect":
        return "new connections/s, full handshake, x%d" % r["conns"]
    if r["mode"] == "resume":
        return "new connections/s, resumed handshake, x%d" % r["conns"]
    return "streaming %s x%d" % (size, r["conns"])


def log(msg):
    print(msg, file=sys.stderr, flush=True)


def pin(cpu):
    if cpu is None or shutil.which("taskset") is None:
        return []
    return ["taskset", "-c", str(cpu)]


def wait_listening(port, proc, timeout=5.0):
    end = time.time() + timeout
    while time.time() < end:
        if proc.poll() is not None:
            return False
        try:
            with socket.create_connection(("127.0.0.1", port), timeout=0.2):
                return True
        except OSError:
            time.sleep(0.05)
    return False


class Server:
    """One running server process (echo or sink) on its own port."""

    def __init__(self, label, path, extra, port, sink, cpu):
        self.label, self.path, self.extra, self.port, self.sink, self.cpu = label, path, extra, port, sink, cpu
        self.proc = None

    def start(self):
        env = dict(os.environ)
        args = []
        for e in self.extra:
            if e.startswith("ENV:"):
                key, value = e[4:].split("=", 1)
                env[key] = value
            else:
                args.append(e)
        cmd = pin(self.cpu) + [self.path, "--port", str(self.port)] + args + (["--sink"] if self.sink else [])
        self.proc = subprocess.Popen(cmd, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env=env)
        if not wait_listening(self.port, self.proc):
            self.stop()
            return False
        return True

    def alive(self):
        return self.proc is not None and self.proc.poll() is None

    def cpu_ticks(self):
        """(user, kernel) CPU time the server has used so far, in clock ticks; None if unknown."""
        try:
            with open("/proc/%d/stat" % self.proc.pid) as f:
                fields = f.read().rsplit(")", 1)[1].split()
            return int(fields[11]), int(fields[12])  # utime, stime
        except (OSError, IndexError, ValueError, AttributeError):
            return None

    def stop(self):
        if self.proc is None:
            return
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            try:
                self.proc.wait(timeout=3)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        self.proc = None


def run_client(args, client, port, label, row, warmup, duration, client_extra=()):
    cmd = pin(args.client_cpu) + [client, "--port", str(port), "--label", label, "--mode", row["mode"],
                                  "--size", str(row["size"]), "--conns", str(row["conns"]),
                                  "--depth", str(row["depth"]), "--warmup", str(warmup),
                                  "--duration", str(duration)] + list(client_extra)
    try:
        out = subprocess.run(cmd, capture_output=True, text=True, timeout=warmup + duration + 30)
    except subprocess.TimeoutExpired:
        return None, "client timed out"
    if out.returncode != 0:
        return None, out.stderr.strip()
    return json.loads(out.stdout.strip().splitlines()[-1]), None


def run_iperf3(args, port, warmup, duration):
    """One loopback iperf3 run; MiB/s received. Writes of --iperf-len bytes (default 1 MiB:
    with 64 KiB writes iperf3's own per-write work, not the loopback, limits it)."""
    t = max(1, int(round(duration)))
    omit = 1 if warmup >= 0.5 else 0
    cmd = pin(args.client_cpu) + ["iperf3", "-c", "127.0.0.1", "-p", str(port), "-t", str(t), "-O", str(omit),
                                  "-l", args.iperf_len, "-J"]
    try:
        out = subprocess.run(cmd, capture_output=True, text=True, timeout=t + omit + 30)
        d = json.loads(out.stdout)
        return d["end"]["sum_received"]["bits_per_second"] / 8 / 2 ** 20
    except (subprocess.TimeoutExpired, ValueError, KeyError):
        return None


def ensure_built(args):
    build = args.build_dir
    targets = ["bench_client", "bench_server_epoll", "bench_server_libevent", "bench_server_asio",
               "bench_server_quolnet", "bench_server_uring", "bench_server_asio_tls"]
    if args.no_build:
        return
    # Configure every time (cheap) so that targets added since the last configure exist.
    subprocess.run(["cmake", "-S", ROOT, "-B", build] +
                   ([] if os.path.exists(os.path.join(build, "CMakeCache.txt")) else ["-DCMAKE_BUILD_TYPE=Release"]),
                   check=True, stdout=subprocess.DEVNULL)
    # Targets whose library is missing do not exist; build each one that does.
    listing = subprocess.run(["cmake", "--build", build, "--target", "help"], capture_output=True, text=True).stdout
    present = [t for t in targets if re.search(r"(^|\s)%s(:|\s|$)" % re.escape(t), listing, re.M)]
    subprocess.run(["cmake", "--build", build, "--target"] + present + ["-j2"], check=True, stdout=subprocess.DEVNULL)


def machine_description():
    cpu = "unknown"
    try:
        with open("/proc/cpuinfo") as f:
            for line in f:
                if line.startswith("model name"):
                    cpu = line.split(":", 1)[1].strip()
                    break
    except OSError:
        pass
    commit = subprocess.run(["git", "-C", ROOT, "rev-parse", "--short", "HEAD"], capture_output=True,
                            text=True).stdout.strip()
    return {"cpu": cpu, "cores": os.cpu_count(), "kernel": platform.release(), "commit": commit,
            "date": datetime.datetime.now().strftime("%Y-%m-%d %H:%M")}


def count_syscalls(args, path, extra, label, row, client, port):
    """Syscalls the server makes per packet during an untimed client run, by perf's
    raw_syscalls:sys_enter counter when permitted, else strace -c -f."""
    srv = Server(label, path, extra, port, row["mode"] == "stream", args.server_cpu)
    if not srv.start():
        return None, "server did not start"
    pid = srv.proc.pid
    use_perf = shutil.which("perf") is not None
    tracer = None
    try:
        if use_perf:
            tracer = subprocess.Popen(["perf", "stat", "-x,", "-e", "raw_syscalls:sys_enter", "-p", str(pid)],
                                      stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
        else:
            tracer = subprocess.Popen(["strace", "-c", "-f", "-p", str(pid)], stdout=subprocess.DEVNULL,
                                      stderr=subprocess.PIPE, text=True)
        time.sleep(0.5)  # let the tracer attach
        res, err = run_client(args, client, port, label, row, 0.0, args.syscall_duration)
        time.sleep(0.1)
        tracer.send_signal(signal.SIGINT)
        _, trace_err = tracer.communicate(timeout=10)
        if res is None:
            return None, err
        total = None
        if use_perf:
            for line in trace_err.splitlines():
                parts = line.split(",")
                if len(parts) > 2 and "raw_syscalls:sys_enter" in line and parts[0].strip().isdigit():
                    total = int(parts[0])
        else:
            for line in trace_err.splitlines():
                parts = line.split()
                if parts and parts[-1] == "total" and len(parts) >= 4:
                    total = int(parts[2])
        if total is None or res["total_packets"] == 0:
            return None, "no count"
        return total / res["total_packets"], None
    finally:
        if tracer is not None and tracer.poll() is None:
            tracer.kill()
            tracer.wait()
        srv.stop()


CLK_TCK = os.sysconf("SC_CLK_TCK") if hasattr(os, "sysconf") else 100


def add_cpu_per_packet(res, before, after):
    """Adds the server's user and kernel CPU time per packet (ns) over the whole client run,
    warm-up included (total_packets counts the warm-up's packets too)."""
    n = res.get("total_packets")
    if before is None or after is None or not n:
        return
    res["srv_user_ns"] = (after[0] - before[0]) * 1e9 / CLK_TCK / n
    res["srv_sys_ns"] = (after[1] - before[1]) * 1e9 / CLK_TCK / n


def fmt_num(v):
    if v is None:
        return "-"
    if v >= 1e6:
        return "%.2fM" % (v / 1e6)
    if v >= 1e4:
        return "%.0fk" % (v / 1e3)
    if v >= 100:
        return "%.0f" % v
    return "%.1f" % v


def summarize(samples):
    if not samples:
        return None
    return {"med": statistics.median(samples), "min": min(samples), "max": max(samples)}


def write_chart(outdir, prefix, rows, labels, results):
    pp = [r for r in rows if r["mode"] == "pingpong"]
    if not pp:
        return None
    conns_avail = sorted({r["conns"] for r in pp})
    conns = 100 if 100 in conns_avail else conns_avail[-1]
    sizes = sorted({r["size"] for r in pp if r["conns"] == conns})
    dat = os.path.join(outdir, prefix + "mib_s.dat")
    with open(dat, "w") as f:
        f.write("# size " + " ".join(labels) + "\n")
        for s in sizes:
            key = ("pingpong", s, conns, 1)
            vals = []
            for lab in labels:
                m = summarize([x["mib_s"] for x in results.get((key, lab), [])])
                vals.append("%.3f" % m["med"] if m else "NaN")
            f.write("\"%s\" %s\n" % (SIZE_NAMES.get(s, str(s)), " ".join(vals)))
    if shutil.which("gnuplot") is None and os.geteuid() == 0 and shutil.which("apt-get"):
        log("installing gnuplot-nox for the chart")
        subprocess.run(["apt-get", "install", "-y", "gnuplot-nox"], stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL)
    if shutil.which("gnuplot") is None:
        log("gnuplot not available: chart skipped (data in %s)" % dat)
        return None
    png = os.path.join(outdir, prefix + "mib_s.png")
    plot_columns(png, "900,540", dat, labels,
                 "set title 'Echo ping-pong, %d connections: MiB/s per packet size'\n"
                 "set ylabel 'MiB/s (echoed, one direction)'\nset logscale y\nset grid\n"
                 "set key left top\n" % conns)
    return png


def plot_columns(png, size, dat, labels, settings):
    """Draws `dat` (a quoted x label per line, then one column per label) as lines into
    `png` with gnuplot, after its `settings`."""
    plots = ", ".join("'%s' using %d:xtic(1) with linespoints title '%s'" % (dat, i + 2, lab)
                      for i, lab in enumerate(labels))
    script = "set terminal png size %s\nset output '%s'\n%sset datafile missing 'NaN'\nplot %s\n" % (
        size, png, settings, plots)
    subprocess.run(["gnuplot"], input=script, text=True, check=False)


def paired_to_reference(rows, labels, results):
    """For every row and every server but the reference: the per-run ratios (run k of the
    server over run k of the reference) of packets/s and of the reference's CPU per packet
    over the server's (above 1: the server needs less). Returns {(row key, label): (pps
    ratios, cpu ratios)}."""
    out = {}
    for r in rows:
        key = row_key(r)
        ref = {x["run"]: x for x in results.get((key, REFERENCE), [])}
        for lab in labels:
            if lab == REFERENCE:
                continue
            pps, cpu = [], []
            for x in results.get((key, lab), []):
                y = ref.get(x["run"])
                if y is None or y["pps"] <= 0:
                    continue
                pps.append(x["pps"] / y["pps"])
                cx = x.get("srv_user_ns", 0) + x.get("srv_sys_ns", 0)
                cy = y.get("srv_user_ns", 0) + y.get("srv_sys_ns", 0)
                if cx > 0 and cy > 0:
                    cpu.append(cy / cx)
            if pps:
                out[(key, lab)] = (pps, cpu)
    return out


def ratio_lines(rows, labels, paired):
    """The paired ratios to the reference as a table: packets/s, then CPU per packet."""
    others = [lab for lab in labels if lab != REFERENCE]
    if not others or not paired:
        return []

    def cell(v):
        return "%.2f [%.2f-%.2f]" % (statistics.median(v), min(v), max(v)) if v else "-"

    lines = ["| scenario | " + " | ".join("%s pkt/s, CPU" % lab for lab in others) + " |",
             "| --- |" + " ---: |" * len(others)]
    for r in rows:
        cells = []
        for lab in others:
            p = paired.get((row_key(r), lab))
            cells.append("-" if p is None else "%s, %s" % (cell(p[0]), cell(p[1])))
        lines.append("| %s | %s |" % (row_name(r), " | ".join(cells)))
    return lines


def write_ratio_chart(outdir, prefix, rows, labels, paired):
    """Each server's paired median packets/s ratio to the reference per row, on a linear
    scale (the log-scale MiB/s chart hides differences of 10-30%)."""
    others = [lab for lab in labels if lab != REFERENCE]
    if not others or not paired:
        return None
    dat = os.path.join(outdir, prefix + "ratio.dat")
    with open(dat, "w") as f:
        f.write("# row " + " ".join(others) + "\n")
        for r in rows:
            vals = []
            for lab in others:
                p = paired.get((row_key(r), lab))
                vals.append("%.3f" % statistics.median(p[0]) if p else "NaN")
            f.write("\"%s\" %s\n" % (row_name(r).replace("ping-pong ", "pp ").replace(", 16 in flight", ""),
                                       " ".join(vals)))
    if shutil.which("gnuplot") is None:
        return None
    png = os.path.join(outdir, prefix + "ratio.png")
    plot_columns(png, "1000,560", dat, others,
                 "set title 'packets/s over %s, paired median per row'\n"
                 "set ylabel 'ratio'\nset grid\nset xtics rotate by -40\nset key outside right\n"
                 "set arrow from graph 0, first 1 to graph 1, first 1 nohead\n" % REFERENCE)
    return png


def summary_lines(rows, labels, medians):
    """One line per scenario: each server's median packets/s, with its ratio to the reference.
    `medians` maps (row key, label) to the median packets/s."""
    lines = ["| scenario | " + " | ".join(labels) + " |", "| --- |" + " ---: |" * len(labels)]
    for r in rows:
        key = row_key(r)
        ref = medians.get((key, REFERENCE))
        cells = []
        for lab in labels:
            v = medians.get((key, lab))
            if v is None:
                cells.append("-")
            elif lab == REFERENCE or not ref:
                cells.append(fmt_num(v))
            else:
                cells.append("%s (%.2fx)" % (fmt_num(v), v / ref))
        lines.append("| %s | %s |" % (row_name(r), " | ".join(cells)))
    return lines


def paired_lines(rows, labels, results):
    """The goal rows again, as paired ratios: run k of a row visits every server back to back,
    so quolnet's better mode over a peer within one run cancels the machine's slow drift.
    Cells: the median of those per-run ratios [min-max]."""
    quolnets = [lab for lab in labels if lab.startswith("quolnet")]
    peers = [lab for lab in ("asio", "libevent", "epoll") if lab in labels]
    if not quolnets or not peers:
        return []
    out = []
    for r in rows:
        if r["mode"] == "stream" or r["conns"] < 10:
            continue
        key = row_key(r)
        by_run = {}
        for lab in quolnets + peers:
            for x in results.get((key, lab), []):
                by_run.setdefault(x["run"], {})[lab] = x["pps"]
        cells = []
        for p in peers:
            ratios = [max(v[q] for q in quolnets if q in v) / v[p] for v in by_run.values()
                      if p in v and v[p] > 0 and any(q in v for q in quolnets)]
            cells.append("%.2f [%.2f-%.2f]" % (statistics.median(ratios), min(ratios), max(ratios))
                         if ratios else "-")
        out.append("| %s | %s |" % (row_name(r), " | ".join(cells)))
    if not out:
        return []
    return ["| scenario | " + " | ".join("quolnet / " + p for p in peers) + " |",
            "| --- |" + " ---: |" * len(peers)] + out


def goal_lines(rows, labels, results, iperf):
    """The goals, from the medians of this run. quolnet's better mode is, per row, the higher
    median of its servers (Peek/Drop or callback). Goal rows: ping-pong and pipelined with 10
    or more connections."""
    def med(key, lab, field="pps"):
        m = summarize([x[field] for x in results.get((key, lab), [])])
        return m["med"] if m else None

    quolnets = [lab for lab in labels if lab.startswith("quolnet")]
    peers = [lab for lab in ("asio", "libevent") if lab in labels]
    if not quolnets:
        return ["- no quolnet results: goals not evaluated"]
    checks = {"peer": [], "epoll": [], "pipelined": []}
    for r in rows:
        if r["mode"] == "stream" or r["conns"] < 10:
            continue
        key = row_key(r)
        qs = [(med(key, q), q) for q in quolnets if med(key, q) is not None]
        if not qs:
            continue
        q, qlab = max(qs)
        ps = [(med(key, p), p) for p in peers if med(key, p)]
        if ps:
            best, plab = max(ps)
            checks["peer"].append((q / best, row_name(r), qlab, plab))
            if r["mode"] == "pipeline":
                checks["pipelined"].append((q / best, row_name(r), qlab, plab))
        e = med(key, "epoll")
        if e:
            checks["epoll"].append((q / e, row_name(r), qlab, "epoll"))
    out = []

    def verdict(name, entries, bound):
        if not entries:
            return
        worst = min(entries)
        missed = [e for e in entries if e[0] < bound]
        line = "- %s: %s; lowest %.2fx (%s, %s vs %s)" % (
            name, "met" if not missed else "NOT met on %d of %d rows" % (len(missed), len(entries)),
            worst[0], worst[1], worst[2], worst[3])
        if missed:
            line += "; below: " + ", ".join("%s %.3fx" % (e[1], e[0]) for e in sorted(missed))
        out.append(line)

    verdict("quolnet's better mode at or above the best of %s (ping-pong and pipelined, >= 10 "
            "connections)" % " and ".join(peers), checks["peer"], 1.0)
    verdict("at least 0.95x the hand-written epoll loop on those rows", checks["epoll"], 0.95)
    verdict("at least 1.1x the best peer on the pipelined rows", checks["pipelined"], 1.1)
    st = [r for r in rows if r["mode"] == "stream"]
    if st and iperf:
        qs = [(med(row_key(st[0]), q, "mib_s"), q) for q in quolnets if med(row_key(st[0]), q, "mib_s")]
        ip = statistics.median(iperf)
        if qs:
            q, qlab = max(qs)
            out.append("- streaming at or above 0.95x iperf3: %s (%s %.0f vs %.0f MiB/s, %.2fx)" % (
                "met" if q >= 0.95 * ip else "NOT met", qlab, q, ip, q / ip))
    return out


def write_report(args, outdir, prefix, rows, labels, results, iperf, syscalls, machine, failures):
    title = " (quick)" if args.quick else (" (rows %s)" % args.rows if getattr(args, "rows", None) else "")
    lines = ["# quolnet echo benchmarks" + title, ""]
    lines.append("Machine: %s, %s cores, kernel %s; commit %s; %s." % (
        machine["cpu"], machine["cores"], machine["kernel"], machine["commit"], machine["date"]))
    lines.append("Server pinned to CPU %s, client to CPU %s; %d runs per cell (A/B interleaved), "
                 "warm-up %.2f s then %.2f s measured per run; cells show the median [min-max]."
                 % (args.server_cpu, args.client_cpu, args.runs, args.warmup, args.duration))
    lines.append("Ratio: the server's median packets/s over %s's. Syscalls/pkt: server syscalls per "
                 "echoed packet in an untimed run (`--syscalls`)." % REFERENCE)
    lines.append("")
    lines.append("Summary: median packets/s, in parentheses the ratio to %s." % REFERENCE)
    lines.append("")
    medians = {}
    for r in rows:
        for lab in labels:
            m = summarize([x["pps"] for x in results.get((row_key(r), lab), [])])
            if m is not None:
                medians[(row_key(r), lab)] = m["med"]
    lines += summary_lines(rows, labels, medians)
    lines.append("")
    lines.append("All figures:")
    lines.append("")
    lines.append("| scenario | server | packets/s | MiB/s | p50 us | p99 us | vs %s | syscalls/pkt |" % REFERENCE)
    lines.append("| --- | --- | ---: | ---: | ---: | ---: | ---: | ---: |")
    for r in rows:
        key = row_key(r)
        ref = summarize([x["pps"] for x in results.get((key, REFERENCE), [])])
        for lab in labels:
            res = results.get((key, lab), [])
            pps = summarize([x["pps"] for x in res])
            mib = summarize([x["mib_s"] for x in res])
            if pps is None:
                cell = "failed" if (key, lab) in failures else "-"
                lines.append("| %s | %s | %s | | | | | |" % (row_name(r), lab, cell))
                continue
            p50 = statistics.median([x["p50_us"] for x in res])
            p99 = statistics.median([x["p99_us"] for x in res])
            lat = r["mode"] != "stream"
            ratio = "%.2fx" % (pps["med"] / ref["med"]) if ref and ref["med"] > 0 else "-"
            sc = syscalls.get((key, lab))
            lines.append("| %s | %s | %s [%s-%s] | %s [%s-%s] | %s | %s | %s | %s |" % (
                row_name(r), lab, fmt_num(pps["med"]), fmt_num(pps["min"]), fmt_num(pps["max"]),
                fmt_num(mib["med"]), fmt_num(mib["min"]), fmt_num(mib["max"]),
                "%.1f" % p50 if lat else "-", "%.1f" % p99 if lat else "-", ratio,
                "%.2f" % sc if sc is not None else "-"))
    if iperf:
        ip = summarize(iperf)
        lines.append("| streaming, one connection | iperf3 -l %s (reference) | | %s [%s-%s] | | | | |" % (
            args.iperf_len, fmt_num(ip["med"]), fmt_num(ip["min"]), fmt_num(ip["max"])))
    if syscalls:
        lines.append("")
        lines.append("Syscalls per packet (untimed runs):")
        lines.append("")
        lines.append("| scenario | " + " | ".join(labels) + " |")
        lines.append("| --- |" + " ---: |" * len(labels))
        for r in syscall_rows() + [x for x in rows if x not in syscall_rows()]:
            key = row_key(r)
            if not any((key, lab) in syscalls for lab in labels):
                continue  # a row this run did not count
            cells = ["%.2f" % syscalls[(key, lab)] if (key, lab) in syscalls else "-" for lab in labels]
            lines.append("| %s | %s |" % (row_name(r), " | ".join(cells)))
    cpu_lines = cpu_table(rows, labels, results)
    if cpu_lines:
        lines.append("")
        lines.append("Server CPU per packet, median ns, user + kernel (from /proc/PID/stat over each timed "
                     "run, warm-up included; %d ticks a second, so a cell is good to a few percent). "
                     "The user share is the server's own code; the kernel's share is its syscalls, "
                     "mostly the loopback TCP work every server causes alike:" % CLK_TCK)
        lines.append("")
        lines += cpu_lines
    lines.append("")
    lines.append("## Goals (reported, not asserted)")
    lines.append("")
    lines += goal_lines(rows, labels, results, iperf)
    to_ref = paired_to_reference(rows, labels, results)
    ratios = ratio_lines(rows, labels, to_ref)
    if ratios:
        lines.append("")
        lines.append("Every server against %s, paired per run (run k over run k): packets/s, then %s's "
                     "CPU per packet over the server's (above 1: the server needs less). Median "
                     "[min-max]; chart: %sratio.png." % (REFERENCE, REFERENCE, prefix))
        lines.append("")
        lines += ratios
        write_ratio_chart(outdir, prefix, rows, labels, to_ref)
    paired = paired_lines(rows, labels, results)
    if paired:
        lines.append("")
        lines.append("The same rows as paired ratios: within run k every server is measured back to back, "
                     "so quolnet's better mode over a peer in the same run cancels the machine's drift "
                     "between runs. Median of the per-run ratios [min-max]:")
        lines.append("")
        lines += paired
    if failures:
        lines.append("")
        lines.append("Failed runs:")
        lines.append("")
        for (key, lab), errs in sorted(failures.items()):
            lines.append("- %s %s: %s" % (lab, key, errs[0][:200]))
    path = os.path.join(outdir, prefix + "report.md")
    with open(path, "w") as f:
        f.write("\n".join(lines) + "\n")
    return path


def cpu_table(rows, labels, results):
    """One line per scenario: each server's median user + kernel ns per packet. Empty when the
    raw data has no CPU figures (runs made before they were recorded)."""
    out = []
    for r in rows:
        cells, seen = [], False
        for lab in labels:
            res = [x for x in results.get((row_key(r), lab), []) if "srv_user_ns" in x]
            if not res:
                cells.append("-")
                continue
            seen = True
            u = statistics.median([x["srv_user_ns"] for x in res])
            k = statistics.median([x["srv_sys_ns"] for x in res])
            cells.append("%s + %s" % (fmt_num(u), fmt_num(k)))
        if seen:
            out.append("| %s | %s |" % (row_name(r), " | ".join(cells)))
    if not out:
        return []
    return ["| scenario | " + " | ".join(labels) + " |", "| --- |" + " ---: |" * len(labels)] + out


def save_extras(outdir, prefix, args, labels, iperf, syscalls, machine, failures):
    """What the report needs beside raw.jsonl, so that --report-only can rewrite it."""
    extras = {
        "args": {k: getattr(args, k, None) for k in ("quick", "rows", "runs", "warmup", "duration", "server_cpu",
                                                      "client_cpu", "iperf_len", "tls", "tls_cert")},
        "labels": labels, "iperf": iperf, "machine": machine,
        "syscalls": [[list(k), lab, v] for (k, lab), v in syscalls.items()],
        "failures": [[list(k), lab, errs] for (k, lab), errs in failures.items()],
    }
    with open(os.path.join(outdir, prefix + "extras.json"), "w") as f:
        json.dump(extras, f, indent=1)


def report_only(args):
    prefix = output_prefix(args)
    with open(os.path.join(args.out, prefix + "extras.json")) as f:
        extras = json.load(f)
    for k, v in extras["args"].items():
        setattr(args, k, v)
    rows = selected_rows(args)
    results = {}
    with open(os.path.join(args.out, prefix + "raw.jsonl")) as f:
        for line in f:
            res = json.loads(line)
            key = (res["mode"], res["size"], res["conns"], res["depth"])
            results.setdefault((key, res["server"]), []).append(res)
    syscalls = {(tuple(k), lab): v for k, lab, v in extras["syscalls"]}
    failures = {(tuple(k), lab): errs for k, lab, errs in extras["failures"]}
    if args.tls:
        log("rewrote " + write_tls_report(args, args.out, prefix, rows, extras["labels"], results,
                                          extras["machine"], failures))
        return
    report = write_report(args, args.out, prefix, rows, extras["labels"], results, extras["iperf"], syscalls,
                          extras["machine"], failures)
    write_chart(args.out, prefix, rows, extras["labels"], results)
    log("rewrote " + report)

def tls_credentials(args, outdir):
    """The certificate and key both TLS servers load: an ECDSA P-256 self-signed pair made with
    the openssl command into `outdir` (the build directory's bench/, reused when present). Returns the servers' TLS arguments
    and a description for the report; without the openssl command each server makes its own
    pair in memory (--tls)."""
    cert, key = os.path.join(outdir, "tls-cert.pem"), os.path.join(outdir, "tls-key.pem")
    if not (os.path.exists(cert) and os.path.exists(key)) and shutil.which("openssl"):
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
                        "-nodes", "-keyout", key, "-out", cert, "-days", "3650", "-subj", "/CN=localhost"],
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False)
    if os.path.exists(cert) and os.path.exists(key):
        return ["--tls-cert", cert, "--tls-key", key], "the same ECDSA P-256 self-signed certificate (files)"
    return ["--tls"], "an ECDSA P-256 self-signed certificate each server makes in memory"


def run_client_measured(args, client, srv, label, row, client_extra):
    """run_client with --mark: the server's CPU ticks are also sampled when the client says its
    measured time begins, so res gets srv_meas_user_ns / srv_meas_sys_ns, the server's CPU per
    measured packet without the handshakes and the warm-up."""
    cmd = pin(args.client_cpu) + [client, "--port", str(srv.port), "--label", label, "--mode", row["mode"],
                                  "--size", str(row["size"]), "--conns", str(row["conns"]),
                                  "--depth", str(row["depth"]), "--warmup", str(args.warmup),
                                  "--duration", str(args.duration), "--mark"] + list(client_extra)
    before = srv.cpu_ticks()
    proc = subprocess.Popen(cmd, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    watchdog = threading.Timer(args.warmup + args.duration + 30, proc.kill)
    watchdog.start()
    try:
        mark, err_lines = None, []
        for line in proc.stderr:
            if line.strip() == "measuring" and mark is None:
                mark = srv.cpu_ticks()
                break
            err_lines.append(line)
        out, rest = proc.communicate()
        end = srv.cpu_ticks()
    finally:
        watchdog.cancel()
    err = ("".join(err_lines) + rest).strip()
    if proc.returncode != 0:
        return None, err or "client failed (status %d)" % proc.returncode
    res = json.loads(out.strip().splitlines()[-1])
    add_cpu_per_packet(res, before, end)
    if mark is not None and end is not None and res.get("packets"):
        res["srv_meas_user_ns"] = (end[0] - mark[0]) * 1e9 / CLK_TCK / res["packets"]
        res["srv_meas_sys_ns"] = (end[1] - mark[1]) * 1e9 / CLK_TCK / res["packets"]
    return res, None


def tls_ratio_cell(rows_by_run, num, den):
    """Median [min-max] of the per-run ratios num/den (the same run index); '-' when none."""
    ratios = [v[num] / v[den] for v in rows_by_run.values() if num in v and den in v and v[den] > 0]
    if not ratios:
        return "-"
    return "%.2f [%.2f-%.2f]" % (statistics.median(ratios), min(ratios), max(ratios))


def write_tls_report(args, outdir, prefix, rows, labels, results, machine, failures):
    lines = ["# quolnet TLS echo benchmarks", ""]
    lines.append("Machine: %s, %s cores, kernel %s; commit %s; %s." % (
        machine["cpu"], machine["cores"], machine["kernel"], machine["commit"], machine["date"]))
    lines.append("Server pinned to CPU %s, client to CPU %s; %d runs per cell (A/B interleaved), "
                 "warm-up %.2f s then %.2f s measured per run; cells show the median [min-max]."
                 % (args.server_cpu, args.client_cpu, args.runs, args.warmup, args.duration))
    lines.append("TLS: OpenSSL %s, TLS 1.3 only, TLS_AES_128_GCM_SHA256 on every side, key exchange by "
                 "OpenSSL's default group; servers load %s and issue one session ticket per handshake. "
                 "The client does not verify the certificate. Echo rows: handshakes before the warm-up. "
                 "Connection rows: each of 10 client slots connects, handshakes, echoes 64 B and resets, "
                 "over and over; the resumed row offers the ticket of one untimed first connection every "
                 "time. quolnet-plain runs the full-handshake row as plain TCP (connect, echo, reset) and "
                 "has no resumed row." % (machine.get("openssl", "?"), machine.get("tls_cert", "?")))
    lines.append("")
    lines.append("Packets/s (connections/s on the connection rows; MiB/s in parentheses on the streaming row):")
    lines.append("")
    lines.append("| scenario | " + " | ".join(labels) + " |")
    lines.append("| --- |" + " ---: |" * len(labels))
    for r in rows:
        cells = []
        for lab in labels:
            res = results.get((row_key(r), lab), [])
            pps = summarize([x["pps"] for x in res])
            if pps is None:
                cells.append("failed" if (row_key(r), lab) in failures else "-")
                continue
            cell = "%s [%s-%s]" % (fmt_num(pps["med"]), fmt_num(pps["min"]), fmt_num(pps["max"]))
            if r["mode"] == "stream":
                cell += " (%s MiB/s)" % fmt_num(summarize([x["mib_s"] for x in res])["med"])
            cells.append(cell)
        lines.append("| %s | %s |" % (row_name(r), " | ".join(cells)))
    lines.append("")
    lines.append("Ratios: the ratio of the medians, then the median [min-max] of the per-run ratios (run k of "
                 "a row measures every server back to back, so the machine's drift between runs cancels). "
                 "The resumed row's plain figure is the plain full row's (plain TCP has no resumption).")
    lines.append("")
    pairs = [(q, d) for q, d in (("quolnet-tls", "asio-tls"), ("quolnet-tls-cb", "asio-tls"),
                                 ("quolnet-tls-hs0", "asio-tls"), ("quolnet-tls", "quolnet-plain"))
             if q in labels and d in labels]
    lines.append("| scenario | " + " | ".join("%s / %s" % p for p in pairs) + " |")
    lines.append("| --- |" + " ---: |" * len(pairs))
    for r in rows:
        cells = []
        for q, d in pairs:
            dkey = row_key(r)
            if d == "quolnet-plain" and r["mode"] == "resume":
                dkey = ("connect", r["size"], r["conns"], r["depth"])
            by_run = {}
            for x in results.get((row_key(r), q), []):
                by_run.setdefault(x["run"], {})["num"] = x["pps"]
            for x in results.get((dkey, d), []):
                by_run.setdefault(x["run"], {})["den"] = x["pps"]
            nm = summarize([x["pps"] for x in results.get((row_key(r), q), [])])
            dm = summarize([x["pps"] for x in results.get((dkey, d), [])])
            med = "%.2f" % (nm["med"] / dm["med"]) if nm and dm and dm["med"] > 0 else "-"
            cells.append("%s; %s" % (med, tls_ratio_cell(by_run, "num", "den")))
        lines.append("| %s | %s |" % (row_name(r), " | ".join(cells)))
    cpu_lines = []
    for r in rows:
        cells = []
        for lab in labels:
            res = [x for x in results.get((row_key(r), lab), []) if "srv_meas_user_ns" in x]
            if not res:
                cells.append("-")
                continue
            u = statistics.median([x["srv_meas_user_ns"] for x in res])
            k = statistics.median([x["srv_meas_sys_ns"] for x in res])
            cells.append("%s + %s" % (fmt_num(u), fmt_num(k)))
        cpu_lines.append("| %s | %s |" % (row_name(r), " | ".join(cells)))
    lines.append("")
    lines.append("Server CPU per packet (per connection on the connection rows), median ns, user + kernel, over "
                 "the measured time alone (from /proc/PID/stat, sampled when the client's measured time "
                 "begins and after it ends; %d ticks a second, so a cell is good to a few percent):" % CLK_TCK)
    lines.append("")
    lines.append("| scenario | " + " | ".join(labels) + " |")
    lines.append("| --- |" + " ---: |" * len(labels))
    lines += cpu_lines
    client_lines = []
    for r in rows:
        cells = []
        for lab in labels:
            v = [x["client_cpu_pct"] for x in results.get((row_key(r), lab), []) if "client_cpu_pct" in x]
            cells.append("%.0f%%" % statistics.median(v) if v else "-")
        client_lines.append("| %s | %s |" % (row_name(r), " | ".join(cells)))
    lines.append("")
    lines.append("The client's CPU over the measured time, median share of its one core (near 100%: the client "
                 "may be what limits the row):")
    lines.append("")
    lines.append("| scenario | " + " | ".join(labels) + " |")
    lines.append("| --- |" + " ---: |" * len(labels))
    lines += client_lines
    stalled = sorted({(row_name(r), lab) for r in rows for lab in labels
                      for x in results.get((row_key(r), lab), []) if x.get("stalled_conns")})
    if stalled:
        lines.append("")
        lines.append("Runs where some connections completed no echo while measured: " +
                     ", ".join("%s on %s" % (lab, name) for name, lab in stalled))
    if failures:
        lines.append("")
        lines.append("Failed runs:")
        lines.append("")
        for (key, lab), errs in sorted(failures.items()):
            lines.append("- %s %s: %s" % (lab, key, errs[0][:200]))
    path = os.path.join(outdir, prefix + "report.md")
    with open(path, "w") as f:
        f.write("\n".join(lines) + "\n")
    return path


def run_tls(args, bindir, client):
    """The TLS rows (--tls): every TLS_SERVERS entry built, an echo and a sink instance each,
    visited A/B interleaved as the plain matrix is; writes tls-raw.jsonl, tls-extras.json and
    tls-report.md."""
    os.makedirs(args.out, exist_ok=True)
    tls_args, cert_desc = tls_credentials(args, os.path.join(args.build_dir, "bench"))
    wanted = set(args.servers.split(",")) if args.servers else None
    servers = [(lab, os.path.join(bindir, b), extra + (tls_args if tls else []), tls)
               for lab, b, extra, tls in TLS_SERVERS
               if os.path.exists(os.path.join(bindir, b)) and (wanted is None or lab in wanted)]
    if not servers:
        sys.exit("no TLS server built")
    labels = [s[0] for s in servers]
    speaks_tls = {s[0]: s[3] for s in servers}
    rows = selected_rows(args)
    prefix = output_prefix(args)
    log("servers: " + ", ".join(labels))
    est = len(rows) * len(labels) * args.runs * (args.warmup + args.duration + 0.3)
    log("%d scenarios x %d servers x %d runs: about %.0f min" % (len(rows), len(labels), args.runs, est / 60 + 0.5))
    running = {}
    port = args.base_port
    for lab, path, extra, _ in servers:
        for sink in (False, True):
            srv = Server(lab, path, extra, port, sink, args.server_cpu)
            port += 1
            if not srv.start():
                log("%s%s did not start" % (lab, " --sink" if sink else ""))
            running[(lab, sink)] = srv
    results, failures = {}, {}
    raw = open(os.path.join(args.out, prefix + "raw.jsonl"), "w")
    started = time.time()
    try:
        for i, r in enumerate(rows):
            key = row_key(r)
            log("[%d/%d] %s" % (i + 1, len(rows), row_name(r)))
            row_labels = [lab for lab in labels if speaks_tls[lab] or r["mode"] != "resume"]
            for run in range(args.runs):
                order = row_labels[run % len(row_labels):] + row_labels[:run % len(row_labels)]
                for lab in order:
                    srv = running[(lab, r["mode"] == "stream")]
                    if not srv.alive() and not srv.start():
                        failures.setdefault((key, lab), []).append("server not running")
                        continue
                    res, err = run_client_measured(args, client, srv, lab, r, ["--tls"] if speaks_tls[lab] else [])
                    if res is None:
                        failures.setdefault((key, lab), []).append(err or "client failed")
                        log("  %s run %d failed: %s" % (lab, run + 1, (err or "")[:200]))
                        srv.stop()
                        continue
                    res["run"] = run
                    raw.write(json.dumps(res) + "\n")
                    results.setdefault((key, lab), []).append(res)
    finally:
        for srv in running.values():
            srv.stop()
        raw.close()
    machine = machine_description()
    machine["tls_cert"] = cert_desc
    ver = subprocess.run(["openssl", "version"], capture_output=True, text=True).stdout.split() \
        if shutil.which("openssl") else []
    machine["openssl"] = ver[1] if len(ver) > 1 else "?"
    args.tls_cert = cert_desc
    save_extras(args.out, prefix, args, labels, [], {}, machine, failures)
    report = write_tls_report(args, args.out, prefix, rows, labels, results, machine, failures)
    log("done in %.0f s: %s" % (time.time() - started, report))
    with open(report) as f:
        print(f.read())


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--quick", action="store_true", help="small subset, under a minute")
    ap.add_argument("--syscalls", action="store_true", help="also count server syscalls per packet")
    ap.add_argument("--rows", help="only these rows of the full matrix, MODE:SIZE:CONNS comma-separated "
                                   "(e.g. pipeline:64:100,pingpong:65536:10); outputs get the prefix rows-")
    ap.add_argument("--runs", type=int, help="runs per cell (default 5, quick 3)")
    ap.add_argument("--warmup", type=float, help="seconds discarded per run (default 0.3, quick 0.15)")
    ap.add_argument("--duration", type=float, help="seconds measured per run (default 1.2, quick 0.3)")
    ap.add_argument("--syscall-duration", type=float, default=1.0, help="seconds of each syscall-count run")
    ap.add_argument("--servers", help="comma-separated labels (default: every one built)")
    ap.add_argument("--backend", action="store_true",
                    help="also quolnet on its io_uring back end (quolnet-uring), beside the others")
    ap.add_argument("--server-cpu", type=int, default=0)
    ap.add_argument("--client-cpu", type=int, default=1)
    ap.add_argument("--base-port", type=int, default=19100)
    ap.add_argument("--build-dir", default=os.path.join(ROOT, "build-bench"))
    ap.add_argument("--no-build", action="store_true", help="use the binaries already in --build-dir")
    ap.add_argument("--no-iperf", action="store_true", help="skip the iperf3 reference")
    ap.add_argument("--iperf-len", default="1M", help="iperf3 write length (-l), default 1M")
    ap.add_argument("--out", default=os.path.join(ROOT, "bench", "results"))
    ap.add_argument("--report-only", action="store_true",
                    help="rewrite report.md and the chart from the raw.jsonl and extras.json of an earlier run")
    ap.add_argument("--tls", action="store_true",
                    help="the TLS rows: quolnet over TLS against Asio over asio::ssl, and quolnet plain "
                         "(outputs prefixed tls-)")
    ap.add_argument("--threads", type=int, default=1,
                    help="event loops of the quolnet servers (CConnectorGroup when above 1); the server "
                         "is then pinned to CPUs 0..N-1 instead of --server-cpu")
    args = ap.parse_args()
    args.runs = args.runs or (3 if args.quick else 5)
    args.warmup = args.warmup if args.warmup is not None else (0.15 if args.quick else 0.3)
    args.duration = args.duration or (0.3 if args.quick else 1.2)
    if (os.cpu_count() or 1) < 2:
        args.server_cpu = args.client_cpu = None
    if args.report_only:
        return report_only(args)

    ensure_built(args)
    bindir = os.path.join(args.build_dir, "bench")
    client = os.path.join(bindir, "bench_client")
    if not os.path.exists(client):
        sys.exit("bench_client not built in %s" % bindir)
    if args.tls:
        return run_tls(args, bindir, client)
    wanted = set(args.servers.split(",")) if args.servers else None
    table = SERVERS + (BACKEND_SERVERS if args.backend else [])
    servers = [(lab, os.path.join(bindir, b), extra) for lab, b, extra in table
               if os.path.exists(os.path.join(bindir, b)) and (wanted is None or lab in wanted)]
    if args.threads > 1:
        # quolnet's servers run N loops (same labels, so the report compares as usual); the
        # others stay single-threaded, as they are written.
        servers = [(lab, path, extra + ["--threads", str(args.threads)])
                   if os.path.basename(path) == "bench_server_quolnet" else (lab, path, extra)
                   for lab, path, extra in servers]
        if args.server_cpu is not None:
            args.server_cpu = "0-%d" % (min(args.threads, os.cpu_count() or 1) - 1)
    if not servers:
        sys.exit("no server built")
    labels = [s[0] for s in servers]
    log("servers: " + ", ".join(labels))
    rows = selected_rows(args)
    prefix = output_prefix(args)
    os.makedirs(args.out, exist_ok=True)
    est = len(rows) * len(labels) * args.runs * (args.warmup + args.duration + 0.06)
    log("%d scenarios x %d servers x %d runs: about %.0f min" % (len(rows), len(labels), args.runs, est / 60 + 0.5))

    # An echo and a sink instance of every server, started once for the whole matrix.
    running = {}
    port = args.base_port
    for lab, path, extra in servers:
        for sink in (False, True):
            srv = Server(lab, path, extra, port, sink, args.server_cpu)
            port += 1
            if not srv.start():
                log("%s%s did not start" % (lab, " --sink" if sink else ""))
            running[(lab, sink)] = srv
    results, failures = {}, {}
    raw = open(os.path.join(args.out, prefix + "raw.jsonl"), "w")
    started = time.time()
    try:
        for i, r in enumerate(rows):
            key = row_key(r)
            log("[%d/%d] %s" % (i + 1, len(rows), row_name(r)))
            for run in range(args.runs):
                order = labels[run % len(labels):] + labels[:run % len(labels)]
                for lab in order:
                    srv = running[(lab, r["mode"] == "stream")]
                    if not srv.alive() and not srv.start():
                        failures.setdefault((key, lab), []).append("server not running")
                        continue
                    before = srv.cpu_ticks()
                    res, err = run_client(args, client, srv.port, lab, r, args.warmup, args.duration)
                    if res is not None:
                        add_cpu_per_packet(res, before, srv.cpu_ticks())
                    if res is None:
                        failures.setdefault((key, lab), []).append(err or "client failed")
                        log("  %s run %d failed: %s" % (lab, run + 1, (err or "")[:200]))
                        srv.stop()  # restart it fresh for the next run
                        continue
                    res["run"] = run
                    raw.write(json.dumps(res) + "\n")
                    results.setdefault((key, lab), []).append(res)
    finally:
        for srv in running.values():
            srv.stop()
        raw.close()

    iperf = []
    if not args.no_iperf and any(r["mode"] == "stream" for r in rows):
        if shutil.which("iperf3") is None and os.geteuid() == 0 and shutil.which("apt-get"):
            log("installing iperf3")
            subprocess.run(["apt-get", "install", "-y", "iperf3"], stdout=subprocess.DEVNULL,
                           stderr=subprocess.DEVNULL)
        if shutil.which("iperf3"):
            log("iperf3 reference")
            ip_srv = subprocess.Popen(pin(args.server_cpu) + ["iperf3", "-s", "-p", str(port)],
                                      stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            try:
                if wait_listening(port, ip_srv):
                    time.sleep(0.2)
                    for _ in range(args.runs):
                        v = run_iperf3(args, port, args.warmup, args.duration)
                        if v is not None:
                            iperf.append(v)
            finally:
                ip_srv.terminate()
                ip_srv.wait()
            port += 1

    syscalls = {}
    if args.syscalls:
        for r in (rows if args.rows else syscall_rows()):
            for lab, path, extra in servers:
                log("syscalls: %s %s" % (lab, row_name(r)))
                v, err = count_syscalls(args, path, extra, lab, r, client, port)
                port += 1
                if v is not None:
                    syscalls[(row_key(r), lab)] = v
                else:
                    log("  failed: %s" % err)

    machine = machine_description()
    save_extras(args.out, prefix, args, labels, iperf, syscalls, machine, failures)
    report = write_report(args, args.out, prefix, rows, labels, results, iperf, syscalls, machine, failures)
    chart = write_chart(args.out, prefix, rows, labels, results)
    log("done in %.0f s: %s%s" % (time.time() - started, report, (", " + chart) if chart else ""))
    with open(report) as f:
        print(f.read())


if __name__ == "__main__":
    main()
