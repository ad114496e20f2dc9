#!/usr/bin/env python3
"""A stand-in for the management server's dial-home endpoint, for tests and demos only.

Listens on 127.0.0.1, accepts POST /KRO/Server/DialHome from the agent, unframes the report,
prints it readably on stdout and answers with a framed reply. Standard library only.

  scripts/home_server.py --port 8443                       plain HTTP
  scripts/home_server.py --port 8443 --cert server.pem     HTTPS (PEM: certificate and key)
  scripts/home_server.py --port 0 --once --record out.jsonl --mode failed

--port 0 lets the system pick; the first stdout line is always "listening on HOST:PORT (http)"
or "(https)", so a test can read the port from it. Diagnostics go to stderr.

Modes (what every report is answered with):
  success    framed {"result":"success"} (default)
  failed     framed {"result":"failed"}
  status500  HTTP 500 without a frame
  malformed  HTTP 200 with a frame whose total size exceeds the body
  silent     accept the request and never answer (the connection stays open until the
             client gives up)

--once: exit after the first dial-home request; the exit code is 0 if it was well-formed, 1
if not. --record FILE: append each decoded payload to FILE as one JSON line.
"""

import argparse
import datetime
import http.server
import json
import ssl
import struct
import sys
import threading

DIAL_HOME_PATH = "/KRO/Server/DialHome"
USER_AGENT = "KroAgent/1.2"
NAME = b"DialHome\0"
# Request record: total, 0, name size, 0, payload size; then the name, then the payload.
REQUEST_HEADER = struct.Struct("<5I")
# Reply record: one field shorter: total, name size, 0, payload size.
REPLY_HEADER = struct.Struct("<4I")
# The agent's outgoing buffer is 1 MiB; anything much larger is not from the agent.
MAX_BODY = 4 * 1024 * 1024

REPORT_TYPES = {1: "startup", 2: "periodic", 3: "request"}
SYSTEM_TYPES = {0: "undetected", 1: "physical", 2: "virtual (unknown hypervisor)",
                3: "Hyper-V guest", 4: "VMware guest", 5: "Xen guest", 6: "KVM guest"}
ARCHITECTURES = {0: "x86", 5: "ARM", 6: "IA-64", 9: "x64", 12: "Arm64", 0xFFFF: "unknown"}
WINDOWS_TYPES = {1: "workstation", 2: "domain controller", 3: "server", 0x100: "Linux"}
# A Linux agent marks its kernel version with the top bit, which no Windows version has.
LINUX_VERSION_FLAG = 0x80000000
# Windows file times count 100 ns intervals from 1601-01-01 UTC.
FILETIME_EPOCH = datetime.datetime(1601, 1, 1, tzinfo=datetime.timezone.utc)


class Malformed(Exception):
    """The request broke the dial-home protocol; the text says how."""


def log(message):
    print(f"home_server: {message}", file=sys.stderr, flush=True)


def unframe_request(body):
    """The payloads (dicts) of the request records in body; raises Malformed."""
    payloads = []
    offset = 0
    while offset < len(body):
        if len(body) - offset < REQUEST_HEADER.size + len(NAME):
            raise Malformed(f"record at {offset}: {len(body) - offset} bytes, shorter than a header")
        total, zero1, name_size, zero2, payload_size = REQUEST_HEADER.unpack_from(body, offset)
        if zero1 != 0 or zero2 != 0:
            raise Malformed(f"record at {offset}: reserved words {zero1}, {zero2} are not 0")
        if name_size != len(NAME):
            raise Malformed(f"record at {offset}: name size {name_size}, expected {len(NAME)}")
        if total != REQUEST_HEADER.size + len(NAME) + payload_size:
            raise Malformed(f"record at {offset}: total {total} is not 29 + payload {payload_size}")
        if total > len(body) - offset:
            raise Malformed(f"record at {offset}: total {total} exceeds the "
                            f"{len(body) - offset} bytes received")
        name_at = offset + REQUEST_HEADER.size
        if body[name_at:name_at + len(NAME)] != NAME:
            raise Malformed(f"record at {offset}: name {body[name_at:name_at + len(NAME)]!r}")
        payload = body[name_at + len(NAME):offset + total]
        offset += total
        if payload_size == 0:
            raise Malformed("record without a payload")
        if payload[-1] != 0 or 0 in payload[:-1]:
            raise Malformed("payload is not one zero-terminated text")
        try:
            report = json.loads(payload[:-1].decode("utf-8"))
        except (UnicodeDecodeError, ValueError) as error:
            raise Malformed(f"payload is not JSON: {error}") from None
        if not isinstance(report, dict) or not isinstance(report.get("General"), dict):
            raise Malformed("payload is not an object with a \"General\" object")
        payloads.append(report)
    if not payloads:
        raise Malformed("empty body")
    return payloads


