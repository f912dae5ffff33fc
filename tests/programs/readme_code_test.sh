#!/bin/sh
# The programs shown in README.md are shown as they are: each code block equals its file in
# examples/, and readme_client stays under 70 lines. Usage: readme_code_test.sh SOURCE_DIR
set -u
src=$1
status=0
for name in readme_client readme_example; do
    file="$src/examples/$name.cpp"
    # The block starts with the file's first line and ends at the closing fence.
    first=$(head -n 1 "$file")
    awk -v first="$first" '$0 == first { on = 1 } on && $0 == "```" { exit } on { print }' \
        "$src/README.md" >"${TMPDIR:-/tmp}/readme_code_$$.cpp"
    if ! diff -u "$file" "${TMPDIR:-/tmp}/readme_code_$$.cpp"; then
        echo "FAIL: README.md does not show examples/$name.cpp as it is"
        status=1
    fi
    rm -f "${TMPDIR:-/tmp}/readme_code_$$.cpp"
done
lines=$(wc -l <"$src/examples/readme_client.cpp")
if [ "$lines" -ge 70 ]; then
    echo "FAIL: examples/readme_client.cpp has $lines lines, the README promises under 70"
    status=1
fi
[ "$status" -eq 0 ] && echo "ok: README.md shows readme_client ($lines lines) and readme_example as they are"
exit $status
