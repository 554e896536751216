"""Receives one message published along "greetings", acknowledges it, exits.

usage: receiver.py LISTENER_PORT DISPENSER_PORT
"""

import sys

import orvikm

listener_port, dispenser_port = int(sys.argv[1]), int(sys.argv[2])
client = orvikm.Client("py-receiver", listener_port, dispenser_port, ["greetings"])


def received(message):
    print("received:", message.payload.decode(), flush=True)
    client.send_ack(message)
    client.terminate()


client.on_message(received)
client.run(on_error=lambda error: print(error, file=sys.stderr))
