"""Finding the scans of a batch and the side files that go with each."""

import os
from dataclasses import dataclass
from typing import Iterable, List, Optional

# A scan set as the scanner (and the simulator) lays it out: NAME.raw with
# NAME.raw.tbl and NAME.raw.NormalizationParams.txt beside it, which the
# library finds by itself, and the tick file Serial.dat in the same folder.
SCAN_SUFFIX = ".raw"
TICK_FILE = "Serial.dat"


@dataclass(frozen=True)
class ScanJob:
    """One scan to convert: where it is, the name its outputs take, its tick file."""

    path: str
    name: str  # relative to the output folder, without extension ("pos01/scan")
    ticks: Optional[str]


class InputError(Exception):
    """An input that names no scan."""


def _scans_in(folder: str) -> List[str]:
    found = []
    for root, dirs, files in os.walk(folder):
        dirs.sort()
        found.extend(os.path.join(root, f) for f in sorted(files) if f.lower().endswith(SCAN_SUFFIX))
    return found


def find_scans(inputs: Iterable[str], ticks: str = "auto") -> List[ScanJob]:
    """The scans of the inputs (scan files, or folders searched for NAME.raw), in a
    stable order, each named by its path below the folder all of them share, so
    that scan sets that all call their scan "scan.raw" keep apart."""
    if ticks not in ("auto", "none"):
        raise ValueError(f"ticks is 'auto' or 'none', not {ticks!r}")
    paths: List[str] = []
    for given in inputs:
        if os.path.isdir(given):
            inside = _scans_in(given)
            if not inside:
                raise InputError(f"{given}: no scan file (*{SCAN_SUFFIX}) in this folder or below")
            paths.extend(inside)
        elif os.path.exists(given):
            paths.append(given)
        else:
            raise InputError(f"{given}: no such file or folder")
    unique: List[str] = []
    seen = set()
    for p in (os.path.realpath(p) for p in paths):
        if p not in seen:
            seen.add(p)
            unique.append(p)
    if not unique:
        return []
    base = os.path.commonpath([os.path.dirname(p) for p in unique])
    jobs = []
    for p in unique:
        name = os.path.relpath(p, base)
        stem, extension = os.path.splitext(name)
        if extension.lower() == SCAN_SUFFIX:
            name = stem
        tick_file = os.path.join(os.path.dirname(p), TICK_FILE)
        jobs.append(ScanJob(p, name, tick_file if ticks == "auto" and os.path.isfile(tick_file) else None))
    return jobs
