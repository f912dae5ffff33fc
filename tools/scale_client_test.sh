#!/bin/sh
# scale_client against a real echo_server on loopback: --help exits 0, a bad URL exits 2, and
# 200 connections from 2 processes and 2 source addresses are each served twice.
# Usage: scale_client_test.sh SCALE_CLIENT ECHO_SERVER
set -u
SCALE=$1
SERVER=$2
DIR=$(mktemp -d)
SERVER_PID=
cleanup() {
    if [ -n "$SERVER_PID" ]; then
        kill "$SERVER_PID" 2>/dev/null
        wait "$SERVER_PID" 2>/dev/null
    fi
    rm -rf "$DIR"
}
trap cleanup EXIT
fail() {
    echo "FAIL: $*" >&2
    for f in "$DIR"/*.out "$DIR"/*.err; do
        [ -f "$f" ] && { echo "--- $f" >&2; cat "$f" >&2; }
    done
    exit 1
}

"$SCALE" --help >"$DIR/help.out" 2>&1 || fail "--help exited $?"
grep -q -- "--server-pid" "$DIR/help.out" || fail "--help does not describe --server-pid"
grep -q -- "--server-metrics" "$DIR/help.out" || fail "--help does not describe --server-metrics"

"$SCALE" --url http://127.0.0.1:1 >/dev/null 2>"$DIR/badurl.err"
rc=$?
[ "$rc" -eq 2 ] || fail "a bad URL exited $rc, expected 2"
grep -q "invalid URL 'http://127.0.0.1:1'" "$DIR/badurl.err" || fail "no message for the bad URL"

"$SCALE" --conns 0 >/dev/null 2>&1
rc=$?
[ "$rc" -eq 2 ] || fail "--conns 0 exited $rc, expected 2"

# The server picks a free port and says which on its first line; it rewrites its metrics as
# JSON every 0.1 s, from which scale_client reads the pool's use.
"$SERVER" --listen tcp://127.0.0.1:0 --metrics-file "$DIR/metrics.json" --metrics-format json \
    --metrics-interval 0.1 >"$DIR/server.out" 2>&1 &
SERVER_PID=$!
i=0
PORT=
while [ $i -lt 100 ]; do
    PORT=$(sed -n 's/^echo_server listening on tcp:\/\/127\.0\.0\.1:\([0-9]*\)$/\1/p' "$DIR/server.out")
    [ -n "$PORT" ] && break
    kill -0 "$SERVER_PID" 2>/dev/null || fail "echo_server exited"
    sleep 0.05
    i=$((i + 1))
done
[ -n "$PORT" ] || fail "echo_server did not report its port"

"$SCALE" --url "tcp://127.0.0.1:$PORT" --conns 200 --procs 2 --sources 2 --idle 0.5 --phase-timeout 10 \
    --server-pid "$SERVER_PID" --server-metrics "$DIR/metrics.json" --json >"$DIR/run.out" 2>"$DIR/run.err"
rc=$?
[ "$rc" -eq 0 ] || fail "the run exited $rc"
JSON=$(cat "$DIR/run.out")
for want in '"all_served":true' '"connected":200' \
    '{"phase":"connect","ok":200,"failed":0,"open":200,' \
    '{"phase":"ping-pong 1","ok":200,"failed":0,"open":200,' \
    '{"phase":"ping-pong 2","ok":200,"failed":0,"open":200,' \
    '{"phase":"close","ok":200,"failed":0,"open":0,'; do
    case "$JSON" in
        *"$want"*) ;;
        *) fail "the JSON line lacks $want" ;;
    esac
done
# The server was sampled: an RSS figure and a pool figure at every phase.
case "$JSON" in
    *'"rss_kib":null'* | *'"pool_blocks":null'*) fail "a phase has no server sample" ;;
esac
grep -q "^ping-pong 2 " "$DIR/run.err" || fail "no table on stderr"
# The server's metrics count at least the 200 connections accepted.
ACCEPTS=$(sed -n 's/.*"accepts":\([0-9]*\),.*/\1/p' "$DIR/metrics.json")
[ -n "$ACCEPTS" ] && [ "$ACCEPTS" -ge 200 ] || fail "the metrics count ${ACCEPTS:-no} accepts"
echo "ok"
