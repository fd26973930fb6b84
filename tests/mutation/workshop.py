"""A private copy of the tree in which one mutant at a time is built and tested."""
import json
import os
import resource
import shutil
import signal
import subprocess
import sys
from dataclasses import dataclass, field
from pathlib import Path

from mutants import Mutant

FLAGS = {
    "plain": "-O0 -w -D_GLIBCXX_ASSERTIONS",
    "sanitized": "-O1 -w -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer",
}
FAST_TEST_S = 0.05  # slower tests run behind all others of their program
MEMORY_MAX = 2 << 30
FILE_MAX = 256 << 20
RAN = "[ RUN      ] "
FAILED = "[  FAILED  ] "


@dataclass
class Program:
    name: str
    slow: list[str] = field(default_factory=list)
    seconds: float = 0.0


@dataclass
class Verdict:
    killed: bool
    by: str  # the program and its test, or what else told


def run(command: list[str], **options) -> subprocess.CompletedProcess:
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, errors="replace",
                          check=False, **options)


def bounded() -> None:
    # what a mutant that runs wild may take from the machine
    resource.setrlimit(resource.RLIMIT_FSIZE, (FILE_MAX, FILE_MAX))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


def bounded_memory() -> None:
    bounded()
    resource.setrlimit(resource.RLIMIT_AS, (MEMORY_MAX, MEMORY_MAX))


