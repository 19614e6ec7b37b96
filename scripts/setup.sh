#!/usr/bin/env bash
# Sets everything up on a fresh Debian 12 machine and runs the main job:
# installs the packages, builds arvo-fim and the module (Release) into
# ./build, shows what the module offers, then scans /etc twice with a
# private database under build/demo: the first run builds the baseline,
# the second checks /etc against it.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
bash "$here/scripts/install-deps.sh"
cmake -S "$here" -B "$here/build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DARVO_BUILD_TESTS=OFF \
  -DARVO_BUILD_BENCH=OFF
cmake --build "$here/build" -j "$(nproc)"
fim="$here/build/bin/arvo-fim"
"$fim" --version
"$fim" list

demo="$here/build/demo"
mkdir -p "$demo"
export ARVO_FIM_DB="$demo/fim.db" ARVO_FIM_STORAGE="$demo/fim_storage.dat"
rm -f "$ARVO_FIM_DB" "$ARVO_FIM_STORAGE"
for run in baseline check; do
  echo "== arvo-fim scan /etc ($run)"
  rc=0
  "$fim" scan --format text /etc || rc=$?
  # 0: nothing changed, 1: changes were reported; anything else is a failure.
  [ "$rc" -le 1 ] || { echo "arvo-fim scan failed with exit code $rc" >&2; exit "$rc"; }
done
