"""Fails when a function of the daemon needs more of a thread's stack than is allowed for.

Usage: stack_usage.py FOLDER, the folder with the compiler's .su files.

Small C libraries give a thread 128 KiB. The functions together stay under half of that, so every
chain of calls does, and leaves the other half to the libraries.
"""

import pathlib
import sys

usual_limit = 512
total_limit = 64 * 1024
# By the name that stands before the argument list.
special_limits = {
    # Assembles frames of up to 16 KiB on the stack.
    "vemk::websock_worker::lws_send": 17 * 1024,
    # Only main's thread: they hold what lives as long as the process.
    "vemk::run_bridge": 2 * 1024,
    "vemk::run_daemon": 2 * 1024,
}


def functions(folder):
    """Yields place, name, bytes and kind of every function."""
    for file in sorted(folder.rglob("*.su")):
        for line in file.read_text().splitlines():
            place, size, kind = line.split("\t")
            source, _, rest = place.partition(":")
            yield source, rest.split(":", 2)[2], int(size), kind


def problems_of(found):
    for source, signature, size, kind in found:
        name = signature.split("(")[0].split(" ")[-1]
        limit = special_limits.get(name, usual_limit)
        if size > limit:
            yield f"{source}: {signature} needs {size} bytes, allowed are {limit}"
        if kind == "dynamic":
            yield f"{source}: {signature} needs as much as its data say; use the heap"
    for name in special_limits:
        if not any(name + "(" in signature for _, signature, _, _ in found):
            yield f"{name} is allowed more, but there is no such function"
    total = sum({(source, signature): size for source, signature, size, _ in found}.values())
    if total > total_limit:
        yield f"all functions together need {total} bytes, allowed are {total_limit}"


def main():
    found = list(functions(pathlib.Path(sys.argv[1])))
    if not found:
        sys.exit(f"{sys.argv[1]} holds no .su files: build libvemk with -fstack-usage")
    largest = sorted({(size, signature) for _, signature, size, _ in found}, reverse=True)[:5]
    for size, signature in largest:
        print(f"{size:6} {signature}")
    problems = list(problems_of(found))
    print(f"{len(found)} functions")
    sys.exit("\n".join(problems) or 0)


if __name__ == "__main__":
    main()
