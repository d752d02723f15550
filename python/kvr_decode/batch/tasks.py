"""What a worker does: convert one scan, or one run of blocks of a scan.

Every function here runs inside a worker process and returns a small dict of
figures and file names, never points, so the client holds no point data. A
failure of the input or the output is returned as the result's "error" rather
than raised: Dask then does not run a task that cannot succeed again, and the
other scans go on. Every file appears under its name complete or not at all.
"""

import contextlib
import os
import tempfile
import time
from typing import IO, Any, Dict, Iterator, List, Optional, Tuple

import numpy as np

import kvr_decode

Result = Dict[str, Any]

# Formats this package writes itself; every other goes through Scan.write.
NPY = "npy"


def output_path(outdir: str, name: str, fmt: str, part: Optional[int] = None, parts: int = 0) -> str:
    """OUTDIR/NAME.FMT, or OUTDIR/NAME.part-0003.FMT for a part of a split scan."""
    if part is None:
        return os.path.join(outdir, f"{name}.{fmt}")
    width = max(4, len(str(parts - 1)))
    return os.path.join(outdir, f"{name}.part-{part:0{width}d}.{fmt}")


def manifest_path(outdir: str, name: str) -> str:
    return os.path.join(outdir, f"{name}.manifest.json")


def map_path(outdir: str, name: str) -> str:
    """The map a split scan's parts share; removed when the scan is done."""
    head, tail = os.path.split(name)
    return os.path.join(outdir, head, f".{tail}.batch-map")


@contextlib.contextmanager
def replacing(target: str, mode: str = "wb", **open_arguments: Any) -> Iterator[IO[Any]]:
    """A file to write that takes the target's name only once complete: it is
    written under a temporary name beside it (named as the point layer names
    its own), flushed to the disk and renamed; on any failure it is removed and
    a file that had the name keeps it."""
    folder, base = os.path.split(target)
    fd, temporary = tempfile.mkstemp(prefix=base + ".tmp-", dir=folder or ".")
    try:
        with os.fdopen(fd, mode, **open_arguments) as out:
            yield out
            out.flush()
            os.fsync(out.fileno())
        os.chmod(temporary, 0o644)  # mkstemp's file is its owner's alone
        os.replace(temporary, target)
    except BaseException:
        try:
            os.unlink(temporary)
        except OSError:
            pass
        raise


# A .npy header whose shape is written once the count is known: it is padded to
# the length the largest count takes, so the header keeps its size.
_NPY_MAGIC = b"\x93NUMPY\x01\x00"
_NPY_WIDEST_COUNT = 2**64 - 1


def _npy_header(dtype: np.dtype, count: int) -> bytes:
    def text(n: int) -> str:
        descr = np.lib.format.dtype_to_descr(dtype)
        return "{'descr': %r, 'fortran_order': False, 'shape': (%d,), }" % (descr, n)

    # Magic, two length bytes and the text with its newline fill a multiple of 64 bytes.
    room = len(text(_NPY_WIDEST_COUNT)) + 1
    room += -(len(_NPY_MAGIC) + 2 + room) % 64
    body = text(count).ljust(room - 1) + "\n"
    return _NPY_MAGIC + len(body).to_bytes(2, "little") + body.encode("latin1")


def write_npy(scan: kvr_decode.Scan, target: str, blocks: Optional[Tuple[int, int]] = None) -> Result:
    """The points as one .npy of kvr_decode.point_dtype records, streamed batch by batch."""
    start = time.monotonic()
    count = 0
    low = high = None
    first_time = last_time = None
    with replacing(target) as out:
        out.write(_npy_header(kvr_decode.point_dtype, 0))
        for batch in scan.points(blocks=blocks):
            out.write(batch.data)
            count += len(batch)
            box = [(batch[a].min(), batch[a].max()) for a in ("X", "Y", "Z")]
            batch_low, batch_high = [b[0] for b in box], [b[1] for b in box]
            low = batch_low if low is None else np.minimum(low, batch_low)
            high = batch_high if high is None else np.maximum(high, batch_high)
            times = batch["GpsTime"]
            first_time = times.min() if first_time is None else min(first_time, times.min())
            last_time = times.max() if last_time is None else max(last_time, times.max())
        out.seek(0)
        out.write(_npy_header(kvr_decode.point_dtype, count))
    return {
        "path": target,
        "points": count,
        "bytes": os.path.getsize(target),
        "damage": "",
        "seconds": time.monotonic() - start,
        "bounds": None if low is None else (tuple(map(float, low)), tuple(map(float, high))),
        "time_span": None if first_time is None else (float(first_time), float(last_time)),
    }


