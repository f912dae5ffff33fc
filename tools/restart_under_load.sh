#!/usr/bin/env bash
# restart_under_load.sh: restarts a running echo_server several times while restart_client keeps
# it busy, and reports what the clients saw around each restart.
#
# Usage: tools/restart_under_load.sh BUILD_DIR [--conns N] [--restarts R] [--interval SECONDS]
#            [--depth K] [--sizes LIST] [--idle N] [--slow-readers PERCENT] [--sndbuf BYTES]
#            [--threads LIST] [--exit-timeout SECONDS] [--keep]
#
# BUILD_DIR holds examples/echo_server and tools/restart_client. The run:
#   1. echo_server --listen tcp://127.0.0.1:PORT --handover DIR/handover.sock, on a free port
#      (with --threads LIST, each server in turn runs the next count of loops of LIST: a group
#      hands over to a group of another size, or to a single loop);
#   2. restart_client against it for the whole run (never re-establishes a connection, checks
#      every echoed byte, keeps half-sent packets at any moment); the restarts begin once every
#      connection is open and --interval seconds of load have passed;
#   3. R times: SIGUSR2 to the current server (it offers its listeners and connections on the
#      hand-over socket), a new echo_server with the same arguments plus --takeover SOCKET
#      (started once the socket exists), then waits at most --exit-timeout seconds for the old
#      one to exit and records its exit status and how long it took; the new one is current;
#      then --interval seconds of load before the next restart;
#   4. SIGTERM to the client (it stops sending, waits for the outstanding echoes and reports),
#      SIGTERM to the last server, and the summary: per restart the old server's exit status
#      and time to exit and the longest pause the clients saw from the signal until it exited
#      (from the client's timeline of 100 ms windows), then the client's totals.
#
# Exit status: 0 when the client exited 0 (no connection dropped or refused, every byte
# verified) and every old server exited 0 in time; 1 otherwise; 2 on bad arguments; 77 (skip)
# when echo_server has no --handover/--takeover. Every process it started is stopped on any
# exit. The logs stay in the run's directory under /tmp on failure (or with --keep).
set -u

prog=restart_under_load
usage() {
    echo "usage: $0 BUILD_DIR [--conns N] [--restarts R] [--interval SECONDS] [--depth K] [--sizes LIST]"
    echo "           [--idle N] [--slow-readers PERCENT] [--sndbuf BYTES] [--threads LIST] [--exit-timeout SECONDS]"
    echo "           [--keep]"
    echo "  --conns N              client connections (default 1000)"
    echo "  --restarts R           restarts (default 5)"
    echo "  --interval SECONDS     load before the first restart and between restarts (default 2)"
    echo "  --depth K              packets in flight per connection (restart_client's default 4)"
    echo "  --sizes LIST           packet sizes (restart_client's default mix)"
    echo "  --idle N               N more connections, silent until the end, then one echo each (default 0)"
    echo "  --slow-readers PERCENT connections that read slowly, so replies queue up unsent (default 0)"
    echo "  --sndbuf BYTES         every server's SO_SNDBUF: replies to slow readers then wait in the"
    echo "                         server's own queue, which the hand-over carries (default: the kernel's)"
    echo "  --threads LIST         loops of each server in turn, e.g. 1,2,3 (default 1)"
    echo "  --exit-timeout SECONDS how long an old server may take to exit (default 10)"
    echo "  --keep                 keep the run's directory (logs, client report) even when it passes"
}
bad() {
    echo "$prog: $*" >&2
    usage >&2
    exit 2
}
is_count() { [[ "$1" =~ ^[0-9]+$ ]] && [ "$1" -ge "$2" ] && [ "$1" -le "$3" ]; }
is_seconds() { [[ "$1" =~ ^([0-9]+|[0-9]*\.[0-9]+)$ ]] && awk -v v="$1" 'BEGIN { exit !(v > 0 && v <= 3600) }'; }

[ $# -ge 1 ] || bad "no BUILD_DIR"
case "$1" in
    -h | --help)
        usage
        exit 0
        ;;
