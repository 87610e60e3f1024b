"""Fails when the daemon's largest stack frame is taken without touching each page of it.

Usage: stack_probes.py OBJDUMP LIBRARY

The function that assembles frames takes 16 KiB of stack at once, four times a guard page. Untouched,
they could reach across the guard into somebody else's memory.
"""

import re
import subprocess
import sys

function = "vemk::websock_worker::lws_send("
# gcc and clang for x86 write where the stack pointer stands, gcc for MIPS where it is about to stand.
probe = re.compile(r"\b(?:(?:orq|movq)\s+\$0x0,\(%rsp\)|sw\s+zero,-\d+\(sp\))")


def code_of(objdump, library):
    """The instructions of the function, one a line."""
    listing = subprocess.run([objdump, "-d", "-C", "--no-show-raw-insn", library], check=True,
                             capture_output=True, text=True).stdout
    found = re.search(rf"^\w+ <{re.escape(function)}[^\n]*>:\n(.*?)\n\n", listing, re.M | re.S)
    return found[1] if found else sys.exit(f"{library} has no function {function}...)")


def main():
    touched = probe.findall(code_of(*sys.argv[1:]))
    print(f"{len(touched)} probes")
    if not touched:
        sys.exit(f"{function}...) touches no page of its frame: build with -fstack-clash-protection")


if __name__ == "__main__":
    main()
