import random
import shutil

import numpy as np
import pytest

import kvr_decode
from conftest import corpus_files


def test_header_and_map_statistics(scan_set):
    scan = kvr_decode.open(scan_set["scan"])
    h = scan.header
    assert h["prf"] == 200 and h["signature"] == b"#KVRSCAN"
    assert (scan.file_size - h["dataOffset"]) // 65536 == scan.block_count
    assert h["prfTables"][200].shape[1] == 2
    assert scan.calibration["rangeOffset"] == pytest.approx(h["calibrationValues"].get("rangeOffset", -13.2))
    stats = scan.map_statistics
    assert scan.line_count == stats["numberOfScanLines"] >= 39 and not stats["loaded"]
    assert stats["validSampleCount"] > 0 and stats["intensityAt95"] > 0
    assert scan.line_table[0, 0] == -1 and list(scan.line_table[1:, 0]) == list(range(scan.line_count))


def test_side_files_read_through_the_library(scan_set):
    ticks = kvr_decode.read_ticks(scan_set["ticks"])
    # The simulator's summary of this set: 5 pulses, 2 inclinometer readings, 1 of type 2, 1 of type 7.
    assert len(ticks.pulses) == 5 and len(ticks.sentences) == len(ticks.sentence_ticks) > 0
    times = ticks.time_of_week(np.array([[ticks.pulses[0], ticks.pulses[-1]], [2**41, 0]], dtype=np.uint64))
    assert times.shape == (2, 2) and times[1, 0] == -1.0 and times[0, 0] < times[0, 1]
    later = kvr_decode.read_ticks(scan_set["ticks"], time_offset=5).time_of_week([ticks.pulses[-1]])
    assert later[0] == times[0, 1] + 5

    devices = kvr_decode.read_devices(scan_set["devices"])
    assert [len(devices[t]) for t in ("type1", "type2", "type7")] == [2, 1, 1]
    assert devices["type1"].dtype.names == ("time", "tiltX", "tiltY", "notFilled", "raw")
    assert not devices["type1"].flags.owndata and np.all(np.diff(devices["type1"]["time"].astype(np.int64)) > 0)

    camera = kvr_decode.read_camera(scan_set["camera"])
    assert len(camera["records"]) == 3 and not camera["cut_short"]
    image = camera["records"][0]["image"]
    assert image.dtype == np.uint8 and len(image) > 0 and not image.flags.owndata


def _raises_error_naming(path, call, words):
    with pytest.raises(kvr_decode.Error) as caught:
        call(path)
    assert isinstance(caught.value, ValueError)
    assert str(path) in str(caught.value) and caught.value.path == str(path)
    assert words in caught.value.reason
    assert isinstance(caught.value.log, str)
    return caught.value


READERS = [kvr_decode.open, kvr_decode.read_ticks, kvr_decode.read_devices, kvr_decode.read_camera]


@pytest.mark.parametrize("reader", READERS)
def test_missing_files_raise_file_not_found(reader, tmp_path):
    with pytest.raises(FileNotFoundError) as caught:
        reader(tmp_path / "absent.dat")
    assert caught.value.filename == str(tmp_path / "absent.dat")


@pytest.mark.parametrize("reader, wrong, words", [
    (kvr_decode.open, "devices", "not a raw scan file"),
    (kvr_decode.read_ticks, "camera", "not a tick file"),
    (kvr_decode.read_devices, "scan", "signature"),
    (kvr_decode.read_camera, "devices", "not a camera file"),
])
def test_foreign_files_raise_error(scan_set, reader, wrong, words):
    _raises_error_naming(scan_set[wrong], reader, words)


def test_damaged_scans_and_maps_raise_error_with_the_log(scan_set, tmp_path):
    data = scan_set["scan"].read_bytes()
    short = tmp_path / "short.scan"
    short.write_bytes(data[:5])
    _raises_error_naming(short, kvr_decode.open, "too short")
    prf = tmp_path / "prf.scan"
    body = bytearray(data)
    at = body.find((200).to_bytes(4, "little"), 200, 230)
    body[at:at + 4] = (123).to_bytes(4, "little")
    prf.write_bytes(body)
    error = _raises_error_naming(prf, kvr_decode.open, "undefined PRF 123")
    assert "ReadFileHeader" in error.log
    with pytest.raises(kvr_decode.Error, match="Devices.dat"):
        kvr_decode.open(scan_set["scan"], map=scan_set["devices"]).line_count


def _read_everything(path):
    """Every reader on one input: each either works or raises kvr_decode.Error."""
    for reader in (kvr_decode.read_ticks, kvr_decode.read_devices, kvr_decode.read_camera):
        try:
            reader(path)
        except kvr_decode.Error:
            pass
    try:
        scan = kvr_decode.open(path)
        scan.read_points()
        for _ in scan.blocks():
            pass
        scan.header, scan.map_statistics
    except kvr_decode.Error:
        pass


def test_damaged_inputs_never_crash_the_interpreter(scan_set, tmp_path):
    inputs = corpus_files()
    assert inputs, "the fuzz corpus is missing"
    rng = random.Random(11)
    for name in ("scan", "ticks", "devices", "camera"):
        data = scan_set[name].read_bytes()
        for size in sorted({0, 1, 8, 64, 300, len(data) // 2, len(data) - 1} & set(range(len(data)))):
            cut = tmp_path / f"{name}.cut{size}"
            cut.write_bytes(data[:size])
            inputs.append(cut)
        for k in range(4):
            damaged = bytearray(data[: 3 * 65536 + 4096])
            for _ in range(40):
                damaged[rng.randrange(len(damaged))] = rng.randrange(256)
            path = tmp_path / f"{name}.flip{k}"
            path.write_bytes(damaged)
            inputs.append(path)
    for path in inputs:
        local = tmp_path / "input"
        shutil.copyfile(path, local)
        _read_everything(local)
