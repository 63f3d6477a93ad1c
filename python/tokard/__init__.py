"""Tokens of ECUs from tokard, the token arbiter on the controller's internal MQTT broker.

    import tokard
    with tokard.Client("diag-app") as client:
        with client.token("rt/ECU1", wait=30) as held:
            ...  # talk to ECU1; held.lost is set if the token is lost meanwhile
"""

from tokard._version import __version__
from tokard.client import Client, LostHandler, Token
from tokard.errors import (BrokerUnreachable, Busy, Error, InvalidBroker, InvalidClientName,
                           InvalidTiming, NoAnswer, NoEcu, NotConnected, Result, SendFailed,
                           Unavailable)
from tokard.status import EcuStatus, Status

__all__ = [
    "BrokerUnreachable", "Busy", "Client", "EcuStatus", "Error", "InvalidBroker",
    "InvalidClientName", "InvalidTiming", "LostHandler", "NoAnswer", "NoEcu", "NotConnected",
    "Result", "SendFailed", "Status", "Token", "Unavailable", "__version__",
]
