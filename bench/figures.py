"""The figures of all runs, and the file that keeps them."""

import collections
import statistics

quantiles = (1, *range(5, 100, 5), 98, 99, 99.9)


def quantile(values, percent):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(len(ordered) * percent / 100))]


class figures:
    """By system and measure, one value of each run."""

    def __init__(self):
        self.values = collections.defaultdict(list)

    def add(self, system, measure, found):
        """A run's value. Of a latency, with its many values, the quantiles."""
        if measure.startswith("latency"):
            for percent in quantiles:
                self.values[system, f"{measure} p{percent}"].append(quantile(found, percent))
        else:
            self.values[system, measure] += found

    def median(self, system, measure):
        """None without values."""
        values = self.values.get((system, measure))
        return statistics.median(values) if values else None

    def best(self, system, measure):
        """None without values."""
        values = self.values.get((system, measure), [])
        return (min if measure.startswith("latency") else max)(values, default=None)

    def spread(self, system, measure):
        """Half the distance between smallest and largest run, relative to the median."""
        values = self.values[system, measure]
        return (max(values) - min(values)) / 2 / (statistics.median(values) or 1)

    def series(self, system, measure):
        """The sorted numbers that end the names of a series of measures, with their measures."""
        found = [(float(name[len(measure):].lstrip(" p")), name)
                 for owner, name in self.values if owner == system and name.startswith(measure)]
        return sorted(found)

    def write(self, file):
        lines = [f"{system}\t{measure}\t{' '.join(f'{value:.6g}' for value in values)}\n"
                 for (system, measure), values in self.values.items() if values]
        file.write_text("".join(lines))

    @classmethod
    def read(cls, file):
        found = cls()
        for line in file.read_text().splitlines():
            system, measure, values = line.split("\t")
            found.values[system, measure] = [float(value) for value in values.split()]
        return found


# What `check` compares: a measure, and the system that is its limit.
compared = {
    "rate up 200": "library", "rate up 4096": "library", "rate down 200": "library",
    "rate down 4096": "library", "latency up p50": "library", "latency down p50": "library",
}


def share_of_limit(pick, system, measure):
    """How near a system is to the limit, 1 being the limit itself; None without figures. `pick`
    chooses among the values of the runs."""
    own, limit = pick(system, measure), pick(compared[measure], measure)
    if not own or not limit:
        return None
    return limit / own if measure.startswith("latency") else own / limit
