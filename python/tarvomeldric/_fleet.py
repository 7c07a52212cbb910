"""How learned rules travel between the members of a fleet: a Redis hash and a channel.

Nothing here ever fails a caller. A publication takes half a second at most; after one that did not
get through, the next tries are spaced out, and what was recorded meanwhile is sent in its latest
state with the first publication that succeeds.
"""

from __future__ import annotations

import contextlib
import json
import os
import socket
import threading
import time
import weakref
from typing import Any

from tarvomeldric import _redis

_TIMEOUT_S = 0.5  # seconds for a publication, connecting again included
_JOINING_TIMEOUT_S = 1.0  # seconds to connect and be answered
_LOADING_TIMEOUT_S = 3.0
_FIRST_PAUSE_S = 1.0
_LONGEST_PAUSE_S = 30.0
_LARGEST_RULE = 4096  # characters of its key and its JSON text: labels and names are short


class Link:
    """A learner's connection to its fleet."""

    def __init__(self, url: str, channel: str) -> None:
        self._url = url
        self._channel = channel
        self._unsent: dict[str, tuple[str, str]] = {}
        self._pause = 0.0
        self._next_try = 0.0

    def connect(self) -> Any:
        """The client for the hash and for publishing."""
        return _redis.connect(self._url)

    def ping(self, client: Any) -> None:
        """Fails when there is nobody to share rules with."""
        with _redis.exchange(_JOINING_TIMEOUT_S):
            client.ping()

    def source(self) -> str:
        """The name under which this instance publishes."""
        return os.environ.get("HOSTNAME", "local")

    def rules(self, client: Any) -> dict[str, str]:
        """The shared hash: a rule's JSON text for each key."""
        with _redis.exchange(_LOADING_TIMEOUT_S):
            return dict(client.hgetall(f"{self._channel}:rules"))

    def publish(self, client: Any, key: str, rule: str, message: str) -> None:
        """Shares the latest state of a rule, and of those that could not be shared before."""
        self._unsent[key] = (rule, message)
        if time.monotonic() < self._next_try:
            return
        sent = dict(self._unsent)
        try:
            batch = client.pipeline(transaction=False)  # the caller waits for one answer in all
            for name, (rule, message) in sent.items():
                batch.hset(f"{self._channel}:rules", name, rule)
                batch.publish(self._channel, message)
            with _redis.exchange(_TIMEOUT_S):
                batch.execute()
        except Exception:
            self._pause = min(max(2 * self._pause, _FIRST_PAUSE_S), _LONGEST_PAUSE_S)
            self._next_try = time.monotonic() + self._pause
        else:
            self._pause = 0.0
            for name, state in sent.items():
                if self._unsent.get(name) is state:
                    del self._unsent[name]

    def subscription(self) -> Any:
        """A connection of its own that is subscribed to the channel; reading it waits for ever."""
        subscription = _redis.connect(self._url).pubsub()
        with _redis.exchange(_JOINING_TIMEOUT_S):
            subscription.subscribe(self._channel)
        return subscription


def start_subscriber(learner: Any) -> threading.Thread:
    """Runs the learner's subscriber on a daemon thread that holds it only while it works for it."""
    thread = threading.Thread(
        target=subscribe_for, args=(weakref.ref(learner),), daemon=True, name="rules subscriber"
    )
    thread.start()
    return thread


def subscribe_for(reference: weakref.ref[Any]) -> None:
    """Follows the channel for a learner, as long as there is the learner and the connection."""
    learner = reference()
    if learner is None:
        return
    link = learner._link
    del learner
    with contextlib.suppress(Exception):
        subscription = link.subscription()
        with contextlib.closing(subscription):
            _follow(subscription, reference)


def _follow(subscription: Any, reference: weakref.ref[Any]) -> None:
    learner = reference()
    if learner is None:
        return
    # Wakes the thread out of its endless read when the learner is gone.
    closing = weakref.finalize(learner, _shut, subscription)
    closing.atexit = False
    del learner
    for item in subscription.listen():
        if item.get("type") == "message":
            learner = reference()
            if learner is None:
                return
            merge(learner, item.get("data"))
            del learner


def _shut(subscription: Any) -> None:
    with contextlib.suppress(Exception):
        subscription.connection._sock.shutdown(socket.SHUT_RDWR)


def merge(learner: Any, payload: Any) -> None:
    """Takes in one published rule; what is not one is passed over."""
    with contextlib.suppress(Exception):
        if len(payload) > _LARGEST_RULE:
            return
        message = json.loads(payload)
        key, rule = message.get("key", ""), message.get("rule", {})
        if key and rule:
            learner._merge(key, rule)


def load_rules(learner: Any) -> None:
    """Takes over the shared hash, in place of local rules with the same keys.

    What is not a rule is skipped.
    """
    shared = learner._link.rules(learner._redis_client)
    for key, payload in shared.items():
        with contextlib.suppress(Exception):
            if len(key) + len(payload) <= _LARGEST_RULE:
                learner._take_over(key, json.loads(payload))
    if shared:
        learner._bootstrap_loaded = False
