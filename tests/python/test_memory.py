"""Many sends and receives leave the process's resident size flat: payloads,
messages and the callbacks' Python references are all released."""

import os
import threading

from conftest import Running, wait_for, wait_until_subscribed

MESSAGES = 200_000
WARM_UP = 20_000
BATCH = 2_000
PAYLOAD = b"m" * 200
# Allocator and interpreter noise; a leak of one payload a message would be
# 40 MB here, and one callback reference a message several MB.
MAY_GROW_BYTES = 4 * 1024 * 1024


def resident_bytes():
    with open("/proc/self/statm") as statm:
        pages = int(statm.read().split()[1])
    return pages * os.sysconf("SC_PAGE_SIZE")


def exchange(sender, count, received):
    """Sends `count` messages a batch at a time, each batch once the receiver
    has every earlier one: the node drops publications that a subscriber
    leaves unread for too long, as a busy machine may make it do."""
    start = received()
    for batch in range(1, count // BATCH + 1):
        for _ in range(BATCH):
            sender.send(PAYLOAD, ["bulk"], 30, lambda: None)
        assert sender.flush(10.0).complete
        assert wait_for(lambda: received() >= start + batch * BATCH, 30)


def test_memory_stays_flat_over_many_sends_and_receives(node):
    sender = node.client("py-memory-tx", max_write_batch=BATCH)
    receiver = node.client("py-memory-rx", ["bulk"])
    wait_until_subscribed(sender, receiver, "bulk")
    lock = threading.Lock()
    received = [0]

    def on_message(message):
        if message.payload == PAYLOAD:
            with lock:
                received[0] += 1

    receiver.on_message(on_message)
    with Running(receiver):
        exchange(sender, WARM_UP, lambda: received[0])
        before = resident_bytes()
        exchange(sender, MESSAGES, lambda: received[0])
        after = resident_bytes()
    assert received[0] == WARM_UP + MESSAGES

    assert sender.stats().acknowledged == WARM_UP + MESSAGES
    assert after - before < MAY_GROW_BYTES, f"grew by {after - before} bytes"
