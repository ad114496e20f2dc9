#!/usr/bin/env python3
"""Opens many keep-alive connections to one HTTP server, asks one request on each, then keeps
them open and idle until SIGTERM, SIGINT or --hold seconds.

    idle_clients.py --port 8080 [--host 127.0.0.1] [--path /] [--count 10000]

Once every connection has been tried (or --deadline has passed) it prints one line,
    opened=N answered=A connect_failed=C no_answer=X bad_status=B seconds=S
and when told to stop, a second one,
    held=H closed_by_server=K
so a caller can measure the server while the connections sit idle and then see how many of
them the server had dropped meanwhile. Only loopback addresses are accepted.
"""

import argparse
import asyncio
import ipaddress
import resource
import signal
import sys
import time


def raise_fd_limit(count):
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    want = hard if hard != resource.RLIM_INFINITY else max(soft, count + 256)
    if soft < want:
        resource.setrlimit(resource.RLIMIT_NOFILE, (want, hard))
    return resource.getrlimit(resource.RLIMIT_NOFILE)[0]


class Clients:
    def __init__(self, args):
        self.args = args
        self.request = (f"GET {args.path} HTTP/1.1\r\nHost: {args.host}:{args.port}\r\n"
                        "User-Agent: idle-clients\r\n\r\n").encode()
        self.open = []  # (reader, writer) of every answered connection
        self.counts = dict(opened=0, answered=0, connect_failed=0, no_answer=0, bad_status=0)
        self.closed_by_server = 0

    async def one(self, gate):
        async with gate:
            t = self.args.timeout
            try:
                reader, writer = await asyncio.wait_for(
                    asyncio.open_connection(self.args.host, self.args.port), t)
            except (OSError, asyncio.TimeoutError):
                self.counts["connect_failed"] += 1
                return
            self.counts["opened"] += 1
            try:
                writer.write(self.request)
                head = await asyncio.wait_for(reader.readuntil(b"\r\n\r\n"), t)
                status_line, *fields = head.decode("latin-1").split("\r\n")
                status = int(status_line.split()[1])
                length = 0
                for field in fields:
                    name, _, value = field.partition(":")
                    if name.strip().lower() == "content-length":
                        length = int(value.strip())
                if length:
                    await asyncio.wait_for(reader.readexactly(length), t)
            except (OSError, ValueError, IndexError, asyncio.TimeoutError,
                    asyncio.IncompleteReadError, asyncio.LimitOverrunError):
                self.counts["no_answer"] += 1
                writer.close()
                return
            if status != 200:
                self.counts["bad_status"] += 1
                writer.close()
                return
            self.counts["answered"] += 1
            self.open.append((reader, writer))

    async def watch(self, reader):
        # Nothing more is asked, so any read that ends means the server closed the connection.
        try:
            data = await reader.read(1)
        except OSError:
            data = b""
        if not data:
            self.closed_by_server += 1

    async def run(self):
        stop = asyncio.Event()
        loop = asyncio.get_running_loop()
        for sig in (signal.SIGTERM, signal.SIGINT):
            loop.add_signal_handler(sig, stop.set)

        start = time.monotonic()
        gate = asyncio.Semaphore(self.args.parallel)
        tasks = [asyncio.ensure_future(self.one(gate)) for _ in range(self.args.count)]
        done, pending = await asyncio.wait(tasks, timeout=self.args.deadline)
        for task in pending:
            task.cancel()
        if pending:
            await asyncio.wait(pending)
        # Cancelled before answering: neither answered nor known to have failed for a reason.
        untried = len(pending)
        print(" ".join(f"{k}={v}" for k, v in self.counts.items())
              + f" untried={untried} seconds={time.monotonic() - start:.1f}", flush=True)

        watchers = [asyncio.ensure_future(self.watch(r)) for r, _ in self.open]
        try:
            await asyncio.wait_for(stop.wait(), self.args.hold)
        except asyncio.TimeoutError:
            pass
        for w in watchers:
            w.cancel()
        await asyncio.gather(*watchers, return_exceptions=True)
        print(f"held={len(self.open) - self.closed_by_server} "
              f"closed_by_server={self.closed_by_server}", flush=True)
        for _, writer in self.open:
            writer.close()


def main():
    p = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    p.add_argument("--host", default="127.0.0.1")
    p.add_argument("--port", type=int, required=True)
    p.add_argument("--path", default="/")
    p.add_argument("--count", type=int, default=10000)
    p.add_argument("--parallel", type=int, default=256, help="connections being opened at once")
    p.add_argument("--timeout", type=float, default=10.0, help="connect, and answer, seconds")
    p.add_argument("--deadline", type=float, default=60.0, help="seconds for opening them all")
    p.add_argument("--hold", type=float, default=300.0, help="most seconds to keep them open")
    args = p.parse_args()
    if not ipaddress.ip_address(args.host).is_loopback:
        sys.exit("idle_clients.py: loopback addresses only")
    limit = raise_fd_limit(args.count)
    if limit < args.count + 16:
        print(f"idle_clients.py: file-descriptor limit {limit} is below {args.count}",
              file=sys.stderr)
    asyncio.run(Clients(args).run())


if __name__ == "__main__":
    main()
