"""The client of a batch: it plans the tasks, hands them to a Dask cluster, and
writes the manifests and the summary from the small dicts the tasks return."""

import glob
import os
import sys
import time
from dataclasses import asdict, dataclass, field
from typing import Any, Dict, List, Optional, TextIO, Tuple

from . import tasks
from .scans import ScanJob
from .summary import ScanRow, merge_parts, write_manifest, write_summary

# A task whose worker died is run again by the scheduler (distributed's
# allowed-failures); one that raised is retried once more.
TASK_RETRIES = 1


@dataclass
class BatchOptions:
    outdir: str
    format: str = "las"
    workers: Optional[int] = None
    scheduler: Optional[str] = None
    split_blocks: Optional[int] = None


@dataclass
class BatchReport:
    rows: List[ScanRow] = field(default_factory=list)
    seconds: float = 0.0
    summary_files: List[str] = field(default_factory=list)

    @property
    def failed(self) -> int:
        return sum(1 for r in self.rows if r.status != "ok")

    @property
    def exit_status(self) -> int:
        return 1 if self.failed else 0


class Progress:
    """tasks done of total and points per second: one line, redrawn in place on a terminal."""

    def __init__(self, stream: Optional[TextIO]):
        self.stream = stream
        self.start = time.monotonic()
        self.done = self.total = self.points = self.failed = 0
        self.live = stream is not None and stream.isatty()

    def update(self) -> None:
        if self.stream is None:
            return
        seconds = max(time.monotonic() - self.start, 1e-9)
        line = (f"kvr_decode.batch: {self.done}/{self.total} tasks, {self.failed} failed, "
                f"{self.points} points, {self.points / seconds / 1e6:.2f} M points/s")
        self.stream.write(("\r" + line) if self.live else line + "\n")
        self.stream.flush()

    def close(self) -> None:
        if self.live and self.stream is not None:
            self.stream.write("\n")
            self.stream.flush()


def _client(options: BatchOptions):
    from distributed import Client, LocalCluster

    if options.scheduler:
        return Client(options.scheduler), None
    # Processes, one thread each: a scan is decoded with the GIL released, but
    # one process per task keeps the workers' memory and failures apart.
    cluster = LocalCluster(n_workers=options.workers or 1, threads_per_worker=1, processes=True,
                           dashboard_address=":0")
    return Client(cluster), cluster


def _sweep_temporaries(outdir: str, rows: List[ScanRow], fmt: str) -> None:
    """Removes what killed workers left under temporary names beside the outputs."""
    for row in rows:
        stem = os.path.join(outdir, row.name)
        for leftover in glob.glob(glob.escape(stem) + f".*{fmt}.tmp-*") + glob.glob(glob.escape(stem) + f".{fmt}.tmp-*"):
            try:
                os.unlink(leftover)
            except OSError:
                pass


def run(jobs: List[ScanJob], options: BatchOptions, progress: Optional[TextIO] = sys.stderr) -> BatchReport:
    """Converts every scan; a scan that fails is reported and the others go on."""
    from distributed import as_completed

    started = time.monotonic()
    os.makedirs(options.outdir, exist_ok=True)
    outdir = os.path.abspath(options.outdir)
    rows: Dict[int, ScanRow] = {i: ScanRow.of(job) for i, job in enumerate(jobs)}
    parts: Dict[int, List[Dict[str, Any]]] = {}
    splits: Dict[int, Dict[str, Any]] = {}
    shown = Progress(progress)
    client, cluster = _client(options)
    try:
        pending = as_completed()
        # Per task: its scan, and for a part its number and blocks.
        owner: Dict[str, Tuple[int, Dict[str, Any]]] = {}

        def submit(index: int, part: Dict[str, Any], function, *args) -> None:
            future = client.submit(function, *args, pure=False, retries=TASK_RETRIES)
            owner[future.key] = (index, part)
            pending.add(future)
            shown.total += 1

        for i, job in enumerate(jobs):
            submit(i, {}, tasks.convert_scan, asdict(job), outdir, options.format, options.split_blocks)
        shown.update()
        for future in pending:
            index, part = owner.pop(future.key)
            try:
                result = future.result()
            except Exception as error:  # noqa: BLE001 - the task's workers kept dying
                result = {"error": f"the cluster could not run the task: {type(error).__name__}: {error}", **part}
            shown.done += 1
            split = result.get("split")
            if split:
                splits[index] = split
                count, step = split["block_count"], options.split_blocks
                ranges = [(first, min(first + step, count)) for first in range(0, count, step)]
                parts[index] = []
                for number, blocks in enumerate(ranges):
                    submit(index, {"part": number, "blocks": list(blocks)}, tasks.convert_part, asdict(jobs[index]),
                           outdir, options.format, number, len(ranges), blocks, split["map"])
            elif index in parts:
                parts[index].append(result)
                shown.points += result.get("points", 0)
            else:
                rows[index].take(result)
                shown.points += result.get("points", 0)
                shown.failed += rows[index].status != "ok"
            for finished in [i for i in parts if i in splits and len(parts[i]) == _part_count(splits[i], options)]:
                _finish_split(rows[finished], jobs[finished], parts.pop(finished), splits.pop(finished), outdir,
                              options.format)
                shown.failed += rows[finished].status != "ok"
            shown.update()
    finally:
        client.close()
        if cluster is not None:
            cluster.close()
        shown.close()
    report = BatchReport(rows=[rows[i] for i in range(len(jobs))], seconds=time.monotonic() - started)
    _sweep_temporaries(outdir, report.rows, options.format)
    report.summary_files = write_summary(outdir, report.rows, options.format, report.seconds)
    return report


def _part_count(split: Dict[str, Any], options: BatchOptions) -> int:
    return -(-split["block_count"] // options.split_blocks)


def _finish_split(row: ScanRow, job: ScanJob, results: List[Dict[str, Any]], split: Dict[str, Any], outdir: str,
                  fmt: str) -> None:
    results.sort(key=lambda r: r["part"])
    row.take(merge_parts(results))
    if not all(r.get("outputs") for r in results):
        # Without one part the others are no use: nothing is left of the scan.
        for output in row.outputs:
            try:
                os.unlink(output["path"])
            except OSError:
                pass
        row.outputs = []
    else:  # a damaged scan's parts are written all the same
        try:
            manifest = write_manifest(tasks.manifest_path(outdir, job.name), job, fmt, split["block_count"], results)
            row.outputs.append({"path": manifest, "bytes": os.path.getsize(manifest)})
        except OSError as error:
            row.error = f"{tasks.manifest_path(outdir, job.name)}: {error.strerror or error}"
    try:
        os.unlink(split["map"])
    except OSError:
        pass
