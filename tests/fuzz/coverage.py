#!/usr/bin/python3
"""What the doors reach with the inputs in tests/fuzz/corpus: lines and branches of src/ and of the DAL's client."""

import json
import os
import pathlib
import subprocess
import sys

import doors

BUILD = doors.ROOT / "build" / "fuzz-coverage"
PROFILES = BUILD / "profiles"
SOURCES = (doors.ROOT / "src", doors.ROOT / "linux" / "dal")
TOOL_VERSION = "-14"
KINDS = ("lines", "branches", "functions")


def profile(door: str) -> pathlib.Path:
    """Replays a door's inputs and returns what that reached."""
    raw = PROFILES / f"{door}.raw"
    subprocess.run(
        [str(doors.SANDBOX), str(BUILD / "bin" / f"fuzz_{door}"), str(doors.CORPUS / door)],
        env=dict(os.environ, SANDBOX_WRITABLE=str(PROFILES), LLVM_PROFILE_FILE=str(raw)),
        stderr=subprocess.DEVNULL, check=True)
    return combine([raw], PROFILES / f"{door}.profile")


def combine(profiles: list[pathlib.Path], combined: pathlib.Path) -> pathlib.Path:
    """Adds profiles up."""
    subprocess.run(
        [f"llvm-profdata{TOOL_VERSION}", "merge", "-sparse", "-o", str(combined), *map(str, profiles)], check=True)
    return combined


def own_files(profile_path: pathlib.Path, names: list[str]) -> dict[pathlib.Path, dict]:
    """The figures of the project's files in those doors' programs."""
    objects = [argument for name in names for argument in ("-object", str(BUILD / "bin" / f"fuzz_{name}"))][1:]
    result = subprocess.run(
        [f"llvm-cov{TOOL_VERSION}", "export", "-summary-only", f"-instr-profile={profile_path}", *objects],
        stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=True)
    files = {}
    for entry in json.loads(result.stdout)["data"][0]["files"]:
        path = pathlib.Path(os.path.normpath(BUILD / entry["filename"]))
        if any(path.is_relative_to(folder) for folder in SOURCES):
            files[path.relative_to(doors.ROOT)] = entry["summary"]
    return files


def total(files: dict[pathlib.Path, dict], folder: str, kind: str) -> tuple[int, int]:
    """What is covered of a folder, and of how much."""
    chosen = [summary[kind] for path, summary in files.items() if str(path).startswith(folder)]
    return sum(each["covered"] for each in chosen), sum(each["count"] for each in chosen)


def print_folder(files: dict[pathlib.Path, dict], folder: str) -> None:
    """Prints the row of all doors together."""
    row = f"all, of {folder + '/':<14}"
    for kind in KINDS:
        covered, count = total(files, folder, kind)
        row += f"{covered:>8}{100 * covered / count:>7.1f} %"
    print(row)


def print_gaps(files: dict[pathlib.Path, dict]) -> None:
    """Prints the rows of the files that are not reached whole."""
    print("\nLines that nothing reaches:")
    for path, summary in sorted(files.items()):
        lines = summary["lines"]
        if lines["covered"] < lines["count"]:
            print(f"  {str(path):<40}{lines['count'] - lines['covered']:>5} of {lines['count']:>4}")


def main() -> int:
    """Prints the table."""
    PROFILES.mkdir(parents=True, exist_ok=True)
    names = sorted(doors.LONGEST)
    print(f"{'door':<22}{'lines':>17}{'branches':>17}{'functions':>17}")
    profiles = []
    for door in names:
        profiles.append(profile(door))
        files = own_files(profiles[-1], [door])
        print(f"{door:<22}" + "".join(f"{total(files, '', kind)[0]:>8}{'':>9}" for kind in KINDS), flush=True)
    files = own_files(combine(profiles, PROFILES / "all.profile"), names)
    for folder in ("src", "linux/dal"):
        print_folder(files, folder)
    print_gaps(files)
    return 0


if __name__ == "__main__":
    sys.exit(main())
