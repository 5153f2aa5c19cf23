#!/usr/bin/env bash
# First command of the README: installs what is missing, builds both ABIs and
# runs the demo host program on each.
set -eu
cd "$(dirname "$0")/.."
bash tools/deps.sh
for preset in i386 x86_64; do
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
  echo "== demo ($preset) =="
  "build/$preset/examples/demo"
done
