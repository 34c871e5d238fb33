"""Makes a server on 127.0.0.1 look far away: a relay that hands on all it is sent after a delay.

    relay.py MILLISECONDS FIRST-PORT LAST-PORT

Listens on these ports of 127.0.0.2 and passes each connection on to the same port of 127.0.0.1; what
is sent arrives after half the round trip, in either direction. The connection itself is made at once.
Says "ready" when it listens, and goes on until it is killed.
"""

import asyncio
import socket
import sys

CHUNK_BYTES = 65536


class Pipe:
    """One direction of a connection: what is received goes out later, in order, and so does the end."""

    def __init__(self, delay):
        self.delay = delay
        self.queue = asyncio.Queue()

    async def take(self, reader):
        loop = asyncio.get_running_loop()
        try:
            while data := await reader.read(CHUNK_BYTES):
                self.queue.put_nowait((loop.time() + self.delay, data))
        except ConnectionError:
            pass
        self.queue.put_nowait((loop.time() + self.delay, b""))

    async def give(self, writer):
        loop = asyncio.get_running_loop()
        try:
            while True:
                due, data = await self.queue.get()
                await asyncio.sleep(due - loop.time())
                if not data:
                    break
                writer.write(data)
                await writer.drain()
            if writer.can_write_eof():
                writer.write_eof()
        except (ConnectionError, OSError):
            pass


def send_at_once(writer):
    writer.get_extra_info("socket").setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)


async def relay(delay, port, reader, writer):
    try:
        far_reader, far_writer = await asyncio.open_connection("127.0.0.1", port)
    except OSError:
        writer.close()
        return
    send_at_once(writer)
    send_at_once(far_writer)
    there, back = Pipe(delay), Pipe(delay)
    await asyncio.gather(there.take(reader), there.give(far_writer), back.take(far_reader), back.give(writer))
    far_writer.close()
    writer.close()


async def serve(delay, ports):
    def session_of(port):
        return lambda reader, writer: relay(delay, port, reader, writer)

    for port in ports:
        await asyncio.start_server(session_of(port), "127.0.0.2", port)
    print("ready", flush=True)
    await asyncio.Event().wait()


def main():
    milliseconds, first, last = (int(argument) for argument in sys.argv[1:])
    asyncio.run(serve(milliseconds / 2000, range(first, last + 1)))


if __name__ == "__main__":
    main()
