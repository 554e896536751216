"""Errors: the library's errors as orvikm.Error and its subclasses, with their
context; refused arguments as ValueError."""

import pytest

import orvikm
from conftest import Running, run_for_at_most, wait_for

NOT_AVAILABLE = "Orvik Node is not available"
SEND_ALL = "While trying to send all queued messages"
QUEUE_FULL = "The outgoing queue is full"
EAGAIN = 11
ALREADY_RUNNING = "The I/O loop is already running"


@pytest.fixture
def free_ports(node):
    # Ports that were free a moment ago: the node is stopped, nobody listens.
    ports = node.listener_port, node.dispenser_port
    node.stop()
    return ports


def test_run_raises_a_socket_error_when_the_node_is_not_available(free_ports):
    client = orvikm.Client("py-no-node", *free_ports, send_timeout=0.05)
    msg_id = client.send(b"x", ["t"], 10)

    with pytest.raises(orvikm.SocketError) as raised:
        run_for_at_most(client, 5)

    error = raised.value
    assert error.errno == EAGAIN
    assert NOT_AVAILABLE in error.context
    assert error.context[-1] == SEND_ALL
    assert f"While trying to send queued message id={msg_id}" in error.context
    assert str(error).splitlines()[1:] == error.context


def test_on_error_receives_the_error_and_run_returns(free_ports):
    client = orvikm.Client("py-on-error", *free_ports, send_timeout=0.05)
    client.send(b"x", ["t"], 10)
    errors = []

    run_for_at_most(client, 5, on_error=errors.append)

    [error] = errors
    assert isinstance(error, orvikm.SocketError) and isinstance(error, orvikm.Error)
    assert error.errno == EAGAIN
    assert client.stats().errors == 1


def test_flush_raises_the_error_without_on_error(free_ports):
    client = orvikm.Client("py-flush-error", *free_ports, send_timeout=0.05)
    client.send(b"x", ["t"], 10)

    with pytest.raises(orvikm.SocketError):
        client.flush(2.0)


def test_a_send_beyond_max_queued_raises_queue_full_error():
    client = orvikm.Client("py-full", 1, 2, max_queued=1)
    client.send(b"first", ["t"], 10)

    with pytest.raises(orvikm.QueueFullError) as raised:
        client.send(b"second", ["t"], 10)

    assert str(raised.value).startswith(QUEUE_FULL)
    assert client.stats().refused == 1


@pytest.mark.parametrize("arguments, named", [
    (("py-port", 0, 2), "listener_port"),
    (("py-port", 1, 70000), "dispenser_port"),
    (("x" * 94, 1, 2), "app_id"),
])
def test_a_refused_constructor_argument_raises_value_error_naming_it(arguments, named):
    with pytest.raises(ValueError, match=named):
        orvikm.Client(*arguments)


@pytest.mark.parametrize("option", ["send_timeout", "max_read_time", "queue_full_wait"])
def test_a_negative_duration_option_raises_value_error_naming_it(option):
    with pytest.raises(ValueError, match=option):
        orvikm.Client("py-option", 1, 2, **{option: -1.0})


def test_a_negative_validity_raises_value_error_naming_it():
    client = orvikm.Client("py-valid-for", 1, 2)

    with pytest.raises(ValueError, match="valid_for"):
        client.send(b"x", ["t"], -1)


def test_a_route_the_node_would_refuse_raises_value_error_and_queues_nothing():
    client = orvikm.Client("py-route", 1, 2)

    with pytest.raises(ValueError, match="route"):
        client.send(b"x", ["r" * 101], 10)

    assert client.stats().queued == 0


def test_a_run_timeout_out_of_range_raises_value_error_naming_it():
    client = orvikm.Client("py-timeout", 1, 2)

    with pytest.raises(ValueError, match="timeout"):
        client.run(timeout=-0.1)


def test_run_from_inside_a_callback_is_refused_and_ends_the_running_loop(node):
    client = node.client("py-nested-run")

    def on_ack():
        client.run()

    client.send(b"x", ["t"], 10, on_ack)

    with pytest.raises(orvikm.Error) as raised:
        run_for_at_most(client, 5)

    assert str(raised.value).startswith(ALREADY_RUNNING)


def test_run_while_another_thread_runs_the_loop_is_refused_and_the_loop_goes_on(node):
    client = node.client("py-second-run")
    acknowledged = []

    with Running(client):
        # Once an acknowledgement has run, the other thread is inside run.
        client.send(b"first", ["t"], 10, lambda: acknowledged.append("first"))
        assert wait_for(lambda: acknowledged == ["first"])
        with pytest.raises(orvikm.Error) as raised:
            run_for_at_most(client, 5)
        client.send(b"second", ["t"], 10, lambda: acknowledged.append("second"))
        assert wait_for(lambda: acknowledged == ["first", "second"])

    assert str(raised.value).startswith(ALREADY_RUNNING)
