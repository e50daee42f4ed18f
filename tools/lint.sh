#!/usr/bin/env bash
# Formatting and static checks of all tracked C and C++ files; changes nothing.
# Usage: tools/lint.sh [FILE...]   (all files that git knows, where none is named)
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."

if [ $# -gt 0 ]; then
    files=("$@")
else
    mapfile -t files < <(git ls-files --cached --others --exclude-standard '*.c' '*.cpp' '*.h')
fi

clang-format --dry-run -Werror "${files[@]}"
echo "lint: clang-format agrees with ${#files[@]} files"

# clang-tidy wants the commands by which files are compiled; clang's own, whose flags it knows.
mkdir -p build
{ cmake --preset dev-clang -DKORVANE_BUILD_BENCHMARKS=ON &&
    cmake --build --preset dev-clang --target korvane_header_examples; } >build/lint.log 2>&1 ||
    { cat build/lint.log >&2; exit 1; }
compiled=()
for file in "${files[@]}"; do
    grep -qF "\"file\": \"$PWD/$file\"" build/dev-clang/compile_commands.json && compiled+=("$file")
done
printf '%s\0' "${compiled[@]}" |
    xargs -0 -n 1 -P "$(nproc)" clang-tidy --quiet -p build/dev-clang 2>build/lint-tidy.log ||
    { grep -v 'warnings\? generated' build/lint-tidy.log >&2 || true; exit 1; }
echo "lint: clang-tidy agrees with ${#compiled[@]} files"
