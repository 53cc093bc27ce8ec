#!/usr/bin/env python3
"""A small HTTP server on loopback that tells what it received.

Prints its port, then serves until its standard input ends. Paths:
  /redirect/REST  307 to /REST                /status/N   status N, the body "status N"
  /gzip           a gzip-encoded body         /bytes/N    N bytes "x"
  /stall          one byte of two, then nothing until the client gives up
  any other       the request as it came: its head, an empty line, its body
"""
import gzip
import http.server
import sys
import threading


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *args):
        pass

    def answer(self, status, body, headers=()):
        self.send_response(status)
        for name, value in headers:
            self.send_header(name, value)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def stall(self):
        self.send_response(200)
        self.send_header("Content-Length", "2")
        self.end_headers()
        self.wfile.write(b"x")
        self.wfile.flush()
        self.connection.recv(1)
        self.close_connection = True

    def serve(self):
        body = self.rfile.read(int(self.headers.get("Content-Length", 0)))
        kind, _, rest = self.path.partition("?")[0].lstrip("/").partition("/")
        if kind == "redirect":
            self.answer(307, b"elsewhere", [("Location", "/" + rest)])
        elif kind == "status":
            self.answer(int(rest), f"status {rest}".encode())
        elif kind == "bytes":
            self.answer(200, b"x" * int(rest))
        elif kind == "gzip":
            self.answer(200, gzip.compress(b"unpacked"), [("Content-Encoding", "gzip")])
        elif kind == "stall":
            self.stall()
        else:
            head = f"{self.requestline}\r\n" + "".join(f"{n}: {v}\r\n" for n, v in self.headers.items())
            self.answer(200, head.encode() + b"\r\n" + body)

    do_GET = do_POST = do_PUT = do_PROPFIND = serve


server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
server.daemon_threads = True
print(server.server_port, flush=True)
threading.Thread(target=server.serve_forever, daemon=True).start()
sys.stdin.buffer.read()
