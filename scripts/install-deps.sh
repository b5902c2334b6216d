#!/usr/bin/env bash
# Installs the Debian packages that building, testing, fuzzing and
# benchmarking com need. Idempotent: with everything present it only checks.
set -euo pipefail

PACKAGES=(
  build-essential cmake make pkg-config git python3 gzip coreutils
  libace-dev zlib1g-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-dev clang-format
  libssl-dev
  liburing-dev libblkid-dev libmount-dev libsystemd-dev libdw-dev
  libboost-dev hyperfine
  libdcmtk-dev libpoco-dev libgdcm-dev python3-pydicom
  util-linux e2fsprogs dosfstools iproute2 dbus python3-dbusmock
  tzdata
)

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
  echo "install-deps: missing packages: ${missing[*]}; run this script as root" >&2
  exit 1
fi

echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"
