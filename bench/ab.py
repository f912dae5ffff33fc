#!/usr/bin/env python3
"""What each server does per echoed packet on one row, counted by the kernel over interleaved rounds.

    python3 bench/ab.py --row pingpong:64:1000 --servers quolnet-peek,quolnet-uring,epoll,uring --rounds 8

Every server (a label of run.py's, --backend ones included) is started once, pinned to CPU 0;
each round runs bench_client (pinned to CPU 1) against every server in turn, the order rotated
from round to round, and `perf stat -p` counts each server over all its rounds: CPU time
(task-clock; its user and kernel shares from /proc), context switches, system calls (all of them, and recv/send by name) and io_uring
submissions and completions. Printed per echoed packet (warm-ups included), with the CPU time of
the first server over each one's (above 1: it needs less).

run.py's CPU per packet samples /proc in 10 ms ticks and takes the median of per-run ratios;
this counts one total per server, which settles a 5% question in fewer runs. Connection set-up
and teardown are in both. Needs perf and leave to trace (root, or perf_event_paranoid <= 1).
Build first (run.py does, or: cmake --build build --target bench_client bench_server_quolnet ...).
"""
import argparse
import json
import os
import signal
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import run  # noqa: E402  (the servers' table and how to start one)

EVENTS = [
    ("task-clock", "cpu_ns"),
    ("context-switches", "cs"),
    ("raw_syscalls:sys_enter", "syscalls"),
    ("syscalls:sys_enter_recvfrom", "recv"),
    ("syscalls:sys_enter_recvmsg", "recvmsg"),
    ("syscalls:sys_enter_sendto", "send"),
    ("io_uring:io_uring_submit_req", "sqe"),
    ("io_uring:io_uring_complete", "cqe"),
]


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--row", required=True, help="MODE:SIZE:CONNS, e.g. pingpong:64:1000 (depth 16 when pipeline)")
    ap.add_argument("--servers", required=True, help="run.py labels, comma-separated; the first is the base")
    ap.add_argument("--rounds", type=int, default=8)
    ap.add_argument("--warmup", type=float, default=0.3)
    ap.add_argument("--duration", type=float, default=1.2)
    ap.add_argument("--build-dir", default=os.path.join(run.ROOT, "build"))
    ap.add_argument("--base-port", type=int, default=7600)
    args = ap.parse_args()

    mode, size, conns = args.row.split(":")
    table = {lab: (binary, extra) for lab, binary, extra in run.SERVERS + run.BACKEND_SERVERS}
    labels = args.servers.split(",")
    unknown = [lab for lab in labels if lab not in table]
    if unknown:
        sys.exit("unknown server: %s (known: %s)" % (", ".join(unknown), ", ".join(sorted(table))))
    bench = os.path.join(args.build_dir, "bench")
    client = os.path.join(bench, "bench_client")

    servers, stats = [], []
    try:
        for i, lab in enumerate(labels):
            binary, extra = table[lab]
            srv = run.Server(lab, os.path.join(bench, binary), extra, args.base_port + i, False, 0)
            if not srv.start():
                sys.exit("%s did not start" % lab)
            servers.append(srv)
        for srv in servers:
            out = "/tmp/ab-%d-%s.csv" % (os.getpid(), srv.label)
            cmd = ["perf", "stat", "-x,", "-o", out, "-e", ",".join(e for e, _ in EVENTS), "-p", str(srv.proc.pid)]
            stats.append((srv, out, subprocess.Popen(cmd, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)))
        time.sleep(0.3)
        ticks0 = {srv.label: srv.cpu_ticks() for srv in servers}
        packets = {lab: 0 for lab in labels}
        for r in range(args.rounds):
            for srv in servers[r % len(servers):] + servers[:r % len(servers)]:
                cmd = run.pin(1) + [client, "--port", str(srv.port), "--mode", mode, "--size", size,
                                    "--conns", conns, "--warmup", str(args.warmup), "--duration", str(args.duration)]
                if mode == "pipeline":
                    cmd += ["--depth", "16"]
                res = subprocess.run(cmd, capture_output=True, text=True)
                if res.returncode != 0:
                    sys.exit("%s: the client failed: %s" % (srv.label, res.stderr.strip()[:300]))
                packets[srv.label] += json.loads(res.stdout)["total_packets"]
        ticks1 = {srv.label: srv.cpu_ticks() for srv in servers}
        for _, _, proc in stats:
            proc.send_signal(signal.SIGINT)
        for _, _, proc in stats:
            proc.wait()
    finally:
        for srv in servers:
            srv.stop()

    counts = {}
    for srv, out, _ in stats:
        names = dict(EVENTS)
        got = {}
        with open(out) as f:
            for line in f:
                fields = line.strip().split(",")
                if len(fields) > 2 and fields[2] in names and fields[0] not in ("", "<not counted>", "<not supported>"):
                    got[names[fields[2]]] = float(fields[0]) * (1e6 if fields[2] == "task-clock" else 1)
        os.unlink(out)
        t0, t1 = ticks0[srv.label], ticks1[srv.label]
        if t0 and t1:  # the user / kernel split, from /proc in clock ticks
            tick_ns = 1e9 / os.sysconf("SC_CLK_TCK")
            got["user_ns"] = (t1[0] - t0[0]) * tick_ns
            got["sys_ns"] = (t1[1] - t0[1]) * tick_ns
        counts[srv.label] = {k: v / max(1, packets[srv.label]) for k, v in got.items()}

    print("%s, %d rounds of %.1f s + %.1f s warm-up; per echoed packet:" % (args.row, args.rounds, args.duration,
                                                                             args.warmup))
    cols = [c for _, c in EVENTS[:1]] + ["user_ns", "sys_ns"] + [c for _, c in EVENTS[1:]]
    print("| server | packets | " + " | ".join(cols) + " | CPU %s / this |" % labels[0])
    print("| --- | ---: | " + " | ".join("---:" for _ in cols) + " | ---: |")
    base = counts[labels[0]].get("cpu_ns")
    for lab in labels:
        c = counts[lab]
        cells = [("%.0f" % c[k] if k.endswith("_ns") else "%.3f" % c[k]) if k in c else "-" for k in cols]
        ratio = "%.3f" % (base / c["cpu_ns"]) if base and c.get("cpu_ns") else "-"
        print("| %s | %d | %s | %s |" % (lab, packets[lab], " | ".join(cells), ratio))


if __name__ == "__main__":
    main()
