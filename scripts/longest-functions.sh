#!/bin/sh
# Lists the longest function bodies under the given folders (default: src), longest first:
# lines from the first line of the definition to its closing brace, as Universal Ctags
# sees them.
#
#   scripts/longest-functions.sh [-n COUNT] [FOLDER...]
set -eu
count=10
if [ "${1:-}" = "-n" ]; then
    count=$2
    shift 2
fi
[ $# -gt 0 ] || set -- src
command -v ctags >/dev/null || { echo "needs universal-ctags" >&2; exit 2; }
ctags -R --languages=C++ --kinds-C++=f --fields=+neK --extras=-F -f - "$@" |
    awk -F'\t' '{
        line = 0; end = 0; scope = ""
        for (i = 4; i <= NF; i++) {
            if ($i ~ /^line:/) line = substr($i, 6)
            if ($i ~ /^end:/) end = substr($i, 5)
            if ($i ~ /^(class|struct|namespace):/) { scope = $i; sub(/^[a-z]+:/, "", scope) }
        }
        if (end == 0) next
        name = scope != "" ? scope "::" $1 : $1
        printf "%5d  %s:%d  %s\n", end - line + 1, $2, line, name
    }' | sort -rn | head -n "$count"