def frame_reply(result, broken=False):
    payload = json.dumps({"result": result}, separators=(",", ":")).encode() + b"\0"
    total = REPLY_HEADER.size + len(NAME) + len(payload)
    if broken:
        # Claims more than is sent, which the agent must refuse.
        total += 100
    return REPLY_HEADER.pack(total, len(NAME), 0, len(payload)) + NAME + payload


def as_int(value, default=None):
    try:
        return int(value)
    except (TypeError, ValueError):
        return default


def named(table, value):
    number = as_int(value)
    return f"{table.get(number, 'unknown')} ({value})"


def unpack_version(value):
    v = as_int(value)
    if v is None:
        return f"? ({value!r})"
    return f"{v >> 24}.{(v >> 16) & 0xFF}.{(v >> 4) & 0xFFF}.{v & 0xF}"


def os_version(value):
    v = as_int(value, 0)
    if v & LINUX_VERSION_FLAG:
        return f"kernel {(v >> 24) & 0x7F}.{(v >> 16) & 0xFF}.{v & 0xFFFF}"
    return f"{v >> 24}.{(v >> 16) & 0xFF} build {v & 0xFFFF}"


def gib(value):
    number = as_int(value)
    return "?" if number is None else f"{number / 2**30:.1f} GiB"


def report_time(general):
    ticks = as_int(general.get("Time"))
    if ticks is None:
        return f"? ({general.get('Time')!r})"
    try:
        when = FILETIME_EPOCH + datetime.timedelta(microseconds=ticks // 10)
    except OverflowError:
        return f"? ({ticks})"
    return when.strftime("%Y-%m-%d %H:%M:%S UTC")


def describe(report):
    """The report as readable lines."""
    general = report.get("General", {})
    system = report.get("System") if isinstance(report.get("System"), dict) else {}
    lines = [f"dial-home report, type {named(REPORT_TYPES, general.get('Type'))}, "
             f"code {general.get('Code')}, sent {report_time(general)}"]
    if system:
        lines += [
            f"  system name      {system.get('SystemName', '')}",
            f"  new system name  {system.get('NewSystemName') or '-'}",
            f"  machine          {named(SYSTEM_TYPES, system.get('SystemType'))}, "
            f"architecture {named(ARCHITECTURES, system.get('SystemArchitecture'))}",
            f"  processors       {system.get('ProcessorPackages')} package(s), "
            f"{system.get('ProcessorCores')} core(s), {system.get('ProcessorThreads')} thread(s)",
            f"  OS               {system.get('WindowsProductName', '')} "
            f"{os_version(system.get('WindowsVersion'))}, "
            f"{named(WINDOWS_TYPES, system.get('WindowsType'))}",
            f"  memory           {gib(system.get('TotalMemory'))} total, "
            f"{gib(system.get('AvailableMemory'))} available",
        ]
    else:
        lines.append("  (no System group)")
    for group in ("Agent", "Product"):
        values = report.get(group)
        if isinstance(values, dict):
            tls = "TLS on" if values.get("UseSSL") is True else "TLS off"
            lines.append(f"  {group.lower():<16} {unpack_version(values.get('Version'))}, "
                         f"port {values.get('Port')}, {tls}")
        else:
            lines.append(f"  ({group} group left out)")
    alerts = report.get("Alerts", {})
    data = alerts.get("Data", []) if isinstance(alerts, dict) else []
    if not isinstance(data, list):
        data = []
    for alert in data:
        lines.append(f"  alert            {alert}")
    if not data:
        lines.append("  (no alerts)")
    return lines


class HomeServer(http.server.ThreadingHTTPServer):
    daemon_threads = True

    def __init__(self, address, options):
        super().__init__(address, DialHomeHandler)
        self.options = options
        self.print_lock = threading.Lock()
        self.done = threading.Event()
        self.once_result = None

    def handle_error(self, request, client_address):
        # A client that drops the connection or fails the TLS handshake is no reason for a
        # traceback; one line says what happened.
        log(f"connection from {client_address[0]}:{client_address[1]}: {sys.exc_info()[1]!r}")

    def finish_report(self, well_formed):
        if self.options.once and self.once_result is None:
            self.once_result = 0 if well_formed else 1
            self.done.set()


class DialHomeHandler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    server_version = "KroHomeStandIn/1.0"

    def log_message(self, format, *args):
        log(f"{self.client_address[0]} {format % args}")

    def send_body(self, status, body, content_type="application/octet-stream"):
        self.send_response(status)
        self.send_header("Content-Type", content_type)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)
        self.wfile.flush()

    def do_GET(self):
        self.send_body(404, b"not found\n", "text/plain")

    do_PUT = do_DELETE = do_HEAD = do_PATCH = do_OPTIONS = do_GET

    def read_body(self):
        if "chunked" in self.headers.get("Transfer-Encoding", "").lower():
            chunks = []
            size = 0
            while True:
                line = self.rfile.readline(1024)
                length = int(line.split(b";")[0].strip() or b"x", 16)
                if length == 0:
                    while self.rfile.readline(1024).strip():
                        pass  # trailers
                    return b"".join(chunks)
                size += length
                if size > MAX_BODY:
                    raise Malformed(f"chunked body beyond {MAX_BODY} bytes")
                chunks.append(self.rfile.read(length))
                self.rfile.readline(1024)
        length = int(self.headers.get("Content-Length", "0"))
        if length < 0 or length > MAX_BODY:
            raise Malformed(f"Content-Length {length} out of range")
        body = self.rfile.read(length)
        if len(body) != length:
            raise Malformed(f"body ended after {len(body)} of {length} bytes")
        return body

    def do_POST(self):
        if self.path.split("?", 1)[0] != DIAL_HOME_PATH:
            self.do_GET()
            return
        server = self.server
        try:
            try:
                body = self.read_body()
            except ValueError as error:
                raise Malformed(f"unreadable body: {error}") from None
            agent = self.headers.get("User-Agent")
            if agent != USER_AGENT:
                raise Malformed(f"User-Agent {agent!r}, expected {USER_AGENT!r}")
            reports = unframe_request(body)
        except Malformed as error:
            log(f"malformed dial-home request from {self.client_address[0]}: {error}")
            self.close_connection = True
            self.send_body(400, f"malformed dial-home request: {error}\n".encode(), "text/plain")
            server.finish_report(False)
            return

        received = datetime.datetime.now().strftime("%Y-%m-%d %H:%M:%S")
        with server.print_lock:
            for report in reports:
                print(f"[{received}] " + "\n".join(describe(report)), flush=True)
                if server.options.record:
                    with open(server.options.record, "a", encoding="utf-8") as record:
                        record.write(json.dumps(report, separators=(",", ":")) + "\n")

        mode = server.options.mode
        if mode == "silent":
            # Hold the connection without a word until the client gives up.
            try:
                while self.connection.recv(4096):
                    pass
            except OSError:
                pass
            self.close_connection = True
        elif mode == "status500":
            self.send_body(500, b"internal server error\n", "text/plain")
        else:
            result = "failed" if mode == "failed" else "success"
            self.send_body(200, frame_reply(result, broken=(mode == "malformed")))
        server.finish_report(True)


