"""Hearing what is published on the DAL."""

import os

from wait import wait_for


class Subscriber:
    """Hears a channel of the DAL from its making on."""

    def __init__(self, server, channel):
        self._server = server
        self._channel = channel
        self._subscription = server.pubsub()
        self._subscription.subscribe(channel)
        self._wait("subscribe", 10)

    def _wait(self, kind, seconds):
        def arrived():
            message = self._subscription.get_message(timeout=0.05)
            return message if message and message["type"] == kind else None

        return wait_for(arrived, f"a message on {self._channel}", seconds)

    def wait(self, seconds=10):
        """The next message."""
        return self._wait("message", seconds)["data"]

    def all_until_now(self):
        """All messages that Redis has been given so far."""
        end = os.urandom(16)
        self._server.publish(self._channel, end)
        messages = iter(self.wait, end)
        return list(messages)
