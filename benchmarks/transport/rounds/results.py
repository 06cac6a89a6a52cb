"""What runs gave, and what follows from it: medians, and ratios to the floor of the same round."""

import statistics

from catalogue import FLOOR


class Results:
    """Entries {round, measure, setting, peer} with "figures", or with "failure", a text."""

    def __init__(self, entries=()):
        self.entries = list(entries)

    def add(self, number, measure, setting, peer, **outcome):
        self.entries.append({"round": number, "measure": measure, "setting": setting, "peer": peer, **outcome})

    def figures_by_round(self, measure, setting, peer):
        return {entry["round"]: entry["figures"] for entry in self.entries
                if (entry["measure"], entry["setting"], entry["peer"]) == (measure, setting, peer)
                and "figures" in entry}

    def failures(self):
        """(measure, peer): text"""
        return {(entry["measure"], entry["peer"]): entry["failure"] for entry in self.entries if "failure" in entry}

    def was_tried(self, measure, setting):
        return any(entry["measure"] == measure and entry["setting"] == setting for entry in self.entries)

    def median(self, measure, setting, peer, figure):
        """None if there is none."""
        values = [figures[figure] for figures in self.figures_by_round(measure, setting, peer).values()
                  if figure in figures]
        return statistics.median(values) if values else None

    def ratio(self, measure, setting, peer, figure, is_rate=False):
        """How many times the floor's cost it takes: the median over the rounds that have both."""
        theirs = self.figures_by_round(measure, setting, peer)
        floors = self.figures_by_round(measure, setting, FLOOR)
        ratios = []
        for number in theirs.keys() & floors.keys():
            value, floor = theirs[number].get(figure), floors[number].get(figure)
            if value and floor:
                ratios.append(floor / value if is_rate else value / floor)
        return statistics.median(ratios) if ratios else None
