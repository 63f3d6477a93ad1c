"""Outcomes and errors, as the C++ client library names them.

An acquire's outcome is a Result. Settings that cannot work and calls out of
turn raise the ValueError and RuntimeError subclasses below; a token that
cannot be had raises Busy, NoEcu or NoAnswer from Client.token().
"""

from __future__ import annotations

import enum


class Result(enum.Enum):
    """How an acquire ended; str() gives the word tokctl prints."""

    ACQUIRED = "acquired"  # the client holds the token now (granted, renewed or taken over)
    BUSY = "busy"  # another client holds it, or the ECU accepts no requests now
    NO_ECU = "no ECU"  # the topic names no ECU (not "rt/..." or "rttx/...")
    NO_ANSWER = "no answer"  # nothing within the answer time-out: no tokard, no broker

    def __str__(self) -> str:
        return self.value


class Error(Exception):
    """Base of every exception of this package."""


class InvalidClientName(Error, ValueError):
    def __init__(self) -> None:
        super().__init__("client name is empty or contains '+', '#' or a NUL byte")


class InvalidBroker(Error, ValueError):
    def __init__(self) -> None:
        super().__init__("broker host is empty or port is not in 1..65535")


class InvalidTiming(Error, ValueError):
    def __init__(self) -> None:
        super().__init__(
            "answer time-out must be above zero, refresh period above zero and below 10 s")


class BrokerUnreachable(Error, ConnectionError):
    """No connection to the broker within the time-out, or the broker refused the login."""


class NotConnected(Error, RuntimeError):
    def __init__(self) -> None:
        super().__init__("not connected to the broker")


class SendFailed(Error, OSError):
    def __init__(self) -> None:
        super().__init__("the message could not be sent")


class Unavailable(Error):
    """Client.token() could not get the token; `result` says why."""

    result: Result

    def __init__(self, topic: str) -> None:
        super().__init__(f"{topic}: {self.result}")
        self.topic = topic


class Busy(Unavailable):
    result = Result.BUSY


class NoEcu(Unavailable):
    result = Result.NO_ECU


class NoAnswer(Unavailable):
    result = Result.NO_ANSWER


UNAVAILABLE: dict[Result, type[Unavailable]] = {
    Result.BUSY: Busy, Result.NO_ECU: NoEcu, Result.NO_ANSWER: NoAnswer}
