"""Batch conversion on one worker against two, same run, same scans.

    PYTHONPATH=build/python /usr/bin/python3 bench/batch_scaling.py \
        --simulate build/tools/simulator/kvr_simulate [--scans 8] [--size 32M] [--format las] [--outdir /dev/shm/x]

Simulates the scans (once, into --workdir), then converts them all with a
LocalCluster of one worker process and of two, each timed from the first task
submitted to the summary written (the cluster's start is timed apart), and
prints the ratio with each worker's peak resident memory. Two sizes of scan
(--size and four times it) show whether a worker's memory follows the scan.
"""

import argparse
import os
import resource
import shutil
import subprocess
import sys
import tempfile
import time

from distributed import Client, LocalCluster

from kvr_decode import batch


def simulate(simulator, root, scans, size):
    root = os.path.join(root, f"scans-{size}")
    if not os.path.isdir(root):
        for i in range(scans):
            subprocess.run([simulator, os.path.join(root, f"pos{i + 1:02d}"), "--seed", str(i + 1), "--size", size,
                            "--camera-images", "0"], check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    return root


def peak_memory():
    return resource.getrusage(resource.RUSAGE_SELF).ru_maxrss * 1024


def convert(root, workers, fmt, outdir):
    started = time.monotonic()
    with LocalCluster(n_workers=workers, threads_per_worker=1, processes=True, dashboard_address=":0") as cluster, \
            Client(cluster) as client:
        client.wait_for_workers(workers)
        ready = time.monotonic()
        report = batch.run(batch.find_scans([root]), batch.BatchOptions(outdir, format=fmt,
                                                                      scheduler=cluster.scheduler_address),
                           progress=None)
        seconds = time.monotonic() - ready
        memory = sorted(client.run(peak_memory).values())
    shutil.rmtree(outdir)
    assert report.exit_status == 0, [r.error for r in report.rows]
    return seconds, ready - started, memory, sum(r.points for r in report.rows)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--simulate", default=os.environ.get("KVR_SIMULATE", "build/tools/simulator/kvr_simulate"))
    parser.add_argument("--scans", type=int, default=8)
    parser.add_argument("--size", default="32M", help="bytes of each scan file (the simulator's --size)")
    parser.add_argument("--format", default="las")
    parser.add_argument("--workdir", default=os.path.join(tempfile.gettempdir(), "kvr_batch_bench"))
    # A LAS file is about five times its scan: on a shared disk the writes, not
    # the workers, can set the pace. /dev/shm takes the disk out of the figure.
    parser.add_argument("--outdir", help="where the outputs go (default: in --workdir)")
    args = parser.parse_args()
    print(f"load average before: {os.getloadavg()}, processors: {os.cpu_count()}")
    number, unit = int(args.size[:-1]), args.size[-1]
    for size in (args.size, f"{number * 4}{unit}"):
        root = simulate(args.simulate, args.workdir, args.scans, size)
        outdir = args.outdir or args.workdir
        runs = {w: convert(root, w, args.format, os.path.join(outdir, f"out-{w}")) for w in (1, 2)}
        points = runs[1][3]
        for workers, (seconds, start, memory, _) in runs.items():
            print(f"{args.scans} scans of {size}, {args.format}: {workers} worker(s) {seconds:.2f} s "
                  f"({points / seconds / 1e6:.1f} M points/s; cluster start {start:.1f} s), "
                  f"peak memory per worker {', '.join(f'{m / 2**20:.0f} MiB' for m in memory)}")
        print(f"  two workers against one: {runs[1][0] / runs[2][0]:.2f}x")
    print(f"load average after: {os.getloadavg()}")


if __name__ == "__main__":
    sys.exit(main())
