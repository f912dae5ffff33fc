#!/bin/sh
# README.md keeps up with the code:
#   1. every ```cpp block compiles against the library's headers (-fsyntax-only);
#   2. every command-line flag it gives one of the project's programs is in that program's
#      --help.
# Usage: readme_test.sh SOURCE_DIR CXX INCLUDE_DIR... -- NAME=PROGRAM...
#
# Code blocks. A block is compiled as it stands, as one translation unit. A block that is a
# fragment says what it needs in HTML comments, which the rendered README does not show:
#   <!-- readme-test: before
#   #include "net/connector_group.h"
#   void Sample(QUOLNET::IConnectorHandler& handler) {
#   -->
#   ```cpp
#   ...the fragment...
#   ```
#   <!-- readme-test: after
#   }
#   -->
# (the text of `before` goes in front of the block, the text of `after` behind it), and
# `<!-- readme-test: skip -->` right before a block leaves it out. `<!-- readme-test: tls -->`
# before a block (and before its `before` comment, if any) compiles it only when quolnet::tls
# is built, that is when one of the include directories holds quolnet/tls/tls_context.h.
#
# Flags. A flag (--name) counts as given to a program when it follows the program's name in
# a shell code block or in the same `code span` (`echo_server --threads N`). A span that
# starts with a flag (`--conns N`) belongs to the programs its paragraph and its section
# (from one "## " heading to the next) name; the flag must be in the --help of one of them.
# Flags of other commands (cmake, ctest, pkg-config, bench/run.py, ...) are not checked, nor
# flags whose paragraph or section also names such a command and no program that has them.
set -u
src=$1
cxx=$2
shift 2
incs=""
while [ $# -gt 0 ] && [ "$1" != "--" ]; do
    incs="$incs -I$1"
    shift
done
[ $# -gt 0 ] && shift
readme="$src/README.md"
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
status=0

# ---- 1. code blocks ----
awk -v dir="$tmp" '
function flush_pending() { pending_before = ""; pending_skip = 0; pending_tls = 0 }
BEGIN { n = 0; state = "text"; flush_pending() }
# An HTML comment with a before or after text, or a skip mark.
state == "text" && /^[ \t]*<!-- readme-test: skip -->[ \t]*$/ { pending_skip = 1; next }
state == "text" && /^[ \t]*<!-- readme-test: tls -->[ \t]*$/ { pending_tls = 1; next }
state == "text" && /^[ \t]*<!-- readme-test: (before|after)[ \t]*$/ {
    which = ($0 ~ /before/) ? "before" : "after"; state = "marker"; text = ""; next
}
state == "marker" {
    if ($0 ~ /^[ \t]*-->[ \t]*$/) {
        if (which == "before") { pending_before = text }
        else if (last_block > 0) { printf "%s", text >> (dir "/block" last_block ".cpp"); close(dir "/block" last_block ".cpp") }
        state = "text"
    } else {
        text = text $0 "\n"
    }
    next
}
state == "text" && /^[ \t]*```cpp[ \t]*$/ {
    indent = $0; sub(/```cpp.*/, "", indent)
    if (pending_skip) { state = "skipped"; flush_pending(); last_block = 0; next }
    ++n; last_block = n
    out = dir "/block" n ".cpp"
    printf "%s#line %d \"README.md\"\n", pending_before, NR + 1 > out
    print NR + 1 > (dir "/block" n ".line")
    close(dir "/block" n ".line")
    if (pending_tls) { print "tls" > (dir "/block" n ".tls"); close(dir "/block" n ".tls") }
    flush_pending(); state = "code"; next
}
state == "text" && /^[ \t]*```/ { state = "other"; flush_pending(); last_block = 0; next }
state == "text" && !/^[ \t]*$/ { flush_pending(); if ($0 !~ /^[ \t]*<!--/) { last_block = 0 } ; next }
state == "code" && /^[ \t]*```[ \t]*$/ { close(out); state = "text"; next }
state == "code" {
    line = $0
    if (indent != "" && index(line, indent) == 1) { line = substr(line, length(indent) + 1) }
    print line > out; next
}
(state == "other" || state == "skipped") && /^[ \t]*```[ \t]*$/ { state = "text"; next }
' "$readme"

have_tls=0
for inc in $incs; do
    [ -f "${inc#-I}/quolnet/tls/tls_context.h" ] && have_tls=1
done
blocks=0
for f in "$tmp"/block*.cpp; do
    [ -e "$f" ] || break
    blocks=$((blocks + 1))
    line=$(cat "${f%.cpp}.line")
    if [ -e "${f%.cpp}.tls" ] && [ "$have_tls" -eq 0 ]; then
        echo "skip: the C++ block at README.md:$line needs quolnet::tls, which is not built"
        continue
    fi
    # shellcheck disable=SC2086  # the include options split on purpose
    if "$cxx" -std=c++17 -fsyntax-only $incs -x c++ "$f" 2>"$tmp/err"; then
        echo "ok: the C++ block at README.md:$line compiles"
    else
        echo "FAIL: the C++ block at README.md:$line does not compile:"
        sed 's/^/    /' "$tmp/err"
        status=1
    fi
done
if [ "$blocks" -eq 0 ]; then
    echo "FAIL: no C++ block found in README.md"
    status=1
fi

# ---- 2. flags ----
# Programs of the project, each with the path of its build, when built.
known="demo echo_server echo_client readme_example readme_client hostile_peer scale_client bench_client
       bench_server_quolnet bench_server_epoll bench_server_libevent bench_server_asio"
for pair in "$@"; do
    name=${pair%%=*}
    prog=${pair#*=}
    if [ -x "$prog" ] && timeout 20 "$prog" --help >"$tmp/help_$name" 2>/dev/null; then
        :
    else
        echo "FAIL: $prog --help did not run"
        rm -f "$tmp/help_$name"
        status=1
    fi
done

# One record per flag: KIND LINE FLAG CANDIDATES... (KIND cmd: given to the one program
# named; para: to one of the programs the paragraph or section names, "+" among them when it
# also names another command).
awk -v known="$known" '
BEGIN {
    nk = split(known, K, /[ \t\n]+/)
    nf = split("run.py run.sh bench_micro iperf3 perf cmake ctest pkg-config taskset python3", F, " ")
    fence = ""; para = ""; para_line = 0
}
function uniq(list,   w, n, i, out, seen) {
    n = split(list, w, " ")
    out = ""
    for (i = 1; i <= n; ++i) if (!(w[i] in seen)) { seen[w[i]] = 1; out = out " " w[i] }
    return out
}
function is_known(w,   i) { for (i = 1; i <= nk; ++i) if (K[i] != "" && K[i] == w) return 1; return 0 }
function base(w) { sub(/.*\//, "", w); return w }
function mentions(text, w,   s, p, before, after) {
    s = text
    while ((p = index(s, w)) > 0) {
        before = p > 1 ? substr(s, p - 1, 1) : " "
        after = substr(s, p + length(w), 1)
        if (before !~ /[A-Za-z0-9_]/ && after !~ /[A-Za-z0-9_]/) return 1
        s = substr(s, p + length(w))
    }
    return 0
}
function names(text,   i, out) {
    out = ""
    for (i = 1; i <= nk; ++i) if (K[i] != "" && mentions(text, K[i])) out = out " " K[i]
    for (i = 1; i <= nf; ++i) if (mentions(text, F[i])) { out = out " +"; break }
    return out
}
# Emits every flag of `s` as KIND LINE FLAG WHO.
function flags(s, kind, line, who,   p, f, before) {
    while (match(s, /--[a-z][a-z0-9-]*/)) {
        p = RSTART; f = substr(s, RSTART, RLENGTH)
        before = p > 1 ? substr(s, p - 1, 1) : " "
        s = substr(s, RSTART + RLENGTH)
        if (before ~ /[A-Za-z0-9_-]/ || f == "--help") continue
        print kind "\t" line "\t" f "\t" who
    }
}
# The first word of a command, past VAR=value assignments.
function first_word(cmd,   w, n, i) {
    n = split(cmd, w, /[ \t]+/)
    for (i = 1; i <= n; ++i) {
        if (w[i] == "" || w[i] ~ /^[A-Za-z_][A-Za-z0-9_]*=/) continue
        return w[i]
    }
    return ""
}
function shell_line(cmd, line,   parts, n, i, w) {
    sub(/(^|[ \t])#.*/, "", cmd)
    n = split(cmd, parts, /&&|\|\||[;|&]/)
    for (i = 1; i <= n; ++i) {
        w = base(first_word(parts[i]))
        if (is_known(w)) flags(parts[i], "cmd", line, " " w)
    }
}
function end_para(   s, n, i, seg, w, who) {
    if (para == "") return
    n = split(para, seg, "`")
    # The programs of the section join those of the paragraph; other commands named in the
    # section count only when the paragraph names no program.
    who = names(para)
    if (who ~ /[a-z]/) {
        who = who section_programs
    } else {
        who = who section_names
    }
    who = uniq(who)
    for (i = 2; i <= n; i += 2) {
        w = first_word(seg[i])
        if (w ~ /^-/) {
            if (who != "") flags(seg[i], "para", para_line, who)
            else flags(seg[i], "para", para_line, " ?")
        } else if (is_known(base(w))) {
            flags(seg[i], "cmd", para_line, " " base(w))
        }
    }
    para = ""
}
# Sections: a "## " heading to the next; their names are gathered in a first pass.
FNR == NR {
    if ($0 ~ /^## /) ++sec
    SEC_TEXT[sec] = SEC_TEXT[sec] " " $0
    next
}
FNR == 1 { sec = 0; section_names = ""; section_programs = "" }
/^## / { end_para(); ++sec; section_names = names(SEC_TEXT[sec]); section_programs = section_names; gsub(/ \+/, "", section_programs) }
fence != "" {
    if ($0 ~ /^[ \t]*```[ \t]*$/) { fence = ""; if (pending != "") shell_line(pending, pending_line); pending = ""; next }
    if (fence == "sh") {
        l = $0
        if (pending == "") pending_line = FNR
        if (l ~ /\\[ \t]*$/) { sub(/\\[ \t]*$/, " ", l); pending = pending l; next }
        shell_line(pending l, pending_line); pending = ""
    }
    next
}
/^[ \t]*```/ {
    end_para()
    fence = $0; sub(/^[ \t]*```/, "", fence); sub(/[ \t]+$/, "", fence)
    if (fence == "bash" || fence == "console" || fence == "shell") fence = "sh"
    if (fence == "") fence = "other"
    pending = ""
    next
}
/^[ \t]*$/ { end_para(); next }
/^#/ { end_para(); next }
{ if (para == "") para_line = FNR; para = para " " $0 }
END { end_para() }
' "$readme" "$readme" | sort -u -t "$(printf '\t')" -k3,4 -k2,2n >"$tmp/flags"

checked=0
while IFS="$(printf '\t')" read -r kind line flag who; do
    found=""
    other=0
    built=0
    for name in $who; do
        if [ "$name" = "+" ]; then
            other=1
            continue
        fi
        [ "$name" = "?" ] && continue
        [ -f "$tmp/help_$name" ] || continue
        built=$((built + 1))
        if grep -qE -- "(^|[^a-z0-9-])$flag([^a-z0-9-]|\$)" "$tmp/help_$name"; then
            found=$name
            break
        fi
    done
    checked=$((checked + 1))
    if [ -n "$found" ]; then
        continue
    elif [ "$kind" = "para" ] && { [ "$other" -eq 1 ] || [ "$built" -eq 0 ]; }; then
        echo "skip: $flag (README.md:$line): not given to one of the programs tested (${who# })"
    elif [ "$built" -eq 0 ]; then
        echo "skip: $flag (README.md:$line): ${who# } is not built"
    else
        echo "FAIL: README.md:$line gives $flag to${who}, and --help does not list it"
        status=1
    fi
done <"$tmp/flags"
echo "checked $checked flags the README gives to the programs"
[ "$status" -eq 0 ] && echo "ok: README.md's code blocks compile and its flags exist"
exit $status
