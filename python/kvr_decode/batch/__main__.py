"""python3 -m kvr_decode.batch INPUT... -o OUTDIR [--format ...] [--workers N | --scheduler ADDRESS]
[--split-blocks N] [--ticks auto|none]"""

import argparse
import logging
import sys
from typing import List, Optional

import kvr_decode

from . import runner
from .scans import InputError, find_scans
from .tasks import NPY

FORMATS = ["las", "laz", "e57", "ply", NPY]


def _parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(
        prog="python3 -m kvr_decode.batch",
        description="Converts scans into point files on a Dask cluster: one task per scan (or per N blocks), "
                    "a summary (summary.csv, summary.json) beside the outputs. Exit status 1 when any scan "
                    "failed; the others are converted all the same.")
    parser.add_argument("inputs", nargs="+", metavar="INPUT", help="scan files, or folders searched for *.raw")
    parser.add_argument("-o", "--output", required=True, metavar="OUTDIR", help="folder of the outputs")
    parser.add_argument("--format", default="las", choices=FORMATS, help="output format (default: las)")
    where = parser.add_mutually_exclusive_group()
    where.add_argument("--workers", type=int, metavar="N", help="worker processes of a local cluster (default 1)")
    where.add_argument("--scheduler", metavar="ADDRESS", help="a running Dask scheduler, e.g. tcp://host:8786")
    parser.add_argument("--split-blocks", type=int, metavar="N",
                        help="a scan of more than N blocks becomes part files of N blocks and a manifest")
    parser.add_argument("--ticks", default="auto", choices=["auto", "none"],
                        help="auto: times of week from the Serial.dat beside each scan, when there is one")
    return parser


def main(argv: Optional[List[str]] = None) -> int:
    parser = _parser()
    args = parser.parse_args(argv)
    if args.workers is not None and args.workers < 1:
        parser.error("--workers takes 1 or more")
    if args.split_blocks is not None and args.split_blocks < 1:
        parser.error("--split-blocks takes 1 or more")
    if args.format != NPY and kvr_decode.point_format(args.format) is None:
        parser.error(f"this build of kvr_decode writes no {args.format.upper()} files")
    try:
        jobs = find_scans(args.inputs, args.ticks)
    except InputError as error:
        print(f"kvr_decode.batch: {error}", file=sys.stderr)
        return 1
    # The cluster's own chatter (worker start and stop) is not the user's business.
    logging.getLogger("distributed").setLevel(logging.ERROR)
    options = runner.BatchOptions(outdir=args.output, format=args.format, workers=args.workers,
                                  scheduler=args.scheduler, split_blocks=args.split_blocks)
    try:
        report = runner.run(jobs, options)
    except OSError as error:
        print(f"kvr_decode.batch: {error.filename or args.output}: {error.strerror or error}", file=sys.stderr)
        return 1
    for row in report.rows:
        if row.status != "ok":
            # The library's messages name the file already.
            where = "" if row.error.startswith(row.scan) else f"{row.scan}: "
            print(f"kvr_decode.batch: {row.status}: {where}{row.error}", file=sys.stderr)
    print(f"kvr_decode.batch: {len(report.rows) - report.failed} of {len(report.rows)} scans converted in "
          f"{report.seconds:.1f} s; summary in {report.summary_files[0]}", file=sys.stderr)
    return report.exit_status


if __name__ == "__main__":
    sys.exit(main())
