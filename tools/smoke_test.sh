#!/bin/sh
# Smoke test of hostile_peer: starts echo_server on a free loopback port, runs a short idle
# attack with a handful of connections and checks the JSON line. Usage: smoke_test.sh TOOL SERVER
set -u
tool=$1
server=$2
dir=$(mktemp -d)
mkfifo "$dir/out"
"$server" --listen tcp://127.0.0.1:0 >"$dir/out" &
pid=$!
cleanup() {
    kill "$pid" 2>/dev/null
    cat <&3 >/dev/null 2>&1  # drain the server's exit report until it closes its stdout
    wait "$pid" 2>/dev/null
    rm -rf "$dir"
}
exec 3<"$dir/out"
trap cleanup EXIT
# The server's first line names the port it picked: "echo_server listening on tcp://127.0.0.1:PORT".
read -r line <&3 || { echo "echo_server did not start"; exit 1; }
url=${line##* }
json=$("$tool" --url "$url" --attack idle --conns 8 --honest 4 --before 0.5 --attack-secs 1 --after 0.5 --json)
rc=$?
echo "$json"
[ "$rc" -eq 0 ] || { echo "hostile_peer exited with $rc"; exit 1; }
for want in '"attack":"idle"' '"opened":8' '"connected":8' '"echo_errors":0' '"ratio":'; do
    case "$json" in
        *"$want"*) ;;
        *) echo "missing $want"; exit 1 ;;
    esac
done
case "$json" in
    *'"echoes":0,'*) echo "a phase had no honest echo"; exit 1 ;;
esac
exit 0
