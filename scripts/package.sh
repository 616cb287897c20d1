#!/usr/bin/env bash
# Builds the Debian package and the RPM of the agent from a clean build:
#
#   scripts/package.sh          build/package is made afresh, then CPack
#   JOBS=N scripts/package.sh   build with N jobs (default: nproc)
#
# The build is the normal optimised one (preset "package": RelWithDebInfo,
# without tests and benchmarks); the packages carry its stripped binaries. Both
# are made from the CMake install rules in packaging/ and land in
# build/package/. Needs what scripts/setup.sh installs (dpkg-dev for the
# library dependencies, rpm for rpmbuild).
set -euo pipefail
cd "$(dirname "$0")/.."

build=build/package
export CCACHE_BASEDIR="$PWD" CCACHE_NOHASHDIR=true
rm -rf "$build"
echo "== configure (preset package)"
cmake --preset package >/dev/null
echo "== build"
cmake --build --preset package -j "${JOBS:-$(nproc)}"
echo "== packages"
# rpmbuild on Debian keeps an rpm database under $HOME: keep it in the build.
if ! out=$(cd "$build" && HOME="$PWD" cpack -G "DEB;RPM" 2>&1); then
  echo "$out" >&2
  exit 1
fi
for p in "$build"/*.deb "$build"/*.rpm; do
  printf '%8d KiB  %s\n' $(( $(stat -c %s "$p") / 1024 )) "$p"
done
