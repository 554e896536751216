"""Ctrl-C during run or flush raises KeyboardInterrupt at once; the client
stays usable. Other signals' handlers run while the loop goes on."""

import os
import signal
import threading
import time

import pytest

from conftest import run_for_at_most, send_never_acknowledged

WITHIN_SECONDS = 0.2


class Interrupter:
    """Sends SIGINT to this process after `delay` from a thread, noting when."""

    def __init__(self, delay, signum=signal.SIGINT):
        self.sent_at = None
        self.signum = signum
        self.timer = threading.Timer(delay, self._send)

    def _send(self):
        self.sent_at = time.monotonic()
        os.kill(os.getpid(), self.signum)

    def __enter__(self):
        self.timer.start()
        return self

    def __exit__(self, *exc):
        self.timer.cancel()
        self.timer.join(5)


def assert_still_works(client):
    acknowledged = []

    def on_ack():
        acknowledged.append(True)
        client.terminate()

    client.send(b"after", ["t"], 10, on_ack)
    run_for_at_most(client, 5)
    assert acknowledged == [True]


def test_ctrl_c_during_run_raises_keyboard_interrupt_at_once(node):
    client = node.client("py-sigint-run")

    with Interrupter(0.3) as interrupter, pytest.raises(KeyboardInterrupt):
        run_for_at_most(client, 5)
    elapsed = time.monotonic() - interrupter.sent_at

    assert elapsed < WITHIN_SECONDS
    assert_still_works(client)


def test_ctrl_c_during_run_with_a_long_timeout_raises_keyboard_interrupt_at_once(node):
    client = node.client("py-sigint-slow", wake_on_send=False)

    with Interrupter(0.3) as interrupter, pytest.raises(KeyboardInterrupt):
        run_for_at_most(client, 5, timeout=0.1)
    elapsed = time.monotonic() - interrupter.sent_at

    assert elapsed < WITHIN_SECONDS
    assert_still_works(client)


def test_ctrl_c_during_flush_raises_keyboard_interrupt_at_once(refusing_node):
    client = refusing_node.client("py-sigint-flush")
    send_never_acknowledged(client)

    with Interrupter(0.3) as interrupter, pytest.raises(KeyboardInterrupt):
        client.flush(5.0)
    elapsed = time.monotonic() - interrupter.sent_at

    assert elapsed < WITHIN_SECONDS
    assert_still_works(client)


def test_a_signal_handler_that_does_not_raise_runs_and_the_loop_goes_on(node):
    client = node.client("py-sigusr1")
    handled = []
    previous = signal.signal(signal.SIGUSR1, lambda signum, frame: handled.append(signum))
    try:
        with Interrupter(0.1, signal.SIGUSR1):
            started = time.monotonic()
            run_for_at_most(client, 0.6)
            ran_for = time.monotonic() - started
    finally:
        signal.signal(signal.SIGUSR1, previous)

    assert handled == [signal.SIGUSR1]
    assert ran_for >= 0.5


def test_terminate_from_a_signal_handler_ends_run(node):
    client = node.client("py-sigterm")
    previous = signal.signal(signal.SIGUSR1, lambda signum, frame: client.terminate())
    try:
        with Interrupter(0.2, signal.SIGUSR1) as interrupter:
            run_for_at_most(client, 5)
            elapsed = time.monotonic() - interrupter.sent_at
    finally:
        signal.signal(signal.SIGUSR1, previous)

    assert elapsed < WITHIN_SECONDS