def _write(scan: kvr_decode.Scan, target: str, fmt: str, blocks: Optional[Tuple[int, int]]) -> Result:
    os.makedirs(os.path.dirname(target) or ".", exist_ok=True)
    if fmt == NPY:
        return write_npy(scan, target, blocks)
    # One thread a task: the cluster's workers are the parallelism.
    return scan.write(target, format=fmt, blocks=blocks, threads=1)


def _result(job: Dict[str, Any], **fields: Any) -> Result:
    result: Result = {
        "scan": job["path"], "name": job["name"], "part": None, "blocks": None, "outputs": [], "points": 0,
        "bounds": None, "time_span": None, "seconds": 0.0, "error": "", "damage": "",
    }
    result.update(fields)
    return result


def _failure(job: Dict[str, Any], error: BaseException, started: float, **fields: Any) -> Result:
    text = str(error) if isinstance(error, (kvr_decode.Error, OSError)) else f"{type(error).__name__}: {error}"
    return _result(job, error=text, seconds=time.monotonic() - started, **fields)


def _converted(job: Dict[str, Any], report: Result, started: float, **fields: Any) -> Result:
    outputs: List[Dict[str, Any]] = [{"path": report["path"], "bytes": report["bytes"]}]
    return _result(job, outputs=outputs, points=report["points"], bounds=report["bounds"],
                   time_span=report["time_span"], damage=report["damage"], seconds=time.monotonic() - started,
                   **fields)


def _open(job: Dict[str, Any], map_file: Optional[str] = None) -> kvr_decode.Scan:
    _log_apart()
    return kvr_decode.open(job["path"], ticks=job["ticks"], map=map_file)


def _log_apart() -> None:
    """Moves the worker into its own folder: the library logs into the current
    directory, and what one scan logs must not count as another's damage."""
    try:
        from distributed import get_worker

        folder = get_worker().local_directory
    except (ImportError, ValueError):  # not inside a Dask worker
        return
    if os.getcwd() != folder:
        os.chdir(folder)


def convert_scan(job: Dict[str, Any], outdir: str, fmt: str, split_blocks: Optional[int] = None) -> Result:
    """The whole scan into OUTDIR/NAME.FMT. With split_blocks, a scan of more
    blocks is not converted: its map is built and saved for the parts, and the
    result says how many blocks there are ("split")."""
    started = time.monotonic()
    try:
        scan = _open(job)
        if split_blocks is not None and scan.block_count > split_blocks:
            shared_map = map_path(outdir, job["name"])
            os.makedirs(os.path.dirname(shared_map), exist_ok=True)
            scan.save_map(shared_map)
            return _result(job, split={"block_count": scan.block_count, "map": shared_map},
                           seconds=time.monotonic() - started)
        report = _write(scan, output_path(outdir, job["name"], fmt), fmt, None)
        return _converted(job, report, started)
    except Exception as error:  # noqa: BLE001 - every failure is this scan's result
        return _failure(job, error, started)


def convert_part(job: Dict[str, Any], outdir: str, fmt: str, part: int, parts: int, blocks: Tuple[int, int],
                 map_file: str) -> Result:
    """Blocks first .. last - 1 of a scan into its part file, with the map the scan's first task saved."""
    started = time.monotonic()
    try:
        scan = _open(job, map_file)
        report = _write(scan, output_path(outdir, job["name"], fmt, part, parts), fmt, blocks)
        return _converted(job, report, started, part=part, blocks=list(blocks))
    except Exception as error:  # noqa: BLE001
        return _failure(job, error, started, part=part, blocks=list(blocks))
