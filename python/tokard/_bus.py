"""The MQTT connection under the client: paho-mqtt 1.6 (Debian 12) or 2.x.

Threading: paho's network thread calls `deliver`; it must not publish (a
publish may wait for paho's callback lock, which that thread holds).
"""

from __future__ import annotations

import threading
import time
from collections.abc import Callable, Sequence

import paho.mqtt.client as mqtt

from tokard.errors import BrokerUnreachable

Deliver = Callable[[str, bytes], None]

_KEEPALIVE = 60
_FLUSH_LIMIT = 1.0  # seconds close() waits for queued messages to go out


def _code(reason: object) -> int:
    """A CONNACK code from paho 1.x (int) or 2.x (ReasonCode)."""
    return int(getattr(reason, "value", reason))  # type: ignore[call-overload]


class Bus:
    """One connection; subscribes `subscriptions`, in order, on every connect."""

    def __init__(self, client_id: str, host: str, port: int, username: str | None,
                 password: str | None, subscriptions: Sequence[tuple[str, int]],
                 deliver: Deliver) -> None:
        self._host, self._port = host, port
        self._subscriptions = list(subscriptions)
        self._deliver = deliver
        self._ready = threading.Event()  # the last subscription of a connect is acknowledged
        self._settled = threading.Event()  # ready, or the login refused
        self._last_mid: int | None = None
        self._refused: object = None
        if hasattr(mqtt, "CallbackAPIVersion"):
            self._mqtt = mqtt.Client(mqtt.CallbackAPIVersion.VERSION2, client_id=client_id)
        else:
            self._mqtt = mqtt.Client(client_id=client_id)
        if username is not None:
            self._mqtt.username_pw_set(username, password)
        self._mqtt.reconnect_delay_set(1, 2)
        self._mqtt.on_connect = self._on_connect
        self._mqtt.on_subscribe = self._on_subscribe
        self._mqtt.on_disconnect = lambda *_args: self._ready.clear()
        self._mqtt.on_message = lambda _c, _u, msg: self._deliver(msg.topic, msg.payload)
        self._infos: list[mqtt.MQTTMessageInfo] = []

    def connect(self, timeout: float) -> None:
        """Connects and subscribes; raises BrokerUnreachable after `timeout` seconds."""
        try:
            self._mqtt.connect_async(self._host, self._port, _KEEPALIVE)
        except (OSError, ValueError) as error:
            raise BrokerUnreachable(f"no connection to the broker: {error}") from error
        self._mqtt.loop_start()
        if self._settled.wait(timeout) and self._ready.is_set():
            return
        self._mqtt.disconnect()
        self._mqtt.loop_stop()
        if self._refused is not None:
            raise BrokerUnreachable(f"the broker refused the connection: {self._refused}")
        raise BrokerUnreachable("no connection to the broker")

    def publish(self, topic: str, payload: bytes, qos: int) -> bool:
        """Queues `payload`; while the connection is down it goes out after the reconnect."""
        info = self._mqtt.publish(topic, payload, qos)
        self._infos = [i for i in self._infos if not i.is_published()] + [info]
        return info.rc in (mqtt.MQTT_ERR_SUCCESS, mqtt.MQTT_ERR_NO_CONN)

    def close(self) -> None:
        """Waits a moment for queued messages (releases above all), then disconnects."""
        deadline = time.monotonic() + _FLUSH_LIMIT
        for info in self._infos:
            while self._ready.is_set() and not info.is_published() and time.monotonic() < deadline:
                time.sleep(0.01)
        self._mqtt.disconnect()
        self._mqtt.loop_stop()

    def _on_connect(self, client: mqtt.Client, _userdata: object, _flags: object,
                    reason: object, _properties: object = None) -> None:
        if _code(reason) != 0:
            self._refused = reason if hasattr(reason, "value") else mqtt.connack_string(reason)
            self._settled.set()
            return
        for topic, qos in self._subscriptions:
            _, self._last_mid = client.subscribe(topic, qos)

    def _on_subscribe(self, _client: mqtt.Client, _userdata: object, mid: int,
                      *_granted: object) -> None:
        if mid == self._last_mid:
            self._ready.set()
            self._settled.set()
