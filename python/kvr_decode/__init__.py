"""Raw terrestrial laser scans as numpy arrays.

Open a scan with :func:`open`; its header is read at once, the points only when
asked for, batch by batch (:meth:`Scan.points`) or at once
(:meth:`Scan.read_points`). Points are numpy structured arrays with the field
names of the point-cloud ecosystem (``X``, ``Y``, ``Z``, ``Intensity``,
``ReturnNumber``, ``NumberOfReturns``, ``GpsTime``) and the scanner's own
(``Range``, ``Pan``, ``ScanAngle``, ``Line``, ``ShotIndex``,
``NormalizedIntensity``, ``Block``, ``Flags``). Side files are read with
:func:`read_ticks`, :func:`read_devices` and :func:`read_camera`. Points
are written into point files with :meth:`Scan.write` (PLY, CSV, LAS, ... by
the extension) and :meth:`Scan.write_las`; many scans at once, on a Dask
cluster, with ``python3 -m kvr_decode.batch`` (:mod:`kvr_decode.batch`).

A missing file raises FileNotFoundError; a damaged or foreign one raises
:class:`Error`, a ValueError.
"""

from os import PathLike as _PathLike
from typing import Optional as _Optional, Union as _Union

from ._kvr_decode import (  # noqa: F401
    BlockIterator,
    ColumnIterator,
    E57File,
    Error,
    PointIterator,
    Scan,
    Ticks,
    point_dtype,
    point_format,
    read_camera,
    read_devices,
    shot_dtype,
)

__all__ = [
    "E57File",
    "Error",
    "Scan",
    "Ticks",
    "open",
    "point_dtype",
    "point_format",
    "read_camera",
    "read_devices",
    "read_ticks",
    "shot_dtype",
]

_Path = _Union[str, bytes, "_PathLike[str]", "_PathLike[bytes]"]


def open(path: _Path, ticks: _Optional[_Path] = None, map: _Optional[_Path] = None, time_offset: int = 0) -> Scan:
    """Opens a raw scan file; reads and checks its header (and the tick file, if given).

    ticks: a tick file ("Serial.dat"): GpsTime is then the GNSS time of week,
    otherwise the seconds since the scanner's tick counter started (-1 where
    the tick file does not cover a block).
    map: a map file saved for this scan; without one the map (lines, intensity
    normalization) is built from the scan the first time it is needed.
    time_offset: seconds added to every time of week.
    """
    return Scan(path, ticks, map, time_offset)


def read_ticks(path: _Path, time_offset: int = 0) -> Ticks:
    """Reads a tick file: pulses, sentences, and ``time_of_week(ticks)`` for any array of tick counts."""
    return Ticks(path, time_offset)
