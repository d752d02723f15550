"""The batch's own files: a manifest per split scan and the summary table (CSV
and JSON) beside the outputs, each written under a temporary name and renamed."""

import csv
import io
import json
import os
from dataclasses import dataclass, field
from typing import Any, Dict, List, Optional, Tuple

from .scans import ScanJob
from .tasks import replacing

SUMMARY_NAME = "summary"
CSV_COLUMNS = ["scan", "name", "status", "points", "min_x", "min_y", "min_z", "max_x", "max_y", "max_z",
               "first_time", "last_time", "outputs", "bytes", "seconds", "error"]


@dataclass
class ScanRow:
    """What became of one scan. status: "ok"; "damaged" (its readable blocks
    were written, the error says what was wrong); "failed" (no output)."""

    scan: str
    name: str
    points: int = 0
    bounds: Optional[Tuple[Tuple[float, float, float], Tuple[float, float, float]]] = None
    time_span: Optional[Tuple[float, float]] = None
    outputs: List[Dict[str, Any]] = field(default_factory=list)
    seconds: float = 0.0
    error: str = ""

    @classmethod
    def of(cls, job: ScanJob) -> "ScanRow":
        return cls(scan=job.path, name=job.name)

    @property
    def status(self) -> str:
        if not self.error:
            return "ok"
        return "damaged" if self.outputs else "failed"

    def take(self, result: Dict[str, Any]) -> None:
        self.points = result.get("points", 0)
        self.bounds = result.get("bounds")
        self.time_span = result.get("time_span")
        self.outputs = list(result.get("outputs", []))
        self.seconds = result.get("seconds", 0.0)
        self.error = result.get("error") or result.get("damage") or ""


def merge_parts(results: List[Dict[str, Any]]) -> Dict[str, Any]:
    """One scan's figures from its parts (in part order): the first failure or damage wins."""
    merged: Dict[str, Any] = {"points": 0, "bounds": None, "time_span": None, "outputs": [], "seconds": 0.0,
                              "error": ""}
    for r in results:
        merged["points"] += r.get("points", 0)
        merged["seconds"] += r.get("seconds", 0.0)
        merged["outputs"].extend(r.get("outputs", []))
        problem = r.get("error") or r.get("damage")
        if problem and not merged["error"]:
            merged["error"] = f"part {r.get('part')} (blocks {r['blocks'][0]}..{r['blocks'][1] - 1}): {problem}"
        if r.get("bounds"):
            low, high = r["bounds"]
            if merged["bounds"] is None:
                merged["bounds"] = (tuple(low), tuple(high))
            else:
                old_low, old_high = merged["bounds"]
                merged["bounds"] = (tuple(map(min, old_low, low)), tuple(map(max, old_high, high)))
        if r.get("time_span"):
            first, last = r["time_span"]
            if merged["time_span"] is None:
                merged["time_span"] = (first, last)
            else:
                merged["time_span"] = (min(merged["time_span"][0], first), max(merged["time_span"][1], last))
    return merged


def write_text(target: str, text: str) -> None:
    """The text under the target's name, complete, or an OSError and the old file kept."""
    with replacing(target, "w", encoding="utf-8", newline="") as out:
        out.write(text)


def write_manifest(target: str, job: ScanJob, fmt: str, block_count: int, parts: List[Dict[str, Any]]) -> str:
    """NAME.manifest.json: the part files in order, with their blocks and points."""
    document = {
        "scan": job.path,
        "format": fmt,
        "block_count": block_count,
        "points": sum(p["points"] for p in parts),
        "parts": [{"file": os.path.basename(p["outputs"][0]["path"]), "blocks": p["blocks"], "points": p["points"],
                   "bytes": p["outputs"][0]["bytes"]} for p in parts],
    }
    write_text(target, json.dumps(document, indent=2) + "\n")
    return target


def _csv_row(row: ScanRow) -> List[Any]:
    low, high = row.bounds if row.bounds else ((None,) * 3, (None,) * 3)
    first, last = row.time_span if row.time_span else (None, None)
    outputs = ";".join(o["path"] for o in row.outputs)
    size = sum(o["bytes"] or 0 for o in row.outputs)
    values = [row.scan, row.name, row.status, row.points, *low, *high, first, last, outputs, size,
              round(row.seconds, 3), row.error]
    return ["" if v is None else repr(v) if isinstance(v, float) else v for v in values]


def write_summary(outdir: str, rows: List[ScanRow], fmt: str, seconds: float) -> List[str]:
    """OUTDIR/summary.csv and OUTDIR/summary.json: one entry per scan."""
    table = io.StringIO()
    writer = csv.writer(table, lineterminator="\n")
    writer.writerow(CSV_COLUMNS)
    writer.writerows(_csv_row(r) for r in rows)
    document = {
        "format": fmt,
        "seconds": seconds,
        "scans": len(rows),
        "failed": sum(1 for r in rows if r.status != "ok"),
        "points": sum(r.points for r in rows),
        "results": [{"scan": r.scan, "name": r.name, "status": r.status, "points": r.points,
                     "bounds": r.bounds and {"min": list(r.bounds[0]), "max": list(r.bounds[1])},
                     "time_span": r.time_span and list(r.time_span), "outputs": r.outputs,
                     "seconds": r.seconds, "error": r.error} for r in rows],
    }
    written = []
    for name, text in ((SUMMARY_NAME + ".csv", table.getvalue()),
                       (SUMMARY_NAME + ".json", json.dumps(document, indent=2) + "\n")):
        target = os.path.join(outdir, name)
        write_text(target, text)
        written.append(target)
    return written
