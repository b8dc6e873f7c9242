#!/usr/bin/env python3
"""Local HTTP(S) server for transfer tests and benchmarks.

usage: http_test_server.py ROOT PORT_FILE [CERT KEY]

Serves on 127.0.0.1 (a free port, written to PORT_FILE once listening):
  /files/NAME[?chunk=BYTES&delay_ms=MS]  ROOT/NAME, written CHUNK bytes at a
                                         time with a pause after each chunk
  /redirect/URL                          302 to the (percent-decoded) URL
  anything else                          404
With CERT and KEY it speaks TLS only.
"""
import http.server
import os
import ssl
import sys
import time
import urllib.parse


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    root = "."

    def log_message(self, *args):
        pass

    def do_GET(self):
        url = urllib.parse.urlparse(self.path)
        query = urllib.parse.parse_qs(url.query)
        if url.path.startswith("/redirect/"):
            self.send_response(302)
            self.send_header("Location", urllib.parse.unquote(url.path[len("/redirect/"):]))
            self.send_header("Content-Length", "0")
            self.end_headers()
            return
        path = os.path.join(self.root, os.path.basename(url.path))
        if not url.path.startswith("/files/") or not os.path.isfile(path):
            self.send_error(404)
            return
        chunk = int(query.get("chunk", ["1048576"])[0])
        delay = float(query.get("delay_ms", ["0"])[0]) / 1000.0
        self.send_response(200)
        self.send_header("Content-Length", str(os.path.getsize(path)))
        self.send_header("Content-Type", "application/octet-stream")
        self.end_headers()
        with open(path, "rb") as f:
            while True:
                data = f.read(chunk)
                if not data:
                    break
                try:
                    self.wfile.write(data)
                    self.wfile.flush()
                except OSError:
                    return  # the client gave up
                if delay:
                    time.sleep(delay)


def main():
    Handler.root = sys.argv[1]
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
    server.daemon_threads = True
    if len(sys.argv) > 4:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(sys.argv[3], sys.argv[4])
        server.socket = context.wrap_socket(server.socket, server_side=True)
    temp = sys.argv[2] + ".tmp"
    with open(temp, "w") as f:
        f.write(str(server.server_address[1]))
    os.rename(temp, sys.argv[2])
    server.serve_forever()


if __name__ == "__main__":
    main()
