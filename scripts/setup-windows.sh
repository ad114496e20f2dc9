#!/usr/bin/env bash
# setup-windows.sh
#
# Idempotent set-up of a Windows x64 cross toolchain on Debian 12 (bookworm), from Debian's own
# packages and source packages only:
#   * mingw-w64 (posix thread model) + Wine (64-bit only) from the archive,
#   * Boost 1.74 (Boost.Log and the libraries it needs; Asio/Beast are header-only),
#     OpenSSL 3.0, SQLite (amalgamation) cross-built from Debian source packages,
#   * GoogleTest/GoogleMock cross-built from /usr/src/googletest (package googletest),
#   * RapidJSON headers (package rapidjson-dev),
#   * a headless Wine prefix, a `kro-wine` runner and a CMake toolchain file.
#
# Everything built goes to $KRO_WIN_DEPS (default /opt/kro-win-deps). Each step leaves a stamp
# there and is skipped on the next run while its inputs are unchanged.
#
# Environment knobs:
#   KRO_WIN_DEPS     install prefix for built deps            (/opt/kro-win-deps)
#   KRO_WIN_WORK     downloads, build trees and logs          (/var/tmp/kro-win-work)
#   KRO_WINEPREFIX   Wine prefix used by kro-wine             (/opt/kro-wine)
#   KRO_WIN32_WINNT  _WIN32_WINNT Boost is built for          (0x0A00)
#   KRO_WINE_WINVER  Windows version Wine reports             (win10; Wine's default is win7)
#   KRO_JOBS         parallel jobs                            ($(nproc))
#   KRO_KEEP_BUILD=1 keep unpacked sources / build trees after a successful build
#
# Used by scripts/test.sh through the "windows" CMake preset:
#   cmake -S . -B build -G Ninja -DCMAKE_TOOLCHAIN_FILE=/opt/kro-win-deps/share/kro/mingw-w64-x86_64.cmake
#   cmake --build build && kro-wine --start && (cd build && ctest) ; kro-wine --stop
set -euo pipefail

PREFIX=${KRO_WIN_DEPS:-/opt/kro-win-deps}
WORK=${KRO_WIN_WORK:-/var/tmp/kro-win-work}
WINEPFX=${KRO_WINEPREFIX:-/opt/kro-wine}
WINNT=${KRO_WIN32_WINNT:-0x0A00}
WINVER=${KRO_WINE_WINVER:-win10}
JOBS=${KRO_JOBS:-$(nproc)}
KEEP_BUILD=${KRO_KEEP_BUILD:-0}
TRIPLE=x86_64-w64-mingw32
CODENAME=$(. /etc/os-release && echo "${VERSION_CODENAME:-bookworm}")
STAMPS=$PREFIX/.stamps
LOGS=$WORK/logs
TOOLCHAIN=$PREFIX/share/kro/mingw-w64-x86_64.cmake

# Host compiler settings from the caller must not leak into the cross builds.
unset CC CXX CPP CFLAGS CXXFLAGS CPPFLAGS LDFLAGS LIBS AR RANLIB
export DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8

APT_PKGS=(
  g++-mingw-w64-x86-64-posix gcc-mingw-w64-x86-64-posix binutils-mingw-w64-x86-64 mingw-w64-x86-64-dev
  wine wine64
  gcc g++ make cmake ninja-build bison perl tcl dpkg-dev xz-utils openssl util-linux
  googletest rapidjson-dev
)
BOOST_LIBS="log thread filesystem date_time regex atomic chrono system"
BOOST_OPTS="toolset=gcc-mingw target-os=windows address-model=64 architecture=x86 binary-format=pe abi=ms
  threadapi=win32 link=static runtime-link=shared threading=multi variant=release cxxstd=17
  define=_WIN32_WINNT=$WINNT --layout=system"
OPENSSL_OPTS="mingw64 --cross-compile-prefix=$TRIPLE- no-shared no-module no-tests"
SQLITE_CFLAGS="-O2 -DSQLITE_THREADSAFE=1 -DSQLITE_DEFAULT_FOREIGN_KEYS=1"

# ---------------------------------------------------------------------------------------------
LOG_TAG=setup-windows
# shellcheck source=scripts/deps-common.sh
source "$(dirname "${BASH_SOURCE[0]}")/deps-common.sh"

# ---------------------------------------------------------------------------------------------
install_packages() {
  install_apt_packages
  local p
  # std::thread / std::mutex need the posix thread model (win32 model lacks them in GCC 12).
  for p in gcc g++; do
    if [[ "$(readlink -f "/usr/bin/$TRIPLE-$p")" != "/usr/bin/$TRIPLE-$p-posix" ]]; then
      as_root update-alternatives --set "$TRIPLE-$p" "/usr/bin/$TRIPLE-$p-posix" >/dev/null
    fi
  done
  # Captured first: "g++ -v | grep -q" under pipefail fails at random when grep exits early
  # and g++ dies of SIGPIPE writing its next line.
  local info; info=$("$TRIPLE-g++" -v 2>&1)
  [[ $info == *"Thread model: posix"* ]] || die "$TRIPLE-g++ is not the posix flavour"
}

