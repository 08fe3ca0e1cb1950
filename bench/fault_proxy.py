#!/usr/bin/env python3
"""An HTTP proxy in front of a real server on 127.0.0.1 that fails the first request for each
package once, and lets every later request through untouched:

    fault_proxy.py LISTEN_PORT TARGET_PORT MODE COUNT_FILE

MODE drop: the first response for a path is cut after half of its body, and both connections are
closed. MODE 503: the first request for a path is answered "503 Service Unavailable" with
"Retry-After: 0" and no body, without asking the server. MODE none: no faults (the healthy source
to compare with). The catalog (paths ending in ".ini") is never failed. COUNT_FILE holds the
response body bytes sent to clients so far and the faults made, "BYTES FAULTS", rewritten before
each chunk is sent, so it is up to date whenever a client has seen the bytes.

Clients keep connections alive but send one request at a time (libcurl does not pipeline), so
each client connection is a loop over exchanges: read one request head (GET or HEAD: nothing in
the benchmarks sends a body), decide, forward it on the client's own server connection, read the
response head, forward exactly Content-Length body bytes (none for HEAD, 1xx, 204 and 304), and
wait for the next request. A response without Content-Length (the server does not chunk static
files) is forwarded until the server closes, and the client connection ends with it."""
import asyncio
import sys

listen_port, target_port, mode, count_file = int(sys.argv[1]), int(sys.argv[2]), sys.argv[3], sys.argv[4]
failed = set()  # paths whose one failure happened
sent = 0
CHUNK = 65536


def count(size):
    global sent
    sent += size
    with open(count_file, "w") as out:
        out.write("%d %d" % (sent, len(failed)))


def header(head, name):
    for line in head.split(b"\r\n")[1:]:
        key, _, value = line.partition(b":")
        if key.strip().lower() == name:
            return value.strip()
    return None


async def relay_body(server, client, length):
    """Forwards length body bytes (all until the server closes when None); False if cut short."""
    while length is None or length > 0:
        data = await server.read(CHUNK if length is None else min(CHUNK, length))
        if not data:
            return length is None
        if length is not None:
            length -= len(data)
        count(len(data))
        client.write(data)
        await client.drain()
    return True


async def exchange(request, client, upstream):
    """One request and its response; answers whether the client connection may carry another."""
    method, path = (request.split(b" ") + [b"", b""])[:2]
    fault = mode != "none" and not path.endswith(b".ini") and path not in failed
    if fault:
        failed.add(path)
        count(0)
    if fault and mode == "503":
        client.write(b"HTTP/1.1 503 Service Unavailable\r\nRetry-After: 0\r\nContent-Length: 0\r\n\r\n")
        await client.drain()
        return True
    if not upstream:
        upstream.extend(await asyncio.open_connection("127.0.0.1", target_port))
    server, to_server = upstream
    to_server.write(request)
    await to_server.drain()
    head = await server.readuntil(b"\r\n\r\n")
    client.write(head)
    status = int(head.split(b" ", 2)[1])
    length = header(head, b"content-length")
    bodiless = method == b"HEAD" or status in (204, 304) or status < 200
    length = 0 if bodiless else (int(length) if length is not None else None)
    if fault and mode == "drop" and length:
        await relay_body(server, client, length // 2)
        return False
    return await relay_body(server, client, length) and length is not None


async def handle(client_reader, client_writer):
    upstream = []
    try:
        while True:
            request = await client_reader.readuntil(b"\r\n\r\n")
            if not await exchange(request, client_writer, upstream):
                break
    except (asyncio.IncompleteReadError, ConnectionError, OSError):
        pass
    finally:
        client_writer.close()
        if upstream:
            upstream[1].close()


async def main():
    count(0)
    server = await asyncio.start_server(handle, "127.0.0.1", listen_port, backlog=512)
    async with server:
        await server.serve_forever()

asyncio.run(main())
