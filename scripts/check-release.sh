#!/usr/bin/env bash
# Checks the self-contained release build (build/release) as it would be shipped: the host and
# the module need nothing but the C library, the module exports its entry points alone, and the
# agent starts from a bare installation, serves a page and a routine, and stops cleanly.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
bin=$PWD/build/release/bin
fail() { echo "check-release: $*" >&2; exit 1; }

for file in "$bin/kroagent" "$bin/libKroAgent.so"; do
  extra=$(readelf -d "$file" | sed -nE 's/.*\(NEEDED\).*\[(.*)\]/\1/p' |
    grep -vxE 'libc\.so\.6|libm\.so\.6|ld-linux-x86-64\.so\.2' || true)
  [[ -z $extra ]] || fail "$(basename "$file") needs more than the C library: $extra"
done
exports=$(nm -D --defined-only "$bin/libKroAgent.so" | awk '{print $3}' | sort | tr '\n' ' ')
expected="DeInitKroAgent DeInitKroBase GetKroAgent GetKroAgentVersion GetKroBase InitKroAgent InitKroBase ReleaseKroAgent ReleaseKroBase "
[[ $exports == "$expected" ]] || fail "the module exports [$exports]"

work=$(mktemp -d /tmp/kro-release-check.XXXXXX)
pid=""
trap '[[ -n $pid ]] && kill -KILL "$pid" 2>/dev/null; rm -rf "$work"' EXIT
port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }
agent_port=$(port) ui_port=$(port)
mkdir -p "$work/bin" "$work/install/User Interface"
cp -a "$bin/." "$work/bin/"
echo "release check" >"$work/install/User Interface/check.txt"
echo "AgentPort:$agent_port,AgentSSL:N" >"$work/install/DialHomeInfo.txt"
printf '%s\n\n%s\n%s\n\n%s\n%s\n' 'Windows Registry Editor Version 5.00' \
  '[HKEY_LOCAL_MACHINE\SOFTWARE\Norvane Technologies\Arbalo\Setup]' "\"InstallDir\"=\"$work/install/\"" \
  '[HKEY_LOCAL_MACHINE\SOFTWARE\Norvane Technologies\Arbalo]' "\"AgentUIPort\"=\"$ui_port\"" \
  >"$work/registry.reg"
KRO_REGISTRY_FILE=$work/registry.reg "$work/bin/kroagent" >"$work/agent.out" 2>&1 &
pid=$!

page=""
for _ in $(seq 100); do
  page=$(curl -sf "http://127.0.0.1:$ui_port/arbalo/check.txt") && break
  sleep 0.1
done
[[ $page == "release check" ]] || { cat "$work/agent.out" >&2; fail "the UI file was not served"; }
version=$(curl -sf -d GetRoleVer "http://127.0.0.1:$ui_port/arbalo/x") ||
  fail "the GetRoleVer routine did not answer"
[[ $version == "$("$bin/kroagent" --version)" ]] || fail "GetRoleVer answered [$version]"

kill -TERM "$pid"
status=0
wait "$pid" || status=$?
pid=""
((status == 0)) || { cat "$work/agent.out" >&2; fail "the agent exited with $status"; }
echo "check-release: self-contained host and module, page and routine served, clean stop"
