"""Ports on 127.0.0.1 for the servers a benchmark starts, and the servers themselves."""
import os
import signal
import socket
import subprocess
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


def start_server(argv, port):
    """Starts a server in a process group of its own and waits for its port."""
    process = subprocess.Popen(argv, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True)
    wait_port(port, process)
    return process


def stop_server(process):
    """Asks the server to end (nginx's master then ends and collects its workers), then kills what
    is left of its group: workers outlive a master killed alone."""
    process.terminate()
    try:
        process.wait(1)
    except subprocess.TimeoutExpired:
        pass
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    process.wait()
