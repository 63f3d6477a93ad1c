#!/usr/bin/env bash
# Installs what is missing, builds with warnings as errors, and runs every
# unit and integration test through ctest.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh test
scripts/build.sh -DTOKARD_WERROR=ON -DTOKARD_BUILD_TESTS=ON
ctest --test-dir build --output-on-failure --timeout 300 -j2
