#!/usr/bin/env python3
"""End-to-end check of the browser UI: a real agent in a throw-away installation serves the page,
headless Chromium runs its JavaScript, and the rendered DOM must show the installed products, the
agent's version and the test alert raised through the agent's demo routine just before.

Usage: ui_test.py --bin <folder with kroagent and libKroAgent.so> --ui <source ui folder>
Exit status 0 on success, 1 on failure (the temporary folder, with the screenshot and the agent's
log, is kept and its path printed).
"""

import argparse
import html.parser
import json
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import urllib.error
import urllib.request

CHROMIUM = "/usr/bin/chromium"
HOST = "127.0.0.1"
START_TIMEOUT_S = 20
STOP_TIMEOUT_S = 20
# Chromium normally finishes in a few seconds; the bound only keeps a wedged browser from
# hanging ctest.
BROWSER_TIMEOUT_S = 90
# Virtual time lets the page's fetches finish before the DOM is dumped, without a real wait.
VIRTUAL_TIME_MS = 5000

# What the host's demo routine raises (host/main.cpp).
TEST_ALERT_TYPE = "KroAgentTestAlert"
TEST_ALERT_CODE = "9001"
TEST_ALERT_TEXT = "Raised from the demo page"

PRODUCTS_CFG = {
    "products": [
        # No version: the agent's own product takes the module's version.
        {"id": 1, "name": "arbalo", "displayName": "Arbalo", "url": "arbalo", "patchLevel": "P1"},
        {"id": 2, "name": "kesta", "displayName": "Kesta Optimizer", "url": "Kesta",
         "version": "3.1.7.2"},
    ]
}


class Failure(Exception):
    pass


def free_port(taken):
    """A loopback port nobody listens on right now, distinct from those in `taken`."""
    for _ in range(50):
        with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as s:
            s.bind((HOST, 0))
            port = s.getsockname()[1]
        if port not in taken:
            return port
    raise Failure("could not find a free loopback port")


def make_installation(root, bin_dir, ui_dir, agent_port, ui_port):
    install = os.path.join(root, "install")
    kesta = os.path.join(install, "Kesta")
    os.makedirs(os.path.join(kesta, "Policy"))

    with open(os.path.join(install, "DialHomeInfo.txt"), "w", encoding="utf-8") as f:
        f.write("AgentPort:%d,AgentSSL:N\n" % agent_port)
    with open(os.path.join(kesta, "Products.cfg"), "w", encoding="utf-8") as f:
        json.dump(PRODUCTS_CFG, f)
    with open(os.path.join(kesta, "Policy", "AgentConfig.cfg"), "w", encoding="utf-8") as f:
        json.dump({"LoggingLevel": 2}, f)
    shutil.copytree(ui_dir, os.path.join(install, "User Interface"))

    # The host loads the module from its own folder and writes its log there.
    host_dir = os.path.join(install, "bin")
    os.makedirs(host_dir)
    for name in ("kroagent", "libKroAgent.so"):
        source = os.path.join(bin_dir, name)
        if not os.path.isfile(source):
            raise Failure("%s not found in %s; build the kroagent and KroAgent targets" %
                          (name, bin_dir))
        shutil.copy2(source, host_dir)

    registry = os.path.join(root, "registry.reg")
    with open(registry, "w", encoding="utf-8") as f:
        f.write("Windows Registry Editor Version 5.00\n\n")
        f.write("[HKEY_LOCAL_MACHINE\\SOFTWARE\\Norvane Technologies\\Arbalo\\Setup]\n")
        f.write('"InstallDir"="%s/"\n\n' % reg_escape(install))
        f.write("[HKEY_LOCAL_MACHINE\\SOFTWARE\\Norvane Technologies\\Arbalo]\n")
        f.write('"AgentUIPort"="%d"\n' % ui_port)
    return host_dir, registry


def reg_escape(text):
    return text.replace("\\", "\\\\").replace('"', '\\"')


def host_version(host):
    """The module's version as the host reports it: what the page must show."""
    try:
        out = subprocess.run([host, "--version"], capture_output=True, text=True, timeout=20)
    except subprocess.TimeoutExpired:
        raise Failure("kroagent --version did not finish within 20 s")
    words = out.stdout.split()
    if out.returncode != 0 or not words:
        raise Failure("kroagent --version failed (exit %d): %s" %
                      (out.returncode, (out.stdout + out.stderr).strip()))
    return words[0]


def wait_for_page(url, agent):
    deadline = time.monotonic() + START_TIMEOUT_S
    last = "no answer"
    while time.monotonic() < deadline:
        if agent.poll() is not None:
            raise Failure("kroagent exited with %d before serving the page" % agent.returncode)
        try:
            with urllib.request.urlopen(url, timeout=2) as response:
                if response.status == 200:
                    return
                last = "HTTP %d" % response.status
        except urllib.error.HTTPError as e:
            last = "HTTP %d" % e.code
        except (urllib.error.URLError, OSError) as e:
            last = str(getattr(e, "reason", e))
        time.sleep(0.25)
    raise Failure("%s did not answer 200 within %d s (last: %s)" % (url, START_TIMEOUT_S, last))


