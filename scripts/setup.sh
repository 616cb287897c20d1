#!/usr/bin/env bash
# Installs the Debian packages the project needs to build, test, benchmark and
# run. Idempotent: when everything is present it only checks and returns.
set -euo pipefail

PACKAGES=(
  # toolchain
  cmake ninja-build g++ pkg-config ccache
  # the thread-safety compile check
  clang
  # libraries the code links
  libboost-system-dev libboost-thread-dev libboost-filesystem-dev
  libboost-chrono-dev libboost-date-time-dev
  libprotobuf-dev libprotoc-dev protobuf-compiler libssl-dev openssl
  # tests and benchmarks
  libgtest-dev libgmock-dev libbenchmark-dev
  # the RPC benchmark measures against gRPC
  libgrpc++-dev protobuf-compiler-grpc
  python3 python3-protobuf rsyslog
  libspdlog-dev libbson-dev
  # sandbox for end-to-end tests: namespaces, mounts, loopback
  iproute2 util-linux procps passwd
  # metrics plots (scripts/plot_metrics.py)
  python3-matplotlib
  # packages: library dependencies of the .deb, rpmbuild, and their checks
  dpkg-dev file rpm lintian systemd init-system-helpers
)

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "setup: all ${#PACKAGES[@]} packages present"
  exit 0
fi

echo "setup: installing ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
