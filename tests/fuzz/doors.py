"""The doors, and the record of what has been run at each."""

import csv
import datetime
import pathlib
from typing import NamedTuple

ROOT = pathlib.Path(__file__).resolve().parents[2]
FUZZ = ROOT / "tests" / "fuzz"
CORPUS = FUZZ / "corpus"
SANDBOX = ROOT / "lab" / "sandbox"
BUILD = ROOT / "build" / "fuzz"
RECORD = FUZZ / "executions.tsv"
FIELDS = ("door", "date", "executions", "seconds", "edges")

# Longest input of each door; what is longer adds time and nothing else.
LONGEST = {
    "application_datagram": 600,
    "cluster": 400,
    "control_frame": 300,
    "daemon": 120,
    "event_message": 300,
    "log_level": 100,
    "notification": 200,
    "overlay_template": 600,
    "platform_text": 200,
    "redis_reply": 200,
    "redistributed_vlans": 200,
    "static_route": 300,
    "tunnel_hash": 300,
    "vlan_path": 200,
}


class Run(NamedTuple):
    """One run of one door."""

    door: str
    executions: int
    seconds: int
    edges: int
    found: list[pathlib.Path]


def executions_so_far(record: pathlib.Path = RECORD) -> dict[str, int]:
    """Executions of each door, of all runs on record."""
    total = dict.fromkeys(LONGEST, 0)
    if record.exists():
        with record.open(newline="") as file:
            for row in csv.DictReader(file, delimiter="\t"):
                total[row["door"]] = total.get(row["door"], 0) + int(row["executions"])
    return total


def note(run: Run, record: pathlib.Path = RECORD) -> None:
    """Appends a run to the record."""
    new = not record.exists()
    with record.open("a", newline="") as file:
        writer = csv.writer(file, delimiter="\t", lineterminator="\n")
        if new:
            writer.writerow(FIELDS)
        today = datetime.date.today().isoformat()
        writer.writerow((run.door, today, run.executions, run.seconds, run.edges))
