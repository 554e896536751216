"""orvikm.aio: a client driven from a running asyncio loop."""

import asyncio
import threading

import pytest

import orvikm
import orvikm.aio
from conftest import wait_until_subscribed

LIMIT = 5


async def stop(client, driver):
    client.terminate()
    await asyncio.wait_for(driver, LIMIT)


@pytest.mark.asyncio
async def test_send_async_resolves_once_the_node_acknowledges(node):
    client = node.client("py-aio-send")
    driver = asyncio.create_task(orvikm.aio.run(client))

    msg_id, acknowledged = client.send_async(b"hello", ["t"], 10)
    await asyncio.wait_for(acknowledged, LIMIT)
    await stop(client, driver)

    assert acknowledged.done() and acknowledged.result() is None
    assert client.stats().acknowledged == 1
    assert msg_id


@pytest.mark.asyncio
async def test_callbacks_run_on_the_event_loop_thread(node):
    sender = node.client("py-aio-tx")
    receiver = node.client("py-aio-rx", ["t"])
    wait_until_subscribed(sender, receiver, "t")
    loop = asyncio.get_running_loop()
    arrived = loop.create_future()

    def on_message(message):
        if message.payload == b"news" and not arrived.done():
            arrived.set_result((threading.get_ident(), message.payload))

    receiver.on_message(on_message)
    driver = asyncio.create_task(orvikm.aio.run(receiver))
    sender.send(b"news", ["t"], 10)
    sender.flush(LIMIT)

    thread, payload = await asyncio.wait_for(arrived, LIMIT)
    await stop(receiver, driver)

    assert (thread, payload) == (threading.get_ident(), b"news")


@pytest.mark.asyncio
async def test_a_raising_callback_ends_the_drive_with_its_exception(node):
    client = node.client("py-aio-raise")

    def on_ack():
        raise LookupError("from the acknowledgement callback")

    client.send(b"x", ["t"], 10, on_ack)

    with pytest.raises(LookupError, match="from the acknowledgement callback"):
        await asyncio.wait_for(orvikm.aio.run(client), LIMIT)


@pytest.mark.asyncio
async def test_the_drive_ends_with_terminate_and_leaves_the_loop_running(node):
    client = node.client("py-aio-terminate")
    driver = asyncio.create_task(orvikm.aio.run(client))
    await asyncio.sleep(0.1)

    await stop(client, driver)
    await asyncio.sleep(0)

    assert driver.done() and driver.exception() is None


@pytest.mark.asyncio
async def test_a_library_error_without_on_error_ends_the_drive(node):
    ports = node.listener_port, node.dispenser_port
    node.stop()
    client = orvikm.Client("py-aio-error", *ports, send_timeout=0.05)
    client.send(b"x", ["t"], 10)

    with pytest.raises(orvikm.SocketError):
        await asyncio.wait_for(orvikm.aio.run(client), LIMIT)
