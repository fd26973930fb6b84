"""Small changes to C++ source, one at a time, never in comments or preprocessor lines."""
import random
import re
from collections.abc import Callable, Iterator
from dataclasses import dataclass

TOKEN = re.compile(r"""
    (?P<blank>\s+)
  | (?P<comment>//[^\n]*|/\*.*?\*/)
  | (?P<directive>(?<![^\n])\#(?:\\\n|[^\n])*)
  | (?P<string>"(?:\\.|[^"\\])*")
  | (?P<char>'(?:\\.|[^'\\])+')
  | (?P<number>0[xX][0-9a-fA-F']+[uUlL]*|[0-9][0-9']*[uUlL]*)
  | (?P<word>[A-Za-z_]\w*)
  | (?P<mark><=>|<<=|>>=|->\*?|\+\+|--|<<|>>|<=|>=|==|!=|&&|\|\||[-+*/%&|^]=|::|\.\.\.|.)
""", re.VERBOSE | re.DOTALL)

# How often an operator is drawn, where there is a choice.
WEIGHTS = {"relation": 5, "statement": 5, "constant": 4, "negation": 4, "logic": 3, "arithmetic": 3, "text": 2, "return": 2,
           "truth": 2, "size": 1.5, "arms": 1.5, "level": 1.5, "extremum": 1}

TURNED = {
    "relation": {"==": ["!="], "!=": ["=="], "<": ["<=", ">="], "<=": ["<", ">"], ">": [">=", "<="], ">=": [">", "<"]},
    "logic": {"&&": ["||"], "||": ["&&"]},
    "arithmetic": {"+": ["-"], "-": ["+"], "*": ["+"], "/": ["*"], "%": ["/"], "&": ["|"], "|": ["&"], "^": ["|"],
                   "<<": [">>"], ">>": ["<<"], "+=": ["-="], "-=": ["+="], "*=": ["+="], "|=": ["&="], "&=": ["|="],
                   "++": ["--"], "--": ["++"]},
}
WORDS = {"true": ("truth", ["false"]), "false": ("truth", ["true"]), "min": ("extremum", ["max"]),
         "max": ("extremum", ["min"]),
         "log_error": ("level", ["log_warning", "log_info"]), "log_warning": ("level", ["log_error", "log_info"]),
         "log_info": ("level", ["log_error", "log_debug"]), "log_debug": ("level", ["log_info", "log_error"])}
NO_STATEMENT = {"if", "for", "while", "do", "switch", "case", "default", "else", "const", "constexpr", "auto", "static",
                "using", "struct", "enum", "namespace", "extern", "inline", "return", "template", "static_assert", "goto"}
LEFT_ALONE = {"__attribute__", "static_assert"}


@dataclass(frozen=True)
class Token:
    kind: str
    text: str
    begin: int
    spaced: bool  # blanks on both sides: a binary operator, not a template's bracket or a pointer's star

    @property
    def end(self) -> int:
        return self.begin + len(self.text)


@dataclass(frozen=True)
class Mutant:
    file: str
    begin: int
    old: str
    new: str
    operator: str
    line: int

    @property
    def name(self) -> str:
        return f"{self.file}:{self.line}:{self.begin}:{self.operator}:{self.new!r}"

    def apply(self, source: str) -> str:
        end = self.begin + len(self.old)
        assert source[self.begin:end] == self.old
        return source[:self.begin] + self.new + source[end:]


def tokens_of(source: str) -> list[Token]:
    """The code's tokens, without what no mutant may touch."""
    tokens = [Token(match.lastgroup or "", match.group(), match.start(),
                    source[match.start() - 1:match.start()].isspace() and source[match.end():match.end() + 1].isspace())
              for match in TOKEN.finditer(source)]
    code = [token for token in tokens if token.kind not in ("blank", "comment", "directive")]
    for index in reversed(range(len(code))):
        if code[index].text in LEFT_ALONE:
            del code[index:closing(code, index + 1) + 1]
    return code


