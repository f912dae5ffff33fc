#!/bin/sh
# Runs every attack of hostile_peer against a fresh echo_server at its defaults, one after
# the other, and prints per attack the tool's JSON line and the server's pool use once every
# peer has gone (read from the server's statistics file).
#   tools/hostile_suite.sh BUILD_DIR [ATTACK ...]     (default: every attack)
# idle-flood runs the server with a low descriptor limit (ulimit -n $IDLE_FLOOD_ULIMIT, 600)
# and $IDLE_FLOOD_FLAGS ("--max-connections 400 --evict-idle-ms 1000"), with 10 honest
# clients that reconnect every 100 echoes while 700 idle attackers hold the server at its
# limit ($IDLE_FLOOD_PEER_FLAGS adds to or overrides the tool's flags). halfclose-burst runs
# the server with $HALFCLOSE_BURST_FLAGS ("--workers 4": replies made on worker threads,
# each held open with HoldOpen) and prints the server's worker counts after it stops.
# The tls-* rows (tls-slow-handshake tls-silent tls-garbage tls-handshake-flood tls-hello-flood) run the server
# with --tls-cert and --tls-key ($TLS_CERT and $TLS_KEY, or a P-256 certificate for 127.0.0.1
# made with the openssl command) plus $TLS_SERVER_FLAGS (e.g. "--handshake-timeout-ms 5000";
# default none: the 10 s deadline), and the honest clients verify it with --tls-ca.
# ECHO_SERVER and HOSTILE_PEER name other binaries (e.g. a build of an older tree).
set -eu
build=${1:?usage: hostile_suite.sh BUILD_DIR [ATTACK ...]}
shift
attacks=${*:-"silent trickle noread idle reset halfclose halfclose-pipelined halfclose-burst idle-flood
tls-slow-handshake tls-silent tls-garbage tls-handshake-flood tls-hello-flood"}
server_bin=${ECHO_SERVER:-$build/examples/echo_server}
peer_bin=${HOSTILE_PEER:-$build/tools/hostile_peer}
idle_flood_ulimit=${IDLE_FLOOD_ULIMIT:-600}
idle_flood_flags=${IDLE_FLOOD_FLAGS-"--max-connections 400 --evict-idle-ms 1000"}
idle_flood_peer_flags=${IDLE_FLOOD_PEER_FLAGS-"--honest 10"}
halfclose_burst_flags=${HALFCLOSE_BURST_FLAGS-"--workers 4"}
tls_server_flags=${TLS_SERVER_FLAGS-}
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
tls_cert=${TLS_CERT:-$dir/cert.pem}
tls_key=${TLS_KEY:-$dir/key.pem}
port=17600
for attack in $attacks; do
    port=$((port + 1))
    server_flags=""
    peer_flags=""
    fd_limit=""
    if [ "$attack" = idle-flood ]; then
        server_flags=$idle_flood_flags
        peer_flags=$idle_flood_peer_flags
        fd_limit="ulimit -n $idle_flood_ulimit;"
    elif [ "$attack" = halfclose-burst ]; then
        server_flags=$halfclose_burst_flags
    fi
    case "$attack" in
        tls-*)
            if [ ! -f "$tls_cert" ]; then
                openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -subj /CN=localhost \
                    -addext subjectAltName=DNS:localhost,IP:127.0.0.1 -keyout "$tls_key" -out "$tls_cert" 2>/dev/null
            fi
            server_flags="--tls-cert $tls_cert --tls-key $tls_key $tls_server_flags"
            peer_flags="--tls-ca $tls_cert"
            ;;
    esac
    # The server runs in a shell that sets its descriptor limit and then becomes it (exec),
    # so $! is the server's pid.
    # shellcheck disable=SC2086
    sh -c "$fd_limit exec \"\$0\" \"\$@\"" "$server_bin" --listen "tcp://127.0.0.1:$port" \
        --stats-file "$dir/stats" --stats-interval 0.5 $server_flags >"$dir/server.out" 2>"$dir/server.err" &
    server=$!
    for _ in 1 2 3 4 5 6 7 8 9 10; do
        grep -q listening "$dir/server.out" 2>/dev/null && break
        sleep 0.2
    done
    # shellcheck disable=SC2086
    "$peer_bin" --url "tcp://127.0.0.1:$port" --attack "$attack" --server-pid "$server" $peer_flags \
        --json 2>"$dir/$attack.txt" | sed "s/^/$attack: /"
    sleep 2  # two statistics intervals after every peer has gone
    echo "$attack: server after: $(grep -o 'pool blocks in use: [0-9]*[^,]*' "$dir/stats" | head -1)"
    echo "$attack: server closes: $(grep '^closed:' "$dir/stats" | head -1)"
    kill "$server"
    wait "$server" 2>/dev/null || true
    grep -E "^(ratio|attackers|halfclose|reset|trickle|silent|noread|idle|tls-)" "$dir/$attack.txt" | sed "s/^/$attack: /" || true
    if [ "$attack" = halfclose-burst ]; then
        grep -E "^echo_server: workers:" "$dir/server.out" | sed "s/^echo_server: /$attack: server /" || true
    fi
    if [ "$attack" = idle-flood ]; then
        grep -E "^(phase|before|attack|after) " "$dir/$attack.txt" | sed "s/^/$attack: /" || true
        for pat in "connection limit reached" "accept paused, out of descriptors"; do
            echo "$attack: server log: $(grep -c "$pat" "$dir/server.err" || true) lines with '$pat'"
        done
    fi
done
