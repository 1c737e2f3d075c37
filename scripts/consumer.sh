#!/usr/bin/env bash
# Installs the build in DIR into a fresh prefix, builds the outside project tests/consumer against it
# with find_package(boxweave), runs it, and reads what it wrote with the installed boxweave.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build-release}
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build" --prefix "$prefix" >/dev/null
cmake -S tests/consumer -B "$prefix/consumer-build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$prefix/consumer-build" >/dev/null
"$prefix/consumer-build/consumer" "$prefix/tree.mp4"
tree=$("$prefix/bin/boxweave" info "$prefix/tree.mp4")
for box in ftyp moov mvhd; do
  grep -q "$box" <<<"$tree" || { echo "consumer: $box missing from the tree it wrote:"; echo "$tree"; exit 1; }
done
echo "consumer: find_package(boxweave) from $build's installation wrote and read back a box tree"
