"""The line between the clients and the service, a process of its own. Orders come as JSON lines on standard input:
{"client": NAME, "pid": N}                     whose connections these are
{"client": NAME, "mode": MODE, "rate": N}      ok, down, stall, slow (bytes a second), lossy (answers get lost)
"""
import asyncio
import json
import os
import random
import re
import socket
import struct
import sys


class Line:
    """What one client has of the network."""

    def __init__(self):
        self.pid, self.mode, self.rate, self.due = 0, "ok", 0, 0.0
        self.changed = asyncio.Event()
        self.connections = set()

    def set(self, mode, rate):
        self.mode, self.rate = mode, rate
        self.changed.set()
        self.changed = asyncio.Event()
        if mode == "down":
            for writer in list(self.connections):
                reset(writer)


def reset(writer):
    raw = writer.get_extra_info("socket")
    if raw:
        try:
            raw.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        except OSError:
            pass
    writer.transport.abort()


class Relay:
    def __init__(self, target, seed):
        self.target, self.random = target, random.Random(seed)
        self.lines = {}

    def owner(self, port):
        """The line of the client whose socket has this local port."""
        inode = None
        for name in ("/proc/net/tcp", "/proc/net/tcp6"):
            found = re.search(r":%04X [0-9A-F:]+ \S+ \S+ \S+ \S+ +\S+ +\S+ (\d+)" % port, open(name).read())
            if found:
                inode = f"socket:[{found[1]}]"
                break
        for line in self.lines.values():
            try:
                for entry in os.scandir(f"/proc/{line.pid}/fd"):
                    try:
                        if os.readlink(entry.path) == inode:
                            return line
                    except OSError:
                        pass
            except OSError:
                pass
        return self.lines.setdefault("", Line())

    async def pass_on(self, line, reader, writer, answers):
        try:
            while piece := await reader.read(16384):
                while line.mode == "stall":
                    await line.changed.wait()
                if line.mode == "down" or answers and line.mode == "lossy" and self.random.random() < 0.06:
                    break
                if answers and line.mode == "slow":
                    now = asyncio.get_running_loop().time()
                    line.due = max(line.due, now) + len(piece) / line.rate
                    await asyncio.sleep(line.due - now)
                writer.write(piece)
                await writer.drain()
            else:
                if writer.can_write_eof():
                    writer.write_eof()
                return
        except (OSError, asyncio.CancelledError):
            pass
        reset(writer)

    async def connection(self, reader, writer):
        line = self.owner(writer.get_extra_info("peername")[1])
        if line.mode == "down":
            return reset(writer)
        try:
            far_reader, far_writer = await asyncio.open_connection("127.0.0.1", self.target)
        except OSError:
            return reset(writer)
        ends = (writer, far_writer)
        line.connections.update(ends)
        try:
            ways = [asyncio.ensure_future(self.pass_on(line, reader, far_writer, False)),
                    asyncio.ensure_future(self.pass_on(line, far_reader, writer, True))]
            await asyncio.wait(ways)
        finally:
            line.connections.difference_update(ends)
            for end in ends:
                end.close()

    async def orders(self):
        reader = asyncio.StreamReader()
        await asyncio.get_running_loop().connect_read_pipe(lambda: asyncio.StreamReaderProtocol(reader), sys.stdin)
        while text := await reader.readline():
            order = json.loads(text)
            line = self.lines.setdefault(order["client"], Line())
            if "pid" in order:
                line.pid = order["pid"]
            if "mode" in order:
                line.set(order["mode"], order.get("rate", 0))

    async def run(self):
        server = await asyncio.start_server(self.connection, "127.0.0.1", 0)
        print(server.sockets[0].getsockname()[1], flush=True)
        await self.orders()
        os._exit(0)


if __name__ == "__main__":
    asyncio.run(Relay(int(sys.argv[1]), int(sys.argv[2])).run())