# ---------------------------------------------------------------------------------------------
build_boost() {
  fetch_src boost1.74
  local key; key="$(basename "$(dsc_of boost1.74)") libs=[$BOOST_LIBS] opts=[$(echo $BOOST_OPTS)]"
  stamp_ok boost "$key" && { log "boost: up to date"; return 0; }
  local src=$WORK/boost-src bld=$WORK/boost-build
  unpack boost1.74 "$src"; rm -rf "$bld"
  # Debian's +ds tarball drops the generated b2 grammar; regenerate it as debian/rules does.
  [[ -f $src/tools/build/src/engine/jamgram.cpp ]] ||
    (cd "$src/tools/build" && bison -y -d -o src/engine/jamgram.cpp src/engine/jamgram.y)
  (cd "$src" && run_logged boost-bootstrap ./bootstrap.sh --with-toolset=gcc)
  printf 'using gcc : mingw : %s-g++-posix : <archiver>%s-ar <ranlib>%s-ranlib <rc>%s-windres ;\n' \
    "$TRIPLE" "$TRIPLE" "$TRIPLE" "$TRIPLE" >"$WORK/boost-user-config.jam"
  local with=(); for l in $BOOST_LIBS; do with+=("--with-$l"); done
  # shellcheck disable=SC2086
  (cd "$src" && run_logged boost-b2 ./b2 -j"$JOBS" -q -d1 --user-config="$WORK/boost-user-config.jam" \
     $BOOST_OPTS --prefix="$PREFIX" --build-dir="$bld" "${with[@]}" install)
  stamp_set boost "$key"
  cleanup_tree "$src" "$bld"
}

build_openssl() {
  fetch_src openssl
  local key; key="$(basename "$(dsc_of openssl)") opts=[$OPENSSL_OPTS]"
  stamp_ok openssl "$key" && { log "openssl: up to date"; return 0; }
  local src=$WORK/openssl-src
  unpack openssl "$src"
  # shellcheck disable=SC2086
  (cd "$src" && run_logged openssl-configure ./Configure $OPENSSL_OPTS --prefix="$PREFIX" --libdir=lib \
       --openssldir="$PREFIX/ssl" \
     && run_logged openssl-make make -j"$JOBS" build_libs \
     && run_logged openssl-install make install_dev)
  stamp_set openssl "$key"
  cleanup_tree "$src"
}

build_sqlite() {
  fetch_src sqlite3
  local key; key="$(basename "$(dsc_of sqlite3)") cflags=[$SQLITE_CFLAGS]"
  stamp_ok sqlite "$key" && { log "sqlite: up to date"; return 0; }
  local src=$WORK/sqlite-src bld=$WORK/sqlite-build
  unpack sqlite3 "$src"; rm -rf "$bld"; mkdir -p "$bld"
  # Generate the one-file amalgamation with host tools, then cross-compile that one file.
  (cd "$bld" && run_logged sqlite-configure "$src/configure" --disable-tcl \
     && run_logged sqlite-amalgamation make sqlite3.c)
  # shellcheck disable=SC2086
  run_logged sqlite-cross "$TRIPLE-gcc" $SQLITE_CFLAGS -c "$bld/sqlite3.c" -o "$bld/sqlite3.o"
  rm -f "$bld/libsqlite3.a"; "$TRIPLE-ar" rcs "$bld/libsqlite3.a" "$bld/sqlite3.o"
  install -D -m644 "$bld/sqlite3.h" "$PREFIX/include/sqlite3.h"
  install -D -m644 "$src/src/sqlite3ext.h" "$PREFIX/include/sqlite3ext.h"
  install -D -m644 "$bld/libsqlite3.a" "$PREFIX/lib/libsqlite3.a"
  stamp_set sqlite "$key"
  cleanup_tree "$src" "$bld"
}

install_rapidjson() {
  local key; key="rapidjson-dev $(dpkg-query -W -f='${Version}' rapidjson-dev)"
  stamp_ok rapidjson "$key" && { log "rapidjson: up to date"; return 0; }
  rm -rf "$PREFIX/include/rapidjson"; mkdir -p "$PREFIX/include"
  cp -a /usr/include/rapidjson "$PREFIX/include/"
  stamp_set rapidjson "$key"
}

