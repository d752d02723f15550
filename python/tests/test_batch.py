import csv
import glob
import json
import os
import shutil
import subprocess
import sys
import threading
import time

import cloudpickle
import numpy as np
import pytest
from distributed import Client, LocalCluster
from distributed.diagnostics.plugin import WorkerPlugin

import kvr_decode
from kvr_decode import batch
from kvr_decode.batch.__main__ import main

# The workers unpickle this module's plugin without importing the test folder.
cloudpickle.register_pickle_by_value(sys.modules[__name__])

SCANS = 8


def _simulate(directory, seed, lines=14):
    subprocess.run([os.environ["KVR_SIMULATE"], str(directory), "--seed", str(seed), "--lines", str(lines),
                    "--camera-images", "0"], check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


@pytest.fixture(scope="module")
def campaign(tmp_path_factory):
    """Eight small scan sets, each in its own folder as the scanner writes them."""
    if not os.environ.get("KVR_SIMULATE"):
        pytest.skip("KVR_SIMULATE is not set (the tests run through ctest)")
    root = tmp_path_factory.mktemp("campaign")
    for i in range(SCANS):
        _simulate(root / f"pos{i + 1:02d}", seed=100 + i)
    return root


@pytest.fixture(scope="module")
def cluster():
    with LocalCluster(n_workers=2, threads_per_worker=1, processes=True, dashboard_address=":0") as local:
        yield local


def _expected(scan_path, tmp_path, fmt):
    """The scan converted in this process, the way a user would without the batch."""
    folder = os.path.dirname(scan_path)
    scan = kvr_decode.open(scan_path, ticks=os.path.join(folder, "Serial.dat"))
    if fmt == "npy":
        return scan.read_points()
    out = tmp_path / f"expected.{fmt}"
    scan.write(out)
    return out.read_bytes()


def _run(jobs, outdir, cluster, **options):
    return batch.run(jobs, batch.BatchOptions(str(outdir), scheduler=cluster.scheduler_address, **options),
                     progress=None)


def _ply_body(data):
    return data[data.index(b"end_header\n") + len(b"end_header\n"):]


def _leftovers(outdir):
    return glob.glob(os.path.join(outdir, "**", "*.tmp-*"), recursive=True) + \
        glob.glob(os.path.join(outdir, "**", ".*batch-map"), recursive=True)


@pytest.mark.parametrize("fmt", ["las", "ply", "npy"])
def test_outputs_equal_a_single_process_conversion(campaign, cluster, tmp_path, fmt):
    jobs = batch.find_scans([str(campaign)])
    report = _run(jobs, tmp_path / "out", cluster, format=fmt)
    assert report.exit_status == 0
    assert [r.name for r in report.rows] == [f"pos{i:02d}/scan" for i in range(1, SCANS + 1)]
    for row in report.rows:
        out = tmp_path / "out" / f"{row.name}.{fmt}"
        assert [o["path"] for o in row.outputs] == [str(out)]
        assert row.outputs[0]["bytes"] == out.stat().st_size
        expected = _expected(row.scan, tmp_path, fmt)
        if fmt == "npy":
            points = np.load(out)
            assert len(points) == row.points == len(expected) > 0
            for name in expected.dtype.names:
                np.testing.assert_array_equal(points[name], expected[name], err_msg=name)
            low = tuple(float(expected[a].min()) for a in "XYZ")
            high = tuple(float(expected[a].max()) for a in "XYZ")
            assert row.bounds == (low, high)
            assert row.time_span == (expected["GpsTime"].min(), expected["GpsTime"].max())
            assert row.time_span[0] > 0  # times of week from the scan set's Serial.dat
        else:
            assert out.read_bytes() == expected
    assert _leftovers(tmp_path / "out") == []
    with open(tmp_path / "out" / "summary.json") as f:
        summary = json.load(f)
    assert summary["scans"] == SCANS and summary["failed"] == 0
    assert summary["points"] == sum(r.points for r in report.rows)


def test_split_blocks_give_the_points_of_whole_scans(campaign, cluster, tmp_path):
    jobs = batch.find_scans([str(campaign / "pos01"), str(campaign / "pos02")])
    blocks = kvr_decode.open(jobs[0].path).block_count
    assert blocks > 3
    step = 2
    whole = _run(jobs, tmp_path / "whole", cluster, format="ply")
    split = _run(jobs, tmp_path / "split", cluster, format="ply", split_blocks=step)
    npy = _run(jobs[:1], tmp_path / "npy", cluster, format="npy", split_blocks=step)
    assert whole.exit_status == split.exit_status == npy.exit_status == 0
    for whole_row, split_row in zip(whole.rows, split.rows):
        assert split_row.points == whole_row.points
        assert split_row.bounds == whole_row.bounds and split_row.time_span == whole_row.time_span
        with open(tmp_path / "split" / f"{split_row.name}.manifest.json") as f:
            manifest = json.load(f)
        parts = manifest["parts"]
        count = manifest["block_count"]
        assert [p["blocks"] for p in parts] == [[b, min(b + step, count)] for b in range(0, count, step)]
        assert [p["file"] for p in parts] == [f"scan.part-{i:04d}.ply" for i in range(len(parts))]
        folder = (tmp_path / "split" / split_row.name).parent
        body = b"".join(_ply_body((folder / p["file"]).read_bytes()) for p in parts)
        assert body == _ply_body((tmp_path / "whole" / f"{whole_row.name}.ply").read_bytes())
        assert sum(p["points"] for p in parts) == manifest["points"] == whole_row.points
    points = np.concatenate([np.load(o["path"]) for o in npy.rows[0].outputs if o["path"].endswith(".npy")])
    np.testing.assert_array_equal(points, _expected(jobs[0].path, tmp_path, "npy"))
    assert _leftovers(tmp_path / "split") == [] and _leftovers(tmp_path / "npy") == []


def test_a_scan_no_larger_than_the_split_is_one_file(campaign, cluster, tmp_path):
    jobs = batch.find_scans([str(campaign / "pos03")])
    blocks = kvr_decode.open(jobs[0].path).block_count
    report = _run(jobs, tmp_path, cluster, format="las", split_blocks=blocks)
    assert [o["path"] for o in report.rows[0].outputs] == [str(tmp_path / "scan.las")]
    assert not (tmp_path / "scan.manifest.json").exists()


def _damage(campaign, tmp_path):
    """A copy of the campaign in which one scan's magic is overwritten and another has a bad block."""
    root = tmp_path / "damaged"
    shutil.copytree(campaign, root)
    with open(root / "pos03" / "scan.raw", "r+b") as f:
        f.write(b"NOTASCAN")
    scan = kvr_decode.open(root / "pos06" / "scan.raw")
    with open(root / "pos06" / "scan.raw", "r+b") as f:
        f.seek(scan.header["dataOffset"] + 65536)
        f.write(b"\xff" * 16)
    return root


def test_a_damaged_scan_fails_alone(campaign, tmp_path):
    root = _damage(campaign, tmp_path)
    out = tmp_path / "out"
    done = subprocess.run([sys.executable, "-m", "kvr_decode.batch", str(root), "-o", str(out), "--workers", "2",
                           "--format", "las"], capture_output=True, text=True, timeout=300)
    assert done.returncode == 1, done.stderr
    assert f"failed: {root / 'pos03' / 'scan.raw'}: not a raw scan file" in done.stderr
    assert f"damaged: {root / 'pos06' / 'scan.raw'}: 1 block with a bad signature" in done.stderr
    assert "6 of 8 scans converted" in done.stderr
    assert "8/8 tasks" in done.stderr  # the progress line
    with open(out / "summary.csv", newline="") as f:
        rows = {r["name"]: r for r in csv.DictReader(f)}
    assert {name: r["status"] for name, r in rows.items()} == {
        f"pos{i:02d}/scan": ("failed" if i == 3 else "damaged" if i == 6 else "ok") for i in range(1, SCANS + 1)}
    assert rows["pos03/scan"]["outputs"] == "" and rows["pos03/scan"]["points"] == "0"
    assert "pos03" in rows["pos03/scan"]["error"]
    assert rows["pos06/scan"]["error"] != "" and int(rows["pos06/scan"]["points"]) > 0
    assert not (out / "pos03" / "scan.las").exists()
    for i in (1, 2, 4, 5, 6, 7, 8):
        assert (out / f"pos{i:02d}" / "scan.las").stat().st_size > 375
        assert rows[f"pos{i:02d}/scan"]["outputs"] == str(out / f"pos{i:02d}" / "scan.las")
    assert _leftovers(out) == []


def test_write_failures_name_the_file_and_leave_nothing(campaign, cluster, tmp_path, capsys):
    # A target that is a folder: that scan fails, the others are written.
    jobs = batch.find_scans([str(campaign / "pos01"), str(campaign / "pos02")])
    out = tmp_path / "out"
    (out / "pos02" / "scan.las").mkdir(parents=True)
    report = _run(jobs, out, cluster, format="las")
    assert report.exit_status == 1
    assert [r.status for r in report.rows] == ["ok", "failed"]
    assert str(out / "pos02" / "scan.las") in report.rows[1].error
    assert (out / "pos01" / "scan.las").is_file() and _leftovers(out) == []
    # A part that cannot be written: the scan fails whole, none of its parts are left.
    split = tmp_path / "split"
    (split / "pos02" / "scan.part-0001.ply").mkdir(parents=True)
    report = _run(jobs, split, cluster, format="ply", split_blocks=2)
    assert [r.status for r in report.rows] == ["ok", "failed"]
    assert report.rows[1].error.startswith("part 1 (blocks 2..3): ")
    assert str(split / "pos02" / "scan.part-0001.ply") in report.rows[1].error
    assert sorted(os.listdir(split / "pos02")) == ["scan.part-0001.ply"]
    assert (split / "pos01" / "scan.manifest.json").is_file() and _leftovers(split) == []
    # An output folder that cannot be made: exit 1, a message, no files.
    blocker = tmp_path / "file"
    blocker.write_text("")
    assert main([str(campaign / "pos01"), "-o", str(blocker / "out"), "--workers", "1"]) == 1
    assert str(blocker / "out") in capsys.readouterr().err
    assert blocker.read_text() == ""


def test_command_line_refusals(campaign, tmp_path, capsys):
    cases = [
        (["--workers", "0"], "--workers"),
        (["--split-blocks", "0"], "--split-blocks"),
        (["--workers", "2", "--scheduler", "tcp://127.0.0.1:1"], "not allowed with"),
        (["--format", "xyz"], "invalid choice"),
    ]
    for extra, message in cases:
        with pytest.raises(SystemExit) as exited:
            main([str(campaign / "pos01"), "-o", str(tmp_path / "out"), *extra])
        assert (exited.value.code, message in capsys.readouterr().err) == (2, True), extra
    assert main([str(tmp_path / "nothing"), "-o", str(tmp_path / "out")]) == 1
    assert "nothing: no such file or folder" in capsys.readouterr().err
    assert not (tmp_path / "out").exists()


def test_scans_are_found_and_named_by_their_place(campaign, tmp_path):
    found = batch.find_scans([str(campaign)])
    assert [(j.name, os.path.basename(j.ticks)) for j in found[:2]] == [("pos01/scan", "Serial.dat"),
                                                                         ("pos02/scan", "Serial.dat")]
    files = batch.find_scans([str(campaign / "pos02" / "scan.raw"), str(campaign / "pos05")], ticks="none")
    assert [(j.name, j.ticks) for j in files] == [("pos02/scan", None), ("pos05/scan", None)]
    assert [j.name for j in batch.find_scans([str(campaign / "pos04" / "scan.raw")])] == ["scan"]
    # The same scan twice is one job.
    twice = batch.find_scans([str(campaign / "pos01"), str(campaign / "pos01" / "scan.raw")])
    assert [j.name for j in twice] == ["scan"]
    (tmp_path / "empty").mkdir()
    with pytest.raises(batch.InputError, match="no scan file"):
        batch.find_scans([str(tmp_path / "empty")])
    with pytest.raises(ValueError, match="ticks"):
        batch.find_scans([str(campaign)], ticks="always")


class _KillDuringWrite(WorkerPlugin):
    """Ends the first worker that starts a conversion, once an output is being written."""

    def __init__(self, marker, outdir):
        self.marker, self.outdir = marker, outdir

    def transition(self, key, start, finish, **kwargs):
        if finish != "executing" or not str(key).startswith("convert_scan"):
            return
        try:
            os.close(os.open(self.marker, os.O_CREAT | os.O_EXCL))
        except FileExistsError:
            return
        threading.Thread(target=self._kill, daemon=True).start()

    def _kill(self):
        deadline = time.monotonic() + 5.0
        while time.monotonic() < deadline and not _leftovers(self.outdir):
            time.sleep(0.0002)
        os._exit(1)


# Last in the file: it takes a worker of the shared cluster.
def test_a_worker_killed_during_the_run_loses_and_duplicates_nothing(campaign, cluster, tmp_path):
    jobs = batch.find_scans([str(campaign)])
    marker, out = tmp_path / "killed", tmp_path / "out"
    with Client(cluster) as client:
        client.register_worker_plugin(_KillDuringWrite(str(marker), str(out)), name="kill")
        before = set(client.run(os.getpid).values())
        report = _run(jobs, out, cluster, format="ply")
        client.wait_for_workers(2)
        after = set(client.run(os.getpid).values())
    assert marker.exists() and len(before - after) == 1  # one worker died and was replaced
    assert report.exit_status == 0, [r.error for r in report.rows]
    assert sorted(r.name for r in report.rows) == [f"pos{i:02d}/scan" for i in range(1, SCANS + 1)]
    assert sorted(glob.glob(str(out / "**" / "*.ply"), recursive=True)) == \
        [str(out / f"pos{i:02d}" / "scan.ply") for i in range(1, SCANS + 1)]
    for row in report.rows:
        assert (out / f"{row.name}.ply").read_bytes() == _expected(row.scan, tmp_path, "ply")
    assert _leftovers(out) == []
