#!/usr/bin/env bash
# Builds Seaforge and runs it on the example project in a scratch directory.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bash "$root/scripts/deps.sh"
cmake -S "$root" -B "$root/build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
      -DSEAFORGE_TESTS=OFF > /dev/null
cmake --build "$root/build" --target Seaforge
scratch=$(mktemp -d)
cp -r "$root/examples/." "$scratch"
cd "$scratch"
echo "Running in $scratch"
"$root/build/Seaforge" Example.xml
