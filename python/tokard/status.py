"""tokard's state as it keeps it, retained, on the broker."""

from __future__ import annotations

import queue
import threading
from collections.abc import Callable, Iterator
from dataclasses import dataclass, field

from tokard import protocol


@dataclass(frozen=True)
class EcuStatus:
    """Who holds an ECU's token and who waits for it ("system/tokard/status/<ECU>")."""

    ecu: str
    holder: str | None  # None while the token is free
    generation: int  # grants to a new holder so far
    granted_unix_ms: int  # wall-clock time of the grant to the holder
    blocked: bool  # the ECU's signal group is valid: nobody gets the token
    topics: tuple[str, ...]  # the real-time topics tokard follows for the ECU
    waiters: tuple[str, ...]  # the clients in line, first first
    boot_id: str

    @classmethod
    def decode(cls, payload: bytes) -> EcuStatus | None:
        body = protocol.read(payload, protocol.TokenStatus)
        if body is None or not body.ecu:
            return None
        return cls(ecu=body.ecu, holder=body.holder if body.HasField("holder") else None,
                   generation=body.generation, granted_unix_ms=body.granted_unix_ms,
                   blocked=body.blocked, topics=tuple(body.topics),
                   waiters=tuple(body.waiters), boot_id=body.boot_id)


@dataclass(frozen=True)
class Status:
    """tokard's availability ("online", "offline", "unknown") and every ECU's status."""

    tokard: str
    ecus: dict[str, EcuStatus] = field(default_factory=dict)


Change = str | EcuStatus  # tokard's availability, or one ECU's status


class StatusBoard:
    """What the state topics last said, and the watchers of their changes.

    `deliver` runs on paho's network thread; `changed` is called there after
    every change.
    """

    def __init__(self, changed: Callable[[], None]) -> None:
        self._changed = changed
        self._lock = threading.Lock()
        self._state = "unknown"
        self._ecus: dict[str, EcuStatus] = {}
        self._watchers: list[queue.SimpleQueue[Change | None]] = []

    @property
    def state(self) -> str:
        return self._state

    def status(self) -> Status:
        with self._lock:
            return Status(self._state, dict(self._ecus))

    def deliver(self, topic: str, payload: bytes) -> None:
        if topic == protocol.STATE_TOPIC:
            text = payload.decode(errors="replace")
            self._change(text if text in (protocol.ONLINE, protocol.OFFLINE) else "unknown")
            return
        ecu = topic[len(protocol.STATUS_PREFIX):]
        status = EcuStatus.decode(payload)
        if status is not None and status.ecu == ecu:
            self._change(status)
        elif not payload:  # the retained status was cleared
            with self._lock:
                self._ecus.pop(ecu, None)

    def watch(self, timeout: float | None) -> Iterator[Change]:
        changes: queue.SimpleQueue[Change | None] = queue.SimpleQueue()
        with self._lock:
            changes.put(self._state)
            for status in self._ecus.values():
                changes.put(status)
            self._watchers.append(changes)
        try:
            while (change := changes.get(timeout=timeout)) is not None:
                yield change
        except queue.Empty:
            return
        finally:
            with self._lock:
                self._watchers.remove(changes)

    def close(self) -> None:
        """Ends every watch."""
        with self._lock:
            for watcher in self._watchers:
                watcher.put(None)

    def _change(self, change: Change) -> None:
        with self._lock:
            if isinstance(change, EcuStatus):
                self._ecus[change.ecu] = change
            else:
                self._state = change
            for watcher in self._watchers:
                watcher.put(change)
        self._changed()