def raise_test_alert(base_url):
    """POSTs to the demo routine as the page's button does; the agent must report success."""
    url = base_url + "Requests/raiseTestAlert.json"
    request = urllib.request.Request(url, data=b"", method="POST")
    try:
        with urllib.request.urlopen(request, timeout=10) as response:
            body = response.read()
    except urllib.error.HTTPError as e:
        raise Failure("POST %s answered HTTP %d (is the agent running with --demo?)" %
                      (url, e.code))
    except (urllib.error.URLError, OSError) as e:
        raise Failure("POST %s failed: %s" % (url, getattr(e, "reason", e)))
    try:
        answer = json.loads(body)
    except ValueError:
        raise Failure("POST %s answered no JSON: %r" % (url, body[:200]))
    if answer != {"result": "success"}:
        raise Failure("POST %s answered %r, expected success" % (url, answer))


def run_chromium(profile, extra, url):
    args = [CHROMIUM, "--headless", "--no-sandbox", "--disable-gpu",
            "--disable-background-networking", "--disable-component-update", "--disable-sync",
            "--no-first-run", "--user-data-dir=" + profile,
            "--virtual-time-budget=%d" % VIRTUAL_TIME_MS] + extra + [url]
    # Its own session, so a timeout can take the renderer and GPU helpers down with it.
    proc = subprocess.Popen(args, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                            start_new_session=True)
    try:
        out, err = proc.communicate(timeout=BROWSER_TIMEOUT_S)
    except subprocess.TimeoutExpired:
        os.killpg(proc.pid, signal.SIGKILL)
        proc.communicate()
        raise Failure("chromium did not finish within %d s" % BROWSER_TIMEOUT_S)
    if proc.returncode != 0:
        raise Failure("chromium failed (exit %d): %s" %
                      (proc.returncode, err.decode(errors="replace")[-2000:]))
    return out.decode("utf-8", errors="replace")


class PageReader(html.parser.HTMLParser):
    """Collects the rows of the tables' bodies (by the tbody's id), the text of elements by id,
    and which are hidden."""

    def __init__(self):
        super().__init__()
        self.rows = {}
        self.texts = {}
        self.hidden = set()
        self.classes = {}
        self._stack = []  # (tag, id or None)
        self._body = None
        self._row = None
        self._cell = None

    def handle_starttag(self, tag, attrs):
        attrs = dict(attrs)
        ident = attrs.get("id")
        if ident:
            self.texts[ident] = ""
            self.classes[ident] = attrs.get("class") or ""
            if "hidden" in attrs:
                self.hidden.add(ident)
        if tag in ("br", "img", "input", "meta", "link", "hr"):
            return
        self._stack.append((tag, ident))
        if tag == "tbody" and ident:
            self._body = ident
            self.rows[ident] = []
        elif self._body is not None and tag == "tr":
            self._row = []
        elif self._row is not None and tag == "td":
            self._cell = ""

    def handle_endtag(self, tag):
        while self._stack:
            open_tag, ident = self._stack.pop()
            if open_tag == "tbody":
                self._body = None
            if open_tag == "td" and self._cell is not None and self._row is not None:
                self._row.append(" ".join(self._cell.split()))
                self._cell = None
            elif open_tag == "tr" and self._row is not None and self._body is not None:
                self.rows[self._body].append(self._row)
                self._row = None
            if open_tag == tag:
                break

    def handle_data(self, data):
        for _, ident in self._stack:
            if ident:
                self.texts[ident] += data
        if self._cell is not None:
            self._cell += data

    def text(self, ident):
        return " ".join(self.texts.get(ident, "").split())


