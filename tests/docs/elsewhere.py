"""The documents' commands that this test does not run, and where they are run instead.

Each entry is checked: the command stands in a document, a test of that name exists, and each file holds that text.
"""

from typing import NamedTuple


class Elsewhere(NamedTuple):
    command: str
    reason: str
    test: str = ""                          # of ctest
    proof: tuple[tuple[str, str], ...] = ()  # files and what they hold


CI = (".ci/run", "exec ./run test")

ELSEWHERE = (
    Elsewhere("./run test", "runs this very test", proof=(CI,)),
    Elsewhere("./run build", "builds what this test uses", proof=(CI, ("Makefile", "test: build build-asan"))),
    Elsewhere("./run demo", "takes longer than a minute", "system.demo", (("Makefile", "@lab/demo"),)),
    Elsewhere("./run lab", "has a prompt", "system.lab", (("Makefile", "@lab/lab"),)),
    Elsewhere("./run package", "takes minutes", "package.build", (("Makefile", "@packaging/package"),)),
    Elsewhere("sudo apt install ./build/package/vyrwrap_*.deb ./build/package/vyrwrap-bird2_*.deb",
              "would install onto this machine; the test does so into an empty root", "package.installed"),
    Elsewhere("./run arm", "fetches packages and takes minutes; is a test itself, of what it lists",
              proof=(("Makefile", "packaging/arm/lab $(ARM_SYSROOT) build/arm build lab/demo"),)),
    Elsewhere("make arm", "as ./run arm", proof=(("Makefile", "$(CTEST) --test-dir build/arm --label-regex unit"),)),
    *(Elsewhere(command, "is a part of make arm", proof=(("Makefile", part),)) for command, part in (
        ("packaging/arm/sizes build/arm-sysroot build/arm", "@packaging/arm/sizes $(ARM_SYSROOT) build/arm"),
        ("python3 packaging/arm/stack.py build/arm", "packaging/arm/stack.py build/arm"),
        ("packaging/arm/memory build/arm-sysroot build/arm build", "@packaging/arm/memory $(ARM_SYSROOT) build/arm build"),
        ("packaging/arm/musl-check build/arm-sysroot build/arm", "@packaging/arm/musl-check $(ARM_SYSROOT) build/arm"))),
    *(Elsewhere(command, "takes minutes, and writes where this test may not", "porting.build") for command in (
        "cp -r tests/porting/stubs build/device",
        "cmake -S . -B build/porting -G Ninja -DCMAKE_BUILD_TYPE=MinSizeRel -DVYRWRAP_PLATFORM=$PWD/build/device",
        "cmake --build build/porting")),
    Elsewhere("ctest --test-dir build -R porting", "is a part of make test", "porting.run"),
    Elsewhere("make build", "builds what this test uses", proof=(CI, ("Makefile", "test: build build-asan"))),
    Elsewhere("make test", "runs this very test", proof=(CI, ("run", 'exec make --no-print-directory "$what"'))),
    Elsewhere("make check", "takes minutes; its parts are the lint tests", "lint.tidy",
              (("Makefile", "--label-regex lint"), CI)),
    Elsewhere("./run check", "takes minutes; its parts are the lint tests", "lint.tidy",
              (("Makefile", "--label-regex lint"), CI)),
    Elsewhere("cmake --build build/asan --target unit_tunnel", "builds what make test runs", "unit.tunnel"),
    Elsewhere("ctest --test-dir build/asan -R unit.tunnel", "is a part of make test", "unit.tunnel"),
    Elsewhere("ctest --test-dir build -R system.routes", "is a part of make test", "system.routes"),
    Elsewhere("make demo", "as ./run demo", "system.demo", (("Makefile", "@lab/demo"),)),
    Elsewhere("make lab", "as ./run lab", "system.lab", (("Makefile", "@lab/lab"),)),
    Elsewhere("make format", "writes the sources; the lint test sees that it would change nothing", "lint.format"),
    Elsewhere("make soak HOURS=8", "takes hours; the test runs three minutes of it", "system.soak",
              (("Makefile", "@tests/reliability/soak"),)),
    Elsewhere("make faults", "takes ten minutes; the test runs four of its cells", "system.faults",
              (("Makefile", "@$(FAULTS)/matrix.py"),)),
    Elsewhere("make fault-figures", "takes half an hour or more", proof=(("Makefile", "@$(FAULTS)/figures.py"),)),
    Elsewhere("make bench", "takes minutes; the test shows that every figure can be taken", "bench.smoke",
              (("Makefile", "@bench/bench"),)),
    Elsewhere("bench/bench", "as make bench", "bench.smoke"),
    Elsewhere("bench/bench --quick", "is that test", "bench.smoke"),
    Elsewhere("bench/bench --only resync", "takes half a minute; the test takes every figure once", "bench.smoke"),
    Elsewhere("make allocations", "takes minutes; make test makes ten allocations of each test fail",
              proof=(("Makefile", "FAIL_EACH_ALLOCATION"), ("tests/unit/CMakeLists.txt", "add_test(NAME allocations."))),
    Elsewhere("make analyse", "takes minutes; is a test itself", proof=(("Makefile", "tests/lint/analyse.py"),)),
    Elsewhere("make coverage", "builds everything anew; is a test itself", proof=(("Makefile", "--fail-under-branch"),)),
    Elsewhere("make memcheck", "takes minutes; is a test itself", proof=(("Makefile", "ctest --output-on-failure"),)),
    Elsewhere("make mutation", "takes an hour; is a test itself", proof=(("Makefile", "tests/mutation/mutate.py"),)),
    Elsewhere("make fuzz", "goes on for as long as it is told to; every input found is replayed", "fuzz.daemon",
              (("Makefile", "@tests/fuzz/fuzz.py"),)),
    Elsewhere("./run fuzz", "as make fuzz", "fuzz.daemon", (("Makefile", "@tests/fuzz/fuzz.py"),)),
    Elsewhere("make fuzz SECONDS=300 DOOR=static_route", "as make fuzz", "fuzz.static_route"),
    Elsewhere("make fuzz-corpus", "writes the inputs that those tests replay", "fuzz.daemon",
              (("Makefile", "@tests/fuzz/merge.py"),)),
    Elsewhere("make fuzz-coverage", "builds everything anew, to measure it", "fuzz.daemon",
              (("Makefile", "@tests/fuzz/coverage.py"),)),
    Elsewhere("docs/pictures/draw.py", "writes the pictures; the lint test sees that it would change nothing",
              "lint.pictures"),
)

# Commands that go on until they are stopped: they are started, and have to be running still when the document ends.
GO_ON = (
    "sudo env KORVA_LOG=file:/var/log/vyrwrap.log /usr/local/sbin/vyrwrap",
)

# Documents that lead a reader through an installation by hand: they begin on a machine without one, beside a Redis. The
# others find an access point that runs.
INSTALLING = ("docs/operating.md",)
