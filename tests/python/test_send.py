"""Sending: queueing, the node's acknowledgement, and what the client counts."""

import gc
import threading
import uuid
import weakref

import orvikm
from conftest import run_for_at_most


def test_send_returns_the_message_id_and_the_node_acknowledges_it(node):
    client = node.client("py-send")
    acknowledged = []

    def on_ack():
        acknowledged.append(True)
        client.terminate()

    msg_id = client.send(b"hello", ["topic"], 10, on_ack)
    run_for_at_most(client, 5)

    assert uuid.UUID(msg_id)
    assert acknowledged == [True]


def test_flush_returns_complete_once_every_message_is_acknowledged(node):
    client = node.client("py-flush")
    for i in range(10):
        client.send(b"x" * i, ["topic"], 10, lambda: None)

    result = client.flush(5.0)

    assert (result.complete, result.queued, result.awaiting_ack, result.unacknowledged) == (
        True, 0, 0, 0)


def test_bytes_bytearray_and_memoryview_are_all_sent(node):
    client = node.client("py-buffers")
    for data in (b"abc", bytearray(b"abc"), memoryview(b"xabcx")[1:4]):
        client.send(data, ["topic"], 10, lambda: None)

    assert client.flush(5.0).complete
    assert client.stats().written == 3


def test_stats_count_what_was_written_and_acknowledged(node):
    client = node.client("py-stats")
    for _ in range(3):
        client.send(b"abcd", ["topic"], 10, lambda: None)
    queued = client.stats()

    client.flush(5.0)
    done = client.stats()

    assert (queued.queued, queued.queued_bytes, queued.awaiting_ack) == (3, 12, 3)
    assert (done.queued, done.written, done.acknowledged, done.awaiting_ack) == (0, 3, 3, 0)


def test_send_from_another_thread_is_written_by_the_running_loop(node):
    client = node.client("py-send-thread")
    acknowledged = threading.Event()

    def on_ack():
        acknowledged.set()
        client.terminate()

    sender = threading.Timer(0.1, client.send, args=(b"late", ["topic"], 10, on_ack))
    sender.start()
    run_for_at_most(client, 5)
    sender.join(5)

    assert acknowledged.is_set()


def test_app_id_is_the_one_given():
    assert orvikm.Client("py-app-id", 1, 2).app_id == "py-app-id"


def test_a_client_whose_callbacks_refer_to_it_is_collected(node):
    client = node.client("py-collected")
    client.on_message(lambda message: client.terminate())
    client.on_connection_change(lambda state: client.terminate())
    client.on_unacknowledged(lambda msg_id: client.terminate())
    client.obtain_registry(lambda registry: client.terminate(), 60)
    collected = weakref.ref(client)

    del client
    gc.collect()

    assert collected() is None


def test_a_callback_survives_a_collection_while_the_client_lives(node):
    client = node.client("py-kept")
    acknowledged = []

    def on_registry(registry):
        acknowledged.append(registry)
        client.terminate()

    client.obtain_registry(on_registry, 60)
    del on_registry
    gc.collect()
    run_for_at_most(client, 5)

    assert len(acknowledged) == 1
