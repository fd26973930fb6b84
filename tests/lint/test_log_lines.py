"""What the comparison of the log lines finds."""

import log_lines
import pytest
from log_lines import Line


@pytest.fixture
def read(tmp_path):
    def lines(source):
        path = tmp_path / "a.cpp"
        path.write_text(source)
        return [line for line, _ in log_lines.lines_of_source(path)]

    return lines


def test_reads_errors_and_warnings_of_every_kind(read):
    assert read('log_error("a %d", 1); event_log_warning("b"); platform_error("c"); log_info("d"); log_debug("e");'
                'vyrwrap_log_emit(LOG_LEVEL_ERROR,\n    "f");') == [
        Line(3, "a %d"), Line(4, "b"), Line(3, "c"), Line(3, "f")]


def test_joins_literals_and_shows_texts_as_the_log_does(read):
    assert read('log_error(\n    "one \\"quoted\\" "\n    "and the rest\\n", x);') == [
        Line(3, 'one "quoted" and the rest\\n')]


def test_refuses_a_text_that_is_no_literal(read):
    with pytest.raises(SystemExit, match="no literal"):
        read("log_error(text);")


def test_tells_what_is_missing_superfluous_or_there_twice():
    sources = {Line(3, "kept"): ["a.cpp:1"], Line(4, "new"): ["a.cpp:2"]}
    problems = log_lines.differences(sources, [Line(3, "kept"), Line(3, "kept"), Line(3, "old")])
    assert problems == ["a.cpp:2: not in docs/operating.md: 4 `new`",
                        "docs/operating.md: more than once: 3 `kept`",
                        "docs/operating.md: no source logs 3 `old`"]
