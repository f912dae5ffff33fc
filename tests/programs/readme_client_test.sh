#!/bin/sh
# readme_client against real peers on loopback. Usage:
#   readme_client_test.sh echo    CLIENT ECHO_SERVER  1000 echoes verified, closed gracefully, exit 0
#   readme_client_test.sh refused CLIENT TEST_PEER    a dial to a port nobody listens on: dial_refused
#   readme_client_test.sh reset   CLIENT TEST_PEER    the peer takes the 1000 packets, then resets the
#                                                     connection while the client awaits echoes: reset
# The peer prints the port (or a URL ending in it) on its first line.
set -u
mode=$1
client=$2
peer=$3
dir=$(mktemp -d)
pid=
cleanup() {
    if [ -n "$pid" ]; then
        kill "$pid" 2>/dev/null
    fi
    wait  # the peer and the reader of its output
    rm -rf "$dir"
}
trap cleanup EXIT
. "$(dirname "$0")/test_lib.sh"  # fail, require

# The peer's standard output goes through a FIFO, so its first line is awaited, not polled for.
mkfifo "$dir/out"
case "$mode" in
    echo) "$peer" --listen tcp://127.0.0.1:0 >"$dir/out" 2>"$dir/peer-stderr.txt" & ;;
    refused) "$peer" closed >"$dir/out" 2>"$dir/peer-stderr.txt" & ;;
    reset) "$peer" reset 1 >"$dir/out" 2>"$dir/peer-stderr.txt" & ;;
    *) fail "unknown mode $mode" ;;
esac
pid=$!
exec 3<"$dir/out"
read -r line <&3 || fail "the peer did not start"
cat <&3 >"$dir/peer.txt" &  # the rest, until the peer exits
exec 3<&-
port=${line##*:}
url="tcp://127.0.0.1:$port"

timeout 60 "$client" "$url" >"$dir/client.txt" 2>"$dir/client-stderr.txt"
rc=$?
out=$(cat "$dir/client.txt")
echo "readme_client $url: exit $rc: $out"
case "$mode" in
    echo)
        [ "$rc" -eq 0 ] || fail "readme_client exited $rc, expected 0"
        case "$out" in
            "1000 echoes verified, 0 bad, "*" reason closed_locally (-)") ;;
            *) fail "unexpected output" ;;
        esac
        case "$out" in
            *", 0 waits for room,"*) fail "no Send was refused for room: OnWritable was not exercised" ;;
        esac
        ;;
    refused)
        [ "$rc" -eq 1 ] || fail "readme_client exited $rc, expected 1"
        case "$out" in
            "0 echoes verified, 0 bad, 0 waits for room, reason dial_refused"*) ;;
            *) fail "unexpected output" ;;
        esac
        ;;
    reset)
        [ "$rc" -eq 1 ] || fail "readme_client exited $rc, expected 1"
        case "$out" in
            *" reason reset ("*) ;;
            *) fail "unexpected output" ;;
        esac
        wait "$pid" || fail "test_peer failed"
        pid=
        ;;
esac
exit 0
