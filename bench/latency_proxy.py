#!/usr/bin/env python3
"""A TCP proxy that adds latency: every chunk read from either side is written to the other side
half a round trip later, in order. The kernel here has no netem, so the network benchmarks put
this between the clients and a real server on 127.0.0.1.

    latency_proxy.py LISTEN_PORT TARGET_PORT RTT_MS [COUNT_FILE]

With COUNT_FILE, the bytes sent from the server to clients so far are written there after every
chunk (for the resume benchmark)."""
import asyncio
import os
import sys
import time

listen_port, target_port, rtt = int(sys.argv[1]), int(sys.argv[2]), float(sys.argv[3]) / 1000.0
count_file = sys.argv[4] if len(sys.argv) > 4 else None
delivered = 0


async def pump(reader, writer, downstream):
    queue = asyncio.Queue()

    async def deliver():
        global delivered
        while True:
            due, data = await queue.get()
            if data is None:
                break
            pause = due - time.monotonic()
            if pause > 0:
                await asyncio.sleep(pause)
            writer.write(data)
            await writer.drain()
            if downstream:
                delivered += len(data)
                if count_file:  # whole or not at all: the benchmark reads it while we run
                    with open(count_file + ".new", "w") as out:
                        out.write(str(delivered))
                    os.replace(count_file + ".new", count_file)
        writer.close()

    sender = asyncio.ensure_future(deliver())
    try:
        while True:
            data = await reader.read(65536)
            if not data:
                break
            queue.put_nowait((time.monotonic() + rtt / 2, data))
    except ConnectionError:
        pass
    queue.put_nowait((0, None))
    try:
        await sender
    except ConnectionError:
        pass


async def handle(client_reader, client_writer):
    try:
        server_reader, server_writer = await asyncio.open_connection("127.0.0.1", target_port)
    except OSError:
        client_writer.close()
        return
    await asyncio.gather(pump(client_reader, server_writer, False), pump(server_reader, client_writer, True),
                         return_exceptions=True)


async def main():
    server = await asyncio.start_server(handle, "127.0.0.1", listen_port, backlog=512)
    async with server:
        await server.serve_forever()

asyncio.run(main())