esac
build=$1
shift
conns=1000
restarts=5
interval=2
exit_timeout=10
keep=0
threads_list=(1)
server_extra=()
idle=0
client_extra=()
while [ $# -gt 0 ]; do
    case "$1" in
        --keep)
            keep=1
            shift
            continue
            ;;
        -h | --help)
            usage
            exit 0
            ;;
    esac
    [ $# -ge 2 ] || bad "$1 needs a value"
    case "$1" in
        --conns) is_count "$2" 1 1000000 || bad "bad --conns '$2'"; conns=$2 ;;
        --restarts) is_count "$2" 0 1000 || bad "bad --restarts '$2'"; restarts=$2 ;;
        --interval) is_seconds "$2" || bad "bad --interval '$2'"; interval=$2 ;;
        --exit-timeout) is_seconds "$2" || bad "bad --exit-timeout '$2'"; exit_timeout=$2 ;;
        --depth | --sizes | --slow-readers) client_extra+=("$1" "$2") ;;
        --idle) is_count "$2" 0 1000000 || bad "bad --idle '$2'"; idle=$2; client_extra+=("$1" "$2") ;;
        --sndbuf) is_count "$2" 1 268435456 || bad "bad --sndbuf '$2'"; server_extra+=("$1" "$2") ;;
        --threads)
            [[ "$2" =~ ^[0-9]+(,[0-9]+)*$ ]] || bad "bad --threads '$2'"
            IFS=, read -r -a threads_list <<<"$2"
            ;;
        *) bad "unknown argument '$1'" ;;
    esac
    shift 2
done

server=$build/examples/echo_server
client=$build/tools/restart_client
[ -x "$server" ] || bad "no $server (build the echo_server target)"
[ -x "$client" ] || bad "no $client (build the restart_client target)"
help=$("$server" --help 2>&1)
if [[ "$help" != *--takeover* || "$help" != *--handover* ]]; then
    echo "$prog: SKIP: $server --help mentions no --handover/--takeover: this echo_server cannot hand its" \
        "listeners and connections over yet"
    exit 77
fi

# ---- processes and clean-up ----

dir=$(mktemp -d /tmp/restart_under_load.XXXXXX) || exit 1
sock=$dir/handover.sock
pids=()  # every process started, stopped by cleanup if still running
passed=0
# shellcheck disable=SC2317  # called by the EXIT trap
cleanup() {
    local p
    for p in "${pids[@]}"; do
        kill -TERM "$p" 2>/dev/null
    done
    for p in "${pids[@]}"; do
        wait_gone "$p" 3 || kill -KILL "$p" 2>/dev/null
        wait "$p" 2>/dev/null
    done
    if [ "$passed" -eq 1 ] && [ "$keep" -eq 0 ]; then
        rm -rf "$dir"
    else
        echo "$prog: logs and the client's report are in $dir"
    fi
}
trap cleanup EXIT
trap 'echo "$prog: interrupted"; exit 130' INT
trap 'echo "$prog: terminated"; exit 143' TERM

