#!/usr/bin/env bash
# Formats every C++ file of the repository with .clang-format.
# Usage: scripts/format.sh [--check]   (--check: change nothing, list the
# files that are not formatted and exit 1 if there are any)
set -euo pipefail
cd "$(dirname "$0")/.."
format=$(command -v clang-format-14 || command -v clang-format)
mapfile -t files < <(git ls-files -- '*.c' '*.cc' '*.cpp' '*.h' '*.hpp')
if [ "${1:-}" = --check ]; then
  unformatted=()
  for f in "${files[@]}"; do
    "$format" --dry-run -Werror "$f" >/dev/null 2>&1 || unformatted+=("$f")
  done
  if [ ${#unformatted[@]} -gt 0 ]; then
    printf 'not formatted: %s\n' "${unformatted[@]}" >&2
    echo "Run scripts/format.sh to format them." >&2
    exit 1
  fi
  exit 0
fi
"$format" -i "${files[@]}"
