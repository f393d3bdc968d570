#!/usr/bin/env bash
# Builds the Debian packages lmreceipt and lmreceipt-dev: a Release build in
# build-package/ for the prefix /usr (no tests, no benchmarks), then
# `cpack -G DEB`. Prints the path of each .deb on a line of its own at the end.
#
# usage: scripts/package.sh
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh dpkg-dev file
# Debian's hardening flags (fortified functions, stack protector, relro,
# bind-now). No -g: the packages' files are stripped anyway.
export DEB_BUILD_MAINT_OPTIONS=hardening=+all
CPPFLAGS=$(dpkg-buildflags --get CPPFLAGS)
CXXFLAGS="$CPPFLAGS $(dpkg-buildflags --get CXXFLAGS | sed 's/\(^\| \)-g\( \|$\)/ /')"
CFLAGS="$CPPFLAGS $(dpkg-buildflags --get CFLAGS | sed 's/\(^\| \)-g\( \|$\)/ /')"
LDFLAGS=$(dpkg-buildflags --get LDFLAGS)
cmake -S . -B build-package -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
  -DLM_BUILD_TESTS=OFF -DLM_BUILD_BENCH=OFF \
  -DCMAKE_CXX_FLAGS="$CXXFLAGS" -DCMAKE_C_FLAGS="$CFLAGS" \
  -DCMAKE_EXE_LINKER_FLAGS="$LDFLAGS" -DCMAKE_SHARED_LINKER_FLAGS="$LDFLAGS" >/dev/null
cmake --build build-package -j2
rm -f build-package/*.deb
if ! (cd build-package && cpack -G DEB >cpack.log 2>&1); then
  cat build-package/cpack.log >&2
  exit 1
fi
for deb in build-package/*.deb; do
  echo "$PWD/$deb"
done
