"""Loopback servers for the network tests: an HTTP server with fixed routes
and a TCP echo server, each on a free port of 127.0.0.1, in threads of the
test process.

HTTP routes:
  /hello          200 "Hello, BASIC"
  /missing        404 "not here"
  /moved          301 to /hello
  /relative/a     302 to "../hello?x=1" (resolved against the request)
  /chain/N        302 to /chain/N-1, /chain/0 is /hello
  /loop           302 to itself
  /exact          200 with exactly 1 MiB of body
  /big            200 with 1 MiB + 1 bytes (Content-Length given)
  /bigchunked     200 with 1 MiB + 1 bytes, chunked (no length known in advance)
  /binary         200 with the bytes 0..255
  /slow           answers after 120 s (time-outs and Esc end the wait first)
Echo server: sends back every byte it gets; "QUIT" makes it answer "BYE"
and close the connection.
"""
import http.server
import socket
import socketserver
import threading
import time

MIB = 1 << 20


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *args):
        pass

    def send_body(self, status, body, headers=()):
        self.send_response(status)
        for k, v in headers:
            self.send_header(k, v)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def redirect(self, status, where):
        self.send_body(status, b"moved", [("Location", where)])

    def do_GET(self):
        p = self.path
        if p == "/hello" or p.startswith("/hello?"):
            self.send_body(200, b"Hello, BASIC")
        elif p == "/missing":
            self.send_body(404, b"not here")
        elif p == "/moved":
            self.redirect(301, "/hello")
        elif p == "/relative/a":
            self.redirect(302, "../hello?x=1")
        elif p.startswith("/chain/"):
            n = int(p[7:])
            self.redirect(302, "/chain/%d" % (n - 1) if n > 0 else "/hello")
        elif p == "/loop":
            self.redirect(302, "/loop")
        elif p == "/exact":
            self.send_body(200, b"x" * MIB)
        elif p == "/big":
            self.send_body(200, b"x" * (MIB + 1))
        elif p == "/bigchunked":
            self.send_response(200)
            self.send_header("Transfer-Encoding", "chunked")
            self.end_headers()
            chunk = b"y" * 65536
            try:
                for _ in range(16):
                    self.wfile.write(b"%x\r\n%s\r\n" % (len(chunk), chunk))
                self.wfile.write(b"1\r\nz\r\n0\r\n\r\n")
            except OSError:
                pass  # the client gave up at the limit, as it should
        elif p == "/binary":
            self.send_body(200, bytes(range(256)))
        elif p == "/slow":
            time.sleep(120)
            self.send_body(200, b"late")
        else:
            self.send_body(404, b"no route")


class EchoHandler(socketserver.BaseRequestHandler):
    def handle(self):
        while True:
            try:
                data = self.request.recv(65536)
            except OSError:
                return
            if not data:
                return
            if b"QUIT" in data:
                self.request.sendall(b"BYE\r\n")
                self.request.close()
                return
            self.request.sendall(data)


class Threaded(socketserver.ThreadingMixIn):
    daemon_threads = True
    allow_reuse_address = True

    def handle_error(self, request, client_address):
        pass  # a client that gives up (a limit, a time-out, Esc) is expected


class HTTPServer(Threaded, http.server.HTTPServer):
    pass


class TCPServer(Threaded, socketserver.TCPServer):
    pass


def free_port():
    """A port nobody listens on (connections to it are refused)."""
    s = socket.socket()
    s.bind(("127.0.0.1", 0))
    port = s.getsockname()[1]
    s.close()
    return port


def start():
    """Start both servers; returns a dict of the test's placeholders."""
    http_server = HTTPServer(("127.0.0.1", 0), Handler)
    echo_server = TCPServer(("127.0.0.1", 0), EchoHandler)
    for srv in (http_server, echo_server):
        threading.Thread(target=srv.serve_forever, daemon=True).start()
    return {
        "http": "http://127.0.0.1:%d" % http_server.server_address[1],
        "httpport": str(http_server.server_address[1]),
        "echo": str(echo_server.server_address[1]),
        "refused": str(free_port()),
    }


if __name__ == "__main__":
    print(start())
    time.sleep(3600)
