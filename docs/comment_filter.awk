# Doxygen input filter for quolnet's headers (docs/Doxyfile.in: INPUT_FILTER).
#
# The headers are documented with plain // comments, written for people reading the header.
# This filter shows Doxygen the same comments as documentation, one output line per input
# line (so line numbers stay right):
#   - the comment block a header starts with documents the file (`\file`);
#   - a comment on lines of its own, at namespace or class scope, documents what follows;
#   - a comment after a declaration on the same line (`int x = 0;  // what x is`), and the
#     comment lines aligned under it, document that declaration;
#   - comments inside function bodies, section banners (`// ---- send path ----`) and
#     preprocessor lines are left alone;
#   - outside `code spans`, the characters Doxygen would read as commands or HTML are
#     escaped, so the text reads as written.
# Usage: awk -f comment_filter.awk HEADER

function escape_text(text,    out, parts, n, i, seg) {
    # Even fields lie inside `code spans`: kept as they are.
    n = split(text, parts, "`")
    out = ""
    for (i = 1; i <= n; ++i) {
        seg = parts[i]
        if (i % 2 == 1) {
            gsub(/\\/, "\\\\\\\\", seg)
            gsub(/@/, "\\@", seg)
            gsub(/</, "\\<", seg)
            gsub(/>/, "\\>", seg)
            gsub(/&/, "\\\\\\&", seg)
            gsub(/#/, "\\#", seg)
            gsub(/%/, "\\%", seg)
        }
        out = out (i > 1 ? "`" : "") seg
    }
    return out
}

# The position of the // that starts a comment outside string and character literals, or 0.
# Sets CODE to the line's code with the literals blanked out.
function comment_pos(line,    i, c, q, n) {
    CODE = ""
    q = ""
    n = length(line)
    for (i = 1; i <= n; ++i) {
        c = substr(line, i, 1)
        if (q != "") {
            if (c == "\\") {
                CODE = CODE "  "
                ++i
                continue
            }
            if (c == q) {
                q = ""
            }
            CODE = CODE (c == q || q == "" ? c : " ")
            continue
        }
        if (c == "\"" || c == "'") {
            q = c
            CODE = CODE c
            continue
        }
        if (c == "/" && substr(line, i + 1, 1) == "/") {
            return i
        }
        if (c == "/" && substr(line, i + 1, 1) == "*") {
            return 0  # block comments are not used in the headers; leave such a line alone
        }
        CODE = CODE c
    }
    return 0
}

# Whether the text before a `{` opens a scope (namespace, class, struct, union, enum) rather
# than a function body or an initialiser.
function opens_scope(head) {
    if (head ~ /\(/) {
        return 0
    }
    return head ~ /(^|[^A-Za-z0-9_])(namespace|class|struct|union|enum)([^A-Za-z0-9_]|$)/
}

# Updates the scope stack with the braces of a line's code.
function track_braces(code,    i, c, n) {
    n = length(code)
    for (i = 1; i <= n; ++i) {
        c = substr(code, i, 1)
        if (c == "{") {
            STACK[++DEPTH] = opens_scope(HEAD) ? "scope" : "body"
            HEAD = ""
        } else if (c == "}") {
            if (DEPTH > 0) {
                --DEPTH
            }
            HEAD = ""
        } else if (c == ";") {
            HEAD = ""
        } else {
            HEAD = HEAD c
        }
    }
    HEAD = HEAD " "
}

function in_body() {
    return DEPTH > 0 && STACK[DEPTH] == "body"
}

function count(s, ch,    t) {
    t = s
    return gsub(ch, "", t)
}

{ LINE[NR] = $0 }

END {
    DEPTH = 0
    HEAD = ""
    trail_col = 0  # column of the last trailing comment turned into documentation
    i = 1
    # The leading comment block documents the file.
    while (i <= NR && LINE[i] ~ /^\/\// && LINE[i] !~ /^\/\/\//) {
        text = substr(LINE[i], 3)
        is_last = !(i + 1 <= NR && LINE[i + 1] ~ /^\/\// && LINE[i + 1] !~ /^\/\/\//)
        print "///" escape_text(text) (is_last ? " \\file" : "")
        ++i
    }
    for (; i <= NR; ++i) {
        line = LINE[i]
        if (line ~ /^[ \t]*#/) {
            print line
            trail_col = 0
            continue
        }
        pos = comment_pos(line)
        code = CODE
        if (pos == 0) {
            print line
            track_braces(code)
            trail_col = 0
            continue
        }
        before = substr(line, 1, pos - 1)
        rest = substr(line, pos + 2)
        if (before ~ /^[ \t]*$/) {
            # A comment on a line of its own.
            if (rest ~ /^[\/!<]/ || in_body()) {
                print line
            } else if (trail_col > 0 && pos == trail_col) {
                print before "///<" escape_text(rest)
            } else if (rest ~ /^ *(----|====)/) {
                print line
                trail_col = 0
            } else {
                print before "///" escape_text(rest)
                trail_col = 0
            }
            continue
        }
        # Code, then a comment: documents the declaration on this line when it is one whole
        # declaration at namespace or class scope.
        trimmed = code
        sub(/[ \t]+$/, "", trimmed)
        if (!in_body() && rest !~ /^[\/!<]/ && trimmed !~ /^[ \t]*}/ && count(trimmed, "{") == count(trimmed, "}") &&
            trimmed ~ /[;,}]$/) {
            print before "///<" escape_text(rest)
            trail_col = pos
        } else {
            print line
            trail_col = 0
        }
        track_braces(code)
    }
}