def closing(tokens: list[Token], opening: int) -> int:
    """Index of the parenthesis that closes the one at `opening`."""
    depth = 0
    for index in range(opening, len(tokens)):
        if tokens[index].text in "([{":
            depth += 1
        elif tokens[index].text in ")]}":
            depth -= 1
            if depth == 0:
                return index
    raise ValueError("no closing parenthesis")


def until(tokens: list[Token], begin: int, ends: str) -> int:
    """Index of the first of `ends`, or of a closing parenthesis, outside of parentheses."""
    index = begin
    while tokens[index].text not in ends and tokens[index].text not in ")]}":
        index = closing(tokens, index) + 1 if tokens[index].text in "([{" else index + 1
    return index


Change = tuple[str, int, int, str]  # operator, begin, end, new text


def single_tokens(tokens: list[Token]) -> Iterator[Change]:
    for index, token in enumerate(tokens):
        before = tokens[index - 1].text if index else ""
        for operator, turned in TURNED.items():
            if token.text in turned and (token.spaced or token.text in ("++", "--")) and before != "template":
                for new in turned[token.text]:
                    yield operator, token.begin, token.end, new
        if token.kind == "word" and token.text in WORDS:
            operator, others = WORDS[token.text]
            for new in others:
                yield operator, token.begin, token.end, new
        if token.text == "!" and token.kind == "mark":
            yield "negation", token.begin, token.end, ""
        if token.text == "~" and tokens[index + 1].kind in ("word", "number"):
            yield "arithmetic", token.begin, token.end, ""


def literals(tokens: list[Token]) -> Iterator[Change]:
    for token in tokens:
        if token.kind == "number":
            digits = re.sub(r"[uUlL']", "", token.text)
            suffix = token.text[len(token.text.rstrip("uUlL")):]
            octal = len(digits) > 1 and digits[0] == "0" and digits.isdigit()
            value = int(digits, 8 if octal else 0)
            yield "constant", token.begin, token.end, f"{'0' if octal else ''}{value + 1:{'o' if octal else 'd'}}{suffix}"
            if value > 0:
                yield "constant", token.begin, token.end, f"{'0' if octal else ''}{value - 1:{'o' if octal else 'd'}}{suffix}"
        elif token.kind == "string":
            yield "text", token.begin, token.end, '"~' + token.text[1:]
            yield "text", token.begin, token.end, token.text[:-1] + '~"'
        elif token.kind == "char":
            yield "text", token.begin, token.end, "'\\1'" if token.text.startswith("'\\") else f"'{chr(ord(token.text[1]) + 1)}'"


def sizes(tokens: list[Token]) -> Iterator[Change]:
    for index, token in enumerate(tokens):
        if token.text != "sizeof" or tokens[index + 1].text == "...":
            continue
        last = index + 1
        if tokens[last].text == "(":
            last = closing(tokens, last)
        while tokens[last + 1].text in (".", "->", "::", "["):
            last = closing(tokens, last + 1) if tokens[last + 1].text == "[" else last + 2
        operand = (tokens[index + 1].begin, tokens[last].end)
        yield "size", token.begin, operand[1], "\0 - 1"
        yield "size", token.begin, operand[1], "\0 + 1"


def conditions(tokens: list[Token]) -> Iterator[Change]:
    for index, token in enumerate(tokens):
        if token.text not in ("if", "while") or tokens[index + 1].text != "(":
            continue
        end = closing(tokens, index + 1)
        begin = index + 2
        semicolon = until(tokens, begin, ";")
        if tokens[semicolon].text == ";":
            begin = semicolon + 1
        elif any(inner.text == "=" for inner in tokens[begin:end]):
            continue
        yield "negation", tokens[begin].begin, tokens[end].begin, "!(\0)"


def arms(tokens: list[Token]) -> Iterator[Change]:
    for index, token in enumerate(tokens):
        if token.text != "?":
            continue
        colon = until(tokens, index + 1, ":?")
        if tokens[colon].text != ":":
            continue
        end = until(tokens, colon + 1, ";,?:")
        if tokens[end].text != "?":
            yield "arms", tokens[index].end, tokens[end].begin, "\0arms"


