"""Messages to and from the local Orvik Node, through the orvikm client library.

The compiled core (_orvikm) does the work; this package adds what is easier in
Python: Client.send_async for asyncio, and orvikm.aio to drive a client from an
asyncio event loop.
"""

import asyncio

from ._orvikm import (
    AckMode,
    ConnectionState,
    Error,
    FlushResult,
    Message,
    ProtocolError,
    QueueFullError,
    SocketError,
    Stats,
)
from ._orvikm import Client as _CoreClient

__all__ = [
    "AckMode",
    "Client",
    "ConnectionState",
    "Error",
    "FlushResult",
    "Message",
    "ProtocolError",
    "QueueFullError",
    "SocketError",
    "Stats",
]


class Client(_CoreClient):
    """The application's connection to the local node (see the package README)."""

    def send_async(self, data, routes, valid_for, *, ack_mode=AckMode.BY_NODE, type=""):
        """Queues a message and returns (its id, a future of its acknowledgement).

        Call it on the thread of a running asyncio loop that drives this client
        (orvikm.aio.run): the acknowledgement callback resolves the future on
        that loop. Refusals raise at once, as send does.
        """
        future = asyncio.get_running_loop().create_future()

        def acknowledged():
            if not future.done():
                future.set_result(None)

        msg_id = self.send(data, routes, valid_for, acknowledged, ack_mode, type)
        return msg_id, future
