from typing import Callable, Optional

from . import Client, Error

async def run(client: Client, on_error: Optional[Callable[[Error], None]] = None) -> None: ...
