import os
import subprocess
import threading
import time

import numpy as np
import pytest

import kvr_decode


@pytest.fixture(scope="module")
def scan(scan_set):
    return kvr_decode.open(scan_set["scan"], ticks=scan_set["ticks"])


@pytest.fixture(scope="module")
def points(scan):
    return scan.read_points()


def _body(data, fmt):
    """A point file without its header (PLY) or comment lines (CSV)."""
    if fmt == "ply":
        return data[data.index(b"end_header\n") + len(b"end_header\n"):]
    return b"".join(line for line in data.splitlines(keepends=True) if not line.startswith(b"#"))


@pytest.mark.parametrize("name, extra, compare", [
    ("points.las", [], "whole"),
    ("points.LAS", ["--palette", "viridis"], "whole"),
    ("points.ply", [], "body"),
    ("points.csv", ["--returns", "last"], "body"),
])
def test_files_equal_kvrscan_exports(scan_set, scan, kvrscan, tmp_path, name, extra, compare):
    tmp_path = tmp_path / "out"  # the library's log goes into the current folder
    tmp_path.mkdir()
    theirs = tmp_path / ("kvrscan-" + name)
    subprocess.run([kvrscan, "export", str(scan_set["scan"]), "--ticks", str(scan_set["ticks"]), "-o", str(theirs),
                    *extra], check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    options = dict(zip(("palette" if extra[0] == "--palette" else "returns",), extra[1:])) if extra else {}
    ours = tmp_path / name
    report = scan.write(ours, **options)
    data, expected = ours.read_bytes(), theirs.read_bytes()
    fmt = name.rsplit(".", 1)[1].lower()
    if compare == "whole":
        assert data == expected
    else:
        assert _body(data, fmt) == _body(expected, fmt)
    assert report["format"] == fmt and report["path"] == str(ours)
    assert report["bytes"] == len(data) and report["damage"] == ""
    assert sorted(os.listdir(tmp_path)) == sorted([name, theirs.name])


def test_threads_and_block_ranges_make_the_same_file(scan, points, tmp_path):
    one = scan.write(tmp_path / "one.ply", threads=1)
    three = scan.write(tmp_path / "three.ply", threads=3)
    assert (tmp_path / "one.ply").read_bytes() == (tmp_path / "three.ply").read_bytes()
    assert one["points"] == three["points"] == len(points)
    assert one["blocks"] == three["blocks"] == scan.block_count
    # One thread tallies the box and the time span of the points; several do not.
    assert one["bounds"] == (tuple(float(points[a].min()) for a in "XYZ"), tuple(float(points[a].max()) for a in "XYZ"))
    assert one["time_span"] == (points["GpsTime"].min(), points["GpsTime"].max())
    assert three["bounds"] is None and three["time_span"] is None
    cut = scan.block_count // 2
    parts = [scan.write(tmp_path / f"part{i}.ply", blocks=b) for i, b in enumerate([(0, cut), (cut, 10**6)])]
    assert [p["blocks"] for p in parts] == [cut, scan.block_count - cut]
    assert sum(p["points"] for p in parts) == len(points)
    body = b"".join(_body((tmp_path / f"part{i}.ply").read_bytes(), "ply") for i in range(2))
    assert body == _body((tmp_path / "one.ply").read_bytes(), "ply")
    assert scan.write(tmp_path / "none.ply", blocks=(cut, cut))["points"] == 0


def test_write_las_is_write_in_las(scan, tmp_path):
    scan.write_las(tmp_path / "a.las", returns="first", threads=2)
    scan.write(tmp_path / "b.data", format="las", returns="first")
    data = (tmp_path / "a.las").read_bytes()
    assert data[:4] == b"LASF" and data == (tmp_path / "b.data").read_bytes()


@pytest.mark.parametrize("name, expected", [
    ("las", "las"), ("PLY", "ply"), ("csv", "csv"), ("a.b.LaS", "las"), ("points.ply", "ply"), ("E57", "e57"),
    ("xyz", None), ("points.txt", None), ("points", None),
])
def test_point_format_by_name_or_file_name(name, expected):
    assert kvr_decode.point_format(name) == expected


def test_refusals_name_what_is_wrong(scan, tmp_path):
    tmp_path = tmp_path / "out"
    tmp_path.mkdir()
    cases = [
        (dict(path=tmp_path / "p.xyz"), ValueError, "extension '.xyz'"),
        (dict(path=tmp_path / "p.ply", format="xyz"), ValueError, "no point format named 'xyz'"),
        (dict(path=tmp_path / "p.ply", palette="rainbow"), ValueError, "no palette named 'rainbow' \\(grey, "),
        (dict(path=tmp_path / "p.ply", returns="second"), ValueError, "returns"),
        (dict(path=tmp_path / "p.ply", blocks=(-1, 3)), ValueError, "blocks"),
        (dict(path=tmp_path / "p.ply", blocks=(4, 3)), ValueError, "blocks"),
        (dict(path=tmp_path / "p.ply", threads=0), ValueError, "threads"),
        (dict(path=tmp_path / "p.ply", threads=257), ValueError, "threads"),
    ]
    for arguments, error, message in cases:
        with pytest.raises(error, match=message):
            scan.write(**arguments)
    assert os.listdir(tmp_path) == []


@pytest.mark.parametrize("where", ["missing folder", "folder in the way"])
def test_an_unwritable_output_raises_and_leaves_nothing(scan, tmp_path, where):
    tmp_path = tmp_path / "out"
    tmp_path.mkdir()
    target = tmp_path / "no" / "p.las" if where == "missing folder" else tmp_path / "p.las"
    if where == "folder in the way":
        target.mkdir()
    with pytest.raises(kvr_decode.Error) as raised:
        scan.write(target)
    assert str(target) in str(raised.value) and raised.value.path == str(target)
    assert os.listdir(tmp_path) == ([] if where == "missing folder" else ["p.las"])


def test_the_gil_is_free_while_a_file_is_written(tmp_path):
    # A scan whose export takes long enough to tell scheduling noise from a held GIL.
    if not os.environ.get("KVR_SIMULATE"):
        pytest.skip("KVR_SIMULATE is not set (the tests run through ctest)")
    subprocess.run([os.environ["KVR_SIMULATE"], str(tmp_path / "set"), "--lines", "160", "--camera-images", "0"],
                   check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    scan = kvr_decode.open(tmp_path / "set" / "scan.raw")
    scan.line_count  # the map, built before the clock starts
    gaps, done = [], threading.Event()

    def write():
        scan.write(tmp_path / "p.las", threads=1)
        done.set()

    writer = threading.Thread(target=write)
    start = last = time.monotonic()
    writer.start()
    while not done.is_set():
        now = time.monotonic()
        gaps.append(now - last)
        last = now
    writer.join()
    # Held for the export, the GIL would stop this loop for about all of it.
    assert max(gaps) < (time.monotonic() - start) / 2


def test_a_saved_map_loads_and_gives_the_same_points(scan_set, scan, points, tmp_path):
    tmp_path = tmp_path / "out"
    tmp_path.mkdir()
    target = tmp_path / "scan.map"
    histogram = scan.histogram
    scan.save_map(target)
    assert os.listdir(tmp_path) == ["scan.map"]
    np.testing.assert_array_equal(scan.histogram, histogram)  # saving keeps the bins of the scan
    loaded = kvr_decode.open(scan_set["scan"], ticks=scan_set["ticks"], map=target)
    assert loaded.map_statistics["loaded"]
    np.testing.assert_array_equal(loaded.read_points(), points)
    assert len(loaded.histogram) == 0  # a map file carries no bins
    with pytest.raises(kvr_decode.Error, match="cannot create"):
        scan.save_map(tmp_path / "no" / "scan.map")


def test_the_histogram_is_the_maps(scan):
    statistics = scan.map_statistics
    histogram = scan.histogram
    assert len(histogram) == statistics["numberOfBins"] > 1
    assert histogram.dtype == np.float64 and np.all(histogram == np.floor(histogram))
    # Every in-range return is one sample, as the map counts them by return position.
    assert histogram.sum() == statistics["returnCounts"].sum()
    # The map's 95% point is the upper edge of the bin where the running share reaches 0.95.
    share = np.cumsum(histogram) / statistics["validSampleCount"]
    bin95 = int(np.argmax(share >= 0.95))
    assert share[bin95 - 1] < 0.95 <= share[bin95]
    assert statistics["intensityAt95"] == (bin95 + 1) * statistics["binWidth"]
