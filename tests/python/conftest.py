"""Fixtures of the Python binding's tests: a real orvik-devnode on free
loopback ports, and bounded ways to run a client.

CTest passes the node's path (ORVIKM_DEVNODE) and puts the built package on
PYTHONPATH.
"""

import faulthandler
import os
import selectors
import subprocess
import sys
import threading
import time
from dataclasses import dataclass

import pytest

import orvikm

READY_PREFIX = "orvik-devnode ready: "
# A test that hangs (a lost terminate(), a GIL never released) is ended by
# faulthandler's own thread, which needs no GIL, with every thread's stack.
TEST_LIMIT_SECONDS = 90


@dataclass
class Node:
    process: subprocess.Popen
    listener_port: int
    dispenser_port: int

    def client(self, app_id, subscriptions=(), **options):
        return orvikm.Client(app_id, self.listener_port, self.dispenser_port,
                             list(subscriptions), **options)

    def stop(self):
        if self.process.poll() is None:
            self.process.terminate()
            try:
                self.process.wait(timeout=5)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait(timeout=5)


def start_node(*arguments):
    """Starts orvik-devnode on free ports and waits (at most 10 s) for its ready line."""
    process = subprocess.Popen(
        [os.environ["ORVIKM_DEVNODE"], "--listener-port", "0", "--dispenser-port", "0",
         *arguments],
        stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    with selectors.DefaultSelector() as selector:
        selector.register(process.stdout, selectors.EVENT_READ)
        if not selector.select(timeout=10):
            process.kill()
            raise RuntimeError("orvik-devnode printed no ready line within 10 s")
    line = process.stdout.readline().strip()
    if not line.startswith(READY_PREFIX):
        process.kill()
        raise RuntimeError(f"orvik-devnode said {line!r}")
    ports = dict(field.split("=") for field in line[len(READY_PREFIX):].split())
    return Node(process, int(ports["listener-port"]), int(ports["dispenser-port"]))


@pytest.fixture
def node():
    started = start_node()
    yield started
    started.stop()


# Routes a message must not have more of, on `refusing_node`.
REFUSING_MAX_ROUTES = 1


@pytest.fixture
def refusing_node():
    """A node that neither acknowledges nor publishes a message with more than
    one route: one sent with two keeps flush waiting for its acknowledgement."""
    started = start_node("--max-routes", str(REFUSING_MAX_ROUTES))
    yield started
    started.stop()


def send_never_acknowledged(client):
    client.send(b"refused", ["first", "second"], 10, lambda: None)


@pytest.fixture(autouse=True)
def bounded_test():
    faulthandler.dump_traceback_later(TEST_LIMIT_SECONDS, exit=True, file=sys.stderr)
    yield
    faulthandler.cancel_dump_traceback_later()


def run_for_at_most(client, seconds, **run_options):
    """client.run(), ended by terminate() after `seconds` if nothing ends it first."""
    guard = threading.Timer(seconds, client.terminate)
    guard.start()
    try:
        client.run(**run_options)
    finally:
        guard.cancel()


class Running:
    """client.run() on a thread of its own, stopped (boundedly) on exit."""

    def __init__(self, client, **run_options):
        self.client = client
        self.error = None
        self.thread = threading.Thread(target=self._run, kwargs=run_options)

    def _run(self, **run_options):
        try:
            self.client.run(**run_options)
        except BaseException as error:  # kept for the test to look at
            self.error = error

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *exc):
        self.stop()

    def stop(self, seconds=5):
        # A terminate() that comes before the loop has started is forgotten
        # by it: ask again until the thread has ended.
        end = time.monotonic() + seconds
        while self.thread.is_alive() and time.monotonic() < end:
            self.client.terminate()
            self.thread.join(0.05)
        assert not self.thread.is_alive(), "the client's loop did not end"


def wait_until_subscribed(sender, receiver, topic, seconds=5):
    """Sends probes along `topic` until `receiver` hears one: the node publishes
    only to listeners whose subscription it has already seen."""
    heard = threading.Event()

    def probe_heard(message):
        heard.set()

    receiver.on_message(probe_heard)
    with Running(receiver):
        end = time.monotonic() + seconds
        while not heard.is_set() and time.monotonic() < end:
            sender.send(b"probe", [topic], 5, ack_mode=orvikm.AckMode.UNACKNOWLEDGED)
            sender.flush(0.5)
            heard.wait(0.05)
    receiver.on_message(None)
    assert heard.is_set(), f"{receiver.app_id} never heard along {topic!r}"


def wait_for(predicate, seconds=5):
    end = time.monotonic() + seconds
    while not predicate():
        if time.monotonic() >= end:
            return False
        time.sleep(0.01)
    return True
