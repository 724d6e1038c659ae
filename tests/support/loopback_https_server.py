#!/usr/bin/env python3
"""A scripted HTTPS server on a loopback address, for tests and benchmarks of the service client.

Answers each request with the next entry of a JSON script (the last entry repeats), and appends
one JSON line per request to a record file, with the request's method, path, headers and body
length (and the body itself in a file when --bodies names a folder). Prints "PORT <n>" once it
listens. Stops on SIGTERM.

A script entry: {"status": 200, "headers": {"Retry-After": "2"}, "body": "text"}, where instead of
"body" "bodyBytes": N sends N bytes of "x", and "noLength": true leaves out Content-Length and
ends the body by closing the connection, and "delay": S waits S seconds before reading the
request's body, "answerDelay": S after reading and recording it, before answering.
"""
import argparse
import hashlib
import http.server
import json
import os
import signal
import socket
import ssl
import sys
import threading
import time


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--cert", required=True)
    parser.add_argument("--key", required=True)
    parser.add_argument("--host", default="127.0.0.1")
    parser.add_argument("--script", required=True)
    parser.add_argument("--record", required=True)
    parser.add_argument("--bodies")
    parser.add_argument("--plain", action="store_true", help="no TLS")
    args = parser.parse_args()

    with open(args.script, encoding="utf-8") as handle:
        script = json.load(handle)
    lock = threading.Lock()
    state = {"count": 0}

    class Handler(http.server.BaseHTTPRequestHandler):
        protocol_version = "HTTP/1.1"

        def log_message(self, *unused):
            pass

        def handle_any(self):
            length = int(self.headers.get("Content-Length") or 0)
            digest = hashlib.sha256()
            with lock:
                index = state["count"]
                state["count"] += 1
            entry = script[min(index, len(script) - 1)]
            time.sleep(float(entry.get("delay", 0)))
            body_file = None
            sink = None
            if args.bodies:
                body_file = os.path.join(args.bodies, "body-%d" % index)
                sink = open(body_file, "wb")
            remaining = length
            while remaining > 0:
                piece = self.rfile.read(min(remaining, 1 << 20))
                if not piece:
                    break
                remaining -= len(piece)
                digest.update(piece)
                if sink:
                    sink.write(piece)
            if sink:
                sink.close()
            record = {
                "method": self.command,
                "path": self.path,
                "headers": {k.lower(): v for k, v in self.headers.items()},
                "bodyLength": length - remaining,
                "sha256": digest.hexdigest(),
            }
            if body_file:
                record["bodyFile"] = body_file
            with lock:
                with open(args.record, "a", encoding="utf-8") as out:
                    out.write(json.dumps(record) + "\n")
            time.sleep(float(entry.get("answerDelay", 0)))
            if "bodyBytes" in entry:
                body = b"x" * int(entry["bodyBytes"])
            else:
                body = entry.get("body", "").encode("utf-8")
            self.send_response(int(entry.get("status", 200)))
            for name, value in entry.get("headers", {}).items():
                self.send_header(name, value)
            if entry.get("noLength"):
                self.send_header("Connection", "close")
                self.close_connection = True
            else:
                self.send_header("Content-Length", str(len(body)))
            self.end_headers()
            try:
                self.wfile.write(body)
            except (BrokenPipeError, ConnectionResetError, ssl.SSLError):
                self.close_connection = True

        do_GET = handle_any
        do_POST = handle_any

    family = socket.AF_INET6 if ":" in args.host else socket.AF_INET

    class Server(http.server.ThreadingHTTPServer):
        address_family = family
        daemon_threads = True

    server = Server((args.host, 0), Handler)
    if not args.plain:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(args.cert, args.key)
        server.socket = context.wrap_socket(server.socket, server_side=True)
    signal.signal(signal.SIGTERM, lambda *unused: os._exit(0))
    print("PORT %d" % server.server_address[1], flush=True)
    server.serve_forever()


if __name__ == "__main__":
    sys.exit(main())
