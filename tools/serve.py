#!/usr/bin/env python3
"""Serves DIRECTORY over HTTP on 127.0.0.1 at a free port, and names that port in PORT-FILE;
with CERTIFICATE (a PEM file holding the certificate and its key), over HTTPS.

    python3 tools/serve.py DIRECTORY PORT-FILE [CERTIFICATE]

The port file appears complete (written beside it, then renamed) once the socket listens, so a
caller that waits for it never reads a missing, partial or previous run's port.
"""
import functools
import http.server
import os
import ssl
import sys

directory, port_file = sys.argv[1], sys.argv[2]
handler = functools.partial(http.server.SimpleHTTPRequestHandler, directory=directory)
server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), handler)
if len(sys.argv) > 3:
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(sys.argv[3])
    server.socket = context.wrap_socket(server.socket, server_side=True)
with open(port_file + ".tmp", "w") as out:
    out.write("%d\n" % server.server_address[1])
os.replace(port_file + ".tmp", port_file)
server.serve_forever()
