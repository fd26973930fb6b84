"""How documents are read, and what counts as what they show."""

import pytest
from blocks import Block, Malformed, Step, blocks_of, matches, steps_of
from links import anchors_of


@pytest.fixture
def read(tmp_path):
    def blocks(text):
        path = tmp_path / "a.md"
        path.write_text(text)
        return blocks_of(path)

    return blocks


def test_finds_fenced_blocks_with_their_places(read):
    assert read("text\n\n```sh\na\n  b\n```\n\n- item\n\n  ```console\n  $ c\n    d\n  ```\n") == [
        Block(3, "sh", "a\n  b\n"), Block(10, "console", "$ c\n  d\n")]


@pytest.mark.parametrize("text", ["```\nls\n```\n", "```shell\nls\n```\n", "```sh\nls\n", "text\n\n    ./run demo\n"])
def test_refuses_what_it_cannot_tell_the_meaning_of(read, text):
    with pytest.raises(Malformed):
        read(text)


def test_goes_on_with_a_list_that_is_indented(read):
    assert read("- one\n\n    more of one\n") == []


def test_takes_commands_and_what_they_print():
    assert steps_of(Block(1, "console", "$ a\nx\n y\n$ b \\\n> c\n")) == [Step("a", ["x", " y"]), Step("b c", [])]
    with pytest.raises(Malformed):
        steps_of(Block(1, "console", "x\n$ a\n"))


@pytest.mark.parametrize("shown, printed, same", [
    (["a", "b"], "a\nb\n", True),
    (["a"], "a \n\n", True),
    (["a"], "a\nb\n", False),
    (["a"], "aa\n", False),
    ([], "", True),
    ([], "a\n", False),
    (["a ... c"], "a b c\n", True),
    (["a ... c"], "a b d\n", False),
    (["a", "...", "c"], "a\nb\nb\nc\n", True),
    (["a", "...", "c"], "a\nc\n", True),
    (["a", "...", "c"], "a\nb\n", False),
    (["(integer) 1"], "(integer) 1\n", True),
])
def test_compares_what_is_shown_with_what_is_printed(shown, printed, same):
    assert matches(shown, printed) == same


def test_makes_anchors_of_headings():
    assert anchors_of("# One\n```sh\n# no\n```\n## Log lines of levels 3 and 4\n") == {"one", "log-lines-of-levels-3-and-4"}
