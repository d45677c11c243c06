"""Puts the figures of a benchmark run into the marked tables of a page; the text around them stays.

Usage: performance.py FIGURES.json PAGE.md COMMIT
"""
import json
import re
import sys

SIZES = (100, 1000, 10_000, 100_000, 1_000_000)
RATIO_GOALS = {2: None, 20: 1.5, 100: 1.15, 800: 1.15}
JUMP_GOAL_MS = 20
BLOCK_GOAL_MS = 10


def table(head, rows):
    lines = [head, ["---"] * len(head), *rows]
    return "\n".join("| " + " | ".join(str(cell) for cell in line) + " |" for line in lines)


def verdict(value, goal):
    return f"{goal}, {'met' if value <= goal else '**missed**'}"


def number(value):
    return f"{value:.3g}" if value < 100 else f"{value:.0f}"


class Figures:
    def __init__(self, path, commit):
        with open(path, encoding="utf-8") as file:
            run = json.load(file)
        self.context = run["context"]
        self.commit = commit
        self.all = {figure["name"]: figure for figure in run["benchmarks"]}
        failed = [name for name, figure in self.all.items() if figure.get("error_occurred")]
        if failed:
            sys.exit("these benchmarks failed: " + ", ".join(failed))

    def of(self, start):
        """The figure whose name begins so; of repeated ones the median."""
        named = [figure for name, figure in self.all.items() if name == start or name.startswith(start + "/")]
        return next((f for f in named if f.get("aggregate_name") == "median"), named[0] if named else None)

    def machine(self):
        with open("/proc/cpuinfo", encoding="utf-8") as file:
            model = re.search(r"model name\s*: (.*)", file.read())
        what = f"{self.context['num_cpus']} cores" + (f" of {model.group(1)}" if model else "")
        load = self.context.get("load_avg") or [0]
        return f"Measured {self.context['date'][:10]} at commit {self.commit}, on {what}, load {load[0]:.1f} at the start."

    def pictures(self):
        rows = []
        for size, goal in RATIO_GOALS.items():
            f = self.of(f"picturePath/{size}")
            rows.append([f"{size} KiB", number(f["real_time"]), number(f["floor_us"]), f"{f['ratio']:.2f}",
                         verdict(round(f["ratio"], 2), goal) if goal else "none"])
        return table(["picture", "pass, µs", "floor, µs", "ratio", "goal"], rows)

    def streams(self):
        rows = []
        for size in SIZES[1:]:
            row = [f"{size:,}"]
            for rate in (30, 25):
                f = self.of(f"timeInStream/{size}/{rate}")
                row += [number(f["real_time"] / 1000), f"{f['mean_reads']:.1f}, {f['most_reads']:.0f}"]
            rows.append(row + [number(self.of(f"followRecorder/{size}")["real_time"] / 1000)])
        return table(["pictures", "time search, µs", "headers read: mean, most", "the same, false rate, µs",
                      "headers read: mean, most", "following the recorder, µs"], rows)

    def questions(self):
        return dict.fromkeys(name.split("/")[1] for name in self.all if name.startswith("index/"))

    def asked(self, question, size, keys, cache="warm"):
        f = self.of(f"index/{question}/{size}/{keys}/{cache}")
        if not f:
            return None
        failed = f" ({f['failed']:.0f} of {f['iterations']} gave up)" if f["failed"] else ""
        return f"{number(f['median_ms'])}, {number(f['most_ms'])}{failed}"

    def index(self, cache="warm"):
        rows = [[question] + [self.asked(question, size, "schema", cache) for size in SIZES]
                for question in self.questions()]
        return table([f"ms: median, most ({cache})"] + [f"{size:,} streams" for size in SIZES],
                     [row for row in rows if row[1]])

    def cold(self):
        return self.index("cold")

    def jumps(self):
        rows = []
        for cache in ("warm", "cold"):
            for question in ("clock time", "clock time backward", "next alarm", "previous alarm"):
                f = self.of(f"index/{question}/100000/schema/{cache}")
                each = number((f["median_ms"] * 1000) / f["reads"]) if cache == "cold" and f["reads"] else ""
                rows.append([f"{question}, {cache}", number(f["median_ms"]), number(f["most_ms"]),
                             number(f["reads"]), each, verdict(f["most_ms"], JUMP_GOAL_MS)])
        return table(["at 100,000 streams", "median, ms", "most, ms", "reads of the file", "µs a read", "goal for the most"],
                     rows)

    def keys(self):
        columns = [(size, keys) for size in SIZES[3:] for keys in ("schema", "none", "by time")]
        rows = [[question] + [self.asked(question, *column) for column in columns] for question in self.questions()]
        return table(["ms: median, most"] + [f"{size:,}: {keys}" for size, keys in columns], rows)

    def statements(self):
        rows = []
        for question in self.questions():
            f = self.of(f"index/{question}/100000/schema/warm")
            times = [number(f[f"statement{i}_ms"]) if f"statement{i}_ms" in f else "" for i in (1, 2)]
            if any(times):
                rows.append([question] + times)
        return table(["ms at 100,000 streams", "first statement", "second"], rows)

    def control(self):
        status, opened = self.of("statusRoundTrip"), self.of("openSession")
        beyond = opened["beyond_pause_ms"]
        return table(["", "", "goal"], [
            ["status round trips per second", number(status["items_per_second"]), ""],
            ["open: request to answer, ms", number(opened["answer_ms"]), ""],
            ["open: request to first picture block, ms", number(opened["block_ms"]), ""],
            ["… beyond the pause of 100 ms", number(beyond), verdict(beyond, BLOCK_GOAL_MS)]])


def main(figures_path, page_path, commit):
    figures = Figures(figures_path, commit)
    with open(page_path, encoding="utf-8") as file:
        page = file.read()
    page = re.sub(r"(<!-- bench (\w+) -->\n).*?(<!-- /bench -->)",
                  lambda m: m.group(1) + getattr(figures, m.group(2))() + "\n" + m.group(3), page, flags=re.S)
    with open(page_path, "w", encoding="utf-8") as file:
        file.write(page)


if __name__ == "__main__":
    if len(sys.argv) != 4:
        sys.exit(__doc__)
    main(*sys.argv[1:])
