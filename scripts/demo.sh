#!/usr/bin/env bash
# The project's run command: installs what is missing, makes a release build, lays out a demo
# installation in ./demo and runs the agent in the foreground (Ctrl+C stops it).
#
#   demo/bin/            kroagent, libKroAgent.so, ssl_cert.pem (the host folder; KroAgent.log
#                        lands here)
#   demo/registry.reg    the demo's HKEY_LOCAL_MACHINE (KRO_REGISTRY_FILE points here)
#   demo/install/        the installation folder ("InstallDir"), with its settings files:
#                        DialHomeInfo.txt, Kesta/Products.cfg, Kesta/Policy/AgentConfig.cfg,
#                        and the browser UI in "User Interface"
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
root=$PWD
demo=$root/demo

bash scripts/setup.sh
bash scripts/setup-release.sh
cmake --preset release >/dev/null
cmake --build --preset release -- -j"$(nproc)"

rm -rf "$demo/bin" "$demo/install/User Interface"
mkdir -p "$demo/bin" "$demo/install/Kesta/Policy" "$demo/install/User Interface"
cp -a "$root/build/release/bin/." "$demo/bin/"
cp -a "$root/ui/." "$demo/install/User Interface/"

# The agent port speaks TLS, as the default settings say: a self-signed certificate and its
# key in one PEM file beside the host, made once.
if [[ ! -f $demo/ssl_cert.pem ]]; then
  openssl req -x509 -newkey rsa:2048 -nodes -days 825 -subj "/CN=localhost" \
    -addext "subjectAltName=DNS:localhost,IP:127.0.0.1" \
    -keyout "$demo/ssl_key.tmp" -out "$demo/ssl_cert.tmp" 2>/dev/null
  cat "$demo/ssl_cert.tmp" "$demo/ssl_key.tmp" >"$demo/ssl_cert.pem"
  rm -f "$demo/ssl_cert.tmp" "$demo/ssl_key.tmp"
fi
cp "$demo/ssl_cert.pem" "$demo/bin/ssl_cert.pem"

# Settings the agent reads at start-up; kept when they exist so a demo can be tuned.
[[ -f $demo/install/DialHomeInfo.txt ]] ||
  echo "HomeName:127.0.0.1,HomePort:13570,HomeSSL:N,AgentPort:13568,AgentSSL:Y,StartupMode:Normal" \
    >"$demo/install/DialHomeInfo.txt"
[[ -f $demo/install/Kesta/Products.cfg ]] || cat >"$demo/install/Kesta/Products.cfg" <<'JSON'
{"products":[
  {"id":1,"name":"arbalo","displayName":"Arbalo","url":"arbalo","patchLevel":"P1"},
  {"id":2,"name":"kesta","displayName":"Kesta Optimizer","url":"kesta","version":"3.1.7.2","path":"Optimizer"}
]}
JSON
[[ -f $demo/install/Kesta/Policy/AgentConfig.cfg ]] ||
  echo '{"LoggingLevel":2,"DialHomeInterval":60}' >"$demo/install/Kesta/Policy/AgentConfig.cfg"

cat >"$demo/registry.reg" <<REG
Windows Registry Editor Version 5.00

[HKEY_LOCAL_MACHINE\\SOFTWARE\\Norvane Technologies\\Arbalo\\Setup]
"InstallDir"="$demo/install/"
"ProductVersion"="7.0.222.0"

[HKEY_LOCAL_MACHINE\\SOFTWARE\\Norvane Technologies\\Arbalo]
"AgentUIPort"="13569"

REG

export KRO_REGISTRY_FILE=$demo/registry.reg

# A stand-in for the management server, where DialHomeInfo.txt points: it prints each report.
python3 "$root/scripts/home_server.py" --port 13570 &
home_pid=$!
trap 'kill "$home_pid" 2>/dev/null; wait "$home_pid" 2>/dev/null' EXIT

cat <<TXT

KroAgent demo
  browser UI        http://127.0.0.1:13569/   (this machine only)
  agent port        https://127.0.0.1:13568/arbalo/  (self-signed certificate)
  try               curl -s http://127.0.0.1:13569/arbalo/Requests/getInstalledProducts.json
  management server http://127.0.0.1:13570/ (a stand-in; the first report arrives 30 s after
                    start and is printed below; then one every hour)
  alerts            the UI's "Raise test alert" button stores a test alert (the agent runs
                    with --demo) and the agent reports it at once: the stand-in prints it
                    below as an "alert" line of the next report, within seconds; the Alerts
                    card then shows it as delivered after Refresh
  host and module   $demo/bin
  log               $demo/bin/KroAgent.log
  registry          $demo/registry.reg
  installation      $demo/install
Stop with Ctrl+C.

TXT
# Not exec: the stand-in is stopped when the agent ends. --demo adds the routine behind the
# page's "Raise test alert" button.
"$demo/bin/kroagent" --demo || status=$?
exit "${status:-0}"
