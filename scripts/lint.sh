#!/bin/sh
# Formatting and static checks of the C++ code (.clang-format, .clang-tidy).
#
#   scripts/lint.sh            clang-format over the lines changed since the base, then
#                              clang-tidy over the source files changed since the base
#   scripts/lint.sh --format   only the clang-format check
#   scripts/lint.sh --fix      let clang-format rewrite the lines changed since the base
#   scripts/lint.sh --all      clang-tidy over every source file the debug build compiles
#                              (about half an hour on two cores)
#
#   SWG_LINT_BASE   the commit changes are counted from (default: main; committed and
#                   uncommitted changes of the work tree both count)
#
# Formatting is checked on changed lines only, so that code written before the settings
# existed is not rewritten wholesale. clang-tidy reads the compile commands of the debug
# build: run `cmake --preset debug` first. Exits 1 when a line is not formatted or a check
# fires.
set -eu
cd "$(dirname "$0")/.."

mode=${1:-changed}
case $mode in
    changed|--format|--fix|--all) ;;
    *) echo "usage: scripts/lint.sh [--format|--fix|--all]" >&2; exit 2 ;;
esac

base_ref=${SWG_LINT_BASE:-main}
if ! base=$(git merge-base HEAD "$base_ref" 2>/dev/null); then
    echo "lint: no commit '$base_ref' to compare with; only uncommitted changes count" >&2
    base=HEAD
fi
paths="src tools tests bench"

if [ "$mode" = "--fix" ]; then
    # shellcheck disable=SC2086
    git clang-format --quiet "$base" -- $paths || true
    exit 0
fi

if [ "$mode" != "--all" ]; then
    echo "==== clang-format (lines changed since $(git rev-parse --short "$base"))"
    # shellcheck disable=SC2086
    changes=$(git clang-format --quiet --diff "$base" -- $paths)
    if [ -n "$changes" ]; then
        printf '%s\n' "$changes"
        echo "lint: clang-format would change the lines above; scripts/lint.sh --fix does it" >&2
        exit 1
    fi
    [ "$mode" = "--format" ] && exit 0
fi

if [ ! -f build/debug/compile_commands.json ]; then
    echo "lint: no build/debug/compile_commands.json; run cmake --preset debug" >&2
    exit 1
fi
# Only what the debug build compiles (the fuzz targets are built by the fuzz preset alone).
# CMake writes the resolved path of the tree, so the match is on that too.
known=$(sed -n 's|^ *"file": "'"$(pwd -P)"'/\(.*\)",*$|\1|p' build/debug/compile_commands.json |
    grep -E '^(src|tools|tests|bench)/' | sort -u)
if [ "$mode" = "--all" ]; then
    sources=$known
else
    changed=$( (git diff --name-only "$base" -- '*.cpp' '*.c'
        git ls-files --others --exclude-standard '*.cpp' '*.c') |
        sort -u)
    sources=$(printf '%s\n' "$changed" | grep -xF "$known" || true)
fi
if [ -z "$sources" ]; then
    if [ "$mode" = "--all" ]; then
        echo "lint: build/debug/compile_commands.json names no file of this tree" >&2
        exit 1
    fi
    echo "==== clang-tidy: no changed source files"
    exit 0
fi
echo "==== clang-tidy ($(printf '%s\n' "$sources" | wc -l) files)"
status=0
for file in $sources; do
    [ -f "$file" ] || continue
    # Its standard error only counts warnings; the file is named on any failure, so that one
    # without a finding on standard output (a crash) is not silent.
    if ! clang-tidy -p build/debug --quiet "$file" 2>/dev/null; then
        echo "lint: clang-tidy failed on $file" >&2
        status=1
    fi
done
exit $status
