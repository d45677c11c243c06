"""Puts what the players needed into the marked table of a page; the text around it stays.

Usage: players_table.py DIRECTORY PAGE.md SECONDS ROUNDS COMMIT

DIRECTORY holds NAME.figures, a line of name=value pairs for each round.
"""
import datetime
import os
import re
import statistics
import sys

PLAYERS = {
    "tavirn": "tavirn-rooted",
    "ffmpeg": "`ffmpeg -re`",
    "gstreamer": "GStreamer, `sync=true`",
    "floor": "the floor",
    "live": "tavirn-rooted, live",
}
MARKED = re.compile(r"(<!-- compare-players -->\n).*?(<!-- /compare-players -->)", re.DOTALL)
SECTION = "\n## Beside other players\n\n<!-- compare-players -->\n<!-- /compare-players -->\n"


def figures(directory, name):
    """The rounds' medians; of peaks and maxima the greatest."""
    with open(f"{directory}/{name}.figures", encoding="utf-8") as file:
        rounds = [dict(pair.split("=") for pair in line.split()) for line in file]
    of = {}
    for key in rounds[0]:
        values = [float(one[key]) for one in rounds]
        of[key] = max(values) if key == "peak" or key.endswith("Max") else statistics.median(values)
        of[key + " least"], of[key + " most"] = min(values), max(values)
    return of


def row(title, of):
    late = "{:.2f} / {:.2f} / {:.2f}"
    return [
        title,
        f"{of['cpu']:.3f}",
        f"{of['playing'] / of['pictures'] * 1e6:.0f}",
        f"{of['peak'] / 1024:.1f}",
        f"{of['switches'] / of['pictures']:.2f}",
        late.format(of["stamp50"], of["stamp99"], of["stampMax"]),
        late.format(of["own50"], of["own99"], of["ownMax"]),
    ]


def verdict(said, value, limit, unit=""):
    return f"- {said}: {value:.2f}{unit}, goal {limit}{unit}: {'met' if value <= limit else '**missed**'}"


def goals(of):
    tavirn = of["tavirn"]
    lines = []
    for key, said in (("cpu", "CPU, whole process"), ("playing", "CPU while playing")):
        best = min(of["ffmpeg"][key], of["gstreamer"][key])
        lines.append(verdict(f"{said}, over the better of ffmpeg and GStreamer", tavirn[key] / best, 0.7))
    lines.append(verdict("peak memory", tavirn["peak"] / 1024, 8, " MB"))
    for name, said in (("tavirn", ""), ("live", ", live")):
        for key, less in (("stamp99", ""), ("own99", ", less waits for a CPU")):
            spread = f" ({of[name][key + ' least']:.2f} to {of[name][key + ' most']:.2f})"
            lines.append(verdict(f"late on picture time{said}{less}, p99", of[name][key], 1, " ms") + spread)
    floor = of["floor"]
    lines.append(f"- the floor's p99: {floor['stamp99']:.2f} ms ({floor['stamp99 least']:.2f} to "
                 f"{floor['stamp99 most']:.2f}), less waits {floor['own99']:.2f} ms")
    lines.append(f"- CPU while playing, over the floor: {tavirn['playing'] / of['floor']['playing']:.2f}")
    return lines


def machine():
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        model = re.search(r"model name\s*: (.*)", file.read())
    return f"{model.group(1) if model else os.uname().machine}, {os.cpu_count()} cores, Linux {os.uname().release}"


def main(directory, page, seconds, rounds, commit):
    of = {name: figures(directory, name) for name in PLAYERS}
    head = ["player", "CPU s, whole process", "µs a picture, playing", "peak MB", "switches a picture",
            "late on picture time, ms", "less waits for a CPU, ms"]
    rows = [head, ["---"] * len(head), *(row(title, of[name]) for name, title in PLAYERS.items())]
    lines = [f"{machine()}; {datetime.date.today()}; commit {commit}; load {os.getloadavg()[1]:.1f}; {rounds} rounds "
             f"of {seconds} s each: 1920x1080, 25 pictures a second, 4 Mb/s. Lateness is p50 / p99 / max.", ""]
    lines += ["| " + " | ".join(cells) + " |" for cells in rows]
    lines += ["", *goals(of)]
    table = "\n".join(lines) + "\n"
    print(table)
    text = "# Performance\n"
    if os.path.exists(page):
        with open(page, encoding="utf-8") as file:
            text = file.read()
    if not MARKED.search(text):
        text += SECTION
    with open(page, "w", encoding="utf-8") as file:
        file.write(MARKED.sub(lambda found: found.group(1) + table + found.group(2), text))


if __name__ == "__main__":
    main(*sys.argv[1:])
