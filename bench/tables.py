"""Puts measured figures into the marked tables of a page; the text around them stays. Called by scripts/bench,
scripts/compare-players and scripts/compare-servers: tables.py bench PAGE COMMIT FIGURES.json, or players or servers
PAGE COMMIT DIRECTORY SECONDS ROUNDS, where NAME.figures in DIRECTORY has a line of name=value pairs for each round.
"""
import datetime
import json
import os
import re
import statistics
import sys

SIZES = (1000, 100_000, 1_000_000)
YEAR = 100_000  # streams of five minutes
JUMPS = ("clock time", "clock time backward", "next alarm", "previous alarm")
RATIO_GOALS = {2: None, 20: 1.5, 100: 1.15, 800: 1.15}
JUMP_GOAL_MS = 20
BLOCK_GOAL_MS = 10
PLAYERS = {
    "tavirn": "tavirn-rooted",
    "ffmpeg": "`ffmpeg -re`",
    "gstreamer": "GStreamer, `sync=true`",
    "floor": "the floor",
    "live": "tavirn-rooted, live",
}


def table(head, rows):
    return "\n".join("| " + " | ".join(str(cell) for cell in line) + " |" for line in [head, ["---"] * len(head), *rows])


def verdict(value, goal):
    return f"{goal}, {'met' if value <= goal else '**missed**'}"


def number(value):
    return f"{value:.3g}" if value < 100 else f"{value:.0f}"


def processor():
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        model = re.search(r"model name\s*: (.*)", file.read())
    return f"{os.cpu_count()} cores of {model.group(1) if model else os.uname().machine}"


class Bench:
    """A method for each mark: <!-- bench NAME -->."""

    def __init__(self, commit, figures):
        with open(figures, encoding="utf-8") as file:
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
        load = self.context.get("load_avg") or [0]
        return f"Measured {self.context['date'][:10]} at commit {self.commit}, on {processor()}, load {load[0]:.1f} at the start."

    def pictures(self):
        rows = [[f"{size} KiB", number(f["real_time"]), number(f["floor_us"]), f"{f['ratio']:.2f}",
                 verdict(round(f["ratio"], 2), goal) if goal else "none"]
                for size, goal in RATIO_GOALS.items() for f in [self.of(f"picturePath/{size}")]]
        return table(["picture", "pass, µs", "floor, µs", "ratio", "goal"], rows)

    def streams(self):
        rows = []
        for size in SIZES:
            row = [f"{size:,}"]
            for rate in (30, 25):
                f = self.of(f"timeInStream/{size}/{rate}")
                row += [number(f["real_time"] / 1000), f"{f['mean_reads']:.1f}, {f['most_reads']:.0f}"]
            rows.append(row + [number(self.of(f"followRecorder/{size}")["real_time"] / 1000)])
        return table(["pictures", "time search, µs", "headers read: mean, most", "the same, false rate, µs",
                      "headers read: mean, most", "following the recorder, µs"], rows)

    def questions(self):
        return dict.fromkeys(name.split("/")[1] for name in self.all if name.startswith("index/"))

    def asked(self, question, size, keys):
        f = self.of(f"index/{question}/{size}/{keys}/warm")
        failed = f" ({f['failed']:.0f} of {f['iterations']} gave up)" if f["failed"] else ""
        return f"{number(f['median_ms'])}, {number(f['most_ms'])}{failed}"

    def index(self):
        asked = [(size, "schema") for size in SIZES] + [(YEAR, "none"), (YEAR, "by time")]
        rows = [[question] + [self.asked(question, *each) for each in asked] for question in self.questions()]
        most = max(self.of(f"index/{question}/{YEAR}/schema/warm")["most_ms"] for question in JUMPS)
        return table(["ms: median, most", *(f"{size:,} streams" for size in SIZES), f"{YEAR:,}, no keys",
                      f"{YEAR:,}, keys by time"], rows) + (
            f"\n\nThe longest jump in {YEAR:,} streams, warm: {number(most)} ms, goal {verdict(most, JUMP_GOAL_MS)}.")

    def jumps(self):
        rows = []
        for question in JUMPS:
            f = self.of(f"index/{question}/{YEAR}/schema/cold")
            each = number(f["median_ms"] * 1000 / f["reads"]) if f["reads"] else ""
            rows.append([question, number(f["median_ms"]), number(f["most_ms"]), number(f["reads"]), each,
                         verdict(f["most_ms"], JUMP_GOAL_MS)])
        return table([f"cold, {YEAR:,} streams", "median, ms", "most, ms", "reads of the file", "µs a read",
                      "goal for the most"], rows)

    def control(self):
        status, opened = self.of("statusRoundTrip"), self.of("openSession")
        beyond = opened["beyond_pause_ms"]
        return table(["", "", "goal"], [
            ["status round trips per second", number(status["items_per_second"]), ""],
            ["open: request to answer, ms", number(opened["answer_ms"]), ""],
            ["open: request to first picture block, ms", number(opened["block_ms"]), ""],
            ["… beyond the pause of 100 ms", number(beyond), verdict(beyond, BLOCK_GOAL_MS)]])


