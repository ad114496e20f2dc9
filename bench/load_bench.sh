#!/usr/bin/env bash
# Puts a release agent and nginx (one worker, no access log) side by side on loopback, serving
# the same 4 KiB file with the same self-signed certificate, and prints one report:
#
#   1. wrk: keep-alive at 32 and at 1000 connections, "Connection: close", TLS keep-alive and
#      TLS with a new connection per request: requests/s, p99 latency, the server's CPU time
#      per request (utime + stime of the whole agent process, of nginx's worker), wrk's socket
#      errors (connect/read/write/timeout), answers other than 2xx/3xx, agent/nginx ratio.
#   2. slowhttptest slow headers (-H) and slow body (-B) with 1000 connections against each
#      server, while curl asks for the file once a second with a 1 s limit: the share of
#      seconds in which the server answered.
#   3. 10,000 keep-alive connections opened, one request each, then left idle
#      (bench/idle_clients.py): one more request's latency and the resident memory they cost.
#   4. The agent's RSS and thread count before the load, right after it and 60 s later.
#
#   bench/load_bench.sh      (installs wrk, nginx-light and slowhttptest when missing)
#
# Targets, printed beside the figures: agent/nginx >= 1.0 on every throughput, p99 no worse
# than nginx's, no socket error at 1000 connections, service available in every second of
# both slow attacks, 10,000 idle connections held in under 40 MB, and within 60 s back to
# <= 6 MB and to the worker pool's floor of threads.
#
# The agent is measured, never trusted: when it dies it is reported and started again for
# the next step, and a step it does not answer is reported as such; the run goes on.
#
# Environment (defaults give a run of about seven minutes on 2 cores):
#   DURATION=10           seconds of each wrk run
#   HIGH_CONNECTIONS=1000 wrk connections of the crowded keep-alive run
#   SLOW_SECONDS=30       seconds of probing during each slow attack
#   SLOW_CONNECTIONS=1000 connections of each slow attack
#   IDLE_CONNECTIONS=10000
#   SETTLE_SECONDS=60     how long after the load the agent's last figures are taken
#   WARMUP_SECONDS=10     idle time before the first figures of the freshly started agent
#   WRK_THREADS=2  WRK_TIMEOUT=2  (seconds after which wrk counts a request as timed out)
#   POOL_FLOOR=10         workers the agent's pool keeps when idle
#   BUILD_JOBS=$(nproc)   parallel build jobs;  NO_BUILD=1 benchmarks build/release as it is
#   KEEP_WORK=1           keeps the temporary folder (logs of wrk, slowhttptest, the agent)
set -euo pipefail
export LC_ALL=C
cd "$(dirname "${BASH_SOURCE[0]}")/.."
root=$PWD

DURATION=${DURATION:-10}
HIGH_CONNECTIONS=${HIGH_CONNECTIONS:-1000}
SLOW_SECONDS=${SLOW_SECONDS:-30}
SLOW_CONNECTIONS=${SLOW_CONNECTIONS:-1000}
IDLE_CONNECTIONS=${IDLE_CONNECTIONS:-10000}
SETTLE_SECONDS=${SETTLE_SECONDS:-60}
WARMUP_SECONDS=${WARMUP_SECONDS:-10}
WRK_THREADS=${WRK_THREADS:-2}
WRK_TIMEOUT=${WRK_TIMEOUT:-2}
POOL_FLOOR=${POOL_FLOOR:-10}
BUILD_JOBS=${BUILD_JOBS:-$(nproc)}
NO_BUILD=${NO_BUILD:-0}
KEEP_WORK=${KEEP_WORK:-0}