class Workshop:
    def __init__(self, root: Path, folder: Path, kind: str):
        self.root = root
        self.tree = folder
        self.build = folder / "build" / kind
        self.kind = kind
        self.environment = os.environ | {"CCACHE_DISABLE": "1"}
        self.programs: dict[str, Program] = {}

    # ---- set-up ----

    def set_up(self) -> None:
        self.copy_tree()
        if not (self.build / "build.ninja").exists():
            flags = FLAGS[self.kind]
            made = run(["cmake", "-G", "Ninja", "-S", str(self.tree), "-B", str(self.build), "-DCMAKE_BUILD_TYPE=",
                        f"-DCMAKE_CXX_FLAGS={flags}", f"-DCMAKE_C_FLAGS={flags}"])
            if made.returncode:
                sys.exit(made.stdout)
        names = [folder.name for folder in sorted((self.tree / "tests" / "unit").iterdir())
                 if folder.name != "fakes" and (folder / "CMakeLists.txt").exists()]
        self.programs = {name: Program(name) for name in names}
        environment = os.environ | {"CCACHE_BASEDIR": str(self.tree), "CCACHE_NOHASHDIR": "1"}
        made = run(["ninja", "-C", str(self.build), *(f"unit_{name}" for name in names)], env=environment)
        if made.returncode:
            sys.exit(made.stdout)
        for program in self.programs.values():
            self.measure(program)

    def copy_tree(self) -> None:
        """Everything as in the worktree now; what is equal keeps its time, so that it is not built again."""
        listed = run(["git", "-C", str(self.root), "ls-files", "--cached", "--others", "--exclude-standard"])
        wanted = {name for name in listed.stdout.splitlines() if (self.root / name).is_file()}
        for name in wanted:
            target = self.tree / name
            content = (self.root / name).read_bytes()
            if not target.is_file() or target.read_bytes() != content:
                target.parent.mkdir(parents=True, exist_ok=True)
                target.write_bytes(content)
                shutil.copymode(self.root / name, target)
        for folder in ("src", "tests"):
            for path in (self.tree / folder).rglob("*"):
                if path.is_file() and str(path.relative_to(self.tree)) not in wanted:
                    path.unlink()

    def measure(self, program: Program) -> None:
        """Takes the time of each test; all have to pass."""
        result = self.test(program, ["--gtest_output=json:/dev/fd/2"], 600, stderr=subprocess.PIPE)
        report = result.stderr[result.stderr.find("{\n"):] if result.stderr else ""
        if result.returncode:
            sys.exit(f"{program.name} fails without any change:\n{result.stdout}")
        times = {f"{suite['name']}.{case['name']}": float(case["time"].rstrip("s"))
                 for suite in json.loads(report)["testsuites"] for case in suite["testsuite"]}
        program.slow = [name for name, seconds in times.items() if seconds > FAST_TEST_S]
        program.seconds = sum(times.values())

    # ---- one mutant ----

    def put(self, file: str, source: str) -> None:
        (self.tree / file).write_text(source, encoding="utf-8")

    def compile(self, file: str) -> bool:
        target = f"src/CMakeFiles/vyrwrap_daemon.dir/{subsystem_of(file)}/{Path(file).name}.o"
        return run(["ninja", "-C", str(self.build), target], env=self.environment).returncode == 0

    def object_code(self, file: str) -> bytes:
        """What the compiler makes of a file for the release: equal code cannot behave otherwise."""
        database = json.loads((self.build / "compile_commands.json").read_text())
        command = next(entry["command"] for entry in database if entry["file"] == str(self.tree / file))
        words = [word for word in command.split() if word not in ("-O0", "-O1", "ccache")]
        words = [word for word in words if not word.startswith("-fsanitize")][:-4]  # -o OBJECT -c FILE
        output = self.build / "object.o"
        run([*words, "-Os", "-o", str(output), "-c", str(self.tree / file)], cwd=self.build, env=self.environment)
        stripped = run(["objcopy", "--strip-debug", "--remove-section=.comment", str(output)])
        return output.read_bytes() if stripped.returncode == 0 else b""

    def judge_by_own(self, mutant: Mutant) -> Verdict:
        """Builds and tests the file's own subsystem."""
        return self.judge([self.programs[subsystem_of(mutant.file)]], slow_too=True)

    def judge_by_others(self, mutant: Mutant) -> Verdict:
        """The others', but for their slow tests: those are about themselves."""
        own = subsystem_of(mutant.file)
        others = [program for program in self.programs.values() if program.name != own]
        return self.judge(sorted(others, key=lambda program: program.seconds), slow_too=False)

    def judge(self, programs: list[Program], slow_too: bool) -> Verdict:
        built = run(["ninja", "-C", str(self.build), *(f"unit_{program.name}" for program in programs)],
                    env=self.environment)
        if built.returncode:
            return Verdict(True, "does not link")
        for program in programs:
            for tests in self.portions(program)[:2 if slow_too else 1]:
                verdict = self.try_tests(program, tests)
                if verdict.killed:
                    return verdict
        return Verdict(False, "")

    @staticmethod
    def portions(program: Program) -> list[str]:
        if not program.slow:
            return ["*"]
        slow = ":".join(program.slow)
        return [f"-{slow}", slow]

    def try_tests(self, program: Program, tests: str) -> Verdict:
        limit = 20 + 10 * program.seconds
        result = self.test(program, ["--gtest_fail_fast", f"--gtest_filter={tests}"], limit)
        if result.returncode == 0:
            return Verdict(False, "")
        if failed := named(result.stdout, FAILED):
            return Verdict(True, f"{program.name}: {failed[0]}")
        last = (named(result.stdout, RAN) or ["start"])[-1]
        if result.returncode is not None:
            return Verdict(True, f"{program.name}: {last} (crashes)")
        # A slow machine is no proof: the test that did not end has to hang also alone.
        alone = self.test(program, [f"--gtest_filter={last}"], 10 + 20 * program.seconds)
        return Verdict(alone.returncode != 0, f"{program.name}: {last} (hangs)")

    def test(self, program: Program, arguments: list[str], limit: float, stderr: int = subprocess.DEVNULL):
        """Runs a program in a sandbox. The result's returncode is None where it had to be stopped."""
        command = [str(self.tree / "lab" / "sandbox"), str(self.build / "bin" / f"unit_{program.name}"), *arguments]
        with subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=stderr, text=True,
                              errors="replace", start_new_session=True,
                              preexec_fn=bounded_memory if self.kind == "plain" else bounded) as process:
            try:
                output, errors = process.communicate(timeout=limit)
                return subprocess.CompletedProcess(command, process.returncode, output, errors)
            except subprocess.TimeoutExpired:
                os.killpg(process.pid, signal.SIGKILL)
                output, errors = process.communicate()
                return subprocess.CompletedProcess(command, None, output, errors)


def subsystem_of(file: str) -> str:
    return Path(file).parts[1]


def named(output: str, mark: str) -> list[str]:
    """The tests in the lines that begin with the mark."""
    return [line[len(mark):].split(",")[0].split(" (")[0].strip() for line in output.splitlines() if line.startswith(mark)]
