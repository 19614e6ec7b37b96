#!/usr/bin/env bash
# Builds the Debian packages (amd64 natively, arm64 cross) out of a copy of
# the source tree and checks them: lintian errors, the amd64 file list, the
# program run from the unpacked package with the default policy pointed at
# a scratch root, the units, the manual pages, a host built against the
# -dev package. Tests are not run inside the package build (nocheck).
# Usage: scripts/package-check.sh [WORKDIR]   (default build-test/package)
# Prints "N passed, N failed" last; exits non-zero on any failure.
set -uo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
work=${1:-$here/build-test/package}
native_arch=$(dpkg --print-architecture)
triplet=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
version=$(dpkg-parsechangelog -l "$here/debian/changelog" -S Version)
pass=0
fail=0

check() {  # check NAME COMMAND...: one counted check, its output kept in a log.
  local name=$1 log="$work/log/$1.log"
  shift
  if "$@" > "$log" 2>&1; then
    pass=$((pass + 1)); echo "ok   $name"
  else
    fail=$((fail + 1)); echo "FAIL $name (log: $log)"; tail -20 "$log"
  fi
}

build() {  # build ARCH: dpkg-buildpackage in its own copy of the tree.
  local arch=$1 src="$work/$1/src" args=(-us -uc -b)
  rm -rf "$work/$arch" && mkdir -p "$src"
  tar -C "$here" --exclude='./build*' --exclude=./.git --exclude='./obj-*' -cf - . | tar -C "$src" -xf -
  [ "$arch" = "$native_arch" ] && args+=(-Pnocheck) || args+=(-a "$arch" -Pcross,nocheck)
  local launcher=""
  command -v ccache > /dev/null &&
    launcher="-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache"
  (cd "$src" && DEB_BUILD_OPTIONS="nocheck parallel=$(nproc)" ARVO_DEB_CMAKE_ARGS="$launcher" \
     dpkg-buildpackage "${args[@]}")
}

lintian_clean() {  # lintian_clean ARCH: no error on the .changes (both packages).
  lintian --fail-on error \
    "$work/$1"/arvo-fim_"${version}"_"$1".changes
}

# Every file and link the amd64 packages ship, documentation aside.
expected_files() {
  cat <<EOF
./etc/arvo-fim/arvo-fim.toml
./etc/logrotate.d/arvo-fim
./lib/systemd/system/arvo-fim-scan.service
./lib/systemd/system/arvo-fim-scan.timer
./lib/systemd/system/arvo-fim.service
./usr/lib/$triplet/arvo-fim/libintegrity_monitor.so
./usr/lib/tmpfiles.d/arvo-fim.conf
./usr/sbin/arvo-fim
./usr/share/man/man5/arvo-fim.toml.5.gz
./usr/share/man/man8/arvo-fim.8.gz
./usr/lib/$triplet/pkgconfig/arvo-fim.pc
$(cd "$here/include" && find . -type f | sed "s|^\.|./usr/include/arvo-fim|" | sort)
EOF
}

file_list_matches() {
  local deb actual
  actual=$(for deb in "$work/$native_arch"/arvo-fim_*.deb "$work/$native_arch"/arvo-fim-dev_*.deb; do
             dpkg-deb -c "$deb"
           done | awk '$1 !~ /^d/ {print $6}' | grep -v '^./usr/share/doc/' | sort)
  diff -u <(expected_files | sort) <(echo "$actual")
}

cross_binary_is_arm64() {
  local x="$work/arm64/x"
  rm -rf "$x" && dpkg -x "$work"/arm64/arvo-fim_"${version}"_arm64.deb "$x" &&
    file "$x/usr/sbin/arvo-fim" "$x/usr/lib/aarch64-linux-gnu/arvo-fim/libintegrity_monitor.so" |
    tee /dev/stderr | grep -c 'ARM aarch64' | grep -qx 2
}

unpack_native() {
  rm -rf "$work/x" && dpkg -x "$work/$native_arch"/arvo-fim_"${version}"_"$native_arch".deb "$work/x" &&
    dpkg -x "$work/$native_arch"/arvo-fim-dev_"${version}"_"$native_arch".deb "$work/x"
}