write_toolchain() {
  mkdir -p "$(dirname "$TOOLCHAIN")" "$PREFIX/bin"
  local tmp; tmp=$(mktemp)
  cat >"$tmp" <<EOF
# CMake toolchain file: 64-bit Windows via Debian's mingw-w64 (posix thread model).
# Written by scripts/setup-windows.sh.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_VERSION 10.0)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(CMAKE_C_COMPILER   /usr/bin/$TRIPLE-gcc-posix)
set(CMAKE_CXX_COMPILER /usr/bin/$TRIPLE-g++-posix)
set(CMAKE_RC_COMPILER  /usr/bin/$TRIPLE-windres)
set(CMAKE_AR           /usr/bin/$TRIPLE-ar CACHE FILEPATH "")
set(CMAKE_RANLIB       /usr/bin/$TRIPLE-ranlib CACHE FILEPATH "")

# Cross-built dependencies (Boost, OpenSSL, SQLite, GoogleTest, RapidJSON).
if(NOT DEFINED KRO_WIN_DEPS)
  set(KRO_WIN_DEPS "$PREFIX")
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KRO_WIN_DEPS)
set(CMAKE_FIND_ROOT_PATH /usr/$TRIPLE \${KRO_WIN_DEPS})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_PREFIX_PATH \${KRO_WIN_DEPS})
set(OPENSSL_ROOT_DIR \${KRO_WIN_DEPS})
set(OPENSSL_USE_STATIC_LIBS TRUE)
set(Boost_USE_STATIC_LIBS ON)

# Same Windows API level as the one Boost was built for.
add_compile_definitions(_WIN32_WINNT=$WINNT)

# No MinGW runtime DLLs (libstdc++-6, libgcc_s_seh-1, libwinpthread-1) needed beside the binaries.
set(CMAKE_EXE_LINKER_FLAGS_INIT    "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-static")

# add_test()/gtest_discover_tests()/try_run() run .exe files through Wine.
set(CMAKE_CROSSCOMPILING_EMULATOR \${KRO_WIN_DEPS}/bin/kro-wine)
EOF
  if ! cmp -s "$tmp" "$TOOLCHAIN"; then install -m644 "$tmp" "$TOOLCHAIN"; fi
  rm -f "$tmp"

  cat >"$tmp" <<EOF
#!/bin/sh
# kro-wine: run a Windows console program under Wine, headless and quiet.
#   kro-wine PROGRAM.exe [ARGS...]   run it (exit status = the program's)
#   kro-wine --start                 start a persistent wineserver + Wine's services, detached
#   kro-wine --stop                  stop them (wineserver -k)
export WINEPREFIX="\${WINEPREFIX:-$WINEPFX}"
export WINEARCH=win64
export WINEDEBUG="\${WINEDEBUG:--all}"
# winedbg disabled: with it, a crashed process that had run a thread may exit with status 0.
export WINEDLLOVERRIDES="\${WINEDLLOVERRIDES:-mscoree,mshtml=;winedbg.exe=d;winemenubuilder.exe=d}"
unset DISPLAY WAYLAND_DISPLAY
start() {
  # Wine's services (services.exe, winedevice.exe, ...) inherit the stdout/stderr of whichever
  # process starts them; started here, they hold no caller's pipe open (ctest, \$(...) would wait).
  # flock -o: the daemons must not inherit the lock, or every later call waits until they exit.
  flock -o "\$WINEPREFIX/.kro-start.lock" sh -c 'if wineserver -p\${KRO_WINESERVER_PERSIST:-300} \
</dev/null >/dev/null 2>&1; then wine wineboot </dev/null >/dev/null 2>&1; fi'
}
case "\$1" in
  --start) start; exit 0 ;;
  --stop)  wineserver -k 2>/dev/null; exit 0 ;;
esac
start
exec wine "\$@"
EOF
  if ! cmp -s "$tmp" "$PREFIX/bin/kro-wine"; then install -m755 "$tmp" "$PREFIX/bin/kro-wine"; fi
  rm -f "$tmp"
  ln -sf "$PREFIX/bin/kro-wine" /usr/local/bin/kro-wine 2>/dev/null || true
}

build_gtest() {
  local key; key="googletest $(dpkg-query -W -f='${Version}' googletest) $(sha256sum "$TOOLCHAIN" | cut -c1-16)"
  stamp_ok gtest "$key" && { log "googletest: up to date"; return 0; }
  local bld=$WORK/gtest-build; rm -rf "$bld"
  run_logged gtest-configure cmake -S /usr/src/googletest -B "$bld" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_TOOLCHAIN_FILE="$TOOLCHAIN" -DCMAKE_INSTALL_PREFIX="$PREFIX" -DBUILD_GMOCK=ON
  run_logged gtest-build cmake --build "$bld" -j "$JOBS"
  run_logged gtest-install cmake --install "$bld"
  stamp_set gtest "$key"
  cleanup_tree "$bld"
}

