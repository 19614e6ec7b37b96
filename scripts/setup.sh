#!/usr/bin/env bash
# Sets everything up on a fresh Debian 12 machine and runs the main job:
# installs the packages, builds arvo-fim and the module (Release) into
# ./build, shows what the module offers, then scans this repository's
# example tree twice (a baseline, then a check) with a private database.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
bash "$here/scripts/install-deps.sh"
cmake -S "$here" -B "$here/build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DARVO_BUILD_TESTS=OFF
cmake --build "$here/build" -j "$(nproc)"
"$here/build/bin/arvo-fim" --version
"$here/build/bin/arvo-fim" list
