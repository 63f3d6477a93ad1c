"""The Python client against the built tokard on a private mosquitto."""

import shutil
import subprocess
import tempfile
import threading
import time
from pathlib import Path

import pytest
from conftest import SOURCE, free_port, start_broker, start_tokard, stop, tokctl, wait_until

import tokard
from tokard import Result


@pytest.mark.parametrize("topic, other_holds, expected", [
    ("rt/ECU1", False, Result.ACQUIRED),
    ("rt/ECU1", True, Result.BUSY),
    ("can/ECU1", False, Result.NO_ECU),
])
def test_an_acquire_ends_in_a_result_and_a_token_that_cannot_be_had_in_its_exception(
        daemon, connect, topic, other_holds, expected):
    if other_holds:
        assert connect("other").acquire(topic) is Result.ACQUIRED
    client = connect("diag", answer_timeout=0.5)
    assert client.acquire(topic) is expected
    if expected is not Result.ACQUIRED:
        with pytest.raises(tokard.Unavailable) as raised, client.token(topic):
            pass
        assert raised.value.result is expected and raised.value.topic == topic


@pytest.mark.parametrize("settings, error", [
    ({"name": "a+b"}, tokard.InvalidClientName),
    ({"name": ""}, tokard.InvalidClientName),
    ({"host": ""}, tokard.InvalidBroker),
    ({"port": 0}, tokard.InvalidBroker),
    ({"refresh_period": 10}, tokard.InvalidTiming),
    ({"refresh_period": 0}, tokard.InvalidTiming),
    ({"answer_timeout": 0}, tokard.InvalidTiming),
])
def test_settings_that_cannot_work_are_value_errors(settings, error):
    with pytest.raises(error):
        tokard.Client(**{"name": "diag", **settings})


def test_a_missing_broker_and_an_unconnected_client_raise():
    client = tokard.Client("diag", "127.0.0.1", free_port())
    with pytest.raises(tokard.NotConnected):
        client.acquire("rt/ECU1")
    with pytest.raises(tokard.BrokerUnreachable):
        client.connect(timeout=0.3)


def test_a_token_is_renewed_while_held_and_released_on_every_way_out(daemon, connect, tmp_path):
    client, other = connect("diag", refresh_period=0.1), connect("other")
    with pytest.raises(RuntimeError), client.token("rt/ECU1") as held:
        assert wait_until(lambda: client.status("ECU1").holder == "diag")
        log = tmp_path / "tokard.log"
        assert wait_until(lambda: log.read_text().count("client diag token refreshed") >= 3)
        raise RuntimeError("the script fails while holding the token")
    assert wait_until(lambda: client.status("ECU1").holder is None)
    assert not held.lost.is_set() and other.acquire("rt/ECU1") is Result.ACQUIRED


def test_a_client_waits_in_line_and_is_handed_the_token(daemon, connect):
    holder, waiter = connect("holder"), connect("waiter")
    handed = []
    thread = threading.Thread(target=lambda: handed.append(waiter.token("rt/ECU1", wait=20)
                                                           .__enter__()))
    with holder.token("rt/ECU1"):
        with pytest.raises(tokard.Busy), waiter.token("rt/ECU1", wait=0.5):
            pass
        assert wait_until(lambda: holder.status("ECU1").waiters == ())
        thread.start()
        assert wait_until(lambda: holder.status("ECU1").waiters == ("waiter",))
    thread.join(10)
    assert handed and waiter.holds("rt/ECU1")
    assert wait_until(lambda: holder.status("ECU1").holder == "waiter")
    assert holder.status("ECU1").waiters == ()


@pytest.mark.parametrize("meanwhile, taker", [
    (["signal", "rt/ECU1", "--group", "EngineState", "Speed=051a00ff:0", "Torque=00000000:0"],
     None),  # a valid signal group
    (["release", "rt/ECU1", "--client", "diag"], "other"),  # forged, and another client takes it
])
def test_a_token_lost_while_held_is_reported_on_the_token_and_to_every_handler(
        daemon, connect, port, meanwhile, taker):
    lost = []

    def complain(topic, reason):
        lost.append((topic, reason))
        raise RuntimeError("a script's handler fails")

    client = connect("diag", on_lost=lambda *args: lost.append(args))
    with client.token("rt/ECU1", on_lost=complain) as held:
        tokctl(port, *meanwhile)
        if taker:
            other = connect(taker)
            assert wait_until(lambda: other.acquire("rt/ECU1") is Result.ACQUIRED)
        assert held.lost.wait(5) and held.reason is Result.BUSY
    assert wait_until(lambda: lost == [("rt/ECU1", Result.BUSY)] * 2), "the failing handler first"


def test_tokard_going_offline_is_seen_and_its_tokens_lapse(daemon, connect):
    client = connect("diag", answer_timeout=5, refresh_period=0.5)
    changes = client.watch(timeout=5)
    assert client.tokard_state() == "online" and next(changes) == "online"
    with client.token("rt/ECU1") as held:
        stop(daemon)
        assert "offline" in changes and client.status().tokard == "offline"
        asked = time.monotonic()
        assert client.acquire("rt/ECU2") is Result.NO_ANSWER
        assert time.monotonic() - asked < 2, "an offline tokard gets a moment, not the time-out"
        assert held.lost.wait(15) and held.reason is Result.NO_ANSWER


def test_the_shipped_broker_access_control_admits_accounts_to_their_own_answers_only():
    tmp, shipped, port = Path(tempfile.mkdtemp()), SOURCE / "packaging/mosquitto", free_port()
    tmp.chmod(0o755)  # mosquitto started as root reads as user mosquitto
    for create, account in (["-c"], "tokard"), ([], "app-a"), ([], "app-b"):
        subprocess.run(["mosquitto_passwd", *create, "-b", str(tmp / "tokard.passwd"), account,
                        f"{account}-secret"], check=True)
    (tmp / "tokard.passwd").chmod(0o644)
    shutil.copy(shipped / "tokard.acl", tmp)
    config = (shipped / "tokard-acl.conf").read_text().replace("listener 1883", f"listener {port}")
    for name in ("passwd", "acl"):
        config = config.replace(f"/etc/mosquitto/tokard.{name}", str(tmp / f"tokard.{name}"))
    (tmp / "mosquitto.conf").write_text(config)
    broker = start_broker(tmp, tmp / "mosquitto.conf", port, port_in_config=True)
    daemon = start_tokard(tmp, port, "username = tokard\npassword = tokard-secret\n")
    logins = [("app-a", "app-a-secret", Result.ACQUIRED),
              ("app-b", "app-b-secret", Result.NO_ANSWER),  # app-a's answers are not app-b's
              ("app-a", "guess", tokard.BrokerUnreachable), (None, None, tokard.BrokerUnreachable)]
    try:
        for user, secret, expected in logins:
            client = tokard.Client("app-a", "127.0.0.1", port, user, secret, answer_timeout=0.5)
            if expected is tokard.BrokerUnreachable:
                with pytest.raises(expected, match="refused"):
                    client.connect()
                continue
            with client:
                assert wait_until(lambda: client.tokard_state() == "online")
                assert wait_until(lambda: client.acquire("rt/ECU1") is expected, 10), user
    finally:
        stop(daemon)
        stop(broker)
        shutil.rmtree(tmp)
