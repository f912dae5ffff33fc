#!/bin/sh
# A program keeps the README's promise: `PROG --help` prints its usage on stdout and exits 0,
# and each bad invocation exits 2 with a message on stderr. Usage:
#   help_and_bad_args_test.sh PROG "BAD ARGS 1" ["BAD ARGS 2" ...]
# Each quoted group is split at spaces into arguments. Every run is bounded by `timeout`, so a
# program that accepts a bad argument and starts serving fails instead of hanging.
set -u
prog=$1
shift
out=$(mktemp)
err=$(mktemp)
trap 'rm -f "$out" "$err"' EXIT
status=0

timeout 20 "$prog" --help >"$out" 2>"$err"
rc=$?
if [ "$rc" -ne 0 ]; then
    echo "FAIL: $prog --help exited $rc, expected 0"
    status=1
elif ! grep -qi "usage" "$out"; then
    echo "FAIL: $prog --help printed no usage on stdout"
    status=1
fi

for args in "$@"; do
    # shellcheck disable=SC2086  # split on purpose
    timeout 20 "$prog" $args >"$out" 2>"$err"
    rc=$?
    if [ "$rc" -ne 2 ]; then
        echo "FAIL: $prog $args exited $rc, expected 2"
        cat "$out" "$err"
        status=1
    elif [ ! -s "$err" ]; then
        echo "FAIL: $prog $args exited 2 without a message on stderr"
        status=1
    else
        echo "ok: $prog $args: exit 2: $(head -n 1 "$err")"
    fi
done
exit $status
