#!/bin/sh
# restart_client against a plain echo_server on loopback (no restart). Usage:
#   restart_client_test.sh RESTART_CLIENT ECHO_SERVER
# 1. 100 connections for 2 s with the default packet mix: exit 0, every connection opened and
#    made progress, none dropped, no verification error, nothing left unechoed, the JSON line
#    has its fields (and --report FILE holds the same line).
# 2. The server killed (SIGKILL) after 1 s of a 3 s run: every connection counts as dropped
#    (never re-established) and the client exits 1.
# 3. The port now closed: every connect counts as refused and the client exits 1.
# Every run is bounded by `timeout`; the whole test takes about 5 s.
set -u
client=$1
server=$2
dir=$(mktemp -d)
pid=
cpid=
cleanup() {
    if [ -n "$cpid" ]; then
        kill "$cpid" 2>/dev/null
        wait "$cpid" 2>/dev/null
    fi
    if [ -n "$pid" ]; then
        kill -9 "$pid" 2>/dev/null
        wait "$pid" 2>/dev/null
    fi
    rm -rf "$dir"
}
trap cleanup EXIT
. "$(dirname "$0")/test_lib.sh"  # fail, require

# Starts echo_server on a free port: sets pid and port.
start_server() {
    "$server" --listen tcp://127.0.0.1:0 >"$dir/server.txt" 2>&1 &
    pid=$!
    port=
    i=0
    while [ $i -lt 100 ]; do
        port=$(sed -n 's/^echo_server listening on tcp:\/\/127\.0\.0\.1:\([0-9]*\)$/\1/p' "$dir/server.txt")
        [ -n "$port" ] && return 0
        kill -0 "$pid" 2>/dev/null || fail "echo_server exited"
        sleep 0.05
        i=$((i + 1))
    done
    fail "echo_server did not report its port"
}

"$client" --help >"$dir/help.txt" 2>&1 || fail "--help exited $?"
require "$dir/help.txt" --connect-window --depth --sizes --report
"$client" --sizes 3 >/dev/null 2>"$dir/bad.txt"
rc=$?
[ "$rc" -eq 2 ] || fail "--sizes 3 exited $rc, expected 2"

# 1. A clean run.
start_server
timeout 30 "$client" --port "$port" --conns 100 --duration 2 --report "$dir/report.json" \
    >"$dir/run.json" 2>"$dir/run-stderr.txt"
rc=$?
echo "clean run: exit $rc: $(tail -n 1 "$dir/run-stderr.txt")"
[ "$rc" -eq 0 ] || fail "the clean run exited $rc, expected 0"
[ "$(wc -l <"$dir/run.json")" -eq 1 ] || fail "stdout is not one JSON line"
cmp -s "$dir/run.json" "$dir/report.json" || fail "--report differs from stdout"
require "$dir/run.json" '"conns":100,' '"opened":100,' '"refused":0,' '"connect_failed":0,' '"dropped":0,' \
    '"no_progress":0,' '"unfinished":0,' '"verify_errors":0,' '"first_verify_error":null' '"first_drop":null' \
    '"pause_max_ms":' '"pause_p99_ms":' '"window_ms":100,' '"timeline_pause_ms":[' '"timeline_packets":[' \
    '"start_unix_ms":' '"ok":true}'
verified=$(sed -n 's/.*"packets_verified":\([0-9]*\),.*/\1/p' "$dir/run.json")
sent=$(sed -n 's/.*"packets_sent":\([0-9]*\),.*/\1/p' "$dir/run.json")
if [ -z "$verified" ] || [ "$verified" -le 1000 ]; then
    fail "only ${verified:-no} packets verified"
fi
[ "$verified" = "$sent" ] || fail "$sent packets sent but $verified verified"
split=$(sed -n 's/.*"packets_split":\([0-9]*\),.*/\1/p' "$dir/run.json")
if [ -z "$split" ] || [ "$split" -eq 0 ]; then
    fail "no packet waited half-sent"
fi
# 2 s of 100 ms windows, and the drain.
windows=$(sed -n 's/.*"timeline_pause_ms":\[\([^]]*\)\].*/\1/p' "$dir/run.json" | tr ',' '\n' | wc -l)
[ "$windows" -ge 20 ] || fail "the timeline has $windows windows, expected at least 20"

# 2. The server killed under load: drops, exit 1.
kill -TERM "$pid"
wait "$pid"
start_server
timeout 30 "$client" --port "$port" --conns 50 --duration 3 >"$dir/kill.json" 2>"$dir/kill-stderr.txt" &
cpid=$!
sleep 1
kill -9 "$pid"
wait "$pid" 2>/dev/null
pid=
wait "$cpid"
rc=$?
cpid=
echo "server killed: exit $rc: $(grep 'first drop' "$dir/kill-stderr.txt")"
[ "$rc" -eq 1 ] || fail "the client exited $rc after the server was killed, expected 1"
require "$dir/kill.json" '"opened":50,' '"dropped":50,' '"verify_errors":0,' '"ok":false}'
grep -q '"first_drop":null' "$dir/kill.json" && fail "no drop described"
grep -q '"timeline_drops":\[[0,]*[1-9]' "$dir/kill.json" || fail "the timeline shows no drop"

# 3. Nobody listens on the port any more: refused, exit 1.
timeout 30 "$client" --port "$port" --conns 5 --duration 1 >"$dir/refused.json" 2>"$dir/refused-stderr.txt"
rc=$?
echo "port closed: exit $rc"
[ "$rc" -eq 1 ] || fail "the client exited $rc against a closed port, expected 1"
require "$dir/refused.json" '"opened":0,' '"refused":5,' '"ok":false}'
echo "ok"
