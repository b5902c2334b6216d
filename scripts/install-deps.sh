#!/usr/bin/env bash
# Installs the Debian packages that building, testing, fuzzing and
# benchmarking com need. Idempotent: with everything present it only checks.
set -euo pipefail

# Groups by make target; with no argument every group is installed.
#   scripts/install-deps.sh [build] [test] [bench] [fuzz] [package] ...
BUILD=(
  build-essential cmake make pkg-config git python3 gzip coreutils
  libace-dev zlib1g-dev
  liburing-dev libblkid-dev libmount-dev libsystemd-dev libdw-dev
  clang-format
)
TEST=(
  libgtest-dev libgmock-dev libssl-dev python3-pydicom
  util-linux e2fsprogs dosfstools iproute2 dbus python3-dbusmock
  tzdata systemd dpkg-dev file
)
BENCH=(libbenchmark-dev libboost-dev hyperfine libdcmtk-dev libpoco-dev libgdcm-dev)
FUZZ=(clang libclang-rt-dev)
# cpack's DEB generator: dpkg-shlibdeps (dpkg-dev) and file.
PACKAGE=(dpkg-dev file)

groups=("$@")
[ ${#groups[@]} -eq 0 ] && groups=(build test bench fuzz package)
PACKAGES=()
for g in "${groups[@]}"; do
  case "$g" in
    build) PACKAGES+=("${BUILD[@]}") ;;
    test) PACKAGES+=("${BUILD[@]}" "${TEST[@]}") ;;
    bench) PACKAGES+=("${BUILD[@]}" "${BENCH[@]}") ;;
    fuzz) PACKAGES+=("${BUILD[@]}" "${FUZZ[@]}") ;;
    package) PACKAGES+=("${BUILD[@]}" "${PACKAGE[@]}") ;;
    *) echo "install-deps: unknown group $g (build, test, bench, fuzz, package)" >&2; exit 2 ;;
  esac
done

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
