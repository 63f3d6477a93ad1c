#!/usr/bin/env bash
# Installs what is missing, checks the formatting, builds with warnings as
# errors, and runs every unit and integration test through ctest.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh test
scripts/format.sh --check
scripts/build.sh test
ctest --preset test

# Sanitizer builds and a bounded fuzzing pass (about 15 minutes on 2 cores):
# always in CI, on request elsewhere.
if [ "${CI:-}" = true ] || [ "${TOKARD_DEEP_TESTS:-0}" = 1 ]; then
  scripts/sanitizers.sh
  scripts/fuzz.sh 30
fi
