#!/usr/bin/env bash
# Builds the Debian packages of a build and checks what each carries and needs.
#   tests/install/check_debs.sh BUILD_DIR
set -euo pipefail
build=$(cd "$1" && pwd)
(cd "$build" && rm -f ./*.deb && cpack -G DEB >/dev/null)
version=$(sed -n 's/^project(kavo VERSION \([0-9.]*\).*/\1/p' "$(dirname "$0")/../../CMakeLists.txt")
fail=0
check() { # package file-pattern...
  local deb=$build/$1_${version}_amd64.deb; shift
  [ -f "$deb" ] || { echo "missing package $deb"; fail=1; return; }
  local files; files=$(dpkg-deb -c "$deb" | awk '{print $6}')
  for want in "$@"; do
    grep -q -- "$want" <<<"$files" || { echo "$(basename "$deb") lacks $want"; fail=1; }
  done
}
check libkavo1 './usr/lib/libkavo.so.1$' './usr/lib/libkavo_sim.so.1$' './usr/share/kavo/fw/kavo_fw_app_revx.mem'
check libkavo-dev './usr/include/kavo/kavo_api.h' './usr/include/kavo_sim/kavo_sim.h' \
  './usr/lib/libkavo.so$' './usr/lib/cmake/kavo/kavoConfig.cmake' './usr/lib/pkgconfig/kavo.pc' './usr/lib/pkgconfig/kavo-sim.pc'
check kavo-tools './usr/bin/kavoctl' './usr/bin/kavo-simd' './usr/bin/kavo-mkimage' './usr/share/man/man1/kavoctl.1'
for p in libkavo-dev kavo-tools; do
  dpkg-deb -f "$build/${p}_${version}_amd64.deb" Depends | grep -q "libkavo1 (= $version)" ||
    { echo "$p does not depend on libkavo1 (= $version)"; fail=1; }
done
if dpkg-deb -c "$build/libkavo1_${version}_amd64.deb" | grep -q '/usr/include/'; then
  echo "libkavo1 carries headers"; fail=1
fi
[ $fail -eq 0 ] && echo "Debian packages: ok"
exit $fail