def main():
    parser = argparse.ArgumentParser(
        description="Dial-home stand-in for the management server (tests and demos only).")
    parser.add_argument("--port", type=int, required=True, help="port on 127.0.0.1 (0: any)")
    parser.add_argument("--cert", help="PEM with certificate and private key: serve HTTPS")
    parser.add_argument("--mode", default="success",
                        choices=["success", "failed", "status500", "malformed", "silent"])
    parser.add_argument("--once", action="store_true",
                        help="exit after the first report (0 if it was well-formed)")
    parser.add_argument("--record", metavar="FILE",
                        help="append each decoded payload to FILE as one JSON line")
    options = parser.parse_args()

    server = HomeServer(("127.0.0.1", options.port), options)
    scheme = "http"
    if options.cert:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(options.cert)
        # The handshake happens on the connection's own thread, so a client that connects and
        # stays mute cannot hold up the accept loop.
        server.socket = context.wrap_socket(server.socket, server_side=True,
                                            do_handshake_on_connect=False)
        scheme = "https"
    host, port = server.server_address[:2]
    print(f"listening on {host}:{port} ({scheme})", flush=True)

    thread = threading.Thread(target=server.serve_forever, daemon=True)
    thread.start()
    try:
        while not server.done.wait(0.5):
            pass
    except KeyboardInterrupt:
        pass
    server.shutdown()
    server.server_close()
    return server.once_result or 0


if __name__ == "__main__":
    sys.exit(main())
