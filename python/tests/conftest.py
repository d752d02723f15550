import os
import subprocess
from pathlib import Path

import pytest


def _tool(name):
    path = os.environ.get(name)
    if not path:
        pytest.skip(f"{name} is not set (the tests run through ctest)")
    return path


@pytest.fixture(scope="session")
def scan_set(tmp_path_factory):
    """A small simulated scan set: the scan file and its side files."""
    directory = tmp_path_factory.mktemp("set")
    subprocess.run([_tool("KVR_SIMULATE"), str(directory), "--seed", "7", "--lines", "40", "--camera-images", "3"],
                   check=True, stdout=subprocess.DEVNULL)
    return {"scan": directory / "scan.raw", "ticks": directory / "Serial.dat", "devices": directory / "Devices.dat",
            "camera": directory / "Camera.dat", "dir": directory}


@pytest.fixture(scope="session")
def kvrscan():
    return _tool("KVRSCAN")


@pytest.fixture(scope="session")
def reader_timer():
    return _tool("KVR_POINT_READER_TIMER")


@pytest.fixture(autouse=True)
def _log_beside_test(tmp_path, monkeypatch):
    # The library writes KVR_Decode.log into the current directory.
    monkeypatch.chdir(tmp_path)


def corpus_files():
    root = Path(os.environ.get("KVR_FUZZ_CORPUS", Path(__file__).resolve().parents[2] / "fuzz" / "corpus"))
    return sorted(p for p in root.rglob("*") if p.is_file())
