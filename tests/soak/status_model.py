"""What the daemon must say on the bus about its connection."""

stopped, established = "stopped", "established"


class status_model:
    """Compares the status messages on the bus with what the daemon did, for one daemon's life.

    It announces "disconnected" when it starts; when a connection, or an attempt at one, ends, and
    once more before the next attempt; and "connected" when a connection is established. Each
    status request is answered once, with the state at that time.
    """

    def __init__(self, start_may_be_unheard=False):
        self.start_may_be_unheard = start_may_be_unheard
        self.words = []
        self.asked = 0
        self.unsure = 0

    def came(self, word):
        self.words.append(word)

    def faults(self, events):
        """What is wrong, now that nothing is under way; `events` are the daemon's own, in order."""
        expected = announcements_of(events)
        heard = runs_of(self.words)
        if self.start_may_be_unheard and heard and expected:
            if heard[0][0] == "connected":
                heard.insert(0, ("disconnected", 0))
            # Only the beginning may be unheard: more than that is missing in a later run.
            missing = max(0, expected[0][1] - heard[0][1])
            heard[0] = ("disconnected", heard[0][1] + missing)
        found = []
        if [word for word, _ in heard] != [word for word, _ in expected]:
            return [f"status: the bus heard {shown(heard)}, and the daemon was {shown(expected)}"]
        answers = 0
        for (word, count), (_, announced) in zip(heard, expected):
            answers += count - announced
            if count < announced:
                found.append(f'status: "{word}" came {count} times in a row, not {announced}: '
                             f"{shown(heard)} instead of {shown(expected)}")
        if not found and not self.asked - self.unsure <= answers <= self.asked:
            found.append(f"status: {self.asked} requests got {answers} answers")
        return found


def announcements_of(events):
    """The runs of words that these events are announced with."""
    words = ["disconnected"]
    for event in events:
        words += ["connected"] if event == established else ["disconnected"] * 2
    return runs_of(words)


def runs_of(words):
    runs = []
    for word in words:
        if runs and runs[-1][0] == word:
            runs[-1] = (word, runs[-1][1] + 1)
        else:
            runs.append((word, 1))
    return runs


def shown(runs):
    kept = runs[-8:]
    return ("... " if len(kept) < len(runs) else "") + ", ".join(f"{w} x{n}" for w, n in kept)