# The default policy with every absolute path moved under a scratch root
# holding a few files per area; the module must be found without
# ARVO_FIM_MODULE, by the program's lookup relative to itself.
scan_with_default_policy() {
  local root="$work/root" state="$work/state" fim=("$work/x/usr/sbin/arvo-fim")
  rm -rf "$root" "$state" && mkdir -p "$root" "$state"
  sed "s|\"/|\"$root/|g" "$work/x/etc/arvo-fim/arvo-fim.toml" > "$state/policy.toml"
  local area
  for area in $(sed -n 's|^path = "\(.*\)"|\1|p' "$work/x/etc/arvo-fim/arvo-fim.toml"); do
    mkdir -p "$root$area/sub" && echo one > "$root$area/file" && echo two > "$root$area/sub/file"
  done
  echo 1.5 > "$root/etc/adjtime"
  export ARVO_FIM_DB="$state/fim.db" ARVO_FIM_STORAGE="$state/fim_storage.dat"
  unset ARVO_FIM_MODULE
  env "${fim[@]}" --version | grep -F "$work/x/usr/lib/$triplet/arvo-fim/libintegrity_monitor.so" &&
    "${fim[@]}" scan --config "$state/policy.toml" > "$state/baseline.jsonl" &&
    grep -c BaselineBuilt "$state/baseline.jsonl" &&
    echo changed > "$root/usr/bin/file" && echo 2.5 > "$root/etc/adjtime" &&
    { "${fim[@]}" scan --config "$state/policy.toml" > "$state/check.jsonl"; [ $? -eq 1 ]; } &&
    grep -F "\"$root/usr/bin/file\"" "$state/check.jsonl" &&
    ! grep -F "$root/etc/adjtime" "$state/check.jsonl"
}

# systemd-analyze checks that the programs a unit runs exist: point them at
# the unpacked program. Prints each unit's exposure level, and that of the
# service with the inotify-only drop-in of the documentation applied.
units_verify() {
  local units="$work/units" unit
  rm -rf "$units" && mkdir -p "$units"
  for unit in "$work"/x/lib/systemd/system/*; do
    sed "s|/usr/sbin/arvo-fim|$work/x/usr/sbin/arvo-fim|" "$unit" > "$units/${unit##*/}"
  done
  { sed '/^\[Install\]/,$d' "$units/arvo-fim.service"
    sed '1,/^\[Service\]/d' "$work"/x/usr/share/doc/arvo-fim/examples/arvo-fim-inotify.conf
  } > "$units/arvo-fim-inotify-only.service"
  systemd-analyze verify --man=no "$units"/* || return 1
  for unit in "$units"/*.service; do
    systemd-analyze security --offline=true "$unit" | tail -1
    # "OK" or better: an exposure level below 5.0.
    systemd-analyze security --offline=true --threshold=49 "$unit" > /dev/null || return 1
  done
}

# A dry run of the rotation on a scratch copy of the log directory.
logrotate_dry_run() {
  local dir="$work/logrotate"
  rm -rf "$dir" && mkdir -p "$dir/log" && echo '{}' > "$dir/log/events.jsonl"
  sed "s|/var/log/arvo-fim|$dir/log|" "$work/x/etc/logrotate.d/arvo-fim" > "$dir/conf"
  logrotate -d -f -s "$dir/state" "$dir/conf" 2>&1 | tee /dev/stderr | grep -q 'running postrotate script'
}

man_pages_render() {
  local page
  for page in "$work"/x/usr/share/man/man*/*; do
    MANWIDTH=80 man --warnings -l "$page" 2>&1 > /dev/null | tee /dev/stderr | grep -q . && return 1
    MANWIDTH=80 man -l "$page" | grep -q '^NAME' || return 1
  done
}

# A host of its own built with the -dev package's pkg-config file: compiles
# against the installed headers and loads the module the file names.
dev_package_builds_a_host() {
  local pc=(env PKG_CONFIG_SYSROOT_DIR="$work/x" PKG_CONFIG_LIBDIR="$work/x/usr/lib/$triplet/pkgconfig")
  local module
  module=$("${pc[@]}" pkg-config --variable=module arvo-fim) || return 1
  # pkgconf puts the sysroot before path variables; pkg-config did not.
  [[ $module == "$work/x/"* ]] || module="$work/x$module"
  cat > "$work/host.cpp" <<'EOF'
#include <dlfcn.h>
#include <cstdio>
#include "orn/module.h"
int main(int, char** argv) {
  void* handle = dlopen(argv[1], RTLD_NOW);
  if (!handle) return std::puts(dlerror()), 1;
  auto canUnload = reinterpret_cast<orn::CanUnloadModuleFn>(dlsym(handle, "ornCanUnloadModule"));
  return canUnload && canUnload() == 0 ? 0 : 1;
}
EOF
  # shellcheck disable=SC2046
  g++ -std=c++20 $("${pc[@]}" pkg-config --cflags arvo-fim) "$work/host.cpp" -o "$work/host" -ldl &&
    "$work/host" "$module"
}

mkdir -p "$work/log"
check build-"$native_arch" build "$native_arch"
check build-arm64-cross build arm64
check lintian-"$native_arch" lintian_clean "$native_arch"
check lintian-arm64 lintian_clean arm64
check arm64-binaries cross_binary_is_arm64
check file-list file_list_matches
check unpack unpack_native
check scan-default-policy scan_with_default_policy
check units units_verify
check logrotate logrotate_dry_run
check man-pages man_pages_render
check dev-package-host dev_package_builds_a_host
grep -h '^[WE]:' "$work"/log/lintian-*.log | sort -u
grep -h 'exposure level' "$work/log/units.log"
echo "${pass} passed, ${fail} failed"
[ "$fail" -eq 0 ]