now_ms() {
    if [ -n "${EPOCHREALTIME:-}" ]; then
        local t=${EPOCHREALTIME/[.,]/}
        echo $((t / 1000))
    else
        date +%s%3N
    fi
}
# wait_gone PID SECONDS: true once PID has exited (bash reaps its children as they end), false
# when it still runs after SECONDS.
wait_gone() {
    local deadline=$(($(now_ms) + $(awk -v s="$2" 'BEGIN { printf "%d", s * 1000 }')))
    while kill -0 "$1" 2>/dev/null; do
        [ "$(now_ms)" -lt "$deadline" ] || return 1
        sleep 0.01
    done
    return 0
}
fail_early() {
    echo "$prog: FAIL: $*"
    local f
    for f in "$dir"/*.err "$dir"/*.out; do
        [ -s "$f" ] && { echo "--- $f (last lines)"; tail -n 5 "$f"; }
    done
    exit 1
}

# wait_line FILE PATTERN PID TRIES: true once FILE has a line matching PATTERN, false when
# PID exits first or TRIES looks 25 ms apart found none.
wait_line() {
    local i
    for i in $(seq 1 "$4"); do
        grep -qs "$2" "$1" && return 0
        kill -0 "$3" 2>/dev/null || break
        sleep 0.025
    done
    grep -qs "$2" "$1"
}

# threads_of N: the loops of server N (the list in turn).
threads_of() { echo "${threads_list[$(($1 % ${#threads_list[@]}))]}"; }

# ---- the first server, on a free port ----

port=
for _ in $(seq 1 20); do
    try=$((20000 + RANDOM % 40000))
    server_args=(--listen "tcp://127.0.0.1:$try" --handover "$sock" "${server_extra[@]}")
    "$server" "${server_args[@]}" --threads "$(threads_of 0)" >"$dir/server0.out" 2>"$dir/server0.err" &
    cur=$!
    pids+=("$cur")
    if wait_line "$dir/server0.out" "listening on" "$cur" 200; then
        port=$try
        break
    fi
    if kill -0 "$cur" 2>/dev/null; then
        fail_early "echo_server (pid $cur) did not say it was listening within 5 s"
    fi
    wait "$cur" 2>/dev/null
    grep -qs "cannot listen" "$dir/server0.err" || fail_early "echo_server exited at start"
done
[ -n "$port" ] || fail_early "no free port found in 20 attempts"
echo "$prog: echo_server (pid $cur) on tcp://127.0.0.1:$port, hand-over socket $sock"

# ---- the client ----

# It runs until told to stop; the duration only bounds it should this script be stopped hard.
duration=$(awk -v r="$restarts" -v i="$interval" -v e="$exit_timeout" 'BEGIN { printf "%d", 60 + (r + 2) * (i + e + 10) }')
"$client" --port "$port" --conns "$conns" --duration "$duration" --report "$dir/client.json" \
    "${client_extra[@]}" >"$dir/client.out" 2>"$dir/client.err" &
client_pid=$!
pids+=("$client_pid")
wait_line "$dir/client.err" "^restart_client: connected " "$client_pid" 1200
line=$(grep "^restart_client: connected " "$dir/client.err")
[ -n "$line" ] || fail_early "restart_client did not connect within 30 s"
echo "$prog: ${line#restart_client: }"
sleep "$interval"

# ---- the restarts ----

sig_ms=()
exit_ms=()
status=()
old_pids=()
ok=1
done_restarts=0
for r in $(seq 1 "$restarts"); do
    old=$cur
    t0=$(now_ms)
    kill -USR2 "$old" 2>/dev/null || {
        echo "$prog: restart $r: echo_server $old is gone before the signal"
        ok=0
        break
    }
    # The new server connects to the socket the old one offers on: wait (bounded) for it.
    for i in $(seq 1 500); do
        [ -S "$sock" ] && break
        kill -0 "$old" 2>/dev/null || break
        sleep 0.01
    done
    if [ ! -S "$sock" ]; then
        if kill -0 "$old" 2>/dev/null; then
            echo "$prog: restart $r: no hand-over socket $sock 5 s after SIGUSR2; starting the new server anyway"
        else
            echo "$prog: restart $r: echo_server $old exited without offering $sock; starting the new server anyway"
        fi
    fi
    "$server" "${server_args[@]}" --threads "$(threads_of "$r")" --takeover "$sock" >"$dir/server$r.out" 2>"$dir/server$r.err" &
    new=$!
    pids+=("$new")
    if wait_gone "$old" "$exit_timeout"; then
        t1=$(now_ms)
        wait "$old"
        st=$?
    else
        t1=$(now_ms)
        st="none (still running $exit_timeout s after the new server started; killed)"
        kill -KILL "$old" 2>/dev/null
        wait "$old" 2>/dev/null
    fi
    sig_ms+=("$t0")
    exit_ms+=("$t1")
    status+=("$st")
    old_pids+=("$old")
    done_restarts=$r
    echo "$prog: restart $r: SIGUSR2 to $old, new echo_server $new; the old one exited with status $st after $((t1 - t0)) ms"
    [ "$st" = 0 ] || ok=0
    if ! kill -0 "$new" 2>/dev/null; then
        wait "$new"
        echo "$prog: restart $r: the new echo_server $new exited with status $? (see $dir/server$r.err)"
        ok=0
        break
    fi
    cur=$new
    # The listener lives on in the new process: a connection to the port is accepted (and closed
    # at once, without a byte).
    if ! timeout 2 bash -c "exec 3<>/dev/tcp/127.0.0.1/$port" 2>/dev/null; then
        echo "$prog: restart $r: tcp://127.0.0.1:$port accepts no connection after the old server exited"
        ok=0
        break
    fi
    sleep "$interval"
done

# ---- the end ----

kill -TERM "$client_pid" 2>/dev/null
if wait_gone "$client_pid" 60; then
    wait "$client_pid"
    client_rc=$?
else
    echo "$prog: restart_client did not finish within 60 s of SIGTERM; killed"
    kill -KILL "$client_pid" 2>/dev/null
    wait "$client_pid" 2>/dev/null
    client_rc=1
fi
if kill -0 "$cur" 2>/dev/null; then
    kill -TERM "$cur" 2>/dev/null
    wait_gone "$cur" 15 || kill -KILL "$cur" 2>/dev/null
    wait "$cur" 2>/dev/null
fi

report=$(cat "$dir/client.json" 2>/dev/null)
field() { sed -n "s/.*\"$1\":\([^,}]*\).*/\1/p" <<<"$report"; }
array() { sed -n "s/.*\"$1\":\[\([^]]*\)\].*/\1/p" <<<"$report"; }
start=$(field start_unix_ms)
pauses=$(array timeline_pause_ms)
drops=$(array timeline_drops)
window=$(field window_ms)
window=${window:-100}
# longest FROM_MS TO_MS LIST: the largest entry of LIST (one per window) over the windows
# overlapping [FROM_MS, TO_MS) (Unix milliseconds).
longest() {
    awk -v list="$3" -v a="$(($1 - start))" -v b="$(($2 - start))" -v w="$window" 'BEGIN {
        n = split(list, v, ","); best = 0; first = int(a / w); last = int((b - 1) / w)
        if (first < 0) first = 0
        for (i = first; i <= last && i < n; ++i) if (v[i + 1] + 0 > best) best = v[i + 1] + 0
        printf "%.1f\n", best }'
}