as_root() { if [[ $EUID -eq 0 ]]; then "$@"; else sudo "$@"; fi; }
need=()
command -v wrk >/dev/null || need+=(wrk)
[[ -x /usr/sbin/nginx ]] || need+=(nginx-light)
command -v slowhttptest >/dev/null || need+=(slowhttptest)
command -v ss >/dev/null || need+=(iproute2)
if ((${#need[@]})); then
  as_root apt-get update -qq
  as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${need[@]}" >/dev/null
fi
if [[ $NO_BUILD != 1 ]]; then
  bash scripts/setup.sh
  KRO_JOBS=$BUILD_JOBS bash scripts/setup-release.sh
  cmake --preset release >/dev/null
  cmake --build --preset release -- -j"$BUILD_JOBS" >/dev/null
fi
[[ -x $root/build/release/bin/kroagent ]] || { echo "no release agent in build/release/bin" >&2; exit 1; }

# Ten thousand idle connections need as many descriptors in the server and in the client.
fd_limit=$(ulimit -Hn)
[[ $fd_limit == unlimited ]] && fd_limit=1048576
ulimit -n "$fd_limit"
if ((fd_limit < IDLE_CONNECTIONS + 256)); then
  echo "note: the descriptor limit $fd_limit is below $IDLE_CONNECTIONS idle connections" >&2
fi

work=$(mktemp -d /tmp/kro-load.XXXXXX)
chmod 755 "$work"  # nginx's worker drops root and must reach its files
agent_pid="" nginx_pid="" helper_pids=()
# alive PID: running, and not merely a zombie waiting to be reaped
alive() { [[ -n $1 ]] && [[ $(awk '{print $3}' "/proc/$1/stat" 2>/dev/null) =~ ^[^ZX]$ ]]; }
# stop PID SIGNAL: asks with SIGNAL, kills after 10 s; an agent that hangs must not hang the run
stop() {
  local i
  [[ -n $1 ]] || return 0
  kill -"$2" "$1" 2>/dev/null || true
  for ((i = 0; i < 100; i++)); do alive "$1" || break; sleep 0.1; done
  kill -KILL "$1" 2>/dev/null || true
  wait "$1" 2>/dev/null || true
}
cleanup() {
  local p
  for p in "${helper_pids[@]}"; do kill -KILL "$p" 2>/dev/null || true; done
  stop "$agent_pid" TERM
  stop "$nginx_pid" TERM
  if [[ $KEEP_WORK == 1 ]]; then echo "kept $work" >&2; else rm -rf "$work"; fi
}
trap cleanup EXIT
trap 'exit 130' INT TERM

say() { echo "... $*" >&2; }
forget_helper() {
  local p kept=()
  for p in "${helper_pids[@]}"; do [[ $p == "$1" ]] || kept+=("$p"); done
  helper_pids=("${kept[@]}")
}
free_port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }
agent_port=$(free_port) ui_port=$(free_port) nginx_port=$(free_port) nginx_tls_port=$(free_port)

mkdir -p "$work/bin" "$work/install/Kesta/Policy" "$work/install/User Interface" "$work/nginx/arbalo" \
  "$work/nginx-tmp"
cp -a "$root/build/release/bin/." "$work/bin/"
head -c 3072 /dev/urandom | base64 -w 0 >"$work/install/User Interface/bench.txt"  # 4096 bytes
cp "$work/install/User Interface/bench.txt" "$work/nginx/arbalo/bench.txt"
# One self-signed certificate for both servers; the agent wants certificate and key in one file.
openssl req -x509 -newkey rsa:2048 -nodes -days 30 -subj "/CN=localhost" \
  -addext "subjectAltName=DNS:localhost,IP:127.0.0.1" \
  -keyout "$work/key.pem" -out "$work/cert.pem" 2>/dev/null
cat "$work/cert.pem" "$work/key.pem" >"$work/bin/ssl_cert.pem"
echo "AgentPort:$agent_port,AgentSSL:Y" >"$work/install/DialHomeInfo.txt"
echo '{"LoggingLevel":4}' >"$work/install/Kesta/Policy/AgentConfig.cfg"
cat >"$work/registry.reg" <<REG
Windows Registry Editor Version 5.00

[HKEY_LOCAL_MACHINE\\SOFTWARE\\Norvane Technologies\\Arbalo\\Setup]
"InstallDir"="$work/install/"

[HKEY_LOCAL_MACHINE\\SOFTWARE\\Norvane Technologies\\Arbalo]
"AgentUIPort"="$ui_port"

REG

agent_http=http://127.0.0.1:$ui_port/arbalo/bench.txt
agent_https=https://127.0.0.1:$agent_port/arbalo/bench.txt
nginx_http=http://127.0.0.1:$nginx_port/arbalo/bench.txt
nginx_https=https://127.0.0.1:$nginx_tls_port/arbalo/bench.txt

# wait_ready URL...: true once every URL answers, within 10 s
wait_ready() {
  local url i up
  for url; do
    up=0
    for ((i = 0; i < 100; i++)); do
      if curl -sfk -o /dev/null -m 1 "$url"; then up=1 && break; fi
      sleep 0.1
    done
    ((up)) || return 1
  done
}

agent_starts=0 agent_notes=()
start_agent() {
  agent_starts=$((agent_starts + 1))
  KRO_REGISTRY_FILE=$work/registry.reg "$work/bin/kroagent" >>"$work/agent.out" 2>&1 &
  agent_pid=$!
  wait_ready "$agent_http" "$agent_https" || agent_notes+=("start $agent_starts: not answering on both ports after 10 s")
}

# check_agent STEP: before each step; an agent that died is reported and started again.
check_agent() {
  if ! alive "$agent_pid"; then
    local status=0
    wait "$agent_pid" 2>/dev/null || status=$?
    agent_notes+=("before \"$1\": the agent had exited with status $status$( ((status > 128)) &&
      echo " (signal $((status - 128)))"); started again")
    { echo "--- agent output up to its exit:"; tail -n 20 "$work/agent.out"; } >&2
    start_agent
  elif ! curl -sfk -o /dev/null -m 5 "$agent_http"; then
    agent_notes+=("before \"$1\": the agent is running but did not answer within 5 s")
  fi
}

cat >"$work/nginx.conf" <<CONF
worker_processes 1;
worker_rlimit_nofile $fd_limit;
daemon off;
pid $work/nginx.pid;
error_log $work/nginx-error.log;
$( ((EUID == 0)) && getent passwd www-data >/dev/null && echo "user www-data;")
events { worker_connections $((IDLE_CONNECTIONS + 2048 < fd_limit ? IDLE_CONNECTIONS + 2048 : fd_limit)); }
http {
  access_log off;
  default_type text/plain;
  client_body_temp_path $work/nginx-tmp/body;
  proxy_temp_path $work/nginx-tmp/proxy;
  fastcgi_temp_path $work/nginx-tmp/fastcgi;
  uwsgi_temp_path $work/nginx-tmp/uwsgi;
  scgi_temp_path $work/nginx-tmp/scgi;
  ssl_certificate $work/bin/ssl_cert.pem;
  ssl_certificate_key $work/bin/ssl_cert.pem;
  ssl_protocols TLSv1.2 TLSv1.3;
  server {
    listen 127.0.0.1:$nginx_port;
    listen 127.0.0.1:$nginx_tls_port ssl;
    root $work/nginx;
    location = /arbalo/x { return 200 "7.0.222.0"; }
  }
}
CONF

start_agent
/usr/sbin/nginx -e "$work/nginx-error.log" -c "$work/nginx.conf" &
nginx_pid=$!
wait_ready "$nginx_http" "$nginx_https" || { echo "nginx does not answer:" >&2; cat "$work/nginx-error.log" >&2; exit 1; }
nginx_worker=$(pgrep -P "$nginx_pid" | head -n 1)

# CPU ticks (user + system) a process has used so far; nothing once it is gone.
ticks() { awk '{print $14 + $15}' "/proc/$1/stat" 2>/dev/null || true; }
# status_kb PID FIELD: a /proc/PID/status figure (VmRSS in kB, Threads), "-" once it is gone
status_of() { awk -v f="$2:" '$1 == f {print $2; found = 1} END {if (!found) print "-"}' "/proc/$1/status" 2>/dev/null || echo -; }
mb() { awk -v k="$1" 'BEGIN {if (k == "-") print "-"; else printf "%.1f", k / 1024}'; }
hz=$(getconf CLK_TCK)
# established CLIENT-SIDE connections to a port on this machine
established() { ss -Htn state established "( dport = :$1 )" 2>/dev/null | wc -l; }

# ---------------------------------------------------------------------------------------------
# 4 (first figures): the freshly started agent, idle, after it answered its first requests.
say "agent idle for ${WARMUP_SECONDS}s"
sleep "$WARMUP_SECONDS"
check_agent "idle before load"
before_rss=$(status_of "$agent_pid" VmRSS) before_threads=$(status_of "$agent_pid" Threads)

# ---------------------------------------------------------------------------------------------
# 1. wrk
# wrk_run URL PID CONNECTIONS [wrk options]: "req/s p99-ms cpu-us/req c/r/w/t non-2xx"
wrk_run() {
  local url=$1 pid=$2 conns=$3 t0 t1 out
  shift 3
  t0=$(ticks "$pid")
  out=$(timeout $((DURATION + 30)) wrk -t"$WRK_THREADS" -c"$conns" -d"${DURATION}s" \
    --timeout "${WRK_TIMEOUT}s" --latency "$@" "$url" 2>&1) || true
  t1=$(ticks "$pid")
  echo "$out" >>"$work/wrk.log"
  awk -v t0="$t0" -v t1="$t1" -v hz="$hz" '
    /Requests\/sec/ {rps = $2}
    / requests in / {n = $1}
    /^ +99%/ {v = $2
      if (v ~ /us$/) {sub(/us$/, "", v); v /= 1000} else if (v ~ /ms$/) {sub(/ms$/, "", v)}
      else if (v ~ /m$/) {sub(/m$/, "", v); v *= 60000} else if (v ~ /s$/) {sub(/s$/, "", v); v *= 1000}
      p99 = sprintf("%.2f", v)}
    /Socket errors/ {gsub(",", ""); c = $4; r = $6; w = $8; to = $10}
    /Non-2xx or 3xx/ {bad = $NF}
    END {
      cpu = (t0 != "" && t1 != "" && n > 0) ? sprintf("%.1f", (t1 - t0) * 1e6 / hz / n) : "-"
      printf "%s %s %s %d/%d/%d/%d %d\n", rps == "" ? "-" : sprintf("%.0f", rps), p99 == "" ? "-" : p99,
        cpu, c, r, w, to, bad}' <<<"$out"
}

scenarios=(ka32 ka_high close tls tls_new)
declare -A title=(
  [ka32]="keep-alive, 32 conns"
  [ka_high]="keep-alive, $HIGH_CONNECTIONS conns"
  [close]="Connection: close, 32"
  [tls]="TLS keep-alive, 32"
  [tls_new]="TLS new conn/request, 32"
)
declare -A result
for s in "${scenarios[@]}"; do
  conns=32 opts=() scheme=http
  case $s in
    ka_high) conns=$HIGH_CONNECTIONS ;;
    close) opts=(-H 'Connection: close') ;;
    tls) scheme=https ;;
    tls_new) scheme=https opts=(-H 'Connection: close') ;;
  esac
  check_agent "${title[$s]}"
  a_url=$agent_http n_url=$nginx_http
  [[ $scheme == https ]] && a_url=$agent_https n_url=$nginx_https
  say "wrk ${title[$s]}: agent"
  result[$s,agent]=$(wrk_run "$a_url" "$agent_pid" "$conns" "${opts[@]}")
  alive "$agent_pid" || result[$s,agent]+=" died"
  sleep 1
  say "wrk ${title[$s]}: nginx"
  result[$s,nginx]=$(wrk_run "$n_url" "$nginx_worker" "$conns" "${opts[@]}")
  sleep 1
