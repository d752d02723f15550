import json
import subprocess

import pytest

import kvr_decode


def _info(kvrscan, path):
    run = subprocess.run([kvrscan, "info", str(path), "--json"], check=True, capture_output=True, text=True)
    return json.loads(run.stdout)


def test_write_e57_holds_every_point_of_the_scan(scan_set, kvrscan, tmp_path):
    scan = kvr_decode.open(scan_set["scan"], ticks=scan_set["ticks"])
    scan.write_e57(tmp_path / "one.e57", returns="last")
    info = _info(kvrscan, tmp_path / "one.e57")
    assert [s["name"] for s in info["scans"]] == ["scan.raw"]
    points = scan.read_points(returns="last")
    assert info["num_points"] == len(points)
    # The same file through the layer's dispatch, on two threads.
    scan.write(tmp_path / "two.e57", returns="last", threads=2)
    assert _info(kvrscan, tmp_path / "two.e57")["num_points"] == len(points)
    # One group a line; the shots before the first line make one more.
    assert info["scans"][0]["line_groups"] == len(set(points["Line"].tolist()))


def test_e57_file_takes_several_scans_and_images(scan_set, kvrscan, tmp_path):
    scan = kvr_decode.open(scan_set["scan"])
    with kvr_decode.E57File(tmp_path / "set.e57") as e57:
        e57.add_scan(scan)
        e57.add_image("grey", b"P5\n2 1\n255\nab")
        e57.add_scan(scan, returns="first")
        with pytest.raises(ValueError):
            e57.add_image("text", b"hello")
    info = _info(kvrscan, tmp_path / "set.e57")
    assert [s["num_points"] for s in info["scans"]] == [len(scan.read_points()), len(scan.read_points(returns="first"))]
    assert [(i["name"], i["type"], i["width"], i["height"]) for i in info["images"]] == [("grey", "png", 2, 1)]
    assert info["images"][0]["scan"] == info["scans"][0]["guid"]


def test_a_with_block_that_raises_leaves_no_file(scan_set, tmp_path):
    with pytest.raises(RuntimeError):
        with kvr_decode.E57File(tmp_path / "gone.e57") as e57:
            e57.add_scan(kvr_decode.open(scan_set["scan"]))
            raise RuntimeError("stop")
    assert list(tmp_path.iterdir()) == []
