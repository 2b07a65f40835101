#!/usr/bin/env python3
"""A server for lines: tls_receiver.py FOLDER PORT TOKEN. It asks for a client's certificate of the
authority in FOLDER, for the token and for a header, and keeps the lines of services in
FOLDER/taken."""

import gzip
import http.server
import pathlib
import ssl
import sys

folder, port, token = pathlib.Path(sys.argv[1]), int(sys.argv[2]), sys.argv[3]


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def do_POST(self):
        body = self.rfile.read(int(self.headers["Content-Length"]))
        known = self.headers["Authorization"] == f"Bearer {token}"
        if known and self.headers["X-Scope"] == "team-secret":
            lines = gzip.decompress(body).decode().splitlines(keepends=True)
            with open(folder / "taken", "a", encoding="utf-8") as taken:
                taken.writelines(x for x in lines if not x.startswith("tidegate_agent_"))
            self.send_response(204)
        else:
            self.send_response(401)
        self.send_header("Content-Length", "0")
        self.end_headers()

    def log_message(self, *_):
        pass


class Server(http.server.ThreadingHTTPServer):
    daemon_threads = True

    def finish_request(self, request, client_address):
        # The handshake is here, on the connection's own thread.
        super().finish_request(context.wrap_socket(request, server_side=True), client_address)

    def handle_error(self, *_):
        pass


context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
context.load_cert_chain(folder / "server.pem", folder / "server.key")
context.load_verify_locations(folder / "ca.pem")
context.verify_mode = ssl.CERT_REQUIRED
(folder / "taken").touch()
with Server(("127.0.0.1", port), Handler) as server:
    print("ready", flush=True)
    server.serve_forever()
