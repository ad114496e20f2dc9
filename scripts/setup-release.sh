#!/usr/bin/env bash
# setup-release.sh
#
# Idempotent set-up of what the self-contained release build links besides Debian's packages:
# Boost.Log and the Boost libraries it needs as position-independent static libraries, built
# from Debian's boost1.74 source package. Debian's own Boost archives are built for programs,
# not for a shared module, and cannot be linked into one. OpenSSL and SQLite come as Debian's
# static libraries (libssl-dev, libsqlite3-dev); scripts/setup.sh installs them.
#
# Everything built goes to $KRO_NATIVE_DEPS (default /opt/kro-native-deps); a stamp there skips
# the build on the next run while its inputs are unchanged.
#
# Environment knobs:
#   KRO_NATIVE_DEPS  install prefix                        (/opt/kro-native-deps)
#   KRO_NATIVE_WORK  downloads, build trees and logs       (/var/tmp/kro-native-work)
#   KRO_JOBS         parallel jobs                         ($(nproc))
#   KRO_KEEP_BUILD=1 keep the unpacked source and build tree after a successful build
#
# Used by the "release" CMake preset (scripts/demo.sh, bench/http_bench.sh, scripts/test.sh).
set -euo pipefail

PREFIX=${KRO_NATIVE_DEPS:-/opt/kro-native-deps}
WORK=${KRO_NATIVE_WORK:-/var/tmp/kro-native-work}
JOBS=${KRO_JOBS:-$(nproc)}
KEEP_BUILD=${KRO_KEEP_BUILD:-0}
CODENAME=$(. /etc/os-release && echo "${VERSION_CODENAME:-bookworm}")
STAMPS=$PREFIX/.stamps
LOGS=$WORK/logs

unset CC CXX CPP CFLAGS CXXFLAGS CPPFLAGS LDFLAGS LIBS AR RANLIB
export DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8

APT_PKGS=(gcc g++ bison dpkg-dev xz-utils util-linux)
BOOST_LIBS="log thread filesystem date_time regex atomic chrono system"
# Unused functions and data of each library are dropped when the module is linked.
BOOST_OPTS="toolset=gcc link=static runtime-link=shared threading=multi variant=release cxxstd=17
  cflags=-fPIC cxxflags=-fPIC cxxflags=-ffunction-sections cxxflags=-fdata-sections
  visibility=hidden --layout=system"

LOG_TAG=setup-release
# shellcheck source=scripts/deps-common.sh
source "$(dirname "${BASH_SOURCE[0]}")/deps-common.sh"

build_boost() {
  fetch_src boost1.74
  local key; key="$(basename "$(dsc_of boost1.74)") libs=[$BOOST_LIBS] opts=[$(echo $BOOST_OPTS)]"
  stamp_ok boost "$key" && { log "boost: up to date"; return 0; }
  local src=$WORK/boost-src bld=$WORK/boost-build
  unpack boost1.74 "$src"; rm -rf "$bld" "$PREFIX/include/boost" "$PREFIX/lib"
  # Debian's +ds tarball drops the generated b2 grammar; regenerate it as debian/rules does.
  [[ -f $src/tools/build/src/engine/jamgram.cpp ]] ||
    (cd "$src/tools/build" && bison -y -d -o src/engine/jamgram.cpp src/engine/jamgram.y)
  (cd "$src" && run_logged boost-bootstrap ./bootstrap.sh --with-toolset=gcc)
  local with=(); for l in $BOOST_LIBS; do with+=("--with-$l"); done
  # shellcheck disable=SC2086
  (cd "$src" && run_logged boost-b2 ./b2 -j"$JOBS" -q -d1 $BOOST_OPTS --prefix="$PREFIX" \
     --build-dir="$bld" "${with[@]}" install)
  stamp_set boost "$key"
  cleanup_tree "$src" "$bld"
}

mkdir -p "$PREFIX" "$WORK/src" "$LOGS"
exec 9>"$PREFIX/.lock"; flock 9   # one run at a time

step packages     install_apt_packages
step boost        build_boost

REPORT+=("$(awk -v a="$T_START" -v b="$EPOCHREALTIME" 'BEGIN{printf "%-16s %8.1f s", "TOTAL", b-a}')")
log "timings:"; printf '  %s\n' "${REPORT[@]}" >&2