done

# A server that closes after each answer without saying so in it leaves the client to find
# out by reading: wrk counts each of those closes as a read error.
announces_close() {
  local head
  head=$(curl -sk -D - -o /dev/null -m 5 -H 'Connection: close' "$1") || true
  if grep -qi '^connection: *close' <<<"$head"; then echo yes; else echo no; fi
}
check_agent "Connection: close header"
close_header_agent=$(announces_close "$agent_http") close_header_nginx=$(announces_close "$nginx_http")

# ---------------------------------------------------------------------------------------------
# 2. Slow attacks, with a probe once a second.
# probe URL SECONDS: how many of SECONDS requests, one a second, were answered within 1 s
probe() {
  local url=$1 n=$2 ok=0 i start left
  for ((i = 0; i < n; i++)); do
    start=$EPOCHREALTIME
    if curl -sf -o /dev/null -m 1 "$url"; then ok=$((ok + 1)); fi
    left=$(awk -v s="$start" -v e="$EPOCHREALTIME" 'BEGIN {d = 1 - (e - s); printf "%.3f", (d > 0 ? d : 0)}')
    sleep "$left"
  done
  echo "$ok"
}

# slow_attack MODE PORT TARGET_URL PROBE_URL: "answered-seconds held-at-start held-at-end
# connected/closed/error" (the last three as slowhttptest last counted its connections)
slow_attack() {
  local mode=$1 port=$2 url=$3 probe_url=$4 sp i held0 held1 ok log=$work/slow-$1-$2.log
  local ramp=$((SLOW_CONNECTIONS / 200 + 5))
  # Line-buffered, or its counts are still in its buffer when it is stopped.
  timeout $((ramp + SLOW_SECONDS + 30)) stdbuf -oL slowhttptest "-$mode" -c "$SLOW_CONNECTIONS" -r "$SLOW_CONNECTIONS" \
    -i 10 -l $((ramp + SLOW_SECONDS + 10)) -p 3 -u "$url" >"$log" 2>&1 &
  sp=$!
  helper_pids+=("$sp")
  # The attack counts from the moment its connections are up, or after the ramp-up at most.
  for ((i = 0; i < ramp * 10; i++)); do
    (($(established "$port") >= SLOW_CONNECTIONS * 95 / 100)) && break
    sleep 0.1
  done
  held0=$(established "$port")
  ok=$(probe "$probe_url" "$SLOW_SECONDS")
  held1=$(established "$port")
  stop "$sp" TERM
  forget_helper "$sp"
  echo "$ok $held0 $held1 $(sed 's/\x1b\[[0-9;]*[A-Za-z]//g' "$log" | tr '\r' '\n' | awk '
    $1 == "connected:" {c = $2} $1 == "closed:" {x = $2} $1 == "error:" {e = $2}
    END {printf "%s/%s/%s", c == "" ? "-" : c, x == "" ? "-" : x, e == "" ? "-" : e}')"
}

