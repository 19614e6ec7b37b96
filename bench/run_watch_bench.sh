#!/usr/bin/env bash
# Builds watch_bench and arvo-fim (release flags) and runs the comparison.
#   bench/run_watch_bench.sh [BUILD_DIR] [watch_bench options...]
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
build="${1:-$here/build-bench}"
shift || true
cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DARVO_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" -j2 --target watch_bench arvo-fim
command -v inotifywait >/dev/null || echo "inotifywait missing (Debian inotify-tools): it is skipped" >&2
extra=()
command -v inotifywait >/dev/null || extra+=(--no-inotifywait)
exec "$build/bin/watch_bench" --arvo-fim "$build/bin/arvo-fim" "${extra[@]}" "$@"
