import asyncio
from typing import Callable, ClassVar, Optional, Sequence, Tuple, Union

_Buffer = Union[bytes, bytearray, memoryview]
_ErrorHandler = Optional[Callable[["Error"], None]]

class Error(Exception):
    context: list[str]

class ProtocolError(Error): ...

class SocketError(Error):
    errno: int

class QueueFullError(Error): ...

class AckMode:
    UNACKNOWLEDGED: ClassVar[AckMode]
    BY_NODE: ClassVar[AckMode]
    BY_RECEIVERS: ClassVar[AckMode]
    def __init__(self, value: int) -> None: ...
    def __int__(self) -> int: ...
    @property
    def name(self) -> str: ...
    @property
    def value(self) -> int: ...

class ConnectionState:
    CONNECTED: ClassVar[ConnectionState]
    DISCONNECTED: ClassVar[ConnectionState]
    def __init__(self, value: int) -> None: ...
    def __int__(self) -> int: ...
    @property
    def name(self) -> str: ...
    @property
    def value(self) -> int: ...

class Message:
    @property
    def id(self) -> str: ...
    @property
    def app_id(self) -> str: ...
    @property
    def routes(self) -> list[str]: ...
    @property
    def valid_for(self) -> int: ...
    @property
    def ack_mode(self) -> AckMode: ...
    @property
    def type(self) -> str: ...
    @property
    def payload(self) -> bytes: ...
    @property
    def origins(self) -> list[str]: ...

class Stats:
    queued: int
    awaiting_ack: int
    written: int
    acknowledged: int
    received: int
    errors: int
    unacknowledged: int
    queued_bytes: int
    refused: int

class FlushResult:
    complete: bool
    queued: int
    awaiting_ack: int
    unacknowledged: int

class Client:
    def __init__(
        self,
        app_id: str,
        listener_port: int,
        dispenser_port: int,
        subscriptions: Sequence[str] = ...,
        *,
        max_read_time: float = 0.0,
        receive_limit: int = 0,
        send_timeout: float = 0.5,
        max_write_batch: int = 0,
        wake_on_send: bool = True,
        max_queued: int = 0,
        max_queued_bytes: int = 0,
        queue_full_wait: float = 0.0,
    ) -> None: ...
    @property
    def app_id(self) -> str: ...
    def send(
        self,
        data: _Buffer,
        routes: Sequence[str],
        valid_for: int,
        on_ack: Optional[Callable[[], None]] = None,
        ack_mode: AckMode = AckMode.BY_NODE,
        type: str = "",
    ) -> str: ...
    def send_async(
        self,
        data: _Buffer,
        routes: Sequence[str],
        valid_for: int,
        *,
        ack_mode: AckMode = AckMode.BY_NODE,
        type: str = "",
    ) -> Tuple[str, "asyncio.Future[None]"]: ...
    def send_ack(self, message: Message) -> None: ...
    def on_message(self, callback: Optional[Callable[[Message], None]]) -> None: ...
    def obtain_registry(self, callback: Optional[Callable[[bytes], None]], interval: int) -> None: ...
    def on_unacknowledged(self, callback: Optional[Callable[[str], None]]) -> None: ...
    def on_connection_change(
        self, callback: Optional[Callable[[ConnectionState], None]]
    ) -> None: ...
    def run(self, timeout: float = 0.05, on_error: _ErrorHandler = None) -> None: ...
    def terminate(self) -> None: ...
    def flush(self, deadline: float, on_error: _ErrorHandler = None) -> FlushResult: ...
    def stats(self) -> Stats: ...
    def event_handle(self) -> int: ...
    def process_events(self, on_error: _ErrorHandler = None) -> float: ...
