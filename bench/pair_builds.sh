#!/bin/sh
# Paired runs of two builds of the quolnet echo server (an older and a newer tree), interleaved
# round by round with the same client, so that a change's cost shows as a ratio within one
# run rather than across runs of a noisy machine. Server on CPU 0, client on CPU 1.
#   bench/pair_builds.sh OLD_BUILD NEW_BUILD ROUNDS MODE SIZE CONNS
# prints one CSV line of bench_client per server and round, prefixed "old R" or "new R".
set -eu
old=$1 new=$2 rounds=$3 mode=$4 size=$5 conns=$6
client=$new/bench/bench_client
port=19700
for r in $(seq 1 "$rounds"); do
    for v in old new; do
        if [ "$v" = old ]; then build=$old; else build=$new; fi
        port=$((port + 1))
        taskset -c 0 "$build/bench/bench_server_quolnet" --port "$port" >/dev/null 2>&1 &
        pid=$!
        sleep 0.3
        out=$(taskset -c 1 "$client" --port "$port" --mode "$mode" --size "$size" --conns "$conns" \
            --warmup 0.3 --duration 1.5 --csv 2>/dev/null | tail -1)
        kill "$pid"
        wait "$pid" 2>/dev/null || true
        echo "$v $r $out"
    done
done
