#!/usr/bin/env bash
# Installs the build (install mode) or its Debian packages (deb mode) into a
# throwaway tree and builds a small C application against it, through the
# CMake package and through pkg-config, then runs it in a private mount and
# network namespace.
#
# usage: install_test.sh install|deb SOURCE_DIR BUILD_DIR LIBDIR WORK_DIR
set -euo pipefail
mode=$1 src=$2 build=$3 libdir=$4 work=$5
consumer=$src/tests/install/consumer
rm -rf "$work"
mkdir -p "$work"

fail() { echo "FAIL: $*" >&2; exit 1; }

run_sandboxed() {
  unshare --mount --net --propagation private -- bash -euc '
    ip link set lo up; mount -t tmpfs t /var; mount -t tmpfs t /dev/shm
    printf "nameserver 127.0.0.1\n" > /var/resolv.conf; mount --bind /var/resolv.conf /etc/resolv.conf
    "$@"' sandbox "$@"
}

# check_consumer USR_DIR LIB_DIR: both builds of the consumer find this tree and run.
check_consumer() {
  local usr=$1 lib=$2
  for f in "$lib/libvek_dns.so.1" "$lib/libvek_os_adapter.so.1" "$lib/libvek_dns.so" "$usr/include/vek_dns.h"; do
    [ -e "$f" ] || fail "missing $f"
  done
  cmake -S "$consumer" -B "$work/c-cmake" -DCMAKE_PREFIX_PATH="$usr" -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF >/dev/null
  grep -q "^vek_dns_DIR:PATH=$lib/cmake/vek_dns$" "$work/c-cmake/CMakeCache.txt" || fail "CMake found another vek_dns"
  cmake --build "$work/c-cmake" >/dev/null
  # shellcheck disable=SC2046
  cc -o "$work/c-pkg" "$consumer/consumer.c" $(PKG_CONFIG_LIBDIR="$lib/pkgconfig" pkg-config --cflags --libs vek_dns)
  for exe in "$work/c-cmake/consumer" "$work/c-pkg"; do
    out=$(LD_LIBRARY_PATH="$lib" run_sandboxed "$exe")
    [[ $out == *" 192.**.**.10" ]] || fail "$exe printed '$out'"
  done
  rm -rf "$work/c-cmake" "$work/c-pkg"
  echo "ok: consumer against $usr"
}

case $mode in
install)
  cmake --install "$build" --prefix "$work/rel/usr" >/dev/null
  [ -x "$work/rel/usr/bin/vekdns" ] || fail "vekdns not installed"
  check_consumer "$work/rel/usr" "$work/rel/usr/$libdir"
  # As distributions configure: an absolute library directory.
  cmake -S "$src" -B "$work/abs-build" -DCMAKE_BUILD_TYPE=Debug -DVEK_BUILD_TESTS=OFF \
    -DVEK_BUILD_BENCH=OFF -DVEK_BUILD_TOOLS=OFF \
    -DCMAKE_INSTALL_PREFIX="$work/abs/usr" -DCMAKE_INSTALL_LIBDIR="$work/abs/usr/lib64" >/dev/null
  cmake --build "$work/abs-build" -j2 >/dev/null
  cmake --install "$work/abs-build" >/dev/null
  grep -qx 'includedir=${prefix}/include' "$work/abs/usr/lib64/pkgconfig/vek_dns.pc" || fail "vek_dns.pc includedir"
  check_consumer "$work/abs/usr" "$work/abs/usr/lib64"
  ;;
deb)
  (cd "$work" && cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/pkg" >/dev/null)
  for name in libvek-dns1 libvek-dns-dev vekdns; do
    deb=$(ls "$work"/pkg/${name}_*.deb 2>/dev/null) || fail "no $name package"
    dpkg-deb -x "$deb" "$work/root"
  done
  [ -x "$work/root/usr/bin/vekdns" ] || fail "vekdns not in its package"
  check_consumer "$work/root/usr" "$work/root/usr/$libdir"
  ;;
*) fail "unknown mode $mode" ;;
esac
rm -rf "$work"
