"""Reads the manual pages' sources and the programs' sources."""

import ast
import collections
import pathlib
import re

checkout = pathlib.Path(__file__).resolve().parents[2]

heading = re.compile(r'\.S[hs] (.*)')
escapes = {r"\-": "-", r"\&": "", r"\en": r"\n", r"\(en": "–"}


def plain(text):
    for escape, meaning in escapes.items():
        text = text.replace(escape, meaning)
    return text


class manual_page:
    """A page as its sections' lines, by the heading of section or subsection."""

    def __init__(self, name):
        self.sections = collections.defaultdict(list)
        title = ""
        for line in (checkout / "man" / name).read_text().splitlines():
            found = heading.fullmatch(line)
            if found:
                title = found[1].strip('"')
            else:
                self.sections[title].append(line)

    def section(self, begin):
        """The lines of the section with this heading, or of the one whose heading begins so."""
        if begin in self.sections:
            return self.sections[begin]
        titles = [title for title in self.sections if title.startswith(begin)]
        assert len(titles) == 1, f"{titles or 'no heading'} begin with {begin!r}"
        return self.sections[titles[0]]

    def items(self, section, macro):
        """The first words of a section's list items of a macro, each with the line behind it."""
        lines = self.section(section)
        argument = re.compile(rf'\.It {macro} (?:"(.*)"|(\S+).*)')
        found = [(argument.fullmatch(line), following)
                 for line, following in zip(lines, lines[1:] + [""])]
        return [(plain(match[1] or match[2]), following) for match, following in found if match]


def string_value(literals):
    """The value of adjacent C string literals."""
    return "".join(ast.literal_eval(part) for part in re.findall(r'"(?:[^"\\]|\\.)*"', literals))


literals = r'((?:"(?:[^"\\]|\\.)*"\s*)+)'
log_line_t = collections.namedtuple("log_line_t", "file category module format")


def log_lines():
    """Every log message of the daemon's sources; the format is None where it is no literal."""
    modules = {}
    found = []
    for file in sorted((checkout / "src").rglob("*.cpp")):
        text = file.read_text()
        for variable, name in re.findall(r'log_module_setup \w+\((\w+), "([^"]+)"\)', text):
            modules[(file.parent, variable)] = name
        for call in re.finditer(r"^\s+log_(error|warning|info|debug)\((\w+),\s*" + literals + "?",
                                text, re.MULTILINE):
            category, variable, literal = call.groups()
            found.append((file, category, variable, literal and string_value(literal).strip()))
    return [log_line_t(file.relative_to(checkout), category, modules[(file.parent, variable)], text)
            for file, category, variable, text in found]


def trace_lines():
    """The trace messages of the WebSocket worker, with handler and number."""
    found = []
    for file in sorted((checkout / "src/websock").glob("*.cpp")):
        text = file.read_text()
        numbers = dict(re.findall(r"constexpr int (\w+_trace) = (\d+);", text))
        handlers = dict(re.findall(r'constexpr char (handler)\[\] = ("[^"]+");', text))
        for handler, number in re.findall(r'\btrace\(("?\w+"?), (\w+)\);', text):
            name = handlers.get(handler, handler).strip('"')
            found.append(f"websock-roaming->{name}:{numbers[number]}")
    return found


def listing_texts():
    """The fixed lines of a message's listing, which is built as one text."""
    source = (checkout / "src/worker/buffer_dump.cpp").read_text()
    return [string_value(text).strip()
            for text in re.findall(r"constexpr char \w+\[\] = " + literals, source)
            if " " in string_value(text)]


def pattern_of(text):
    """What a printf format may come out as: words, or words in capitals that stand for them."""
    pieces = re.split(r"(%[usdx])", text)
    meanings = {"%s": r".+?", "%u": r"(?:\d+|[A-Z]+)", "%d": r"(?:-?\d+|[A-Z]+)"}
    return re.compile("".join(meanings.get(piece) or re.escape(piece) for piece in pieces))
