"""Ports on 127.0.0.1 for the servers a benchmark starts."""
import socket
import time


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_port(port, process):
    """Waits until `port` accepts connections; exits when `process` (the server) ended first."""
    for _ in range(500):
        if process.poll() is not None:
            raise SystemExit("a server did not start: %s" % " ".join(map(str, process.args)))
        try:
            socket.create_connection(("127.0.0.1", port), 0.2).close()
            return
        except OSError:
            time.sleep(0.02)
    raise SystemExit("port %d never opened" % port)
