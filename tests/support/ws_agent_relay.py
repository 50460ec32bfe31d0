"""Agents that speak TCP reach a WebSocket listener through this, with a WebSocket of neither's making.

    ws_agent_relay.py LISTEN_PORT ws://127.0.0.1:PORT

Each line is a message of text; behind a line that opens a data connection bytes go on as they come.
"""
import asyncio
import ssl
import sys

import websockets

URL = sys.argv[2]
TLS = ssl._create_unverified_context() if URL.startswith("wss:") else None


async def up(reader, ws):
    line = await reader.readline()
    records = line.startswith(b"vx_data_msg_req:")
    while line:
        await ws.send(line if records and not line.startswith(b"vx_") else line.decode("latin-1"))
        line = await (reader.read(65536) if records else reader.readline())


async def down(ws, writer):
    async for message in ws:
        writer.write(message if isinstance(message, bytes) else message.encode())
        await writer.drain()


async def serve(reader, writer):
    try:
        async with websockets.connect(URL, ssl=TLS, max_size=None) as ws:
            ways = [asyncio.ensure_future(up(reader, ws)), asyncio.ensure_future(down(ws, writer))]
            _, left = await asyncio.wait(ways, return_when=asyncio.FIRST_COMPLETED)
            for way in left:
                way.cancel()
    except (OSError, websockets.WebSocketException):
        pass
    finally:
        writer.close()


async def main():
    server = await asyncio.start_server(serve, "127.0.0.1", int(sys.argv[1]), limit=1 << 20)
    print("relaying", flush=True)
    await server.serve_forever()


asyncio.run(main())
