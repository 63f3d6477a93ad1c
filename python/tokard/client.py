"""The token client: ask tokard for an ECU's token, keep it while working, give it back.

Threading: every public member may be called from any thread. Answers and
tokard's state arrive on paho's network thread; renewals, repeated wait
requests and the lost-token callbacks run on the client's own refresh
thread, which catches and logs whatever a callback raises.
"""

from __future__ import annotations

import collections
import itertools
import logging
import os
import threading
import time
from collections.abc import Callable, Iterator
from dataclasses import dataclass
from types import TracebackType
from typing import overload

from tokard import protocol
from tokard._bus import Bus
from tokard.errors import (UNAVAILABLE, InvalidBroker, InvalidClientName, InvalidTiming,
                           NotConnected, Result, SendFailed)
from tokard.status import Change, EcuStatus, Status, StatusBoard

LostHandler = Callable[[str, Result], None]

_log = logging.getLogger("tokard")
_Request = protocol.PgnRequestTokenRequest
# The results tokard sends carry the names of the wire's values.
_ANSWERS = {getattr(protocol.PgnRequestTokenResponse, r.name): r
            for r in Result if r is not Result.NO_ANSWER}
_OFFLINE_GRACE = 0.3  # seconds an acquire waits while tokard is known to be offline
_FIRST_PAUSE, _LONGEST_PAUSE = 0.1, 2.0  # between acquires where tokard has no line
_ids = itertools.count(1)


@dataclass
class _Lease:
    confirmed: float  # time.monotonic() of the last ACQUIRED
    token: Token | None = None


@dataclass
class _Place:
    """A place in an ECU's line: BUSY so far, until a grant or NO_ECU is pushed."""

    answer: Result = Result.NO_ANSWER
    token: Token | None = None


class Token:
    """A token held for the length of a `with` block (see Client.token)."""

    def __init__(self, client: Client, topic: str, wait: float | None,
                 on_lost: LostHandler | None) -> None:
        self.client, self.topic, self.wait, self.on_lost = client, topic, wait, on_lost
        self.lost = threading.Event()  # set when the token is lost while held
        self.reason: Result | None = None  # why: BUSY, NO_ECU or NO_ANSWER

    def __enter__(self) -> Token:
        self.client._take(self)
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 trace: TracebackType | None) -> None:
        if self.client.connected:
            self.client.release(self.topic)


