#!/bin/sh
# Runs every attack of hostile_peer against a fresh echo_server at its defaults, one after
# the other, and prints per attack the tool's JSON line and the server's pool use once every
# peer has gone (read from the server's statistics file).
#   tools/hostile_suite.sh BUILD_DIR [ATTACK ...]     (default: every attack)
set -eu
build=${1:?usage: hostile_suite.sh BUILD_DIR [ATTACK ...]}
shift
attacks=${*:-"silent trickle noread idle reset halfclose halfclose-pipelined"}
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
port=17600
for attack in $attacks; do
    port=$((port + 1))
    "$build/examples/echo_server" --listen "tcp://127.0.0.1:$port" --stats-file "$dir/stats" \
        --stats-interval 0.5 >"$dir/server.out" 2>"$dir/server.err" &
    server=$!
    for _ in 1 2 3 4 5 6 7 8 9 10; do
        grep -q listening "$dir/server.out" 2>/dev/null && break
        sleep 0.2
    done
    "$build/tools/hostile_peer" --url "tcp://127.0.0.1:$port" --attack "$attack" --server-pid "$server" \
        --json 2>"$dir/$attack.txt" | sed "s/^/$attack: /"
    sleep 2  # two statistics intervals after every peer has gone
    echo "$attack: server after: $(grep -o 'pool blocks in use: [0-9]*[^,]*' "$dir/stats" | head -1)"
    echo "$attack: server closes: $(grep '^closed:' "$dir/stats" | head -1)"
    kill "$server"
    wait "$server" 2>/dev/null || true
    grep -E "^(ratio|attackers|halfclose|reset|trickle|silent|noread|idle)" "$dir/$attack.txt" | sed "s/^/$attack: /" || true
done
