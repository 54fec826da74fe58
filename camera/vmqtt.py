"""The host's side of the camera's bus: a small MQTT client for scripts and tests, on paho-mqtt."""

from __future__ import annotations

import threading
import time
from collections.abc import Callable
from dataclasses import dataclass
from typing import Any

import paho.mqtt.client as paho
from paho.mqtt.packettypes import PacketTypes
from paho.mqtt.properties import Properties
from paho.mqtt.subscribeoptions import SubscribeOptions


ANSWER_S = 30  # a broker in a camera that is emulated on a busy machine answers when its turn comes


@dataclass(frozen=True)
class Message:
    topic: str
    payload: bytes
    retained: bool
    time: float  # time.monotonic() of its arrival


class Bus:
    """One connection. It is not revived when the broker goes away: `alive` is false then, make another one."""

    def __init__(self, client: paho.Client, user: str | None) -> None:
        self._client = client
        self._user = user
        self._lock = threading.Condition()
        self._handlers: list[tuple[str, Callable[[Message], None]]] = []
        self._topics: set[str] = set()  # subscribed to
        self._confirmed: set[int] = set()
        self._connected: bool | None = None
        client.on_connect = self._on_connect
        client.on_disconnect = self._on_disconnect
        client.on_message = self._on_message
        client.on_subscribe = self._on_confirmed
        client.on_unsubscribe = self._on_confirmed

    @classmethod
    def connect(cls, host: str, port: int, user: str | None = None, password: str | None = None,
                timeout: float = 10) -> Bus:
        """Connects within the time allowed, or raises ConnectionError: a refused user, a broker that is not there."""
        end = time.monotonic() + timeout
        while True:
            try:
                return cls._connect_once(host, port, user, password, max(0.1, end - time.monotonic()))
            except (OSError, ValueError) as error:
                # The emulator accepts connections for a guest port that nobody listens on, and drops them.
                if time.monotonic() > end or isinstance(error, PermissionError):
                    raise ConnectionError(f"broker at {host}:{port}: {error}") from error
                time.sleep(0.1)

    @classmethod
    def _connect_once(cls, host: str, port: int, user: str | None, password: str | None, timeout: float) -> Bus:
        client = paho.Client(protocol=paho.MQTTv5, reconnect_on_failure=False)
        if user is not None:
            client.username_pw_set(user, password)
        bus = cls(client, user)
        client.connect(host, port, keepalive=60)
        client.loop_start()
        with bus._lock:
            bus._lock.wait_for(lambda: bus._connected is not None, timeout)
        if not bus._connected:
            bus.close()
            raise PermissionError("refused") if bus._refused else ConnectionError("no answer")
        return bus

    _refused = False

    @property
    def alive(self) -> bool:
        return bool(self._connected)

    def close(self) -> None:
        self._client.disconnect()
        self._client.loop_stop()

    def publish(self, topic: str, payload: str | bytes, retain: bool = False, timeout: float = ANSWER_S) -> None:
        """Publishes at QoS 1 and waits until the broker has taken it."""
        info = self._client.publish(topic, payload, qos=1, retain=retain)
        info.wait_for_publish(timeout)
        if not info.is_published():
            raise TimeoutError(f"the broker did not take a message to {topic}")

    def subscribe(self, topic: str, handler: Callable[[Message], None], timeout: float = ANSWER_S) -> None:
        """Subscribes and waits for the confirmation. The handler runs on the connection's thread."""
        with self._lock:
            self._handlers.append((topic, handler))
        self._subscribe(topic, timeout)

    def unsubscribe_all(self, timeout: float = ANSWER_S) -> None:
        """Forgets every subscription. A message comes once for each that matches: old ones would double new ones'."""
        with self._lock:
            topics = sorted(self._topics)
            self._topics.clear()
            self._handlers.clear()
        if topics:
            self._wait_confirmed(self._client.unsubscribe(topics), timeout)

    def wait_for(self, topic: str, predicate: Callable[[bytes], bool], timeout: float) -> bytes:
        """The first payload that satisfies the predicate, a retained one included; TimeoutError otherwise."""
        found: list[bytes] = []
        seen: list[bytes] = []

        def handler(message: Message) -> None:
            with self._lock:
                seen.append(message.payload)
                if not found and predicate(message.payload):
                    found.append(message.payload)
                    self._lock.notify_all()
        self.subscribe(topic, handler)
        try:
            with self._lock:
                self._lock.wait_for(lambda: found or not self.alive, timeout)
        finally:
            self._forget(handler)
        if not found:
            raise TimeoutError(f"not within {timeout} s on {topic}; seen: {seen[-5:]}")
        return found[0]

    def retained(self, topic: str) -> bytes | None:
        """The retained message of a topic, or None.

        The broker sends it after it has confirmed the subscription. It answers in order, though, so that the
        confirmation of another subscription says that there was nothing to come.
        """
        found: list[bytes] = []

        def handler(message: Message) -> None:
            found.append(message.payload)
        self.subscribe(topic, handler)
        self._subscribe("karvel/mem/default/nothing", 5)
        self._forget(handler)
        return found[-1] if found else None

    def request(self, topic: str, payload: str | bytes, timeout: float = 10) -> bytes:
        """Publishes a request with a response topic of its own and returns the first answer."""
        answers: list[bytes] = []

        def handler(message: Message) -> None:
            with self._lock:
                answers.append(message.payload)
                self._lock.notify_all()
        reply_topic = f"reply/{self._user}/{id(answers)}"  # where each account may read answers of its own
        self.subscribe(reply_topic, handler)
        properties = Properties(PacketTypes.PUBLISH)
        properties.ResponseTopic = reply_topic
        properties.CorrelationData = b"%d" % id(answers)
        self._client.publish(topic, payload, qos=1, properties=properties)
        try:
            with self._lock:
                self._lock.wait_for(lambda: answers, timeout)
        finally:
            self._forget(handler)
        if not answers:
            raise TimeoutError(f"no answer to {topic}")
        return answers[0]

    # --- inside ---

    def _subscribe(self, topic: str, timeout: float) -> None:
        with self._lock:
            self._topics.add(topic)
        # Retained messages come again with every subscription: a second handler of a topic needs them too.
        options = SubscribeOptions(qos=1, retainHandling=SubscribeOptions.RETAIN_SEND_ON_SUBSCRIBE)
        self._wait_confirmed(self._client.subscribe(topic, options=options), timeout)

    def _wait_confirmed(self, result: tuple[int, int | None], timeout: float) -> None:
        code, identifier = result
        if code != paho.MQTT_ERR_SUCCESS:
            raise ConnectionError(f"broker: {paho.error_string(code)}")
        with self._lock:
            if not self._lock.wait_for(lambda: identifier in self._confirmed or not self.alive, timeout):
                raise TimeoutError("the broker did not confirm a subscription")
            self._confirmed.discard(identifier)

    def _forget(self, handler: Callable[[Message], None]) -> None:
        with self._lock:
            self._handlers = [entry for entry in self._handlers if entry[1] is not handler]

    def _on_connect(self, _client: Any, _user: Any, _flags: Any, reason: Any, _properties: Any = None) -> None:
        with self._lock:
            self._connected = reason == 0
            self._refused = reason != 0
            self._lock.notify_all()

    def _on_disconnect(self, *_: Any) -> None:
        with self._lock:
            self._connected = False
            self._lock.notify_all()

    def _on_confirmed(self, _client: Any, _user: Any, identifier: int, *_: Any) -> None:
        with self._lock:
            self._confirmed.add(identifier)
            self._lock.notify_all()

    def _on_message(self, _client: Any, _user: Any, message: paho.MQTTMessage) -> None:
        with self._lock:
            handlers = [handler for topic, handler in self._handlers if paho.topic_matches_sub(topic, message.topic)]
        received = Message(message.topic, message.payload, bool(message.retain), time.monotonic())
        for handler in handlers:
            handler(received)
