"""Many strikes with writes going on, in many access points side by side:

    tests/faults/figures.py [KIND [COUNT]]...    redis-kills, client-kills, stops, deaths

Without arguments 1,000, 1,000, 200 and 1,000. PARALLEL sandboxes (8). BINARIES names the folder of the programs
(build/bin). Status 0: not one route lost, no second child, no zombie.
"""

import json
import os
import subprocess
import sys
import time
from concurrent.futures import ThreadPoolExecutor

from matrix import HERE, LONGEST, MODULES, ROOT

PARALLEL = int(os.environ.get("PARALLEL", "8"))
COUNTS = {"redis-kills": 1000, "client-kills": 1000, "stops": 200, "deaths": 1000}
TITLES = {"redis-kills": "kills of Redis", "client-kills": "kills of the daemon's connections",
          "stops": "stops of Redis, of 1 to 10 s", "deaths": "deaths of the routing daemon"}
SUMMED = ("strikes", "checks", "routes", "records", "writes", "lost", "second_children", "zombies", "samples")


def run_one(kind, count, seed):
    environment = {**os.environ, "PYTHONPATH": ":".join(MODULES)}
    command = [ROOT / "lab" / "sandbox", sys.executable, "-B", HERE / "figure.py", kind, str(count), str(seed)]
    done = subprocess.run(command, env=environment, capture_output=True, text=True, timeout=LONGEST * 4, check=False)
    if done.returncode:
        return {"failed": (done.stdout + done.stderr).strip()}
    return json.loads(done.stdout.splitlines()[-1])


def shares(count):
    """Of each sandbox."""
    sandboxes = min(PARALLEL, count)
    return [count // sandboxes + (n < count % sandboxes) for n in range(sandboxes)]


def run(kind, count):
    """Prints the figure. Returns whether it is as it should be."""
    began = time.monotonic()
    with ThreadPoolExecutor(PARALLEL) as pool:
        results = list(pool.map(lambda share: run_one(kind, share[1], share[0]), enumerate(shares(count))))
    failed = [result["failed"] for result in results if "failed" in result]
    total = {name: sum(result.get(name, 0) for result in results) for name in SUMMED}
    print(f"{total['strikes']} {TITLES[kind]}, {len(results)} access points, {total['writes']} writes, "
          f"{time.monotonic() - began:.0f} s:\n"
          f"  {total['routes']} routes and {total['records']} tunnels, VLANs and clusters compared in "
          f"{total['checks']} checks: {total['lost']} not as the store says\n"
          f"  {total['second_children']} second children and {total['zombies']} zombies seen in "
          f"{total['samples']} looks", flush=True)
    for text in [text for result in results for text in result.get("differences", [])] + failed:
        print(f"  {text}")
    return not failed and not total["lost"] and not total["second_children"] and not total["zombies"]


def main():
    wanted, kind = {}, None
    for word in sys.argv[1:]:
        if word in COUNTS:
            kind = word
            wanted[kind] = COUNTS[kind]
        elif kind and word.isdigit():
            wanted[kind] = int(word)
        else:
            sys.exit(__doc__)
    return 0 if all([run(kind, count) for kind, count in (wanted or COUNTS).items()]) else 1


if __name__ == "__main__":
    sys.exit(main())