declare -A slow
for mode in H B; do
  path=/arbalo/bench.txt
  [[ $mode == B ]] && path=/arbalo/x  # a routine: the agent reads the whole body first
  check_agent "slow -$mode"
  say "slowhttptest -$mode, $SLOW_CONNECTIONS connections, ${SLOW_SECONDS}s: agent"
  slow[$mode,agent]=$(slow_attack "$mode" "$ui_port" "http://127.0.0.1:$ui_port$path" "$agent_http")
  alive "$agent_pid" || slow[$mode,agent]+=" died"
  sleep 2
  say "slowhttptest -$mode, $SLOW_CONNECTIONS connections, ${SLOW_SECONDS}s: nginx"
  slow[$mode,nginx]=$(slow_attack "$mode" "$nginx_port" "http://127.0.0.1:$nginx_port$path" "$nginx_http")
  sleep 2
done

# ---------------------------------------------------------------------------------------------
# 3. Idle keep-alive connections.
# idle_run PORT PID URL: "answered untried held-at-measure latency-s rss-before-kB rss-kB threads
# held-at-end"; the client's first line goes to $work/idle-PORT.out.
idle_run() {
  local port=$1 pid=$2 url=$3 out=$work/idle-$1.out cp i rss0 held lat rss threads
  rss0=$(status_of "$pid" VmRSS)
  python3 "$root/bench/idle_clients.py" --port "$port" --path /arbalo/bench.txt \
    --count "$IDLE_CONNECTIONS" --deadline 60 --timeout 10 --hold 300 >"$out" 2>&1 &
  cp=$!
  helper_pids+=("$cp")
  for ((i = 0; i < 800; i++)); do
    grep -qs '^opened=' "$out" && break
    alive "$cp" || break
    sleep 0.1
  done
  held=$(established "$port")
  # curl's exit status tells a refused or reset connection (7, 56) from a wait (28).
  lat=$(curl -s -o /dev/null -m 10 -w '%{time_total}' "$url") || lat="curl-exit-$?@${lat}s"
  rss=$(status_of "$pid" VmRSS) threads=$(status_of "$pid" Threads)
  stop "$cp" TERM
  forget_helper "$cp"
  local answered untried end
  answered=$(sed -n 's/.*answered=\([0-9]*\).*/\1/p' "$out" | head -n 1)
  untried=$(sed -n 's/.*untried=\([0-9]*\).*/\1/p' "$out" | head -n 1)
  end=$(sed -n 's/^held=\([0-9]*\).*/\1/p' "$out")
  echo "${answered:--} ${untried:--} $held $lat $rss0 $rss $threads ${end:--}"
}

