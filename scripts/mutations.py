"""The small changes that operators make to the sources, found by the compiler's parser.

Each changes one expression or statement of src/; types, assertions and comments stay.
"""

import dataclasses
import itertools
import json
import pathlib
import re
import shlex

from clang.cindex import CursorKind as kind, Diagnostic, Index, TypeKind

boundary = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "=="}
logic = {"&&": "||", "||": "&&"}
either_operand = {"&&", "||", "|"}
right_operand = {"+", "-", "*", "/", "%", ">>", "<<", "&"}
steps = {"++": "--", "--": "++"}
functions = {kind.FUNCTION_DECL, kind.CXX_METHOD, kind.CONSTRUCTOR, kind.DESTRUCTOR}
left_alone = {kind.STATIC_ASSERT, kind.TYPE_REF, kind.TYPE_ALIAS_DECL, kind.TYPEDEF_DECL}
labels = {kind.CASE_STMT, kind.DEFAULT_STMT}
# An initialiser without a value means the same as with one of these.
zero = {"{}", "0", "false", "nullptr"}
last_character = re.compile(r'\\?[^"]"$')
word = re.compile(r"(?<![\\%A-Za-z])[A-Za-z]{2}")


@dataclasses.dataclass(frozen=True)
class mutant_t:
    """Another text for the one at an offset of a file."""
    file: str
    # None for one of the list, which names no function.
    function: str | None
    start: int
    old: str
    new: str

    def label(self):
        old, new = (" ".join(part.split()) for part in (self.old, self.new))
        return ": ".join(filter(None, (self.file, self.function, f"{old} -> {new}")))

    def applied(self, text):
        return text[:self.start] + self.new + text[self.start + len(self.old):]


def start_of(cursor):
    return cursor.extent.start.offset


def end_of(cursor):
    return cursor.extent.end.offset


class operators:
    """Applies each operator to a piece of a file's syntax; yields start, end and the new text."""

    def __init__(self, text):
        self.text = text

    def text_of(self, cursor):
        return self.text[start_of(cursor):end_of(cursor)]

    def statement_end(self, cursor):
        """Behind the semicolon, which is not a part of an expression."""
        semicolon = re.compile(r"\s*;").match(self.text, end_of(cursor))
        return semicolon.end() if semicolon else end_of(cursor)

    def replace(self, cursor, text):
        return start_of(cursor), end_of(cursor), text

    def changes(self, cursor, parts):
        if cursor.kind == kind.COMPOUND_STMT:
            yield from self.block(parts)
        elif cursor.kind == kind.IF_STMT:
            branches = [self.text[start_of(part):self.statement_end(part)] for part in parts[1:]]
            for branch in (branches + [";"])[:2]:
                yield start_of(cursor), self.statement_end(parts[-1]), branch
        elif cursor.kind == kind.CONDITIONAL_OPERATOR:
            yield from (self.replace(cursor, self.text_of(part)) for part in parts[1:])
        elif cursor.kind == kind.BINARY_OPERATOR:
            yield from self.operation(cursor, *parts)
        elif cursor.kind == kind.UNARY_OPERATOR:
            yield from self.unary(cursor, parts[0])
        elif cursor.kind == kind.CALL_EXPR:
            yield from self.arguments(cursor, list(cursor.get_arguments()))
        elif cursor.kind == kind.CONSTRUCTOR:
            yield from self.initialisers(parts)
        elif cursor.kind.is_expression():
            yield from self.literal(cursor, self.text_of(cursor))

    def block(self, parts):
        for part in parts:
            while part.kind in labels:
                *_, below = part.get_children()
                yield start_of(part), start_of(below), ""
                part = below
            if part.kind not in (kind.DECL_STMT, kind.RETURN_STMT, kind.IF_STMT):
                yield start_of(part), self.statement_end(part), ";"

    def operation(self, cursor, left, right):
        between = self.text[end_of(left):start_of(right)]
        sign = between.strip()
        other = {**boundary, **logic}.get(sign)
        if other:
            yield end_of(left), start_of(right), between.replace(sign, other)
        if sign in either_operand:
            yield self.replace(cursor, self.text_of(right))
        if sign in either_operand | right_operand:
            yield self.replace(cursor, self.text_of(left))

    def unary(self, cursor, operand):
        text, inner = self.text_of(cursor), self.text_of(operand)
        sign = text.replace(inner, "", 1)
        if sign in steps:
            yield self.replace(cursor, text.replace(sign, steps[sign]))
        elif sign == "!":
            yield self.replace(cursor, inner)

    def arguments(self, cursor, given):
        """The arguments of an overloaded operator are operands."""
        for one, two in itertools.pairwise(given):
            if self.text[end_of(one):start_of(two)].strip() != ",":
                yield from self.operation(cursor, one, two)

    def initialisers(self, parts):
        for member, value in itertools.pairwise(parts):
            if (member.kind == kind.MEMBER_REF and value.kind.is_expression()
                    and self.text_of(value) not in zero):
                end = end_of(value) + (self.text[end_of(value)] in ")}")
                yield start_of(member), end, f"{member.spelling}()"

    def literal(self, cursor, text):
        number = re.fullmatch(r"(0x[0-9A-F]+|0|[1-9]\d*)(u?)", text)
        if cursor.kind == kind.CXX_BOOL_LITERAL_EXPR:
            yield self.replace(cursor, "false" if text == "true" else "true")
        elif cursor.kind == kind.INTEGER_LITERAL and number:
            for value in (int(number[1], 0) + 1, int(number[1], 0) - 1):
                yield self.replace(cursor, f"{hex(value) if 'x' in text else value}{number[2]}")
        elif cursor.kind == kind.STRING_LITERAL and text[:1] == '"':
            yield self.replace(cursor, last_character.sub('"', text) if text != '""' else '"?"')
            *_, begin = 0, *(found.start() for found in word.finditer(text))
            yield self.replace(cursor, text[:begin] + text[begin].swapcase() + text[begin + 1:])
        elif cursor.kind == kind.CHARACTER_LITERAL and text[:1] == "'":
            yield self.replace(cursor, "'?'")


