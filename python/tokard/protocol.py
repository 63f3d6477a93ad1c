"""What tokard and its clients say to each other on the internal broker.

The same facts as the C++ protocol library (protocol/com/protocol.h); a test
compares the two. The message classes are generated from proto/ when the
package is built.
"""

from __future__ import annotations

import time
from typing import TypeVar

from google.protobuf.message import DecodeError, Message

from tokard._pb.ecu.pb.header_pb2 import SREHeader
from tokard._pb.ecu.pb.pgn_pb2 import PgnRequestTokenRequest, PgnRequestTokenResponse
from tokard._pb.ecu.pb.rt_pb2 import RtSignalGroup
from tokard._pb.tokard.pb.status_pb2 import TokenStatus

__all__ = [
    "HEADER_SIZE", "MAX_WAITERS", "OFFLINE", "ONLINE", "PROTOCOL_TYPE", "QOS", "REQUEST_TOPIC",
    "STATE_TOPIC", "STATUS_FILTER", "STATUS_PREFIX", "TOKEN_TIMEOUT", "WAIT_TOPIC",
    "PgnRequestTokenRequest", "PgnRequestTokenResponse", "RtSignalGroup", "SREHeader",
    "TokenStatus", "frame", "read", "response_topic",
]

# Every message of the token protocol goes with MQTT QoS 1.
QOS = 1
# Seconds a holder may go without a grant or renewal before another client
# may take its token over.
TOKEN_TIMEOUT = 10.0

REQUEST_TOPIC = "system/tokard/request"
# Acquires here join the ECU's line (or are granted at once); releases leave it.
WAIT_TOPIC = "system/tokard/wait"
MAX_WAITERS = 64

STATE_TOPIC = "system/tokard/state"  # retained
ONLINE = "online"
OFFLINE = "offline"
STATUS_PREFIX = "system/tokard/status/"  # retained, one per ECU
STATUS_FILTER = STATUS_PREFIX + "+"

# A frame is an 18-byte SREHeader, then the body. The header's length word:
# protocol type in bits 0-15, header length in bits 16-31, body length in 32-63.
HEADER_SIZE = 18
PROTOCOL_TYPE = 1


def response_topic(client: str) -> str:
    """Where tokard answers the acquires of `client`."""
    return f"app/{client}/pgn/response"


def frame(body: Message) -> bytes:
    """`body` behind a header stamped with the boot clock, as tokard stamps its own."""
    encoded = body.SerializeToString()
    header = SREHeader(
        length_word=PROTOCOL_TYPE | HEADER_SIZE << 16 | len(encoded) << 32,
        timestamp_ns=time.clock_gettime_ns(time.CLOCK_BOOTTIME),
    )
    return header.SerializeToString() + encoded


M = TypeVar("M", bound=Message)


def read(payload: bytes, body_type: type[M]) -> M | None:
    """The body of a frame, or None when the frame fails a header check or does not decode."""
    if len(payload) < HEADER_SIZE:
        return None
    header = SREHeader()
    try:
        header.ParseFromString(payload[:HEADER_SIZE])
    except DecodeError:
        return None
    word = header.length_word
    body_size = word >> 32
    if word & 0xFFFF == 0 or (word >> 16) & 0xFFFF != HEADER_SIZE:
        return None
    if HEADER_SIZE + body_size > len(payload):
        return None
    body = body_type()
    try:
        body.ParseFromString(payload[HEADER_SIZE:HEADER_SIZE + body_size])
    except DecodeError:
        return None
    return body