class Client:
    """A connection to tokard's broker under a client name, as a context manager.

    `name` is the name tokard holds tokens in; answers come on
    "app/<name>/pgn/response", and clients sharing a name share tokens.
    `answer_timeout` is how long an acquire waits for tokard's answer,
    `refresh_period` how often a held token is renewed (below tokard's 10 s
    token time-out). `on_lost(topic, reason)` is called for every token lost
    while held. Without `username` the client connects anonymously.
    """

    def __init__(self, name: str, host: str = "localhost", port: int = 1883,
                 username: str | None = None, password: str | None = None, *,
                 answer_timeout: float = 2.0, refresh_period: float = 3.0,
                 mqtt_client_id: str | None = None, on_lost: LostHandler | None = None) -> None:
        if not name or any(c in name for c in "+#\0"):
            raise InvalidClientName()
        if not host or not 1 <= port <= 65535:
            raise InvalidBroker()
        if answer_timeout <= 0 or not 0 < refresh_period < protocol.TOKEN_TIMEOUT:
            raise InvalidTiming()
        self.name = name
        self.answer_timeout, self.refresh_period, self.on_lost = (
            answer_timeout, refresh_period, on_lost)
        self._response_topic = protocol.response_topic(name)
        # The state topics first: their retained messages are in before the
        # SUBACK of the response topic, which connect() waits for.
        self._bus = Bus(mqtt_client_id or f"{name}-{os.getpid()}-{next(_ids)}", host, port,
                        username, password,
                        [(protocol.STATE_TOPIC, 0), (protocol.STATUS_FILTER, 0),
                         (self._response_topic, protocol.QOS)], self._deliver)
        self._send_lock = threading.Lock()  # before _lock: no renewal after its release
        self._lock = threading.Lock()
        self._changed = threading.Condition(self._lock)
        self._board = StatusBoard(self._wake)
        self._answers: dict[str, tuple[Result, int]] = {}
        self._answer_count = 0
        self._pending: collections.Counter[str] = collections.Counter()
        self._held: dict[str, _Lease] = {}
        self._line: dict[str, _Place] = {}
        self._abandoned: set[str] = set()  # gave up on: a late grant goes back
        self._lost: list[tuple[str, Result, Token | None]] = []
        self._give_back: list[str] = []
        self._connected = self._closing = False
        self._refresher = threading.Thread(target=self._refresh_loop, name=f"tokard-{name}",
                                           daemon=True)

    def __enter__(self) -> Client:
        return self.connect()

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 trace: TracebackType | None) -> None:
        self.close()

    @property
    def connected(self) -> bool:
        return self._connected and not self._closing

    def connect(self, timeout: float = 3.0) -> Client:
        """Connects and subscribes, or raises BrokerUnreachable; a lost connection comes back."""
        if self._closing:
            raise RuntimeError("a closed tokard.Client does not connect again")
        if not self._connected:
            self._bus.connect(timeout)
            self._connected = True
            self._refresher.start()
        return self

    def close(self) -> None:
        """Releases every held token, leaves every line, then disconnects."""
        if not self._connected:
            return
        with self._send_lock:
            with self._changed:
                self._closing = True
                held, line = list(self._held), list(self._line)
                self._held.clear()
                self._changed.notify_all()
            for topic in held:
                self._send(protocol.REQUEST_TOPIC, _Request.RELEASE, topic)
            for topic in line:
                self._send(protocol.WAIT_TOPIC, _Request.RELEASE, topic)
        if threading.current_thread() is not self._refresher:
            self._refresher.join()
        self._bus.close()
        self._connected = False
        self._board.close()

    def acquire(self, topic: str) -> Result:
        """One request for the token of the ECU `topic` names ("rt/ECU1").

        ACQUIRED: the token is renewed every refresh period until release(),
        close(), or its loss. A busy ECU is a result, never an exception.
        """
        return self._ask(topic, None)

    def release(self, topic: str) -> None:
        """Stops renewing the token and tells tokard to free it (never answered)."""
        self._check_connected()
        with self._send_lock:
            with self._lock:
                self._held.pop(topic, None)
            if not self._send(protocol.REQUEST_TOPIC, _Request.RELEASE, topic):
                raise SendFailed()

    def holds(self, topic: str) -> bool:
        """Acquired and neither released nor lost since."""
        with self._lock:
            return topic in self._held

    def token(self, topic: str, wait: float | None = None,
              on_lost: LostHandler | None = None) -> Token:
        """The token for a `with` block: acquired on entry, released on every way out.

        With `wait`, the client waits in the ECU's line up to `wait` seconds.
        Entry raises Busy, NoEcu or NoAnswer when it cannot get the token.
        While held, a loss sets `lost` on the returned Token and calls
        `on_lost(topic, reason)` on the refresh thread.
        """
        return Token(self, topic, wait, on_lost)

    def tokard_state(self) -> str:
        """"online", "offline" or "unknown" (not heard of, or not readable for this account)."""
        return self._board.state

    @overload
    def status(self) -> Status: ...
    @overload
    def status(self, ecu: str) -> EcuStatus | None: ...

    def status(self, ecu: str | None = None) -> Status | EcuStatus | None:
        """tokard's state and every ECU's status, or one ECU's status (None if tokard has none)."""
        status = self._board.status()
        return status if ecu is None else status.ecus.get(ecu)

    def watch(self, timeout: float | None = None) -> Iterator[Change]:
        """tokard's state (a str) and every ECU's status, then each change as it comes.

        Ends when nothing changes for `timeout` seconds, or when the client closes.
        """
        return self._board.watch(timeout)

    # -- requests ------------------------------------------------------------

    def _check_connected(self) -> None:
        if not self._connected or self._closing:
            raise NotConnected()

    def _send(self, topic: str, action: int, rt_topic: str) -> bool:
        body = _Request(action=action, request_topic=rt_topic, client_name=self.name)
        return self._bus.publish(topic, protocol.frame(body), protocol.QOS)

    def _limit(self, asked: float, timeout: float) -> float:
        """While tokard is known to be offline, a moment to come back instead of the time-out."""
        return asked + (min(timeout, _OFFLINE_GRACE) if self._board.state == protocol.OFFLINE
                        else timeout)

    def _ask(self, topic: str, token: Token | None, timeout: float | None = None) -> Result:
        self._check_connected()
        if not topic:
            return Result.NO_ECU
        timeout = self.answer_timeout if timeout is None else timeout
        with self._send_lock:
            with self._lock:
                asked_at = self._answer_count
                self._pending[topic] += 1
            asked = time.monotonic()
            self._send(protocol.REQUEST_TOPIC, _Request.ACQUIRE, topic)
        with self._changed:
            def answered() -> bool:
                return self._answers.get(topic, (None, 0))[1] > asked_at

            self._wait_while(lambda: not answered(), lambda: self._limit(asked, timeout))
            self._pending[topic] -= 1
            result = self._answers[topic][0] if answered() else Result.NO_ANSWER
            if result is Result.ACQUIRED and not self._closing:
                lease = self._held.setdefault(topic, _Lease(time.monotonic()))
                lease.token = token or lease.token
            elif result is Result.NO_ANSWER:
                self._abandoned.add(topic)
            return result

    def _wait_while(self, waiting: Callable[[], bool], until: Callable[[], float]) -> None:
        """Holding _changed: returns once `waiting()` is false, at `until()`, or on close()."""
        while waiting() and not self._closing:
            left = until() - time.monotonic()
            if left <= 0:
                return
            self._changed.wait(left)

    def _take(self, token: Token) -> None:
        if token.wait is None:
            result = self._ask(token.topic, token)
        else:
            result = self._wait_in_line(token, time.monotonic() + token.wait)
        if result is not Result.ACQUIRED:
            raise UNAVAILABLE[result](token.topic)

    def _wait_in_line(self, token: Token, deadline: float) -> Result:
        """Joins the ECU's line and waits for the grant pushed when it is this client's turn."""
        self._check_connected()
        topic = token.topic
        with self._send_lock:
            with self._lock:
                place = self._line.setdefault(topic, _Place(token=token))
            asked = time.monotonic()
            self._send(protocol.WAIT_TOPIC, _Request.ACQUIRE, topic)
        with self._changed:
            self._wait_while(lambda: place.answer is Result.NO_ANSWER,
                             lambda: self._limit(asked, self.answer_timeout))
            self._wait_while(lambda: place.answer is Result.BUSY, lambda: deadline)
            result = place.answer
            self._line.pop(topic, None)
            if result is not Result.ACQUIRED:
                self._abandoned.add(topic)
        if result in (Result.ACQUIRED, Result.NO_ECU):
            return result
        with self._send_lock:
            self._send(protocol.WAIT_TOPIC, _Request.RELEASE, topic)
        if result is Result.NO_ANSWER and time.monotonic() < deadline and not self._closing:
            return self._ask_until(token, deadline)  # a tokard without a line
        return result

    def _ask_until(self, token: Token, deadline: float) -> Result:
        result, pause = self._ask(token.topic, token), _FIRST_PAUSE
        while result in (Result.BUSY, Result.NO_ANSWER) and not self._closing:
            resume = min(time.monotonic() + pause, deadline)
            with self._changed:
                self._wait_while(lambda: True, lambda: resume)
            left = deadline - time.monotonic()
            if left <= 0 or self._closing:
                break
            pause = min(pause * 2, _LONGEST_PAUSE)
            answer = self._ask(token.topic, token, min(self.answer_timeout, max(left, 0.01)))
            # A late attempt tells nothing new about the token.
            if answer is not Result.NO_ANSWER or result is Result.NO_ANSWER:
                result = answer
        return result

    # -- on paho's network thread --------------------------------------------

    def _deliver(self, topic: str, payload: bytes) -> None:
        if topic == self._response_topic:
            self._answer(protocol.read(payload, protocol.PgnRequestTokenResponse))
        else:
            self._board.deliver(topic, payload)

    def _wake(self) -> None:
        """tokard's state changed: an acquire may now wait less."""
        with self._changed:
            self._changed.notify_all()

    def _answer(self, response: protocol.PgnRequestTokenResponse | None) -> None:
        result = _ANSWERS.get(response.result) if response is not None else None
        if result is None or not response.request_topic:
            return
        topic = response.request_topic
        with self._changed:
            self._answer_count += 1
            self._answers[topic] = (result, self._answer_count)
            place, lease = self._line.get(topic), self._held.get(topic)
            if place is not None and place.answer is not Result.ACQUIRED:
                place.answer = result
                if result is Result.ACQUIRED:
                    self._held[topic] = _Lease(time.monotonic(), place.token)
            elif lease is not None and result is Result.ACQUIRED:
                lease.confirmed = time.monotonic()
            elif lease is not None:
                del self._held[topic]
                self._lost.append((topic, result, lease.token))
            elif (result is Result.ACQUIRED and topic in self._abandoned
                  and not self._pending[topic]):
                self._give_back.append(topic)
            self._changed.notify_all()

    # -- on the refresh thread -------------------------------------------------

    def _refresh_loop(self) -> None:
        next_refresh = time.monotonic() + self.refresh_period
        while True:
            with self._changed:
                self._changed.wait_for(lambda: self._closing or bool(self._lost or self._give_back),
                                       max(0.0, next_refresh - time.monotonic()))
                if self._closing:
                    return
                lost, self._lost = self._lost, []
                give_back, self._give_back = self._give_back, []
                now = time.monotonic()
                if now >= next_refresh:
                    next_refresh = now + self.refresh_period
                    for topic, lease in list(self._held.items()):
                        if now - lease.confirmed > protocol.TOKEN_TIMEOUT:
                            del self._held[topic]
                            lost.append((topic, Result.NO_ANSWER, lease.token))
                    renew = True
                else:
                    renew = False
            for topic, reason, token in lost:
                self._report(topic, reason, token)
            for topic in give_back:
                self._return(topic)
            if renew:
                self._renew()

    def _return(self, topic: str) -> None:
        """A grant that came after its acquire gave up would block the ECU for others."""
        with self._send_lock:
            with self._lock:
                if topic in self._held or self._pending[topic] or topic in self._line:
                    return
                self._abandoned.discard(topic)
            self._send(protocol.REQUEST_TOPIC, _Request.RELEASE, topic)

    def _report(self, topic: str, reason: Result, token: Token | None) -> None:
        if token is not None:
            token.reason = reason
            token.lost.set()
        for handler in (token.on_lost if token else None, self.on_lost):
            if handler is None:
                continue
            try:
                handler(topic, reason)
            except Exception:  # noqa: BLE001 - never into the refresh thread
                _log.exception("on_lost handler for %s raised", topic)

    def _renew(self) -> None:
        with self._send_lock:
            with self._lock:
                held, line = list(self._held), [t for t, p in self._line.items()
                                                 if p.answer is not Result.ACQUIRED]
            for topic in held:
                self._send(protocol.REQUEST_TOPIC, _Request.ACQUIRE, topic)
            for topic in line:
                self._send(protocol.WAIT_TOPIC, _Request.ACQUIRE, topic)
