#!/usr/bin/env bash
# Serves the same 4 KiB file, and a tiny answer, from a release agent and from nginx (one
# worker, no access log) on loopback, loads both with wrk (-t2 -c32 -d10s, keep-alive) three
# times each, and prints the median requests/s, the median p99 latency, the server's median CPU
# time per request and the agent/nginx ratio; before that the freshly started agent's idle RSS
# and CPU over 30 s. The CPU per request moves much less than requests/s when the machine is
# busy with something else.
#
#   bench/http_bench.sh            (installs nginx-light and wrk when missing)
#
# Targets: agent/nginx >= 1.0 on the file, >= 0.8 on the routine, idle RSS <= 6 MB.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
root=$PWD

need=()
command -v wrk >/dev/null || need+=(wrk)
[[ -x /usr/sbin/nginx ]] || need+=(nginx-light)
if ((${#need[@]})); then
  apt-get update -qq && apt-get install -y -qq --no-install-recommends "${need[@]}" >/dev/null
fi
bash scripts/setup.sh
bash scripts/setup-release.sh
cmake --preset release >/dev/null
cmake --build --preset release -- -j"$(nproc)" >/dev/null

work=$(mktemp -d /tmp/kro-bench.XXXXXX)
agent_pid="" nginx_pid=""
cleanup() {
  [[ -n $agent_pid ]] && kill -TERM "$agent_pid" 2>/dev/null && wait "$agent_pid" 2>/dev/null
  [[ -n $nginx_pid ]] && kill -QUIT "$nginx_pid" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT

free_port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }
agent_port=$(free_port) ui_port=$(free_port) nginx_port=$(free_port)

# The agent, installed as the demo installs it.
mkdir -p "$work/bin" "$work/install/Kesta/Policy" "$work/install/User Interface" "$work/nginx/arbalo"
cp -a "$root/build/release/bin/." "$work/bin/"
head -c 3072 /dev/urandom | base64 -w 0 >"$work/install/User Interface/bench.txt"  # 4096 bytes
cp "$work/install/User Interface/bench.txt" "$work/nginx/arbalo/bench.txt"
echo "AgentPort:$agent_port,AgentSSL:N" >"$work/install/DialHomeInfo.txt"
echo '{"LoggingLevel":4}' >"$work/install/Kesta/Policy/AgentConfig.cfg"
cat >"$work/registry.reg" <<REG
Windows Registry Editor Version 5.00

[HKEY_LOCAL_MACHINE\\SOFTWARE\\Norvane Technologies\\Arbalo\\Setup]
"InstallDir"="$work/install/"

[HKEY_LOCAL_MACHINE\\SOFTWARE\\Norvane Technologies\\Arbalo]
"AgentUIPort"="$ui_port"

REG
KRO_REGISTRY_FILE=$work/registry.reg "$work/bin/kroagent" >"$work/agent.out" 2>&1 &
agent_pid=$!

cat >"$work/nginx.conf" <<CONF
worker_processes 1;
daemon off;
pid $work/nginx.pid;
error_log $work/nginx-error.log;
events { worker_connections 1024; }
http {
  access_log off;
  default_type text/plain;
  server {
    listen 127.0.0.1:$nginx_port;
    root $work/nginx;
    location = /arbalo/x { return 200 "7.0.222.0"; }
  }
}
CONF
/usr/sbin/nginx -c "$work/nginx.conf" &
nginx_pid=$!

for url in "http://127.0.0.1:$ui_port/arbalo/bench.txt" "http://127.0.0.1:$nginx_port/arbalo/bench.txt"; do
  for _ in $(seq 100); do curl -sf -o /dev/null "$url" && break; sleep 0.1; done
done
nginx_worker=$(pgrep -P "$nginx_pid" | head -n 1)

cat >"$work/post.lua" <<'LUA'
wrk.method = "POST"
wrk.body = "GetRoleVer"
LUA

# CPU ticks (user + system) a process has used so far.
ticks() { awk '{print $14 + $15}' "/proc/$1/stat"; }

# run_wrk URL PID [SCRIPT]: prints "requests/s p99-ms server-CPU-us-per-request" of one run
run_wrk() {
  local out t0 t1
  t0=$(ticks "$2")
  out=$(wrk -t2 -c32 -d10s --latency ${3:+-s "$3"} "$1")
  t1=$(ticks "$2")
  awk -v t=$((t1 - t0)) -v hz="$(getconf CLK_TCK)" '/Requests\/sec/ {rps=$2} /requests in/ {n=$1}
    /^ +99%/ {v=$2; if (v ~ /us$/) {sub(/us/,"",v); v/=1000} else if (v ~ /ms$/) {sub(/ms/,"",v)} else if (v ~ /s$/) {sub(/s/,"",v); v*=1000} p99=v}
    END {printf "%.0f %.2f %.1f\n", rps, p99, n ? t * 1e6 / hz / n : 0}' <<<"$out"
}
median() { sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }

# compare LABEL AGENT_URL NGINX_URL [SCRIPT]
compare() {
  local label=$1 agent=$2 nginx=$3 script=${4:-} a=() n=()
  for _ in 1 2 3; do
    a+=("$(run_wrk "$agent" "$agent_pid" "$script")")
    n+=("$(run_wrk "$nginx" "$nginx_worker" "$script")")
  done
  local ar ap ac nr np nc
  ar=$(printf '%s\n' "${a[@]}" | cut -d' ' -f1 | median); ap=$(printf '%s\n' "${a[@]}" | cut -d' ' -f2 | median)
  ac=$(printf '%s\n' "${a[@]}" | cut -d' ' -f3 | median)
  nr=$(printf '%s\n' "${n[@]}" | cut -d' ' -f1 | median); np=$(printf '%s\n' "${n[@]}" | cut -d' ' -f2 | median)
  nc=$(printf '%s\n' "${n[@]}" | cut -d' ' -f3 | median)
  printf '%-20s agent %7s req/s p99 %5s ms %5s us/req | nginx %7s req/s p99 %5s ms %5s us/req | ratio %s\n' \
    "$label" "$ar" "$ap" "$ac" "$nr" "$np" "$nc" "$(awk -v a="$ar" -v b="$nr" 'BEGIN{printf "%.2f", a/b}')"
}

rss_mb() { awk '/VmRSS/ {printf "%.1f", $2 / 1024}' "/proc/$agent_pid/status"; }

# Idle first, as a freshly started agent sits on a machine (it has answered one request).
echo "== idle agent over 30 s"
t0=$(ticks "$agent_pid"); sleep 30; t1=$(ticks "$agent_pid")
awk -v t="$((t1 - t0))" -v hz="$(getconf CLK_TCK)" -v rss="$(rss_mb)" \
  'BEGIN {printf "idle CPU %.3f%% of a core, RSS %s MB\n", 100 * t / hz / 30, rss}'

echo "== wrk -t2 -c32 -d10s, keep-alive, median of 3 (machine: $(nproc) cores)"
compare "4 KiB file" "http://127.0.0.1:$ui_port/arbalo/bench.txt" "http://127.0.0.1:$nginx_port/arbalo/bench.txt"
compare "GetRoleVer routine" "http://127.0.0.1:$ui_port/arbalo/x" "http://127.0.0.1:$nginx_port/arbalo/x" "$work/post.lua"

echo "RSS after the load: $(rss_mb) MB"
