#!/usr/bin/python3
"""read_points of the Python package against the C++ point reader, same run.

Usage: /usr/bin/python3 bench/python_read_points.py [BUILD_DIR] [--runs N] [--scan FILE]

Without --scan, writes the 256 MiB synthetic scan (0-4 returns a shot) to
/tmp/kvr_python_bench.raw once. Both sides build the map first and time only
the making of the points, with the same columns; each side runs N times
alternately (page cache warm) and the medians are compared. read_points fills
records into fresh memory (88 bytes a point): the kernel's zeroing of those
pages alone is a large part of its time. So the C++ side is timed twice: the
reader's batches alone, and the same reader keeping the same records in one
array with the package's own fill code (`collect`), which is what read_points
costs without Python; the second ratio is the binding's own overhead.
read_points is timed on one thread and on two (its parts' records filled in
place side by side), against the C++ side on as many.
"""

import argparse
import os
import statistics
import subprocess
import sys
import time


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build", nargs="?", default="build")
    parser.add_argument("--runs", type=int, default=5)
    parser.add_argument("--scan", default="/tmp/kvr_python_bench.raw")
    args = parser.parse_args()
    sys.path.insert(0, os.path.join(args.build, "python"))
    import kvr_decode

    timer = os.path.join(args.build, "python", "kvr_point_reader_timer")
    if not os.path.exists(args.scan):
        subprocess.run([timer, "synthetic", args.scan], check=True)

    scan = kvr_decode.open(args.scan)
    scan.line_count  # the map, outside the clock as on the C++ side
    cpp, kept, kept2, py, py2, batches, views = [], [], [], [], [], [], []
    points = 0
    for _ in range(args.runs):
        out = subprocess.run([timer, "time", args.scan], check=True, capture_output=True, text=True).stdout.split()
        cpp.append(float(out[2]))
        out = subprocess.run([timer, "collect", args.scan], check=True, capture_output=True, text=True).stdout.split()
        kept.append(float(out[2]))
        out = subprocess.run([timer, "collect", args.scan, "2"], check=True, capture_output=True, text=True).stdout.split()
        kept2.append(float(out[2]))
        start = time.perf_counter()
        array = scan.read_points(threads=1)
        py.append(time.perf_counter() - start)
        points = len(array)
        assert points == int(out[0]), (points, out)
        del array
        start = time.perf_counter()
        array = scan.read_points(threads=2)
        py2.append(time.perf_counter() - start)
        del array
        start = time.perf_counter()
        for batch in scan.points():
            pass
        batches.append(time.perf_counter() - start)
        start = time.perf_counter()
        for columns in scan.point_columns():
            pass
        views.append(time.perf_counter() - start)

    c, k, k2, p, p2, b, v = (statistics.median(t) for t in (cpp, kept, kept2, py, py2, batches, views))
    print(f"scan {args.scan}: {os.path.getsize(args.scan) / 2**20:.0f} MiB, {points} points, {args.runs} runs")
    print(f"C++ PointReader     median {c:.3f} s  (runs {', '.join(f'{t:.3f}' for t in cpp)})")
    print(f"C++ records kept    median {k:.3f} s  (runs {', '.join(f'{t:.3f}' for t in kept)})  {k / c:.2f} x")
    print(f"C++ records kept, 2 threads  median {k2:.3f} s  {k2 / c:.2f} x")
    print(f"Python read_points  median {p:.3f} s  (runs {', '.join(f'{t:.3f}' for t in py)})  {p / c:.2f} x, "
          f"{p / k:.2f} x the C++ records kept")
    print(f"Python read_points, 2 threads  median {p2:.3f} s  {p2 / c:.2f} x, {p2 / k2:.2f} x the C++ records kept "
          f"on 2 threads")
    print(f"Python points()     median {b:.3f} s  (16 blocks a batch)  {b / c:.2f} x")
    print(f"Python point_columns median {v:.3f} s  (views, no copy)  {v / c:.2f} x")


if __name__ == "__main__":
    main()
