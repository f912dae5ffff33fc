#!/bin/sh
# echo_server --workers: replies made on worker threads reach their clients whole and in
# order, also after the client's end of stream. Usage:
#   echo_workers_test.sh ECHO_SERVER README_CLIENT HOSTILE_PEER [SERVER FLAGS ...]
# The server runs with the given flags plus --workers 2 --worker-queue 1, so a worker's queue
# is full at once and connections are paused and resumed all the time. readme_client must
# verify its 1000 echoes; hostile_peer's halfclose-burst clients (16 requests, then
# shutdown(SHUT_WR), then read to the end) must get every reply whole before the end of
# stream; and the server must report packets refused for a full queue (the pause was used)
# and, stopped with SIGTERM, its drain.
set -u
server=$1
client=$2
peer=$3
shift 3
dir=$(mktemp -d)
pid=
cleanup() {
    if [ -n "$pid" ]; then
        kill "$pid" 2>/dev/null
    fi
    wait
    rm -rf "$dir"
}
trap cleanup EXIT
. "$(dirname "$0")/test_lib.sh"  # fail, require

mkfifo "$dir/out"
"$server" --listen tcp://127.0.0.1:0 --workers 2 --worker-queue 1 "$@" >"$dir/out" 2>"$dir/server-stderr.txt" &
pid=$!
exec 3<"$dir/out"
read -r line <&3 || fail "echo_server did not start"
cat <&3 >"$dir/server.txt" &  # the rest, until the server exits
reader=$!
exec 3<&-
url=$(echo "$line" | sed -n 's|.*listening on \(tcp://[^ ]*\).*|\1|p')
case "$url" in
    tcp://*) ;;
    *) fail "unexpected first line: $line" ;;
esac

timeout 60 "$client" "$url" >"$dir/client.txt" 2>"$dir/client-stderr.txt"
rc=$?
echo "readme_client $url: exit $rc: $(cat "$dir/client.txt")"
[ "$rc" -eq 0 ] || fail "readme_client exited $rc, expected 0"

json=$(timeout 60 "$peer" --url "$url" --attack halfclose-burst --conns 20 --honest 4 --before 0.5 \
    --attack-secs 2 --after 0.5 --json 2>"$dir/peer.txt")
rc=$?
echo "$json"
[ "$rc" -eq 0 ] || fail "hostile_peer exited $rc"
for want in '"echo_errors":0' '"lost":0,' '"torn":0,' '"resets":0,' '"clients_short":0,'; do
    case "$json" in
        *"$want"*) ;;
        *) fail "missing $want" ;;
    esac
done
case "$json" in
    *'"answered":0,'*) fail "no request was answered" ;;
esac

# SIGTERM drains: with no client left, nothing is aborted.
kill -TERM "$pid"
wait "$pid"
pid=
wait "$reader"  # the server's exit report is all in
grep -q '^echo_server: drained [0-9]* connections, aborted 0 at the deadline$' "$dir/server.txt" ||
    fail "echo_server did not report its drain"
echo "server: $(grep '^echo_server: drained' "$dir/server.txt")"
refused=$(sed -n 's/^echo_server: workers: .*, \([0-9]*\) packets refused for a full queue$/\1/p' "$dir/server.txt")
echo "server: $(grep '^echo_server: workers:' "$dir/server.txt")"
[ -n "$refused" ] || fail "echo_server printed no worker counts"
[ "$refused" -gt 0 ] || fail "no packet was refused for a full queue: the pause was not exercised"
exit 0
