"""Drives an orvikm.Client from a running asyncio event loop.

The loop watches client.event_handle() and calls client.process_events() when
it is readable, and again after the wait process_events() returned. Every
callback of the client runs on the loop's thread, so callbacks may resolve
futures and schedule tasks directly.
"""

import asyncio

__all__ = ["run"]


async def run(client, on_error=None):
    """Drives `client` from the running loop until client.terminate().

    A callback that raises ends the drive with its exception. A library error
    goes to on_error, when given, and the drive goes on (the failed work is
    tried again after a short pause); without on_error it ends the drive.
    """
    loop = asyncio.get_running_loop()
    client._begin_loop()
    handle = client.event_handle()
    finished = loop.create_future()
    timer = None

    def step():
        nonlocal timer
        if timer is not None:
            timer.cancel()
            timer = None
        if finished.done():
            return
        try:
            wait = client.process_events(on_error)
        except BaseException as error:  # noqa: B902 - handed to the awaiting task
            finished.set_exception(error)
            return
        if client._terminate_requested:
            finished.set_result(None)
            return
        timer = loop.call_later(wait, step)

    loop.add_reader(handle, step)
    try:
        step()
        await finished
    finally:
        loop.remove_reader(handle)
        if timer is not None:
            timer.cancel()
