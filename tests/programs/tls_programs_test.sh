#!/bin/sh
# The programs' TLS flags work end to end on loopback, with a certificate made by the openssl
# command for localhost and 127.0.0.1:
#   echo   echo_server --tls-cert/--tls-key, echo_client --tls --tls-ca echoes and prints the
#          negotiated protocol; --tls-insecure connects without the CA; a client that does not
#          trust the certificate, or checks another name, fails; ALPN is agreed;
#   mtls   echo_server --tls-require-client-cert: a client with a certificate signed by
#          --tls-ca is served, one without is refused;
#   bad    a certificate or key that cannot be used exits 2 with the context's message;
#   demo   demo --tls (a certificate made in memory) exits 0;
#   tools  scale_client --tls and a short hostile_peer tls-silent run against the server.
# Usage: tls_programs_test.sh CASE ECHO_SERVER ECHO_CLIENT DEMO SCALE_CLIENT HOSTILE_PEER
set -u
case_name=$1
server=$2
client=$3
demo=$4
scale=$5
hostile=$6
dir=$(mktemp -d)
server_pid=
cleanup() {
    if [ -n "$server_pid" ]; then
        kill "$server_pid" 2>/dev/null
        wait "$server_pid" 2>/dev/null
    fi
    rm -rf "$dir"
}
trap cleanup EXIT
. "$(dirname "$0")/test_lib.sh"  # fail, require

# A certificate for localhost and 127.0.0.1, self-signed: it is its own CA.
cert() {  # cert NAME [openssl req options...]
    name=$1
    shift
    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -subj "/CN=$name" \
        -addext "subjectAltName=DNS:localhost,IP:127.0.0.1" -keyout "$dir/$name.key" -out "$dir/$name.pem" \
        "$@" 2>"$dir/openssl.err" || fail "openssl req failed"
}

# Starts echo_server with the given flags on a free port; sets $url.
start_server() {
    "$server" --listen tcp://127.0.0.1:0 "$@" >"$dir/server.out" 2>"$dir/server.err" &
    server_pid=$!
    i=0
    port=
    while [ $i -lt 100 ]; do
        port=$(sed -n 's/^echo_server listening on tcp:\/\/127\.0\.0\.1:\([0-9]*\)$/\1/p' "$dir/server.out")
        [ -n "$port" ] && break
        kill -0 "$server_pid" 2>/dev/null || fail "echo_server exited"
        sleep 0.05
        i=$((i + 1))
    done
    [ -n "$port" ] || fail "echo_server did not report its port"
    url="tcp://127.0.0.1:$port"
}

# Runs echo_client with a few packets; its exit status.
echo_client() {  # echo_client OUTFILE FLAGS...
    out=$1
    shift
    timeout 20 "$client" --url "$url" --conns 2 --packets 20 --sizes 1,1000,70000 --no-progress "$@" \
        >"$dir/$out.out" 2>"$dir/$out.err"
}

