#!/usr/bin/env bash
# Builds into DIR (default build) with extra cmake arguments; the project's own builds stop at any
# compiler warning. Every option the caller relies on must be given: a DIR configured before keeps
# its cached options otherwise.
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-build}
shift || true
scripts/deps.sh g++ cmake make libgtest-dev libcli11-dev nlohmann-json3-dev
launcher=()
if command -v ccache >/dev/null 2>&1; then launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache); fi
cmake -S . -B "$dir" -DBOXWEAVE_WERROR=ON "${launcher[@]}" "$@" >/dev/null
cmake --build "$dir" -j "$(nproc)"
