"""What a row's repetitions gave, as lines of two tables: one for each program, or one for the document."""
import statistics


def middle(values, form="{:.2f}"):
    shown = form.format(statistics.median(values))
    return shown if len(values) == 1 else f"{shown} ({form.format(min(values))}–{form.format(max(values))})"


class Result:
    """What the repetitions of one row gave, for each of its programs."""

    def __init__(self, title, goal, kind="rate", unit="/s"):
        self.title, self.goal, self.kind, self.unit = title, goal, kind, unit
        self.runs = {}

    def add(self, name, run):
        self.runs.setdefault(name, []).append(run)

    def to_limit(self, name, what):
        ratios = [own[what] / limit[what] for own, limit in zip(self.runs[name], self.runs["raw"])]
        return [1 / ratio for ratio in ratios] if what == "wall" else ratios

    def absolute(self, name):
        runs = self.runs[name]
        median = {what: statistics.median(run[what] for run in runs) for what in runs[0]}
        if self.kind == "memory":
            return f"{median['memory']:.1f} KiB"
        if self.kind == "cpu":
            lost = f", {median['lost']:.0f} lost" if median["lost"] else ""
            return f"{median['cpu'] * 1e6:.2f} us, {median['memory'] / 1024:.0f} MB{lost}"
        rate = 1 / median["wall"]
        return f"{rate / 1e6:.1f} MB/s" if self.unit == "MB/s" else f"{rate:.{2 if rate < 100 else 0}f}/s"

    def lines(self):
        for name in self.runs:
            shown = "limit (plain calls)" if name == "raw" else name
            ratios = ["–", "–"]
            if self.kind != "memory" and "raw" in self.runs:
                ratios = ["–" if self.kind == "cpu" else middle(self.to_limit(name, "wall")), middle(self.to_limit(name, "cpu"))]
            measured = self.absolute(name) if "raw" in self.runs else self.cell(name)
            yield f"| {self.title} | {shown} | {ratios[0]} | {ratios[1]} | {measured} |"

    def cell(self, name):
        if name not in self.runs:
            return "–"
        if self.kind == "memory":
            return self.absolute(name)
        if "raw" not in self.runs:
            return f"{self.absolute(name)}, cpu {statistics.median(run['cpu'] for run in self.runs[name]) * 1e6:.1f} us"
        cost = f"cpu {statistics.median(self.to_limit(name, 'cpu')):.2f}"
        if self.kind == "cpu":
            return cost + self.absolute(name)[self.absolute(name).index(","):]
        return f"{statistics.median(self.to_limit(name, 'wall')):.2f}, {cost}"

    def summary(self):
        """One line of the document's table: ours, the best peer, and Qt's class."""
        judged = {"rate": "wall", "cpu": "cpu", "memory": "memory"}[self.kind]
        peers = [name for name in self.runs if name not in ("raw", "nuvika", "qt")]
        best = min(peers, key=lambda n: statistics.median(run[judged] for run in self.runs[n]), default=None)
        shown = f"{best} {self.cell(best)}" if best else "–"
        return f"| {self.title} | {self.goal or '–'} | {self.cell('nuvika')} | {shown} | {self.cell('qt')} |"


class MicroResult:
    def __init__(self, row, times):
        self.title, self.goal, self.limit, self.ours, self.peers = row
        self.times = times

    def ratio(self, name):
        return f"{self.times[name] / self.times[self.limit]:.2f}"

    def lines(self):
        for name in (self.limit, self.ours, *self.peers):
            if name in self.times:
                yield f"| {self.title} | {name} | – | {self.ratio(name)} | {self.times[name]:.0f} ns |"

    def summary(self):
        peers = [name for name in self.peers if name in self.times]
        best = min(peers, key=self.times.get, default=None)
        shown = f"{best} {self.ratio(best)}" if best else "–"
        qt = next((self.ratio(name) for name in peers if name.endswith("Qt")), "–")
        return f"| {self.title} | {self.goal} | {self.ratio(self.ours)} | {shown} | {qt} |"