check_agent "idle connections"
say "$IDLE_CONNECTIONS idle connections: agent"
idle_agent=$(idle_run "$ui_port" "$agent_pid" "$agent_http")
idle_agent_client=$(head -n 1 "$work/idle-$ui_port.out")
alive "$agent_pid" || idle_agent+=" died"
load_end=$SECONDS
after_rss=$(status_of "$agent_pid" VmRSS) after_threads=$(status_of "$agent_pid" Threads)
say "$IDLE_CONNECTIONS idle connections: nginx"
idle_nginx=$(idle_run "$nginx_port" "$nginx_worker" "$nginx_http")
idle_nginx_client=$(head -n 1 "$work/idle-$nginx_port.out")

# ---------------------------------------------------------------------------------------------
# 4 (last figures): how soon the agent gives back what the load took.
thread_cap=$(( ${before_threads/-/0} + POOL_FLOOR ))
settled_at=""
say "agent settling until ${SETTLE_SECONDS}s after the load"
while ((SECONDS - load_end < SETTLE_SECONDS)); do
  r=$(status_of "$agent_pid" VmRSS) t=$(status_of "$agent_pid" Threads)
  if [[ -z $settled_at && $r != - ]] && ((r <= 6144 && t <= thread_cap)); then settled_at=$((SECONDS - load_end)); fi
  sleep 1
