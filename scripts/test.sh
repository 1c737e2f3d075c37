#!/usr/bin/env bash
# The whole test suite: a Release build with the tests, then the same under AddressSanitizer and
# UndefinedBehaviorSanitizer, then the tests where threads meet (ctest label "threads") under
# ThreadSanitizer, then an installed copy used by an outside CMake project. Every stage configures all
# the options it relies on, and a stage that finds no test fails.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh g++ cmake make libgtest-dev libcli11-dev nlohmann-json3-dev ffmpeg \
  gstreamer1.0-tools gstreamer1.0-plugins-good gstreamer1.0-libav chromium
# Node with npm from Debian, unless a node that brings its own npm is there (its package conflicts
# with Debian's npm).
command -v npm >/dev/null 2>&1 || scripts/deps.sh nodejs npm
# The browser tests drive the system's chromium with npm's playwright-core, which downloads no browser.
[ -d tests/browser/node_modules/playwright-core ] ||
  (cd tests/browser && PLAYWRIGHT_SKIP_BROWSER_DOWNLOAD=1 npm ci --no-audit --no-fund)
jobs=$(nproc)

echo "== Release build and tests (build-release)"
scripts/build.sh build-release -DCMAKE_BUILD_TYPE=Release -DBOXWEAVE_TESTS=ON -DBOXWEAVE_TOOLS=ON \
  -DBOXWEAVE_SANITIZE=OFF -DBOXWEAVE_TSAN=OFF -DBOXWEAVE_BENCH=OFF -DBOXWEAVE_FUZZ=OFF
(cd build-release && ctest --no-tests=error --output-on-failure -j "$jobs")

echo "== AddressSanitizer and UndefinedBehaviorSanitizer build and tests (build-asan)"
scripts/build.sh build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBOXWEAVE_TESTS=ON -DBOXWEAVE_TOOLS=ON \
  -DBOXWEAVE_SANITIZE=ON -DBOXWEAVE_TSAN=OFF -DBOXWEAVE_BENCH=OFF -DBOXWEAVE_FUZZ=OFF
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
(cd build-asan && ctest --no-tests=error --output-on-failure -j "$jobs")
unset ASAN_OPTIONS UBSAN_OPTIONS

echo "== ThreadSanitizer build and the threaded tests (build-tsan)"
# The tools are left out: no threaded test runs them.
scripts/build.sh build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBOXWEAVE_TESTS=ON -DBOXWEAVE_TOOLS=OFF \
  -DBOXWEAVE_SANITIZE=OFF -DBOXWEAVE_TSAN=ON -DBOXWEAVE_BENCH=OFF -DBOXWEAVE_FUZZ=OFF
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
(cd build-tsan && ctest -L threads --no-tests=error --output-on-failure -j "$jobs")
unset TSAN_OPTIONS

echo "== cmake --install, then an outside project with find_package(boxweave)"
scripts/consumer.sh build-release

echo "all tests passed (Release, address- and thread-sanitized, installed)"