def is_code(tokens: list[Token], brace: int, inside_code: bool) -> bool:
    before = tokens[brace - 1].text if brace else ""
    return before in (")", "else", "do") or (inside_code and before in (";", "{", "}", ":"))


def statements(tokens: list[Token]) -> Iterator[Change]:
    blocks: list[bool] = []
    depth = 0  # a loop's header is no place for statements
    for index, token in enumerate(tokens):
        depth += (token.text == "(") - (token.text == ")")
        if depth == 0 and blocks and blocks[-1] and token.text != "}" and begins_statement(tokens, index):
            yield from dropped(tokens, index)
        if token.text == "{":
            blocks.append(is_code(tokens, index, bool(blocks) and blocks[-1]))
        elif token.text == "}":
            blocks.pop()


def begins_statement(tokens: list[Token], index: int) -> bool:
    before = tokens[index - 1]
    if before.text in (";", "{", "}", "else", "do"):
        return True
    if before.text == ":":
        return tokens[index - 2].text == "default" or tokens[index - 3].text == "case"
    return before.text == ")" and closes_header(tokens, index - 1)


def closes_header(tokens: list[Token], end: int) -> bool:
    depth = 0
    for index in range(end, -1, -1):
        depth += (tokens[index].text == ")") - (tokens[index].text == "(")
        if depth == 0:
            return tokens[index - 1].text in ("if", "for", "while")
    return False


def dropped(tokens: list[Token], index: int) -> Iterator[Change]:
    first, second = tokens[index], tokens[index + 1]
    if first.text == "return" and second.text not in ("{", "nullptr", ";"):
        end = until(tokens, index + 1, ";")
        yield "return", second.begin, tokens[end].begin, "!(\0)"
    if first.text == "return" and second.text == ";":
        yield "statement", first.begin, first.end, ""
    # a word behind a word is a declaration
    if first.kind not in ("word", "mark") or first.text in NO_STATEMENT or second.kind == "word" or first.text in "{};":
        return
    end = until(tokens, index, ";")
    if tokens[end].text == ";":
        yield "statement", first.begin, tokens[end].begin, ""


MAKERS: list[Callable[[list[Token]], Iterator[Change]]] = [single_tokens, literals, sizes, conditions, arms, statements]


def new_text(old: str, pattern: str) -> str:
    if pattern == "\0arms":
        depth = 0
        for index, character in enumerate(old):
            depth += (character in "([{") - (character in ")]}")
            if depth == 0 and old[index:index + 3] == " : ":
                return f" {old[index + 3:]} : {old[:index].lstrip()}"
        return old
    if pattern.startswith("\0"):
        return f"({old}{pattern[1:]})"
    return pattern.replace("\0", old)


def mutants_of(file: str, source: str, seed: int) -> list[Mutant]:
    """Every mutant of a file in the order in which they are to be tried."""
    pools: dict[str, list[Mutant]] = {}
    seen = set()
    tokens = tokens_of(source)
    for maker in MAKERS:
        for operator, begin, end, pattern in maker(tokens):
            old = source[begin:end]
            new = new_text(old, pattern)
            new += "\n" * (old.count("\n") - new.count("\n"))  # the lines behind keep their numbers
            if new == old or (begin, end, new) in seen:
                continue
            seen.add((begin, end, new))
            line = source.count("\n", 0, begin) + 1
            pools.setdefault(operator, []).append(Mutant(file, begin, old, new, operator, line))
    chance = random.Random(f"{seed}:{file}")
    for operator in sorted(pools):
        chance.shuffle(pools[operator])
    ordered = []
    while pools:
        operators = sorted(pools)
        operator = chance.choices(operators, [WEIGHTS[name] for name in operators])[0]
        ordered.append(pools[operator].pop())
        if not pools[operator]:
            del pools[operator]
    return ordered