make_wineprefix() {
  local key; key="wine $(dpkg-query -W -f='${Version}' wine64) winver=$WINVER"
  if stamp_ok wineprefix "$key" && [[ -f $WINEPFX/system.reg ]]; then log "wine prefix: up to date"; return 0; fi
  rm -rf "$WINEPFX"; mkdir -p "$(dirname "$WINEPFX")"
  (
    export WINEPREFIX=$WINEPFX WINEARCH=win64 WINEDEBUG=-all
    # No Mono/Gecko download prompts; no menu/desktop integration.
    export WINEDLLOVERRIDES="mscoree,mshtml=;winemenubuilder.exe=d"
    unset DISPLAY WAYLAND_DISPLAY
    run_logged wineboot wine wineboot -i
    # Make the overrides part of the prefix too, for runs that bypass kro-wine.
    run_logged wine-reg wine reg add 'HKCU\Software\Wine\DllOverrides' /v winedbg.exe /t REG_SZ /d '' /f
    # RtlGetVersion/GetVersionEx report this version (Wine 8 defaults to Windows 7 = 6.1.7601).
    run_logged wine-winver wine winecfg /v "$WINVER"
    wineserver -w 9>&-
  )
  stamp_set wineprefix "$key"
}

smoke_test() {
  local key; key="$(cat "$STAMPS"/{boost,openssl,sqlite,rapidjson,gtest,wineprefix} | sha256sum | cut -c1-16)"
  stamp_ok smoke "$key" && { log "smoke test: up to date"; return 0; }
  local d=$WORK/smoke; rm -rf "$d"; mkdir -p "$d"
  cat >"$d/smoke.cpp" <<'EOF'
#include <boost/log/trivial.hpp>
#include <openssl/ssl.h>
#include <sqlite3.h>
#include <gtest/gtest.h>
#include <thread>
TEST(Smoke, Everything) {
  int v = 0; std::thread t([&] { v = 42; }); t.join(); EXPECT_EQ(v, 42);
  SSL_CTX* c = SSL_CTX_new(TLS_method()); ASSERT_NE(c, nullptr); SSL_CTX_free(c);
  sqlite3* db = nullptr; ASSERT_EQ(sqlite3_open(":memory:", &db), SQLITE_OK); sqlite3_close(db);
  BOOST_LOG_TRIVIAL(info) << "boost.log ok";
}
EOF
  cat >"$d/CMakeLists.txt" <<'EOF'
cmake_minimum_required(VERSION 3.20)
project(smoke CXX)
set(CMAKE_CXX_STANDARD 17)
find_package(Boost 1.74.0 EXACT CONFIG REQUIRED COMPONENTS log)
find_package(OpenSSL 3 REQUIRED)
find_package(SQLite3 REQUIRED)
find_package(GTest CONFIG REQUIRED)
add_executable(smoke smoke.cpp)
target_link_libraries(smoke PRIVATE Boost::log GTest::gtest_main OpenSSL::SSL SQLite::SQLite3 ws2_32 crypt32)
enable_testing()
add_test(NAME smoke COMMAND smoke)
EOF
  run_logged smoke-configure cmake -S "$d" -B "$d/build" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$TOOLCHAIN" -DCMAKE_BUILD_TYPE=Release
  run_logged smoke-build cmake --build "$d/build"
  "$PREFIX/bin/kro-wine" --start 9>&-
  run_logged smoke-run ctest --test-dir "$d/build" --output-on-failure
  "$PREFIX/bin/kro-wine" --stop
  stamp_set smoke "$key"
  rm -rf "$d"
}

# ---------------------------------------------------------------------------------------------
mkdir -p "$PREFIX" "$WORK/src" "$LOGS"
exec 9>"$PREFIX/.lock"; flock 9   # one run at a time

step packages     install_packages
step toolchain    write_toolchain
step boost        build_boost
step openssl      build_openssl
step sqlite       build_sqlite
step rapidjson    install_rapidjson
step googletest   build_gtest
step wineprefix   make_wineprefix
step smoke-test   smoke_test

REPORT+=("$(awk -v a="$T_START" -v b="$EPOCHREALTIME" 'BEGIN{printf "%-16s %8.1f s", "TOTAL", b-a}')")
log "timings:"; printf '  %s\n' "${REPORT[@]}" >&2
log "disk: $(du -sh "$PREFIX" | cut -f1) in $PREFIX, $(du -sh "$WINEPFX" | cut -f1) in $WINEPFX, $(du -sh "$WORK" | cut -f1) in $WORK"
log "toolchain file: $TOOLCHAIN"
