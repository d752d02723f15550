import gc
import subprocess
import threading

import numpy as np
import pytest

import kvr_decode


@pytest.fixture(scope="module")
def scan(scan_set):
    return kvr_decode.open(scan_set["scan"])


@pytest.fixture(scope="module")
def points(scan):
    return scan.read_points(threads=1)


def test_points_equal_the_point_layers(scan_set, reader_timer, points, tmp_path):
    dump = tmp_path / "points.bin"
    subprocess.run([reader_timer, "dump", str(scan_set["scan"]), str(dump)], check=True, stdout=subprocess.DEVNULL)
    layer = np.fromfile(dump, dtype=[("X", "<f8"), ("Y", "<f8"), ("Z", "<f8"), ("GpsTime", "<f8"),
                                     ("Intensity", "<i8"), ("Line", "<i8"), ("ShotIndex", "<i8")])
    assert len(points) == len(layer) > 1000
    for name in layer.dtype.names:
        np.testing.assert_array_equal(points[name], layer[name], err_msg=name)


@pytest.mark.parametrize("ticks", [False, True])
def test_points_equal_the_csv_export(scan_set, kvrscan, tmp_path, ticks):
    out = tmp_path / "points.csv"
    extra = ["--ticks", str(scan_set["ticks"])] if ticks else []
    subprocess.run([kvrscan, "export", str(scan_set["scan"]), "-o", str(out), *extra], check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    with open(out) as text:
        csv = np.genfromtxt([line for line in text if not line.startswith("#")], delimiter=",", names=True)
    points = kvr_decode.open(scan_set["scan"], ticks=scan_set["ticks"] if ticks else None).read_points()
    assert len(points) == len(csv)
    for ours, theirs in [("X", "x"), ("Y", "y"), ("Z", "z")]:
        np.testing.assert_array_equal(points[ours].astype(np.float32), csv[theirs].astype(np.float32))
    for ours, theirs in [("Intensity", "intensity"), ("ReturnNumber", "return_number"),
                         ("NumberOfReturns", "number_of_returns"), ("Line", "line"), ("GpsTime", "time")]:
        np.testing.assert_array_equal(points[ours], csv[theirs], err_msg=ours)
    if ticks:
        assert points["GpsTime"].max() > 0


@pytest.mark.parametrize("batch_blocks", [1, 7, 100000])
def test_batches_and_block_ranges_put_together_are_the_whole_scan(scan, points, batch_blocks):
    batches = list(scan.points(batch_blocks=batch_blocks))
    assert all(len(b) > 0 for b in batches)
    np.testing.assert_array_equal(np.concatenate(batches), points)
    # Each array holds whole blocks, batch_blocks of them at most.
    spans = [np.unique(b["Block"]) for b in batches]
    assert all(len(s) <= batch_blocks for s in spans)
    assert all(a[-1] < b[0] for a, b in zip(spans, spans[1:]))
    if batch_blocks == 1:
        assert len(batches) == len(np.unique(points["Block"]))
    # The records' bytes, padding included, are the same on every read.
    assert b"".join(b.tobytes() for b in batches) == points.tobytes()
    cut = scan.block_count // 3
    parts = [scan.read_points(blocks=(0, cut)), scan.read_points(blocks=range(cut, scan.block_count + 5))]
    np.testing.assert_array_equal(np.concatenate(parts), points)
    assert len(scan.read_points(blocks=(cut, cut))) == 0


def test_selections_keep_the_matching_points(scan, points):
    first, last = scan.read_points(returns="first"), scan.read_points(returns="last")
    np.testing.assert_array_equal(first, points[points["ReturnNumber"] == 1])
    np.testing.assert_array_equal(last, points[points["ReturnNumber"] == points["NumberOfReturns"]])
    in_lines = (points["Line"] >= 3) & (points["Line"] < 5)
    np.testing.assert_array_equal(scan.read_points(lines=(3, 5)), points[in_lines])
    np.testing.assert_array_equal(scan.line(4), points[points["Line"] == 4])
    window = (points["Range"] > 2.0) & (points["Range"] <= 5.0)
    np.testing.assert_array_equal(scan.read_points(near=2.0, far=5.0), points[window])
    with pytest.raises(IndexError):
        scan.line(scan.line_count)
    with pytest.raises(IndexError):
        scan.line(-1)
    with pytest.raises(ValueError, match="returns"):
        scan.read_points(returns="second")
    with pytest.raises(ValueError):
        scan.points(batch_blocks=0)


def test_fields_carry_the_ecosystems_names_and_types(points):
    assert points.dtype.names == ("X", "Y", "Z", "GpsTime", "Range", "Pan", "ScanAngle", "NormalizedIntensity",
                                  "ShotIndex", "Line", "Block", "Intensity", "ReturnNumber", "NumberOfReturns", "Flags")
    assert points["Intensity"].dtype == np.uint16 and points["Intensity"].max() < 4096
    assert points["ReturnNumber"].min() == 1 and points["NumberOfReturns"].max() <= 4
    r = np.hypot(np.hypot(points["X"], points["Y"]), points["Z"])
    np.testing.assert_allclose(r, points["Range"], rtol=1e-12)


def test_arrays_own_cpp_memory_through_a_capsule(scan, points):
    capsule = type(points.base).__name__
    assert capsule == "PyCapsule" and not points.flags.owndata
    batch = next(scan.points())
    assert type(batch.base).__name__ == "PyCapsule" and not batch.flags.owndata
    columns = list(scan.point_columns(blocks=(1, 3)))
    assert [c["Block"] for c in columns] == [1, 2]
    block = points[points["Block"] == 2]
    # The views come straight from the layer's columns: every record field must match them.
    for name in set(points.dtype.names) - {"Block"}:
        assert type(columns[1][name].base).__name__ == "PyCapsule" and not columns[1][name].flags.owndata
        np.testing.assert_array_equal(columns[1][name], block[name], err_msg=name)
    shots = next(scan.blocks())["shots"]
    assert type(shots.base).__name__ == "PyCapsule" and not shots.flags.owndata


def test_two_threads_on_disjoint_blocks_give_the_whole_scan(scan, points):
    half = scan.block_count // 2
    results = {}

    def read(key, blocks):
        results[key] = scan.read_points(blocks=blocks)

    threads = [threading.Thread(target=read, args=(0, (0, half))),
               threading.Thread(target=read, args=(1, (half, scan.block_count)))]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    np.testing.assert_array_equal(np.concatenate([results[0], results[1]]), points)


@pytest.mark.parametrize("threads", [2, 3, 7])
def test_read_points_gives_the_same_array_on_any_number_of_threads(scan, points, threads):
    assert scan.read_points(threads=threads).tobytes() == points.tobytes()  # padding included
    # Parts fewer than threads; selections that leave some parts without points.
    # (A masked copy's padding is numpy's, so these compare the fields.)
    np.testing.assert_array_equal(scan.read_points(blocks=(2, 4), threads=threads),
                                  points[(points["Block"] >= 2) & (points["Block"] < 4)])
    in_lines = (points["Line"] >= 3) & (points["Line"] < 5)
    np.testing.assert_array_equal(scan.read_points(lines=(3, 5), threads=threads), points[in_lines])
    window = (points["Range"] > 2.0) & (points["Range"] <= 5.0) & (points["ReturnNumber"] == 1)
    np.testing.assert_array_equal(scan.read_points(returns="first", near=2.0, far=5.0, threads=threads),
                                  points[window])
    empty = scan.read_points(lines=(0, 0), threads=threads)
    assert len(empty) == 0 and empty.dtype == points.dtype
    for wrong in (0, 257):
        with pytest.raises(ValueError, match="threads"):
            scan.read_points(threads=wrong)


def _resident_kib():
    with open("/proc/self/status") as status:
        return next(int(line.split()[1]) for line in status if line.startswith("VmRSS:"))


def test_repeated_open_and_read_does_not_grow_memory(scan_set):
    def cycles(n):
        for _ in range(n):
            s = kvr_decode.open(scan_set["scan"])
            s.read_points()
            for _ in s.points(batch_blocks=3):
                pass
            s.header, s.map_statistics, list(s.blocks(0, 2)), list(s.point_columns(blocks=(0, 2)))
        gc.collect()
        return _resident_kib()

    settled = cycles(8)  # the allocator keeps what the first cycles freed
    assert cycles(25) - settled < 1024


def test_blocks_hold_the_shots_the_points_come_from(scan, points):
    blocks = list(scan.blocks())
    assert [b["block"] for b in blocks] == list(range(scan.block_count))
    shots = np.concatenate([b["shots"] for b in blocks])
    counts = np.concatenate([b["return_counts"] for b in blocks])
    assert shots.dtype.names == ("TimeInCounts", "ScanAngleCounts", "ShotWord", "ShotTow", "Status", "Returns")
    first = points[points["ReturnNumber"] == 1]
    np.testing.assert_array_equal(counts[first["ShotIndex"]], first["NumberOfReturns"])
    # Bits 20-37 of the shot word are its scan encoder count.
    np.testing.assert_array_equal((shots["ShotWord"] >> 20) & 0x3FFFF, shots["ScanAngleCounts"])
    later = list(scan.blocks(2, 4))
    assert [b["block"] for b in later] == [2, 3]
    np.testing.assert_array_equal(later[1]["shots"], blocks[3]["shots"])
    assert list(scan.blocks(scan.block_count - 1, scan.block_count + 9))[0]["block"] == scan.block_count - 1
