#!/bin/sh
# Formatting and static checks.
#
#   scripts/lint.sh            clang-format check of every C++ file, then clang-tidy over the
#                              files that differ from main (committed or not)
#   scripts/lint.sh --all      clang-tidy over every C++ file of src, tools and tests (about
#                              half an hour on two cores)
#   scripts/lint.sh --format   only the clang-format check (what the test command runs)
#   scripts/lint.sh --fix      rewrite the files clang-format would change, then stop
#
# clang-tidy reads the compile commands of the debug build: run `cmake --preset debug` first.
# Exits 1 when a file is not formatted or a check fires.
set -eu
cd "$(dirname "$0")/.."

mode=${1:-changed}
files=$(git ls-files 'src/*.cpp' 'src/*.h' 'tools/*.cpp' 'tools/*.h' 'tests/*.cpp' 'tests/*.h' \
    'bench/*.cpp' 'bench/*.h')

if [ "$mode" = "--fix" ]; then
    # shellcheck disable=SC2086
    clang-format -i $files
    exit 0
fi

echo "==== clang-format"
# shellcheck disable=SC2086
if ! clang-format --dry-run --Werror $files; then
    echo "lint: clang-format would change the files above; scripts/lint.sh --fix rewrites them" >&2
    exit 1
fi
[ "$mode" = "--format" ] && exit 0

if [ ! -f build/debug/compile_commands.json ]; then
    echo "lint: no build/debug/compile_commands.json; run cmake --preset debug" >&2
    exit 1
fi
if [ "$mode" = "--all" ]; then
    sources=$(echo "$files" | grep '\.cpp$' || true)
else
    base=$(git merge-base HEAD main 2>/dev/null || echo HEAD)
    sources=$( (git diff --name-only "$base" -- '*.cpp'; git ls-files --others --exclude-standard '*.cpp') |
        sort -u | grep -E '^(src|tools|tests)/' || true)
fi
# Only what the debug build compiles (the fuzz targets are built by the fuzz preset alone).
known=$(sed -n 's|^ *"file": "'"$(pwd)"'/\(.*\)",*$|\1|p' build/debug/compile_commands.json)
sources=$(echo "$sources" | grep -xF "$known" || true)
if [ -z "$sources" ]; then
    echo "==== clang-tidy: no changed source files"
    exit 0
fi
echo "==== clang-tidy ($(echo "$sources" | wc -l) files)"
status=0
for file in $sources; do
    [ -f "$file" ] || continue
    clang-tidy -p build/debug --quiet "$file" 2>/dev/null || status=1
done
exit $status
