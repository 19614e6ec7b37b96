#!/usr/bin/env bash
# Builds watch_bench and arvo-fim and runs the comparison with inotifywait.
#   bench/run_watch_bench.sh [BUILD_DIR] [watch_bench options...]
# A new BUILD_DIR (default build-bench) is configured as a Release build
# without tests; an existing one is used as it is.
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
build="${1:-$here/build-bench}"
shift || true
if [ ! -f "$build/CMakeCache.txt" ]; then
  cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DARVO_BUILD_TESTS=OFF >/dev/null
fi
cmake --build "$build" -j2 --target watch_bench arvo-fim
extra=()
if ! command -v inotifywait >/dev/null; then
  echo "inotifywait missing (Debian package inotify-tools): skipped" >&2
  extra+=(--no-inotifywait)
fi
exec "$build/bin/watch_bench" --arvo-fim "$build/bin/arvo-fim" "${extra[@]}" "$@"
