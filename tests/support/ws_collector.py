"""A collector whose WebSockets are of another making: it starts every instance and keeps what is sent.

    ws_collector.py PORT FOLDER [CERTIFICATE KEY]

Each connection's bytes go to a file of FOLDER, named by its kind as those of vxcollector are.
"""
import asyncio
import itertools
import ssl
import sys

import websockets

KINDS = {b"vx_ctrl_msg_req": "control", b"vx_data_msg_req": "data",
         b"auto_sensor_thread_hotspot_data_req": "auto-sensor"}
numbers = itertools.count(1)


async def orders(ws, connect_line):
    protocols = connect_line.split("supportedProtocols=")[1].split(";")[0]
    await ws.send("vx_ctrl_msg_rep:result=Ok;status=NOT_RUNNING;state=1;retryPolicy=3%1%10%60;ProtoVersion=1;"
                  f"supportedProtocols={protocols};procIndex=1\n")
    await ws.send("vx_control_req:action=start_instrumentation;tierID=1;vxAppServerID=1;appID=1;testIdx=1;"
                  "zorEpochDiff=1388534400;bciInstrSessionPct=100;\n")
    for beat in itertools.count(1):
        await asyncio.sleep(1)
        await ws.send(f"vx_control_req:action=reconnect;heartBeat {beat};dataConnState=1;AutosensorConnState=1;\n")


async def serve(ws, *_):
    beats, out = None, None
    try:
        async for message in ws:
            data = message if isinstance(message, bytes) else message.encode()
            if out is None:
                kind = KINDS[data.split(b":")[0]]
                out = open(f"{sys.argv[2]}/{kind}_{next(numbers)}.txt", "wb", buffering=0)
                print(f"{kind} connection, path {getattr(ws, 'path', '')}", flush=True)
                if kind == "control":
                    beats = asyncio.ensure_future(orders(ws, data.decode()))
            out.write(data)
    except websockets.ConnectionClosedError as end:
        if end.sent and end.sent.code != 1000:  # what came was against the protocol
            print("ended badly:", end, flush=True)
    finally:
        if beats:
            beats.cancel()


async def main():
    tls = None
    if len(sys.argv) > 3:
        tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        tls.load_cert_chain(sys.argv[3], sys.argv[4])
    async with websockets.serve(serve, "127.0.0.1", int(sys.argv[1]), ssl=tls, max_size=None):
        print("listening on", sys.argv[1], flush=True)
        await asyncio.Future()


asyncio.run(main())
