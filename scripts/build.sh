#!/usr/bin/env bash
# Builds into DIR (default build) with extra cmake arguments.
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-build}
shift || true
scripts/deps.sh g++ cmake make libgtest-dev
cmake -S . -B "$dir" "$@" >/dev/null
cmake --build "$dir" -j "$(nproc)"