echo
echo "$prog: $done_restarts of $restarts restarts of echo_server on tcp://127.0.0.1:$port under $conns busy connections" \
    "and $idle idle ones"
if [ -z "$start" ] || [ -z "$pauses" ]; then
    echo "$prog: no client report ($dir/client.json)"
    ok=0
else
    printf "%-8s %-9s %-12s %10s %18s %6s\n" restart "old pid" "exit status" "exit ms" "longest pause ms" drops
    for ((i = 0; i < done_restarts; ++i)); do
        # From a window before the signal until a window after the exit: a pause that overlaps
        # the hand-over shows in every window it spans.
        from=$((sig_ms[i] - window))
        to=$((exit_ms[i] + 2 * window))
        printf "%-8s %-9s %-12s %10s %18s %6s\n" $((i + 1)) "${old_pids[i]}" "${status[i]%% *}" \
            $((exit_ms[i] - sig_ms[i])) "$(longest "$from" "$to" "$pauses")" \
            "$(awk -v l="$drops" -v a=$(((from - start) / window)) -v b=$(((to - start) / window)) \
                'BEGIN { n = split(l, v, ","); s = 0; for (i = a; i <= b && i < n; ++i) if (i >= 0) s += v[i + 1]; print s }')"
    done
    if [ "$done_restarts" -gt 0 ]; then
        # The windows before the first signal, past the connect burst (the first second, or the
        # first half when the load ran for less than 2 s).
        lead=$((sig_ms[0] - start))
        skip=$((lead / 2 < 1000 ? lead / 2 : 1000))
        base=$(awk -v list="$pauses" -v a=$((skip / window)) -v b=$(((lead - window) / window)) \
            'BEGIN { n = split(list, v, ","); for (i = a; i < b && i < n; ++i) print v[i + 1] + 0 }' |
            sort -n | awk '{ x[++k] = $1 } END {
                if (k > 0) printf "median %.1f ms, max %.1f ms over %d windows", x[int((k + 1) / 2)], x[k], k }')
        echo "baseline before the first restart (longest pause per ${window} ms window): ${base:--}"
    fi
    echo "client: exit $client_rc: opened $(field opened) of $(field conns), refused $(field refused)," \
        "failed to connect $(field connect_failed), dropped $(field dropped) (eof $(field dropped_eof)," \
        "reset $(field dropped_reset), error $(field dropped_error)), no echo $(field no_progress)," \
        "unfinished $(field unfinished)"
    echo "client: $(field packets_verified) packets, $(field bytes_verified) bytes echoed and verified;" \
        "verification errors $(field verify_errors); longest pause $(field pause_max_ms) ms at" \
        "$(field pause_max_at_s) s, p99 of per-connection longest pauses $(field pause_p99_ms) ms," \
        "client loop stall at most $(field client_stall_max_ms) ms"
    for what in first_drop first_verify_error first_connect_error; do
        text=$(sed -n "s/.*\"$what\":\"\([^\"]*\)\".*/\1/p" <<<"$report")
        [ -n "$text" ] && echo "client: ${what//_/ }: $text"
    done
fi
[ "$client_rc" -eq 0 ] || ok=0
[ "$done_restarts" -eq "$restarts" ] || ok=0
if [ "$ok" -eq 1 ]; then
    passed=1
    echo "$prog: PASS"
    exit 0
fi
echo "$prog: FAIL"
exit 1
