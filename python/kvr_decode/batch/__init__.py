"""Batch conversion of many scans on a Dask cluster.

``python3 -m kvr_decode.batch INPUT... -o OUTDIR`` converts every scan of the
inputs (scan files, or folders of scan sets) into one point file each, on a
LocalCluster of worker processes or on a running Dask scheduler. Each task
decodes its scan inside a worker; the client only plans tasks and collects
their figures into OUTDIR/summary.csv and OUTDIR/summary.json. From Python::

    from kvr_decode import batch
    report = batch.run(batch.find_scans(["campaign/"]), batch.BatchOptions("out", format="las", workers=2))
    report.exit_status  # 1 when a scan failed
"""

from .runner import BatchOptions, BatchReport, run
from .scans import InputError, ScanJob, find_scans
from .summary import ScanRow

__all__ = ["BatchOptions", "BatchReport", "InputError", "ScanJob", "ScanRow", "find_scans", "run"]
