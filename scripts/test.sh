#!/usr/bin/env bash
# Runs the whole test suite in separate build trees ("legs"):
#   native   every test (unit, module-through-dlopen, end-to-end)
#   asan     every test, built with AddressSanitizer and UBSan
#   tsan     unit and module tests, built with ThreadSanitizer
#   aarch64  unit and module tests, cross-built for arm64 with UBSan, run under qemu
#   fuzz     the libFuzzer targets of fuzz/ (clang, ASan+UBSan), each for a bounded time
#            (ARVO_FUZZ_SECONDS, default 30) over its seed corpus
#   package  the Debian packages, amd64 and arm64 cross, and their checks
#            (scripts/package-check.sh)
# Usage: scripts/test.sh [LEG...]   (default: all six; ARVO_TEST_LEGS also works)
# Prints "N passed, N failed" over all legs last; exits non-zero on any failure.
set -uo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
legs=("$@")
[ ${#legs[@]} -gt 0 ] || read -r -a legs <<< "${ARVO_TEST_LEGS:-native asan tsan aarch64 fuzz package}"
jobs=$(nproc)
total_pass=0
total_fail=0
failed_legs=()

# The package leg counts its own checks: "N passed, N failed" last.
run_package_leg() {
  echo "=== leg package ==="
  bash "$here/scripts/package-check.sh" "$here/build-test/package" 2>&1 | tee "$here/build-test/package.log"
  local rc=${PIPESTATUS[0]} counts
  counts=$(grep -E '^[0-9]+ passed, [0-9]+ failed$' "$here/build-test/package.log" | tail -1)
  if [ -n "$counts" ]; then
    local passed=${counts%% *} failed=${counts#*, }
    total_pass=$((total_pass + passed))
    total_fail=$((total_fail + ${failed%% *}))
  fi
  return "$rc"
}

run_leg() {
  local leg=$1
  [ "$leg" = package ] && { run_package_leg; return; }
  local dir="$here/build-test/$1" label="" cmake_args=(-DARVO_BUILD_BENCH=OFF) targets=()
  # A compiler cache, where installed, makes a rerun on the same machine cheap.
  if command -v ccache > /dev/null; then
    cmake_args+=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
  fi
  # Line tables (-g1) are all a failure's stack trace needs, and full debug
  # information would double the compile time; the sanitizer legs build at -O1,
  # as the sanitizers' authors advise, which halves it again.
  local opt="-O1 -g1 -DNDEBUG"
  case "$leg" in
    native) opt="-O2 -g1 -DNDEBUG" ;;
    asan) cmake_args+=("-DARVO_SANITIZE=address;undefined") ;;
    tsan) cmake_args+=(-DARVO_SANITIZE=thread -DARVO_BUILD_E2E_TESTS=OFF); label="unit|module" ;;
    # UBSan only: memory errors are the asan leg's, and under qemu ASan
    # doubles both the build and the run.
    aarch64)
      cmake_args+=(-DCMAKE_TOOLCHAIN_FILE="$here/cmake/aarch64-linux-gnu.cmake"
                   -DARVO_SANITIZE=undefined)
      label="unit|module" ;;
    # Only the fuzz targets and what they link are built.
    fuzz)
      cmake_args+=(-DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DARVO_BUILD_FUZZ=ON
                   -DARVO_BUILD_TESTS=OFF "-DARVO_SANITIZE=address;undefined"
                   -DARVO_FUZZ_SECONDS="${ARVO_FUZZ_SECONDS:-30}")
      label="fuzz"; targets=(--target arvo_fuzz) ;;
    *) echo "unknown leg: $leg" >&2; return 2 ;;
  esac
  cmake_args+=("-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=$opt" "-DCMAKE_C_FLAGS_RELWITHDEBINFO=$opt")
  echo "=== leg $leg ==="
  cmake -S "$here" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "${cmake_args[@]}" > "$dir.configure.log" 2>&1 \
    || { cat "$dir.configure.log"; return 1; }
  cmake --build "$dir" -j "$jobs" "${targets[@]}" || return 1
  local ctest_args=(--test-dir "$dir" --output-on-failure -j "$jobs" --timeout 600)
  [ -n "$label" ] && ctest_args+=(-L "$label")
  # Leaks are checked natively; under qemu LeakSanitizer cannot run.
  ASAN_OPTIONS="detect_leaks=$([ "$leg" = aarch64 ] && echo 0 || echo 1):abort_on_error=1" \
  UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1" \
  TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1" \
    ctest "${ctest_args[@]}" 2>&1 | tee "$dir.ctest.log"
  local rc=${PIPESTATUS[0]}
  local summary
  summary=$(grep -Eo '[0-9]+ tests failed out of [0-9]+' "$dir.ctest.log" | tail -1)
  if [ -n "$summary" ]; then
    local failed=${summary%% *} all=${summary##* }
    total_fail=$((total_fail + failed))
    total_pass=$((total_pass + all - failed))
  fi
  return "$rc"
}

mkdir -p "$here/build-test"
for leg in "${legs[@]}"; do
  if ! run_leg "$leg"; then
    failed_legs+=("$leg")
  fi
done

echo "legs: ${legs[*]}; failed legs: ${failed_legs[*]:-none}"
echo "${total_pass} passed, ${total_fail} failed"
[ ${#failed_legs[@]} -eq 0 ]
