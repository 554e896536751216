"""run and flush wait without the GIL: other Python threads run meanwhile."""

import threading
import time

from conftest import Running, run_for_at_most, send_never_acknowledged, wait_for

COUNTING_SECONDS = 0.3
# A thread that had the GIL only between passes would count a few hundred at
# most; one that runs freely counts millions.
FREELY = 100_000


def count_for(seconds, counts):
    n = 0
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        n += 1
    counts.append(n)


def test_another_python_thread_runs_while_run_waits(node):
    client = node.client("py-gil-run")
    counts = []
    counter = threading.Thread(target=count_for, args=(COUNTING_SECONDS, counts))

    def start_counting():
        counter.start()
        counter.join(5)
        client.terminate()

    starter = threading.Thread(target=start_counting)
    starter.start()
    run_for_at_most(client, 5)
    starter.join(5)

    assert counts and counts[0] > FREELY


def test_another_python_thread_runs_while_flush_waits(refusing_node):
    client = refusing_node.client("py-gil-flush")
    send_never_acknowledged(client)
    counts = []
    counter = threading.Thread(target=count_for, args=(COUNTING_SECONDS, counts))
    counter.start()

    result = client.flush(COUNTING_SECONDS * 2)
    counter.join(5)

    assert not result.complete
    assert counts and counts[0] > FREELY


def test_callbacks_run_on_the_thread_inside_run(node):
    client = node.client("py-callback-thread")
    threads = []

    def on_ack():
        threads.append(threading.get_ident())
        client.terminate()

    client.send(b"x", ["t"], 10, on_ack)
    runner = threading.Thread(target=run_for_at_most, args=(client, 5))
    runner.start()
    runner.join(10)

    assert threads == [runner.ident]


def test_a_send_that_waits_for_room_lets_the_running_loop_make_it(node):
    # The loop's acknowledgement callbacks need the GIL: a send that kept it
    # while waiting would wait in vain.
    client = node.client("py-room", max_queued=1, queue_full_wait=5.0)
    with Running(client):
        for _ in range(20):
            client.send(b"x", ["t"], 10, lambda: None)
        assert wait_for(lambda: client.stats().written == 20)

    assert client.stats().refused == 0
