"""A private mosquitto on a free loopback port and the built tokard, the way tests/support does."""

import os
import socket
import subprocess
import time
from pathlib import Path

import pytest

import tokard

SOURCE = Path(os.environ["TOKARD_SOURCE_DIR"])


def wait_until(condition, limit=5.0):
    """Polls `condition` every 5 ms until it holds or `limit` seconds have passed."""
    deadline = time.monotonic() + limit
    while not condition():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.005)
    return True


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def port_open(port):
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", port)) == 0


def stop(process):
    """SIGTERM, then SIGKILL after five seconds, to this process only."""
    process.terminate()
    try:
        process.wait(5)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()


def start(tmp, words, **env):
    return subprocess.Popen(words, env=dict(os.environ, **env), stderr=subprocess.STDOUT,
                            stdout=(tmp / f"{Path(words[0]).name}.log").open("ab"))


def start_broker(tmp, config, port, port_in_config=False):
    words = ["mosquitto", "-c", str(config)]
    broker = start(tmp, words if port_in_config else words + ["-p", str(port)])
    if not (wait_until(lambda: broker.poll() is not None or port_open(port)) and port_open(port)):
        stop(broker)
        pytest.fail(f"mosquitto did not come up on port {port}")
    return broker


def start_tokard(tmp, port, config=""):
    (tmp / "tokard.conf").write_text(config)
    return start(tmp, [os.environ["TOKARD_PROGRAM"], "-L", "-l", "INFO", "-H", "127.0.0.1",
                        "-p", str(port)],
                 TOKARD_CONFIG=str(tmp / "tokard.conf"),
                 LAPI_RT_SIGNALS=str(SOURCE / "packaging/rt_signals.json"))


def tokctl(port, *words):
    subprocess.run([os.environ["TOKCTL_PROGRAM"], *words, "-H", "127.0.0.1", "-p", str(port)],
                   check=True, capture_output=True)


@pytest.fixture
def port(tmp_path):
    """A private broker's port."""
    port = free_port()
    broker = start_broker(tmp_path, SOURCE / "tests/support/mosquitto.conf", port)
    yield port
    stop(broker)


@pytest.fixture
def connect(port):
    """Connected clients on the private broker, closed after the test."""
    clients = []

    def make(name, **settings):
        clients.append(tokard.Client(name, "127.0.0.1", port, **settings).connect())
        return clients[-1]

    yield make
    for client in clients:
        client.close()


@pytest.fixture
def daemon(tmp_path, port, connect):
    """tokard serving the private broker, once it answers."""
    process = start_tokard(tmp_path, port)
    probe = connect("probe", answer_timeout=0.2)
    assert wait_until(lambda: probe.acquire("rt/PROBE") is tokard.Result.ACQUIRED, 15)
    yield process
    stop(process)
