#!/usr/bin/env bash
# Installs every Debian package the native build, the tests and the demo need.
# Idempotent: packages already installed are left alone, and apt is not touched at all when
# nothing is missing.
set -euo pipefail
export DEBIAN_FRONTEND=noninteractive

PKGS=(
  build-essential cmake ninja-build pkg-config git clang-format
  clang libclang-rt-14-dev
  libboost-dev libboost-log-dev libboost-thread-dev libboost-filesystem-dev
  libssl-dev openssl ca-certificates rapidjson-dev libsqlite3-dev sqlite3
  googletest libgtest-dev libgmock-dev
  binutils procps psmisc curl python3
  iproute2  # the end-to-end tests make a network namespace for "another machine"
  chromium
)

as_root() { if [[ $EUID -eq 0 ]]; then "$@"; else sudo "$@"; fi; }

missing=()
for p in "${PKGS[@]}"; do
  [[ "$(dpkg-query -W -f='${db:Status-Status}' "$p" 2>/dev/null)" == installed ]] || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "[setup] installing: ${missing[*]}" >&2
  as_root apt-get update -qq
  as_root apt-get install -y -qq --no-install-recommends "${missing[@]}" >/tmp/kro-setup-apt.log 2>&1 ||
    { tail -n 40 /tmp/kro-setup-apt.log >&2; echo "[setup] apt-get install failed" >&2; exit 1; }
fi
echo "[setup] native packages ready" >&2
