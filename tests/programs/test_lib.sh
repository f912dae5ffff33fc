# Shared by the program tests (sourced after they set $dir, their scratch directory).

# fail MESSAGE...: says so, shows every output kept in $dir (*.txt, *.out, *.err), exits 1.
fail() {
    echo "FAIL: $*"
    for f in "$dir"/*.txt "$dir"/*.out "$dir"/*.err; do
        [ -f "$f" ] && { echo "--- $f"; cat "$f"; }
    done
    exit 1
}

# require FILE PATTERN...: each pattern is in FILE (a fixed string), else fail.
require() {
    file=$1
    shift
    for pattern in "$@"; do
        grep -qF -- "$pattern" "$file" || fail "$(basename "$file") lacks $pattern"
    done
}
