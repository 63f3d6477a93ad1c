#!/usr/bin/env bash
# Configures with a preset of CMakePresets.json and builds it (default preset:
# "default", into build/). Usage: scripts/build.sh [PRESET] [CMAKE ARGS...]
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-default}"
shift || true
cmake --preset "$preset" "$@"
cmake --build --preset "$preset"
