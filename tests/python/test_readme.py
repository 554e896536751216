"""The README's Python sender and receiver are examples/python/sender.py and
receiver.py exactly, and they work as the README says."""

import os
import subprocess
import sys
import time
from pathlib import Path

import pytest

SOURCE = Path(os.environ.get("ORVIKM_SOURCE_DIR", Path(__file__).resolve().parents[2]))
EXAMPLES = SOURCE / "examples" / "python"
RECEIVED = "received: hello\n"
ACKNOWLEDGED = "acknowledged by the node\n"


def shown_in_readme(example):
    marker = f"<!-- example: examples/python/{example} -->"
    lines = (SOURCE / "README.md").read_text().splitlines()
    start = lines.index(marker)
    assert lines[start + 1] == "```python"
    end = lines.index("```", start + 2)
    return "\n".join(lines[start + 2:end]) + "\n"


@pytest.mark.parametrize("example", ["sender.py", "receiver.py"])
def test_the_readme_shows_the_example_as_it_is(example):
    assert shown_in_readme(example) == (EXAMPLES / example).read_text()


def test_the_receiver_prints_what_the_sender_sent(node):
    ports = [str(node.listener_port), str(node.dispenser_port)]
    receiver = subprocess.Popen([sys.executable, str(EXAMPLES / "receiver.py"), *ports],
                                stdout=subprocess.PIPE, text=True)
    try:
        # The node publishes only to listeners already subscribed: send until
        # the receiver has heard it.
        end = time.monotonic() + 10
        sent = None
        while receiver.poll() is None and time.monotonic() < end:
            sent = subprocess.run([sys.executable, str(EXAMPLES / "sender.py"), *ports],
                                  capture_output=True, text=True, timeout=10)
            try:
                receiver.wait(timeout=0.2)
            except subprocess.TimeoutExpired:
                pass
        output, _ = receiver.communicate(timeout=5)
    finally:
        if receiver.poll() is None:
            receiver.kill()
            receiver.wait(timeout=5)

    assert (receiver.returncode, output) == (0, RECEIVED)
    assert (sent.returncode, sent.stdout) == (0, ACKNOWLEDGED)