done
late_rss=$(status_of "$agent_pid" VmRSS) late_threads=$(status_of "$agent_pid" Threads)
alive "$agent_pid" || agent_notes+=("during the settling time: the agent exited")

# ---------------------------------------------------------------------------------------------
# The report.
verdict() { if [[ $1 == 1 ]]; then echo ok; else echo MISS; fi; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN {if (a == "-" || b == "-" || b == 0) print "-"; else printf "%.2f", a / b}'; }
ge() { awk -v a="$1" -v b="$2" 'BEGIN {print (a != "-" && b != "-" && a + 0 >= b + 0) ? 1 : 0}'; }

echo
echo "== KroAgent vs nginx (1 worker), 4 KiB file, $(nproc) cores, wrk -t$WRK_THREADS -d${DURATION}s --timeout ${WRK_TIMEOUT}s"
printf '%-26s %-6s %8s %9s %10s %-19s %7s %7s  %s\n' scenario server "req/s" "p99 ms" "CPU us/rq" \
  "sock err c/r/w/t" "non-2xx" "ratio" "targets: ratio >= 1.0, p99 <= nginx"
for s in "${scenarios[@]}"; do
  read -r ar ap ac ae ab adied <<<"${result[$s,agent]}"
  read -r nr np nc ne nb <<<"${result[$s,nginx]}"
  rt=$(ratio "$ar" "$nr")
  targets="ratio $(verdict "$(ge "$rt" 1.0)"), p99 $(verdict "$(ge "$np" "$ap")")"
  if [[ $s == ka_high ]]; then
    e_ok=0; [[ $ae == 0/0/0/0 ]] && e_ok=1
    targets+=", 0 socket errors $(verdict "$e_ok")"
  fi
  [[ -n ${adied:-} ]] && targets+=", AGENT DIED during the run"
  printf '%-26s %-6s %8s %9s %10s %-19s %7s %7s  %s\n' "${title[$s]}" agent "$ar" "$ap" "$ac" "$ae" "$ab" "$rt" "$targets"
  printf '%-26s %-6s %8s %9s %10s %-19s %7s\n' "" nginx "$nr" "$np" "$nc" "$ne" "$nb"
done
echo "(p99 leaves out requests wrk timed out; those are in the timeout errors)"
echo "(answers to \"Connection: close\" carry \"Connection: close\": agent $close_header_agent, nginx $close_header_nginx;" \
  "wrk counts every close it was not told of as a read error)"

echo
echo "== slow attacks, $SLOW_CONNECTIONS connections each, probe: one GET a second, 1 s limit, ${SLOW_SECONDS} probes"
echo "(attack conns open: established when probing starts and ends; conn'd/closed/err: slowhttptest's last count)"
printf '%-26s %-6s %14s %8s %26s %22s  %s\n' attack server "answered (s)" share "attack conns open start/end" \
  "conn'd/closed/err" "target: every second"
for mode in H B; do
  for who in agent nginx; do
    read -r ok h0 h1 counts died <<<"${slow[$mode,$who]}"
    name="slow headers (-H)"
    [[ $mode == B ]] && name="slow body (-B)"
    [[ $who == nginx ]] && name=""
    target=""
    if [[ $who == agent ]]; then
      target=$(verdict "$( ((ok == SLOW_SECONDS)) && echo 1)")
      [[ -n ${died:-} ]] && target+=", AGENT DIED"
    fi
    printf '%-26s %-6s %14s %7s%% %26s %22s  %s\n' "$name" "$who" "$ok/$SLOW_SECONDS" \
      "$(awk -v a="$ok" -v b="$SLOW_SECONDS" 'BEGIN {printf "%.0f", 100 * a / b}')" "$h0/$h1" "$counts" "$target"
  done
done

echo
echo "== $IDLE_CONNECTIONS idle keep-alive connections (one request each, then idle)"
printf '%-6s %9s %9s %9s %14s %18s %8s  %s\n' server answered untried "held now" "1 request s" "RSS MB before/with" threads "target: all held, RSS < 40 MB"
for who in agent nginx; do
  line=$idle_agent
  [[ $who == nginx ]] && line=$idle_nginx
  read -r ans untried held lat rss0 rss threads held_end died <<<"$line"
  target=""
  if [[ $who == agent ]]; then
    all=0; ((held >= IDLE_CONNECTIONS)) && all=1
    small=0; [[ $rss != - ]] && ((rss < 40960)) && small=1
    target="all held $(verdict $all), RSS $(verdict $small)"
    [[ -n ${died:-} ]] && target+=", AGENT DIED"
  else
    threads="-"
  fi
  printf '%-6s %9s %9s %9s %14s %18s %8s  %s\n' "$who" "$ans" "$untried" "$held" "$lat" "$(mb "$rss0")/$(mb "$rss")" "$threads" "$target"
done
echo "agent client: $idle_agent_client"
echo "nginx client: $idle_nginx_client"
read -r _ _ _ _ _ _ _ held_end _ <<<"$idle_agent"
echo "(held now: established at the time of the 1 request; the agent had $held_end still open when the client let go)"

echo
echo "== agent memory and threads (targets after ${SETTLE_SECONDS}s: RSS <= 6 MB, threads <= $thread_cap = idle + pool floor $POOL_FLOOR)"
printf '%-24s %8s %8s\n' "" "RSS MB" threads
printf '%-24s %8s %8s\n' "before load" "$(mb "$before_rss")" "$before_threads"
printf '%-24s %8s %8s\n' "right after load" "$(mb "$after_rss")" "$after_threads"
rss_ok=0 thr_ok=0
[[ $late_rss != - ]] && ((late_rss <= 6144)) && rss_ok=1
[[ $late_threads != - ]] && ((late_threads <= thread_cap)) && thr_ok=1
printf '%-24s %8s %8s  RSS %s, threads %s%s\n' "${SETTLE_SECONDS}s after load" "$(mb "$late_rss")" "$late_threads" \
  "$(verdict $rss_ok)" "$(verdict $thr_ok)" "${settled_at:+ (both first met ${settled_at}s after the load)}"
echo "nginx worker RSS now: $(mb "$(status_of "$nginx_worker" VmRSS)") MB"

echo
if ((${#agent_notes[@]})); then
  echo "== agent incidents"
  printf '  %s\n' "${agent_notes[@]}"
else
  echo "== agent incidents: none (it stayed up and answered before every step)"
fi
errors=$(grep -ciE 'error|fatal|crash' "$work/agent.out" || true)
echo "agent stdout/stderr: $(wc -l <"$work/agent.out") lines, $errors mentioning error/fatal/crash"