class generator:
    """Collects the mutants of the sources below a folder, each widened to lines of its own."""

    def __init__(self, root):
        self.root = root
        self.texts = {}
        self.found = {}

    def visit(self, cursor, function=""):
        place = cursor.location.file
        if cursor.kind in left_alone or not place or not place.name.startswith(f"{self.root}/src/"):
            return
        if cursor.kind in functions:
            function = cursor.spelling
        name = str(pathlib.Path(place.name).relative_to(self.root))
        if name not in self.texts:
            self.texts[name] = (self.root / name).read_text()
        text = self.texts[name]
        parts = list(cursor.get_children())
        if cursor.type.kind == TypeKind.CONSTANTARRAY and not cursor.kind.is_expression():
            parts = [part for part in parts if part.kind != kind.INTEGER_LITERAL]
        for start, end, new in operators(text).changes(cursor, parts):
            first, last = text.rfind("\n", 0, start) + 1, text.find("\n", end)
            while text.count(text[first:last]) > 1:
                first = text.rfind("\n", 0, first - 1) + 1
            first = re.compile(r"\s*").match(text, first, start).end()
            old, new = text[first:last], text[first:start] + new + text[end:last]
            if old != new:
                self.found[name, first, new] = mutant_t(name, function, first, old, new)
        for part in parts:
            self.visit(part, function)


def generate(root, commands):
    """The mutants of all sources that the compiler's commands name, by file and place."""
    mutants = generator(root)
    for command in json.loads(commands.read_text()):
        if pathlib.Path(command["file"]).is_relative_to(root / "src"):
            words = shlex.split(command["command"])[1:]
            options = words[:words.index("-o")]
            # Another compiler's precompiled headers are of no use.
            if "-include" in options:
                place = options.index("-include")
                del options[place:place + 2]
            unit = Index.create().parse(None, [*options, command["file"]])
            wrong = [line for line in unit.diagnostics if line.severity >= Diagnostic.Error]
            if wrong:
                raise ValueError(wrong[0])
            for cursor in unit.cursor.get_children():
                mutants.visit(cursor)
    return [mutants.found[key] for key in sorted(mutants.found)]
