"""A Python callback that raises ends the loop with its exception; the client
stays usable."""

import pytest

from conftest import run_for_at_most, wait_until_subscribed


class Boom(Exception):
    pass


def test_a_raising_message_callback_ends_run_with_its_exception(node):
    sender = node.client("py-raise-tx")
    receiver = node.client("py-raise-rx", ["t"])
    wait_until_subscribed(sender, receiver, "t")

    def on_message(message):
        if message.payload == b"boom":
            raise Boom("from the message callback")

    receiver.on_message(on_message)
    sender.send(b"boom", ["t"], 10)
    sender.flush(5.0)

    with pytest.raises(Boom, match="from the message callback"):
        run_for_at_most(receiver, 5)


def test_a_raising_acknowledgement_callback_ends_flush_with_its_exception(node):
    client = node.client("py-raise-ack")

    def on_ack():
        raise Boom("from the acknowledgement callback")

    client.send(b"x", ["t"], 10, on_ack)

    with pytest.raises(Boom, match="from the acknowledgement callback"):
        client.flush(5.0)
    assert client.stats().awaiting_ack == 0


def test_the_client_works_again_after_a_callback_raised(node):
    client = node.client("py-raise-again")

    def on_ack():
        raise Boom()

    client.send(b"x", ["t"], 10, on_ack)
    with pytest.raises(Boom):
        client.flush(5.0)
    acknowledged = []

    def on_ack_again():
        acknowledged.append(True)
        client.terminate()

    client.send(b"y", ["t"], 10, on_ack_again)
    run_for_at_most(client, 5)

    assert acknowledged == [True]


def test_a_raising_error_handler_ends_run_with_its_exception(node):
    node.stop()
    client = node.client("py-raise-handler", send_timeout=0.05)
    client.send(b"x", ["t"], 10)

    def on_error(error):
        raise Boom(str(error))

    with pytest.raises(Boom, match="Resource temporarily unavailable"):
        run_for_at_most(client, 5, on_error=on_error)
