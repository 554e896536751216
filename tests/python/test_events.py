"""Reports from the loop: connection events (CONNECTED once the node is there,
DISCONNECTED when it goes) and messages never acknowledged."""

import threading

import orvikm
from conftest import Running, run_for_at_most, wait_for


def test_the_connection_callback_hears_connected_then_disconnected(node):
    client = node.client("py-connection")
    states = []
    lock = threading.Lock()

    def on_change(state):
        with lock:
            states.append(state)

    client.on_connection_change(on_change)
    with Running(client):
        assert wait_for(lambda: orvikm.ConnectionState.CONNECTED in states)
        node.stop()
        assert wait_for(lambda: orvikm.ConnectionState.DISCONNECTED in states)

    assert states[:2] == [orvikm.ConnectionState.CONNECTED, orvikm.ConnectionState.DISCONNECTED]


def test_unacknowledged_messages_are_reported_by_id(refusing_node):
    client = refusing_node.client("py-unacknowledged")
    reported = []

    def on_unacknowledged(msg_id):
        reported.append(msg_id)
        client.terminate()

    client.on_unacknowledged(on_unacknowledged)
    msg_id = client.send(b"refused", ["first", "second"], 1, lambda: None)
    run_for_at_most(client, 5)

    assert reported == [msg_id]
    assert client.stats().unacknowledged == 1
