"""Reads one C++ file of the library: tokens, functions, statements, records.

It knows the C++ that the tree is written in (clang-format'ed, one declaration a statement, no
macros in bodies but Qt's), not all of C++.
"""

import re
from dataclasses import dataclass, field

TOKEN = re.compile(
    r"""
    (?P<skip>\s+|//[^\n]*|/\*.*?\*/|^\#[^\n]*)
  | (?P<text>(?:u8|u|U|L)?"(?:\\.|[^"\\\n])*"(?:_\w+)?)
  | (?P<number>\d[\w.]*)
  | (?P<name>[A-Za-z_]\w*)
  | (?P<sign>::|->|&&|\|\||==|!=|<=|>=|[^\s\w])
    """,
    re.VERBOSE | re.DOTALL | re.MULTILINE,
)
CLOSING = {"(": ")", "[": "]", "{": "}"}
DECLARATION = re.compile(r"(const )?(?P<type>[A-Z]\w*|int|bool)(?P<mark> [&*]?)(?P<name>\w+)\s*(=|\(|\{|;)")


@dataclass
class Token:
    kind: str
    value: str
    start: int
    end: int


@dataclass
class Statement:
    """A simple statement: tokens first to last, the semicolon included."""

    first: int
    last: int
    text: str

    @property
    def declared(self):
        """The type and the name of the variable that it declares, or None."""
        match = DECLARATION.match(self.text)
        return match and (match["type"], match["name"])


@dataclass
class Function:
    parameters: list  # (type, name)
    member: bool  # of a class
    body: tuple  # first and last token, the braces
    runs: list = field(default_factory=list)  # lists of simple statements that follow each other


class Source:
    def __init__(self, text):
        self.text = text
        self.tokens = [
            Token(match.lastgroup, match.group(), match.start(), match.end())
            for match in TOKEN.finditer(text)
            if match.lastgroup != "skip"
        ]
        self.partner = self._partners()
        self.functions = []
        self.records = []  # (name, first and last token of the body)
        self._scope(0, len(self.tokens))

    def value(self, index):
        return self.tokens[index].value if 0 <= index < len(self.tokens) else ""

    def between(self, first, last):
        """The text from the first to the last token."""
        return self.text[self.tokens[first].start : self.tokens[last].end]

    def spaced(self, index):
        """Whether blanks stand on both sides: clang-format sets operators so, not brackets of types."""
        token = self.tokens[index]
        return self.text[token.start - 1].isspace() and self.text[token.end].isspace()

    def pieces(self, first, last, separators=(",",)):
        """The parts of tokens first to last between separators outside of inner brackets."""
        parts, begin, index = [], first, first
        while index <= last:
            if self.value(index) in CLOSING:
                index = self.partner[index]
            elif self.value(index) in separators:
                parts.append((begin, index - 1))
                begin = index + 1
            index += 1
        parts.append((begin, last))
        return [part for part in parts if part[0] <= part[1]]

    def _partners(self):
        partner, open_ = {}, []
        for index, token in enumerate(self.tokens):
            if token.value in CLOSING:
                open_.append(index)
            elif token.value in CLOSING.values():
                other = open_.pop()
                partner[other], partner[index] = index, other
        return partner

    def _scope(self, index, end):
        """Functions and records of a namespace, whose tokens go from index up to end."""
        head = index
        while index < end:
            value = self.value(index)
            if value == "(":
                index = self.partner[index]
            elif value == "{":
                self._braces(head, index)
                index = self.partner[index]
                head = index + 1
            elif value == ";":
                head = index + 1
            index += 1

    def _braces(self, head, brace):
        words = [self.value(index) for index in range(head, brace)]
        if "namespace" in words:
            self._scope(brace + 1, self.partner[brace])
        elif "class" in words or "struct" in words:
            name = words[words.index(":") - 1] if ":" in words else words[-1]
            self.records.append((name, brace, self.partner[brace]))
        elif "(" in words:
            opening = head + words.index("(")
            member = "::" in words[: words.index("(")]
            function = Function(self._parameters(opening), member, (brace, self.partner[brace]))
            self._block(function, brace + 1, self.partner[brace])
            self.functions.append(function)

    def _parameters(self, opening):
        found = []
        for first, last in self.pieces(opening + 1, self.partner[opening] - 1):
            words = [self.value(index) for index in range(first, last + 1)]
            names = [word for word in words if word.isidentifier() and word != "const"]
            if len(names) == 2:
                found.append((names[0] + ("*" if "*" in words else ""), names[1]))
        return found

    def _block(self, function, index, end):
        run = []
        function.runs.append(run)
        while index < end:
            value = self.value(index)
            if value in ("if", "switch", "for", "while"):
                index = self.partner[index + 1] + 1
                if self.value(index) != "{":
                    last = self._semicolon(index)
                    function.runs.append([self._statement(index, last)])
                    index = last + 1
                run = []
                function.runs.append(run)
            elif value in ("case", "default"):
                while self.value(index) != ":":
                    index += 1
                index += 1
                run = []
                function.runs.append(run)
            elif value == "{":
                self._block(function, index + 1, self.partner[index])
                index = self.partner[index] + 1
                run = []
                function.runs.append(run)
            elif value == "else":
                index += 1
            else:
                last = self._semicolon(index)
                run.append(self._statement(index, last))
                index = last + 1

    def _semicolon(self, index):
        while self.value(index) != ";":
            index = self.partner[index] + 1 if self.value(index) in CLOSING else index + 1
        return index

    def _statement(self, first, last):
        return Statement(first, last, self.between(first, last))
