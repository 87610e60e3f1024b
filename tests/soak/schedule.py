"""The order of the faults: a function of the seed and of nothing else."""

import collections
import random

entry_t = collections.namedtuple("entry_t", "fault choices pause_seconds")


def schedule(faults, seed):
    """Yields faults for ever, each with its own source of random numbers and the pause before it.

    The first round holds each fault once, so that the shortest run meets all of them; from the
    second on each stands in it as often as its weight says.
    """
    order = random.Random(f"schedule {seed}")
    index = 0
    deck = list(faults)
    while True:
        order.shuffle(deck)
        for fault in deck:
            index += 1
            choices = random.Random(f"fault {seed} {index}")
            yield entry_t(fault, choices, order.uniform(0.2, 1.2))
        deck = [fault for fault in faults for _ in range(fault.weight)]