case "$case_name" in
    echo)
        cert server
        start_server --tls-cert "$dir/server.pem" --tls-key "$dir/server.key" --tls-alpn echo,other
        grep -q "^echo_server: TLS with" "$dir/server.out" || fail "echo_server does not say it serves TLS"
        echo_client ok --tls --tls-ca "$dir/server.pem" --tls-alpn echo || fail "echo_client --tls exited $?"
        grep -q "errors 0" "$dir/ok.out" || fail "echo_client reported errors"
        grep -q "^echo_client: connected to $url: TLSv1\.[23] .*ALPN echo" "$dir/ok.out" ||
            fail "echo_client did not print the negotiated protocol"
        echo_client name --tls-ca "$dir/server.pem" --tls-name localhost || fail "--tls-name localhost exited $?"
        echo_client insecure --tls-insecure || fail "--tls-insecure exited $?"
        echo_client untrusted --tls && fail "a client that does not trust the certificate echoed"
        grep -q "certificate verify failed" "$dir/untrusted.err" || fail "no verification error shown"
        echo_client wrongname --tls-ca "$dir/server.pem" --tls-name other.example &&
            fail "a client checking another name echoed"
        echo_client plain && fail "a plain client echoed through a TLS listener"
        ;;
    mtls)
        cert server
        cert client
        start_server --tls-cert "$dir/server.pem" --tls-key "$dir/server.key" --tls-ca "$dir/client.pem" \
            --tls-require-client-cert
        echo_client with --tls-ca "$dir/server.pem" --tls-cert "$dir/client.pem" --tls-key "$dir/client.key" ||
            fail "a client with a certificate exited $?"
        echo_client without --tls-ca "$dir/server.pem" && fail "a client without a certificate echoed"
        ;;
    bad)
        cert server
        for args in "--tls-cert $dir/missing.pem --tls-key $dir/server.key" \
            "--tls-cert $dir/server.pem --tls-key $dir/server.pem" "--tls-cert $dir/server.pem" \
            "--tls-cert $dir/server.pem --tls-key $dir/server.key --tls-require-client-cert"; do
            # shellcheck disable=SC2086  # split on purpose
            timeout 20 "$server" --listen tcp://127.0.0.1:0 $args >"$dir/bad.out" 2>"$dir/bad.err"
            rc=$?
            [ "$rc" -eq 2 ] || fail "echo_server $args exited $rc, expected 2"
            [ -s "$dir/bad.err" ] || fail "echo_server $args printed no reason"
            echo "ok: echo_server $args: exit 2: $(head -n 1 "$dir/bad.err")"
        done
        timeout 20 "$client" --url tcp://127.0.0.1:7000 --tls-ca "$dir/missing.pem" >/dev/null 2>"$dir/client.err"
        rc=$?
        [ "$rc" -eq 2 ] || fail "echo_client with a missing CA file exited $rc, expected 2"
        ;;
    demo)
        timeout 30 "$demo" --tls --duration 1 --conns 2 >"$dir/demo.out" 2>"$dir/demo.err" || fail "demo --tls exited $?"
        grep -q "^demo: connected to .*: TLSv1\.3" "$dir/demo.out" || fail "demo --tls did not print the protocol"
        grep -q "errors 0" "$dir/demo.out" || fail "demo --tls reported errors"
        ;;
    tools)
        cert server
        start_server --tls-cert "$dir/server.pem" --tls-key "$dir/server.key" --handshake-timeout-ms 500
        timeout 60 "$scale" --url "$url" --conns 50 --idle 0.2 --phase-timeout 10 --tls --tls-ca "$dir/server.pem" \
            --server-pid "$server_pid" --json >"$dir/scale.out" 2>"$dir/scale.err" || fail "scale_client --tls exited $?"
        grep -q '"tls":true' "$dir/scale.out" || fail "scale_client did not report TLS"
        grep -q '"all_served":true' "$dir/scale.out" || fail "scale_client: not every TLS connection was served"
        timeout 60 "$hostile" --url "$url" --attack tls-silent --conns 20 --honest 4 --before 0.3 --attack-secs 1.2 \
            --after 0.3 --tls-ca "$dir/server.pem" --json >"$dir/hostile.out" 2>"$dir/hostile.err" ||
            fail "hostile_peer tls-silent exited $?"
        for want in '"attack":"tls-silent"' '"tls":true' '"echo_errors":0' '"closed_eof":'; do
            grep -q "$want" "$dir/hostile.out" || fail "hostile_peer's JSON lacks $want"
        done
        grep -q '"closed_by_server":0,' "$dir/hostile.out" && fail "the server closed no silent connection"
        grep -q '"echoes":0,' "$dir/hostile.out" && fail "a phase had no honest TLS echo"
        timeout 30 "$hostile" --url "$url" --attack tls-handshake-flood --conns 4 --honest 2 --before 0.2 \
            --attack-secs 0.5 --after 0.2 --tls-insecure --json >"$dir/flood.out" 2>"$dir/flood.err" ||
            fail "hostile_peer tls-handshake-flood exited $?"
        grep -q '"handshakes":0,' "$dir/flood.out" && fail "the flood made no handshake"
        ;;
    *)
        fail "unknown case $case_name"
        ;;
esac
echo "ok: $case_name"
