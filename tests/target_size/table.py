"""The table in docs/target.md."""

import re
from statistics import median

begin_mark = "<!-- figures: begin -->"
end_mark = "<!-- figures: end -->"

# Parts of the C library that are files of their own on some processors.
c_library_parts = ("libc.", "libm.", "libdl.", "libpthread.", "librt.", "ld.", "ld-linux")


def memory_text(memories):
    """Medians over the runs: all private pages, of them written ones, and the share."""
    private = median(memory.clean + memory.dirty for memory in memories)
    dirty = median(memory.dirty for memory in memories)
    share = median(memory.pss for memory in memories)
    return f"{dirty:.0f} / {private:.0f} / {share:.0f}"


def size_rows(sizes):
    """`sizes` has by machine: the program's size, and those of the libraries by name."""
    programs = {name: f"{size:,}" for name, (size, _) in sizes.items()}
    rows = [("`vemk`, stripped, bytes", programs)]
    libraries = []
    for _, found in sizes.values():
        libraries += [library for library in found if library not in libraries]
    for library in sorted(libraries, key=lambda name: name.startswith(c_library_parts)):
        rows.append((f"`{library}`", {name: f"{found[library]:,}"
                                      for name, (_, found) in sizes.items() if library in found}))
    return rows


def rest_rows(runs):
    def row(title, text):
        return title, {name: text(results) for name, results in runs.items()}

    return [
        row("memory at start, kB", lambda runs: memory_text([run.at_start for run in runs])),
        row("memory connected, kB", lambda runs: memory_text([run.when_connected for run in runs])),
        row("idle wake-ups a minute",
            lambda runs: f"{median(run.wake_ups_a_minute for run in runs):.0f}"),
        row("idle processor time a minute, ms",
            lambda runs: f"{median(run.cpu_ms_a_minute for run in runs):.0f}"),
    ]


def course_rows(runs, early, end):
    """How memory went in the runs of a scenario; `early` and `end` say when."""

    def row(title, moment):
        return f"memory {title}, kB", {
            name: memory_text([getattr(run, moment) for run in results])
            for name, results in runs.items()}

    return [row(f"connected, before {end}", "connected"), row(f"after {early}", "early"),
            row(f"after {end}", "end")]


def render(sections, columns):
    """Markdown of the sections, each a command and its rows."""
    lines = ["| | " + " | ".join(columns) + " |", "|---" * (len(columns) + 1) + "|"]
    for command, rows in sections:
        lines.append(f"| **`{command}`** |" + " |" * len(columns))
        lines += [f"| {title} | " + " | ".join(cells.get(column, "") for column in columns) + " |"
                  for title, cells in rows]
    return "\n".join(lines)


def write(file, text):
    """Replaces what stands between the marks in the file."""
    old = file.read_text()
    assert begin_mark in old and end_mark in old, f"{file} has no '{begin_mark}' ... '{end_mark}'"
    pattern = re.escape(begin_mark) + ".*" + re.escape(end_mark)
    new = f"{begin_mark}\n{text}\n{end_mark}"
    file.write_text(re.sub(pattern, lambda _: new, old, flags=re.DOTALL))