class Compared:
    """Of the rounds the medians; of peaks and maxima the greatest."""

    def __init__(self, names, commit, directory, seconds, rounds):
        self.title = (f"{processor()}, Linux {os.uname().release}; {datetime.date.today()}; commit {commit}; load "
                      f"{os.getloadavg()[1]:.1f}; {rounds} rounds of {seconds} s each: 1920x1080, 25 pictures a second, "
                      "4 Mb/s.")
        self.of = {name: self.figures(f"{directory}/{name}.figures") for name in names}

    @staticmethod
    def figures(path):
        with open(path, encoding="utf-8") as file:
            rounds = [dict(pair.split("=") for pair in line.split()) for line in file]
        of = {}
        for key in rounds[0]:
            values = [float(one[key]) for one in rounds]
            of[key] = max(values) if key == "peak" or key.endswith("Max") else statistics.median(values)
            of[key + " spread"] = f"({min(values):.2f} to {max(values):.2f})"
        return of

    @staticmethod
    def goal_lines(goals):
        return [f"- {said}: {value:.2f}{unit}, goal {limit}{unit}: {verdict(value, limit).split(', ')[1]} {spread}".rstrip()
                for said, value, unit, limit, spread in goals]


class Servers(Compared):
    def __init__(self, *figures):
        super().__init__(("tavirn", "gstreamer"), *figures)

    def text(self):
        tavirn, other = self.of["tavirn"], self.of["gstreamer"]
        both = {key: tavirn[key + "0"] + tavirn[key + "1"] for key in ("cpu", "rss", "pss")}
        server = {key: tavirn[key + "0"] for key in both}
        against = {key: other[key + "0"] for key in both}
        seeks = ("paused", "normal", "fast")
        rows = [[title, f"{of['cpu']:.3f}", f"{of['rss']:.1f}", f"{of['pss']:.1f}",
                 *(f"{times[key]:.1f} / {times[key + 'Going']:.0f}" if key in times else "" for key in seeks)]
                for title, of, times in (("tavirn-rtsp", server, {}), ("tavirn-rtsp and tavirn-rooted", both, tavirn),
                                         ("gst-rtsp-server", against, other))]
        head = ["server", "CPU s", "resident MB", "shared pages divided, MB", *(f"PLAY, {key}, ms" for key in seeks)]
        goals = []
        for title, of in (("tavirn-rtsp", server), ("with tavirn-rooted", both)):
            goals += [(f"CPU over gst-rtsp-server's, {title}", of["cpu"] / against["cpu"], "", 0.5, ""),
                      (f"resident memory over gst-rtsp-server's, {title}", of["rss"] / against["rss"], "", 0.7, "")]
        goals += [(f"PLAY to first packet, {key}", tavirn[key], " ms", limit, tavirn[key + " spread"])
                  for key, limit in zip(seeks, (60, 150, 300))]
        return "\n".join([self.title, "", table(head, rows), "", *self.goal_lines(goals)])


class Players(Compared):
    def __init__(self, *figures):
        super().__init__(PLAYERS, *figures)

    def rows(self):
        late = "{:.2f} / {:.2f} / {:.2f}"
        for name, title in PLAYERS.items():
            of = self.of[name]
            yield [title, f"{of['cpu']:.3f}", f"{of['playing'] / of['pictures'] * 1e6:.0f}", f"{of['peak'] / 1024:.1f}",
                   f"{of['switches'] / of['pictures']:.2f}", late.format(of["stamp50"], of["stamp99"], of["stampMax"]),
                   late.format(of["own50"], of["own99"], of["ownMax"])]

    def goals(self):
        of, tavirn = self.of, self.of["tavirn"]
        goals = []
        for key, said in (("cpu", "CPU, whole process"), ("playing", "CPU while playing")):
            best = min(of["ffmpeg"][key], of["gstreamer"][key])
            goals.append((f"{said}, over the better of ffmpeg and GStreamer", tavirn[key] / best, "", 0.7, ""))
        goals.append(("CPU while playing, live over normal", of["live"]["playing"] / tavirn["playing"], "", 1.4, ""))
        goals.append(("peak memory", tavirn["peak"] / 1024, " MB", 8, ""))
        for name, said in (("tavirn", ""), ("live", ", live")):
            for key, less in (("stamp99", ""), ("own99", ", less waits for a CPU")):
                goals.append((f"late on picture time{said}{less}, p99", of[name][key], " ms", 1, of[name][key + " spread"]))
        return self.goal_lines(goals)

    def text(self):
        head = ["player", "CPU s, whole process", "µs a picture, playing", "peak MB", "switches a picture",
                "late on picture time, ms", "less waits for a CPU, ms"]
        title = self.title + " Lateness is p50 / p99 / max."
        return "\n".join([title, "", table(head, self.rows()), "", *self.goals()])


def main(what, page, commit, *figures):
    if what == "bench":
        bench = Bench(commit, *figures)
        mark, text = r"bench (\w+)", lambda found: getattr(bench, found.group(2))()
    else:
        compared = {"players": Players, "servers": Servers}[what](commit, *figures).text()
        print(compared)
        mark, text = rf"(compare-{what})", lambda found: compared
    with open(page, encoding="utf-8") as file:
        before = file.read()
    after, count = re.subn(rf"(<!-- {mark} -->\n).*?(<!-- /[a-z-]+ -->)",
                           lambda found: found.group(1) + text(found) + "\n" + found.group(3), before, flags=re.S)
    if count == 0:
        sys.exit(f"{page} has no place for these figures")
    with open(page, "w", encoding="utf-8") as file:
        file.write(after)


if __name__ == "__main__":
    main(*sys.argv[1:])
