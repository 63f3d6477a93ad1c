"""The package's protocol facts are those of the C++ protocol library (support/protocol_facts)."""

import json
import os
import subprocess

from tokard import Result, protocol

Request = protocol.PgnRequestTokenRequest


def test_the_constants_and_the_frame_are_those_of_the_protocol_library():
    facts = json.loads(subprocess.run([os.environ["TOKARD_PROTOCOL_FACTS"]], check=True,
                                      capture_output=True, text=True).stdout)
    theirs = bytes.fromhex(facts.pop("acquire_rt_ECU1_by_demo"))
    assert facts == {
        "qos": protocol.QOS, "token_timeout_ms": protocol.TOKEN_TIMEOUT * 1000,
        "request_topic": protocol.REQUEST_TOPIC, "wait_topic": protocol.WAIT_TOPIC,
        "max_waiters": protocol.MAX_WAITERS,
        "response_topic_of_demo": protocol.response_topic("demo"),
        "state_topic": protocol.STATE_TOPIC, "online": protocol.ONLINE, "offline": protocol.OFFLINE,
        "status_prefix": protocol.STATUS_PREFIX, "header_size": protocol.HEADER_SIZE,
        "results": {str(r): getattr(protocol.PgnRequestTokenResponse, r.name)
                    for r in Result if r is not Result.NO_ANSWER}}
    request = Request(action=Request.ACQUIRE, request_topic="rt/ECU1", client_name="demo")
    ours = protocol.frame(request)
    assert ours[:10] + ours[18:] == theirs[:10] + theirs[18:], "all but the timestamp"
    assert protocol.read(theirs, Request) == request
