"""The table of ratios."""

from . import cost

FIELDS = (("wall", "wall, s"), ("processor", "processor, s"), ("memory", "peak memory, MiB"))


def number(value):
    return f"{value:.0f}" if value >= 100 else f"{value:.1f}" if value >= 10 else f"{value:.2f}"


def against(ours, peers, field):
    """Returns the two cells of one measurement: "OURS / THEIRS TOOL" for the best peer, and the ratio."""
    mine = getattr(ours, field)
    if not peers:
        return f"{number(mine):>6}", ""
    best = min(peers, key=lambda name: getattr(peers[name], field))
    theirs = getattr(peers[best], field)
    ratio = f"{mine / theirs:.2f}" if theirs > 0 else "-"
    return f"{number(mine):>6} /{number(theirs):>6} {best}", ratio


class Table:
    def __init__(self):
        self.rows = []  # (title, our tool, its Cost, {peer: Cost})
        self.trouble = []

    def add(self, what, results):
        """`results`: {(tool, whether it is ours): [Cost of each round]}."""
        medians = {tool: cost.median(costs) for tool, costs in results.items() if costs}
        peers = {name: value for (name, ours), value in medians.items() if not ours}
        for (name, ours), value in medians.items():
            if ours:
                self.rows.append((what, name, value, peers))

    def print(self):
        line = "{:<42} {:<10} " + "{:<26} {:>5}  " * len(FIELDS)
        heads = [text for _, title in FIELDS for text in (title, "ratio")]
        print("\n" + line.format("ours / best peer", "ours", *heads).rstrip())
        for what, tool, ours, peers in self.rows:
            cells = [text for field, _ in FIELDS for text in against(ours, peers, field)]
            print(line.format(what, tool, *cells).rstrip())
        for text in self.trouble:
            print("left out: " + text)
