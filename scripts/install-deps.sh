#!/usr/bin/env bash
# Installs every Debian package the build, the tests and the benchmarks need.
# Idempotent: a second run changes nothing. Needs root (or sudo).
set -euo pipefail

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
APT=(${SUDO} env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=600 -y -q)

native=(
  cmake ninja-build g++ pkgconf
  libboost-dev libsqlite3-dev libssl-dev libtomlplusplus-dev
  libgtest-dev libgmock-dev libbenchmark-dev libcli11-dev libsystemd-dev
  sqlite3 acl inotify-tools aide clang-format python3 ccache
  clang libfuzzer-14-dev
  debhelper lintian systemd scdoc file man-db logrotate
)
cross=(
  g++-aarch64-linux-gnu qemu-user
  libc6-dev:arm64 libstdc++-12-dev:arm64 pkgconf:arm64
  libboost-dev:arm64 libsqlite3-dev:arm64 libssl-dev:arm64
  libtomlplusplus-dev:arm64 libgtest-dev:arm64 libgmock-dev:arm64
  libsystemd-dev:arm64 crossbuild-essential-arm64
)

want=("${native[@]}")
if [ "${ARVO_NO_CROSS:-0}" != "1" ]; then
  if ! dpkg --print-foreign-architectures | grep -qx arm64; then
    ${SUDO} dpkg --add-architecture arm64
  fi
  want+=("${cross[@]}")
fi

missing=()
for p in "${want[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ "${#missing[@]}" -gt 0 ]; then
  "${APT[@]}" update
  "${APT[@]}" install --no-install-recommends "${missing[@]}"
fi
echo "install-deps: all packages present"
