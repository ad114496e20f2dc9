#!/usr/bin/env bash
# The project's test command: installs what is missing, checks formatting and the tests' share
# of the code (scripts/test-share.sh), then builds and runs every suite: native (RelWithDebInfo,
# ASan+UBSan, TSan), the self-contained release build's check, every fuzz target for 10 s (its
# kept inputs replayed first), and the Windows build under Wine.
#
#   scripts/test.sh             everything
#   scripts/test.sh --native    the native suites alone (quick iteration)
#
# Exits non-zero on any failure.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

native_only=0
for arg in "$@"; do
  case $arg in
    --native) native_only=1 ;;
    -h | --help) sed -n '2,10p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "test.sh: unknown argument '$arg'" >&2; exit 2 ;;
  esac
done

SECONDS=0
stage() { printf '\n== %s (%ds)\n' "$*" "$SECONDS"; }

stage "setup"
bash scripts/setup.sh
bash scripts/setup-release.sh
if ((!native_only)); then
  bash scripts/setup-windows.sh
fi

stage "format check"
mapfile -t sources < <(git ls-files -- '*.h' '*.cpp' 2>/dev/null || true)
if ((${#sources[@]})); then
  clang-format --dry-run --Werror "${sources[@]}"
fi

stage "test share"
bash scripts/test-share.sh

build_and_test() {
  local preset=$1
  stage "configure + build: $preset"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -- -j"$(nproc)"
  stage "test: $preset"
  ctest --preset "$preset"
}

for preset in default asan tsan; do
  build_and_test "$preset"
done

stage "configure + build: release"
cmake --preset release >/dev/null
cmake --build --preset release -- -j"$(nproc)"
stage "check: release"
bash scripts/check-release.sh

stage "configure + build: fuzz"
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -- -j"$(nproc)"
stage "fuzz: every target 10 s"
bash scripts/fuzz.sh --all 10

if ((!native_only)); then
  export KRO_WIN_DEPS=${KRO_WIN_DEPS:-/opt/kro-win-deps}
  # Wine's background services must not inherit ctest's pipes, or ctest waits for them.
  "$KRO_WIN_DEPS/bin/kro-wine" --start
  trap '"$KRO_WIN_DEPS/bin/kro-wine" --stop' EXIT
  build_and_test windows
fi

stage "all suites passed"