def check_page(dom, version, ui_port):
    page = PageReader()
    page.feed(dom)
    page.close()

    problems = []
    for card in ("agent-message", "products-message", "alerts-message"):
        if card in page.hidden:
            continue
        if "error" in page.classes.get(card, "") or page.text(card):
            problems.append("%s shows: %r" % (card, page.text(card)))

    products = page.rows.get("products-body", [])
    expected = [("Arbalo", version), ("Kesta Optimizer", "3.1.7.2")]
    for name, product_version in expected:
        matches = [r for r in products if r and r[0] == name]
        if not matches:
            problems.append("no products row named %r (rows: %r)" % (name, products))
        elif len(matches[0]) < 3 or matches[0][2] != product_version:
            problems.append("row %r does not show version %s" % (matches[0], product_version))
    if len(products) != len(expected):
        problems.append("expected %d product rows, found %r" % (len(expected), products))

    # One alert was raised in a fresh installation: one row, with its type, code and text, the
    # internal "system" parameter left out, and a delivery state (no management server here).
    alerts = page.rows.get("alerts-body", [])
    if "alerts-wrap" in page.hidden or len(alerts) != 1:
        problems.append("expected the alerts table with one row, found %r (hidden: %s)" %
                        (alerts, "alerts-wrap" in page.hidden))
    else:
        row = alerts[0]
        if len(row) != 5 or row[1:3] != [TEST_ALERT_TYPE, TEST_ALERT_CODE]:
            problems.append("alert row %r does not show %s, code %s" %
                            (row, TEST_ALERT_TYPE, TEST_ALERT_CODE))
        elif not row[3].startswith(TEST_ALERT_TEXT) or "system" in row[3]:
            problems.append("alert row %r does not show the parameters %r first" %
                            (row, TEST_ALERT_TEXT))
        elif row[4] not in ("Pending", "Delivered") or row[0] in ("", "unknown"):
            problems.append("alert row %r lacks its raised time or delivery state" % (row,))
    if not page.text("alerts-meta").startswith("1 alert "):
        problems.append("alerts note reads %r, expected it to count 1 alert" %
                        page.text("alerts-meta"))

    if "agent-facts" in page.hidden:
        problems.append("the agent card's details are hidden")
    if page.text("agent-version") != version:
        problems.append("agent card shows version %r, expected %r" %
                        (page.text("agent-version"), version))
    if page.text("agent-ui-port") != str(ui_port):
        problems.append("agent card shows UI port %r, expected %d" %
                        (page.text("agent-ui-port"), ui_port))
    if problems:
        raise Failure("the rendered page is wrong:\n  " + "\n  ".join(problems))


def stop_agent(agent):
    agent.send_signal(signal.SIGTERM)
    try:
        code = agent.wait(timeout=STOP_TIMEOUT_S)
    except subprocess.TimeoutExpired:
        agent.kill()
        agent.wait()
        raise Failure("kroagent did not stop within %d s of SIGTERM" % STOP_TIMEOUT_S)
    if code != 0:
        raise Failure("kroagent exited with %d after SIGTERM, expected 0" % code)


def show_file_tail(label, path, lines=40):
    try:
        with open(path, encoding="utf-8", errors="replace") as f:
            tail = f.read().splitlines()[-lines:]
    except OSError:
        return
    if tail:
        print("--- %s (%s), last lines:" % (label, path))
        print("\n".join(tail))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--bin", required=True, help="folder holding kroagent and libKroAgent.so")
    parser.add_argument("--ui", required=True, help="the ui source folder")
    args = parser.parse_args()

    if not os.access(CHROMIUM, os.X_OK):
        print("FAIL: %s is missing; run scripts/setup.sh to install chromium" % CHROMIUM)
        return 1

    root = tempfile.mkdtemp(prefix="kro-ui-test-")
    screenshot = os.path.join(root, "page.png")
    agent = None
    agent_output = os.path.join(root, "kroagent.out")
    host_dir = None
    ok = False
    try:
        agent_port = free_port(set())
        ui_port = free_port({agent_port})
        host_dir, registry = make_installation(root, os.path.abspath(args.bin),
                                               os.path.abspath(args.ui), agent_port, ui_port)
        host = os.path.join(host_dir, "kroagent")
        version = host_version(host)

        env = dict(os.environ, KRO_REGISTRY_FILE=registry)
        with open(agent_output, "wb") as out:
            agent = subprocess.Popen([host, "--demo"], cwd=host_dir, env=env, stdout=out,
                                     stderr=subprocess.STDOUT)

        base_url = "http://%s:%d/arbalo/" % (HOST, ui_port)
        url = base_url + "index.html"
        wait_for_page(url, agent)
        raise_test_alert(base_url)

        profile = os.path.join(root, "chromium-profile")
        dom = run_chromium(profile, ["--dump-dom"], url)
        # The screenshot is for a human looking at a failure; taken before judging the DOM.
        try:
            run_chromium(profile, ["--screenshot=" + screenshot, "--window-size=1200,800"], url)
        except Failure as e:
            print("note: no screenshot: %s" % e)
        with open(os.path.join(root, "page.html"), "w", encoding="utf-8") as f:
            f.write(dom)
        check_page(dom, version, ui_port)

        stop_agent(agent)
        ok = True
        print("PASS: the page lists Arbalo %s and Kesta Optimizer 3.1.7.2, the agent card shows "
              "%s, the alerts table shows the raised %s, and kroagent stopped cleanly" %
              (version, version, TEST_ALERT_TYPE))
        return 0
    except Failure as e:
        print("FAIL: %s" % e)
        return 1
    finally:
        if agent is not None and agent.poll() is None:
            agent.kill()
            agent.wait()
        if ok:
            shutil.rmtree(root, ignore_errors=True)
        else:
            show_file_tail("kroagent output", agent_output)
            if host_dir:
                show_file_tail("agent log", os.path.join(host_dir, "KroAgent.log"))
            if os.path.exists(screenshot):
                print("screenshot kept: %s" % screenshot)
            print("temporary installation kept: %s" % root)


if __name__ == "__main__":
    sys.exit(main())
