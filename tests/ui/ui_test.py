#!/usr/bin/env python3
"""End-to-end check of the browser UI: a real agent in a throw-away installation serves the page,
headless Chromium runs its JavaScript, and the rendered DOM must show the installed products and
the agent's version.

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
    """Collects the products table's rows, the text of elements by id, and which are hidden."""

    def __init__(self):
        super().__init__()
        self.rows = []
        self.texts = {}
        self.hidden = set()
        self.classes = {}
        self._stack = []  # (tag, id or None)
        self._in_products = False
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
        if ident == "products-body":
            self._in_products = True
        elif self._in_products and tag == "tr":
            self._row = []
        elif self._row is not None and tag == "td":
            self._cell = ""

    def handle_endtag(self, tag):
        while self._stack:
            open_tag, ident = self._stack.pop()
            if ident == "products-body":
                self._in_products = False
            if open_tag == "td" and self._cell is not None and self._row is not None:
                self._row.append(" ".join(self._cell.split()))
                self._cell = None
            elif open_tag == "tr" and self._row is not None:
                self.rows.append(self._row)
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
    for card in ("agent-message", "products-message"):
        if card in page.hidden:
            continue
        if "error" in page.classes.get(card, "") or page.text(card):
            problems.append("%s shows: %r" % (card, page.text(card)))

    expected = [("Arbalo", version), ("Kesta Optimizer", "3.1.7.2")]
    for name, product_version in expected:
        matches = [r for r in page.rows if r and r[0] == name]
        if not matches:
            problems.append("no products row named %r (rows: %r)" % (name, page.rows))
        elif len(matches[0]) < 3 or matches[0][2] != product_version:
            problems.append("row %r does not show version %s" % (matches[0], product_version))
    if len(page.rows) != len(expected):
        problems.append("expected %d product rows, found %r" % (len(expected), page.rows))

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
            agent = subprocess.Popen([host], cwd=host_dir, env=env, stdout=out,
                                     stderr=subprocess.STDOUT)

        url = "http://%s:%d/arbalo/index.html" % (HOST, ui_port)
        wait_for_page(url, agent)

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
              "%s, and kroagent stopped cleanly" % (version, version))
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
