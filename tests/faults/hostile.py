"""A server that misbehaves in one of many ways, whatever it is asked: as a web server, as a public host behind a proxy
(CONNECT, then TLS under any name of CERTIFIED), as a mail server, or as the suite's agent on a Unix socket."""

import pathlib
import socket
import ssl
import subprocess
import threading

CERTIFIED = ["oauth2.googleapis.com", "www.googleapis.com", "download.db-ip.com"]
TRICKLE_SECONDS = 0.3
PIECE = b"x" * 65536

# What is said, and what is done then. "{head}" is "HTTP/1.1 200 OK", or a mail server's "220".
WAYS = {
    "refuses": (None, "close"),
    "hangs": (b"", "wait"),
    "trickles": (b"", "trickle"),
    "cuts": (b"{head}\r\nContent-Le", "close"),
    "announces too much": (b"{head}\r\nContent-Length: 1000000000\r\n\r\nshort", "close"),
    "announces too little": (b"{head}\r\nContent-Length: 1\r\n\r\nmore than that", "wait"),
    "sends gigabytes": (b"{head}\r\n\r\n", "flood"),
    "never ends its head": (b"{head}\r\n", "lines"),
    "never ends a line": (b"{head}", "flood"),
}


def make_certificate(folder):
    """An authority that is its own server, for CERTIFIED; `folder`/ca is to stand in the place of /etc/ssl/certs."""
    authorities = pathlib.Path(folder, "ca")
    authorities.mkdir()
    names = ",".join(f"DNS:{name}" for name in CERTIFIED)
    command = ["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=faults"]
    command += ["-addext", f"subjectAltName={names}", "-keyout", f"{folder}/key.pem", "-out", f"{authorities}/ca.pem"]
    subprocess.run(command, check=True, capture_output=True)
    subprocess.run(["openssl", "rehash", authorities], check=True, capture_output=True)
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(f"{authorities}/ca.pem", f"{folder}/key.pem")
    return context


class Hostile(threading.Thread):
    def __init__(self, path=None, talks_first=False, certificate=None):
        super().__init__(daemon=True)
        self.talks_first = talks_first
        self.certificate = certificate
        self.way = "hangs"
        self.clients = 0
        self.ends = threading.Event()
        self.listener = socket.socket(socket.AF_UNIX if path else socket.AF_INET)
        self.listener.bind(path or ("127.0.0.1", 0))
        self.listener.listen()
        self.port = None if path else self.listener.getsockname()[1]
        self.start()

    def url(self, path="/"):
        return f"http://127.0.0.1:{self.port}{path}"

    def close(self):
        self.ends.set()
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()

    def run(self):
        while not self.ends.is_set():
            try:
                client, _ = self.listener.accept()
            except OSError:
                return
            self.clients += 1
            threading.Thread(target=self.serve, args=[client], daemon=True).start()

    def serve(self, client):
        try:
            with client:
                self.misbehave(client)
        except OSError:
            pass  # the collector has had enough

    def misbehave(self, client):
        says, then = WAYS[self.way]
        if says is None:
            return
        if not self.talks_first:
            request = client.recv(65536)
            if request.startswith(b"CONNECT ") and self.certificate:
                client.sendall(b"HTTP/1.1 200 OK\r\n\r\n")
                client = self.certificate.wrap_socket(client, server_side=True)
                client.recv(65536)
        client.sendall(says.replace(b"{head}", b"220" if self.talks_first else b"HTTP/1.1 200 OK"))
        while then != "close" and not self.ends.is_set():
            if then == "flood":
                client.sendall(PIECE)
            elif then == "lines":
                client.sendall(b"220-x: y\r\n" * 1000 if self.talks_first else b"X-More: y\r\n" * 1000)
            elif then == "trickle":
                client.sendall(b"x")
                self.ends.wait(TRICKLE_SECONDS)
            elif not client.recv(65536):
                return
