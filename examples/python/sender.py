"""Sends one message along "greetings" and exits once the node has it.

usage: sender.py LISTENER_PORT DISPENSER_PORT
"""

import sys

import orvikm

listener_port, dispenser_port = int(sys.argv[1]), int(sys.argv[2])
client = orvikm.Client("py-sender", listener_port, dispenser_port)

client.send(b"hello", ["greetings"], 30, on_ack=lambda: print("acknowledged by the node"))
result = client.flush(5.0)
sys.exit(0 if result.complete else 1)
