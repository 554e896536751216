"""Receiving: the message callback, what a message carries, acknowledging it."""

import orvikm
from conftest import Running, run_for_at_most, wait_for, wait_until_subscribed


def test_a_received_message_carries_what_was_sent(node):
    sender = node.client("py-listen-tx")
    receiver = node.client("py-listen-rx", ["news"])
    wait_until_subscribed(sender, receiver, "news")
    received = []

    def on_message(message):
        if message.payload != b"probe":
            received.append(message)
            receiver.terminate()

    receiver.on_message(on_message)
    msg_id = sender.send(bytearray(b"\x00body\xff"), ["news"], 42, type="application/octet-stream")
    sender.flush(5.0)
    run_for_at_most(receiver, 5)

    [message] = received
    assert (message.id, message.app_id, message.routes, message.valid_for, message.type,
            message.payload, message.ack_mode) == (
        msg_id, "py-listen-tx", ["news"], 42, "application/octet-stream", b"\x00body\xff",
        orvikm.AckMode.BY_NODE)
    assert isinstance(message.payload, bytes)
    assert isinstance(message.origins, list)


def test_the_sender_hears_the_acknowledgement_of_a_receiver_that_acknowledges(node):
    sender = node.client("py-ack-tx")
    receiver = node.client("py-ack-rx", ["orders"])
    wait_until_subscribed(sender, receiver, "orders")
    acknowledged = []

    def on_message(message):
        if message.payload == b"order":
            receiver.send_ack(message)

    receiver.on_message(on_message)
    with Running(receiver):
        sender.send(b"order", ["orders"], 10, lambda: acknowledged.append(True),
                    orvikm.AckMode.BY_RECEIVERS)
        result = sender.flush(5.0)

    assert result.complete
    assert acknowledged == [True]


def test_the_message_callback_can_be_replaced_and_cleared(node):
    sender = node.client("py-replace-tx")
    receiver = node.client("py-replace-rx", ["t"])
    wait_until_subscribed(sender, receiver, "t")
    first, second = [], []

    def then_second(message):
        if message.payload != b"probe":
            first.append(message.payload)
            receiver.on_message(second_only)

    def second_only(message):
        if message.payload != b"probe":
            second.append(message.payload)

    receiver.on_message(then_second)
    with Running(receiver):
        for data in (b"1", b"2"):
            sender.send(data, ["t"], 10)
            sender.flush(5.0)
        assert wait_for(lambda: len(first) + len(second) == 2)

    assert (first, second) == ([b"1"], [b"2"])
