"""report.py RAW PREFIX: makes PREFIX.table.md and PREFIX.*.svg of the lines that bench.py collected.

Ratios are medians of the ratios of single rounds, in which the subjects ran one after the other;
everything else is the median of the rounds.
"""

import html
import json
import math
import statistics
import sys

FORMS = ["1x1", "1x8", "4x4"]
MISSING = "–"

# ------------------------------------------------------------------------------------------------
# Lines
# ------------------------------------------------------------------------------------------------


def form_of(line):
    return f"{line['connections']}x{line['depth']}"


class Raw:
    def __init__(self, path):
        with open(path) as file:
            self.lines = [json.loads(line) for line in file]

    def of_type(self, kind):
        return [line for line in self.lines if line["type"] == kind]

    def one(self, kind):
        found = self.of_type(kind)
        return found[-1] if found else {}

    def load(self, **wanted):
        """Lines of bench_load whose fields are as wanted."""
        wanted = {"section": "matrix", "net": "loopback", "pieces": 0, "garbage": False, **wanted}
        return [line for line in self.of_type("load")
                if all({**line, "form": form_of(line)}.get(key) == value
                       for key, value in wanted.items())]

    def median(self, field, **wanted):
        values = [line[field] for line in self.load(**wanted)]
        return statistics.median(values) if values else None

    def ratio(self, above, below, field="rate"):
        """The median over the rounds; above and below are what lines must be."""
        by_round = {line["round"]: line[field] for line in self.load(**below)}
        ratios = [line[field] / by_round[line["round"]] for line in self.load(**above)
                  if by_round.get(line["round"])]
        return statistics.median(ratios) if ratios else None

    def workloads(self, **wanted):
        return list(dict.fromkeys(line["workload"] for line in self.load(**wanted)))


def best_bare(raw, **wanted):
    """The bare pair that a workload is held against: with the same file access if there is one."""
    return "bare-io" if raw.load(subject="bare-io", **wanted) else "bare"


def to_bare(raw, subject="tree", **wanted):
    return raw.ratio({"subject": subject, **wanted},
                     {"subject": best_bare(raw, **wanted), **wanted})


def to_main(raw, **wanted):
    return raw.ratio({"subject": "tree", **wanted}, {"subject": "main", **wanted})


# ------------------------------------------------------------------------------------------------
# Text
# ------------------------------------------------------------------------------------------------


def number(value, digits=None):
    if value is None:
        return MISSING
    if digits is None:
        digits = 0 if abs(value) >= 100 else 1 if abs(value) >= 10 else 2
    return f"{value:,.{digits}f}"


def ratio(value):
    return number(value, 2)


def table(head, rows):
    if not rows:
        return []
    return ["| " + " | ".join(head) + " |", "|" + "---|" * len(head),
            *("| " + " | ".join(map(str, row)) + " |" for row in rows), ""]


def at_least(value, bound):
    return MISSING if value is None else "yes" if value >= bound else "**no**"


def at_most(value, bound):
    return MISSING if value is None else "yes" if value <= bound else "**no**"


def machine(raw):
    line = raw.one("machine")
    end = raw.one("end")
    against = line.get("against") or "nothing"
    return [
        f"{line.get('time')}, mode {line.get('mode')}, commit {line.get('commit')} against {against}"
        f" (`main` below){', a core for servers and one for clients' if line.get('pinned') else ''}. {line.get('cores')} cores of {line.get('cpu')},"
        f" {number(line.get('memory_mib'))} MiB, Linux {line.get('kernel')},"
        f" {line.get('compiler')}. Load average {line.get('load', ['?'])[0]} before,"
        f" {end.get('load', ['?'])[0]} at the end; {number(end.get('seconds'))} s;"
        f" {end.get('failures', '?')} failures.", ""]


# ------------------------------------------------------------------------------------------------
# Targets
# ------------------------------------------------------------------------------------------------


def worst(values, pick):
    """(workload, value) of the worst of the values that there are."""
    present = [(name, value) for name, value in values if value is not None]
    return pick(present, key=lambda entry: entry[1]) if present else ("", None)


def wire_targets(raw):
    rows = []

    def low(what, target, value, bound, note=""):
        rows.append([what, target, ratio(value) + note, at_least(value, bound)])

    def high(what, target, value, bound, note=""):
        rows.append([what, target, ratio(value) + note, at_most(value, bound)])

    def bare(workload, form, subject, bound):
        value = raw.ratio({"workload": workload, "form": form, "subject": "tree"},
                          {"workload": workload, "form": form, "subject": subject})
        name = {"bare": "bare", "bare-io": "bare with file access"}[subject]
        low(f"{workload}, {form}", f"at least {bound:.2f} of {name}", value, bound)

    def main(workload, form, bound):
        low(f"{workload}, {form}", f"at least {bound:.1f} times `main`",
            to_main(raw, workload=workload, form=form), bound)

    bare("null", "1x1", "bare", 0.95)
    bare("null", "1x8", "bare", 0.90)
    bare("getattr", "1x1", "bare", 0.80)
    main("getattr", "1x8", 2.0)
    for form in FORMS:
        main("lookup", form, 2.0)
    bare("read64k", "1x8", "bare-io", 0.90)
    bare("read4k", "1x8", "bare-io", 0.85)
    bare("write16k", "1x8", "bare-io", 0.80)
    bare("write4k", "1x8", "bare-io", 0.75)
    main("readdir", "1x1", 20)
    main("readdirplus", "1x1", 20)
    main("create-remove", "1x1", 1.5)
    main("create-remove", "1x8", 1.5)

    workloads = raw.workloads(form="4x4")
    name, value = worst([(w, raw.ratio({"workload": w, "form": "4x4", "subject": "tree"},
                                       {"workload": w, "form": "1x8", "subject": "tree"}))
                         for w in workloads], min)
    low("4x4 against 1x8, every row", "at least 0.95 of the rate", value, 0.95, f" ({name})")
    name, value = worst([(w, raw.ratio({"workload": w, "form": "4x4", "subject": "tree"},
                                       {"workload": w, "form": "4x4", "subject": "tree"}) and
                          statistics.median(line["p99"] / line["p50"] for line in raw.load(
                              workload=w, form="4x4", subject="tree")))
                         for w in workloads], max)
    high("p99 against p50, every row at 4x4", "at most 5", value, 5, f" ({name})")
    for form in ["1x1", "1x8"]:
        for pieces in [1460, 4096]:
            wanted = {"workload": "write16k", "form": form, "section": "pieces", "subject": "tree"}
            value = raw.ratio({**wanted, "pieces": pieces}, wanted, "server_cpu_us")
            high(f"write16k in pieces of {pieces}, {form}",
                 "at most 1.5 times the server CPU of whole calls", value, 1.5)
    ratios = []
    for workload in raw.workloads(net="mtu1500"):
        for form in FORMS:
            wire = to_bare(raw, workload=workload, form=form, net="mtu1500")
            whole = to_bare(raw, workload=workload, form=form)
            ratios.append((f"{workload} {form}", wire / whole if wire and whole else None))
    name, value = worst(ratios, min)
    low("MTU 1500, offloads off: ratio to bare, every row", "at least 0.8 of that on whole loopback",
        value, 0.8, f" ({name})")
    wanted = {"section": "garbage", "subject": "tree"}
    value = raw.ratio({**wanted, "garbage": True}, wanted)
    low("500 bytes of garbage a second beside it", "at least 0.9 of the rate", value, 0.9)
    name, value = worst([(f"{w} {form}", to_main(raw, workload=w, form=form))
                         for w in raw.workloads() for form in FORMS], min)
    low("every row against `main`, log control 0", "no row slower (0.95 for noise)", value, 0.95,
        f" ({name})")
    return table(["what", "target", "measured", "met"], rows)


# ------------------------------------------------------------------------------------------------
# The wire
# ------------------------------------------------------------------------------------------------


def rates(raw, **wanted):
    rows = []
    for workload in raw.workloads(**wanted):
        for form in FORMS:
            cell = {"workload": workload, "form": form, **wanted}
            tree = {"subject": "tree", **cell}
            if not raw.load(**tree):
                continue
            longest = [max(line["longest"]) for line in raw.load(**tree) if line["longest"]]
            rows.append([
                workload, form, number(raw.median("rate", **tree)),
                number(raw.median("rate", **{**cell, "subject": "main"})),
                number(raw.median("rate", **{**cell, "subject": "bare"})),
                number(raw.median("rate", **{**cell, "subject": "bare-io"})),
                ratio(to_bare(raw, **cell)), ratio(to_main(raw, **cell)),
                " / ".join(number(raw.median("server_cpu_us", **{**cell, "subject": subject}))
                           for subject in ["tree", "main", "bare-io", "bare"]
                           if raw.load(**{**cell, "subject": subject})),
                f"{number(raw.median('p50', **tree))} / {number(raw.median('p99', **tree))}",
                number(statistics.median(longest)) if longest else MISSING,
                number(max(line["rss_kib"] for line in raw.load(**tree)) / 1024, 1)])
    return table(["workload", "form", "tree/s", "main/s", "bare/s", "bare with I/O /s", "to bare",
                  "to main", "server CPU µs: tree / main / bare with I/O / bare", "p50 / p99 µs", "longest µs", "resident MiB"], rows)


def pieces(raw):
    rows = []
    for section, form in [*(("pieces", form) for form in FORMS), ("pieces-alone", "1x1")]:
        for size in [0, 1460, 4096]:
            cell = {"workload": "write16k", "form": form, "section": section, "pieces": size}
            if not raw.load(subject="tree", **cell):
                continue
            alone = ", each received alone" if section == "pieces-alone" and size else ""
            row = [form, f"{size}{alone}" if size else "whole"]
            for subject in ["tree", "main", "bare-io"]:
                whole = {**cell, "pieces": 0, "subject": subject}
                row += [number(raw.median("rate", **cell, subject=subject)),
                        number(raw.median("server_cpu_us", **cell, subject=subject)),
                        ratio(raw.ratio({**cell, "subject": subject}, whole, "server_cpu_us"))]
            rows.append(row)
    return table(["form", "pieces", "tree/s", "CPU µs", "to whole", "main/s", "CPU µs", "to whole",
                  "bare with I/O /s", "CPU µs", "to whole"], rows)


def garbage(raw):
    rows = []
    for subject in ["tree", "main"]:
        quiet = {"section": "garbage", "subject": subject}
        if raw.load(**quiet):
            beside = {**quiet, "garbage": True}
            rows.append([subject, number(raw.median("rate", **quiet)),
                         number(raw.median("rate", **beside)), ratio(raw.ratio(beside, quiet))])
    return table(["subject", "getattr/s alone", "beside garbage", "ratio"], rows)


def fairness(raw):
    rows = []
    for workload in raw.workloads(form="4x4"):
        for subject in ["tree", "main"]:
            lines = raw.load(workload=workload, form="4x4", subject=subject)
            shares = [min(line["per_connection"]) / max(line["per_connection"]) for line in lines
                      if line["longest"] and max(line["per_connection"])]
            if shares:
                rows.append([workload, subject, ratio(statistics.median(shares)),
                             *(number(statistics.median(line[field] for line in lines))
                               for field in ["p50", "p99", "p999", "max"])])
    return table(["workload", "subject", "least to most served", "p50 µs", "p99 µs", "p99.9 µs",
                  "longest µs"], rows)


def counters(raw):
    instructions = {(line["workload"], line["subject"]): line["instructions"]
                    for line in raw.of_type("instructions")}
    rows = []
    for line in raw.of_type("counters"):
        names = sorted(line["by_name"].items(), key=lambda entry: -entry[1])
        rows.append([
            line["workload"], line["subject"], number(line["system_calls"], 1),
            number(line["allocations"], 1), number(line["allocated_bytes"]),
            number(line["locks"], 1),
            number(instructions.get((line["workload"], line["subject"]))),
            ", ".join(f"{name} {value:.1f}" for name, value in names[:8])])
    rows.sort(key=lambda row: row[0])
    return table(["workload", "subject", "system calls", "allocations", "bytes allocated", "locks",
                  "user instructions", "most frequent"], rows)


def life(raw):
    rows = []
    for subject in ["tree", "main"]:
        lines = [line for line in raw.of_type("life") if line["subject"] == subject]
        if lines:
            first = statistics.median(line["first_answer_ms"] for line in lines)
            end = statistics.median(line["quit_ms"] for line in lines)
            rows.append([subject, number(first), at_most(first, 50), number(end),
                         at_most(end, 300), number(lines[0]["rss_kib"] / 1024, 1)])
    return table(["subject", "exec to first answer ms", "under 50", "`quit` ms, idle connections",
                  "under 300", "idle resident MiB"], rows)


def wire_report(raw):
    text = ["# What a request costs", "", *machine(raw), "## Targets", "", *wire_targets(raw)]
    for title, lines in [
            ("On whole loopback", rates(raw)),
            ("With MTU 1500 and offloads off", rates(raw, net="mtu1500")),
            ("Over UDP", rates(raw, section="udp")),
            ("WRITE 16 KiB sent in pieces, one `send` each", pieces(raw)),
            ("Beside a connection that sends garbage", garbage(raw)),
            ("Four clients", fairness(raw)),
            ("Counters, of one call", counters(raw)),
            ("Start and end", life(raw))]:
        if lines:
            text += [f"## {title}", "", *lines]
    return text


# ------------------------------------------------------------------------------------------------
# Growth
# ------------------------------------------------------------------------------------------------


def series_of(raw, what, field="micros"):
    """{(operation, subject): [(level, value)]}"""
    series = {}
    for line in raw.of_type("growth"):
        if line["what"] == what and field in line:
            series.setdefault((line["operation"], line["subject"]), []).append(
                (line["level"], line[field]))
    return series


def growth_targets(raw):
    rows = []
    for what in ["paths", "sessions", "descriptors", "segments-memory", "segments-info"]:
        for (operation, subject), points in series_of(raw, what, "cpu_us").items():
            if subject != "tree" or operation.startswith("add") or len(points) < 2:
                continue
            values = [value for _, value in points]
            value = max(values) / min(values)
            rows.append([f"{operation}, {what} {points[0][0]:,} to {points[-1][0]:,}",
                         "flat within 1.3", ratio(value), at_most(value, 1.3)])
    points = dict(series_of(raw, "exports", "cpu_us").get(("getattr", "tree"), []))
    if 1000 in points:
        value = points[1000] / points[1]
        rows.append(["getattr, 1,000 exports against 1", "at most 1.10", ratio(value),
                     at_most(value, 1.1)])
    for operation in ["readdir", "readdirplus"]:
        points = series_of(raw, "entries", "cpu_us").get((operation, "tree"), [])
        points = [(level, cost / level) for level, cost in points if level >= 1000]
        if len(points) > 1:
            value = points[-1][1] / points[0][1]
            rows.append([f"{operation} a entry, {points[-1][0]:,} entries against {points[0][0]:,}",
                         "linear (within 1.3)", ratio(value), at_most(value, 1.3)])
    # The levels follow one another, so the sum is what all paths have taken.
    sizes = [line for line in raw.of_type("growth")
             if line["operation"] == "memory of a path" and line["subject"] == "tree"]
    if sizes:
        last = sizes[-1]
        value = last["bytes"] - last["text_bytes"]
        rows.append([f"memory of a path besides its text, {last['level']:,} paths",
                     "at most 200 bytes", number(value), at_most(value, 200)])
    requests = [line for line in raw.of_type("growth")
                if line["what"] == "requests" and line["subject"] == "tree"]
    if len(requests) > 1:
        value = (requests[-1]["rss_kib"] - requests[0]["rss_kib"]) / 1024
        rows.append([f"resident size after {requests[-1]['level']:,} mixed requests against"
                     f" {requests[0]['level']:,}", "at most 5 MiB more", number(value),
                     at_most(value, 5)])
    return ["Times are the server's CPU time an operation.", "",
            *table(["what", "target", "measured", "met"], rows)]


def growth_report(raw):
    text = ["# How cost grows", "", *machine(raw), "## Targets", "", *growth_targets(raw)]
    text += ["Below: the clock's time an operation, in brackets the server's CPU time.", ""]
    kinds = list(dict.fromkeys(line["what"] for line in raw.of_type("growth")))
    for what in kinds:
        lines = [line for line in raw.of_type("growth") if line["what"] == what]
        levels = sorted({line["level"] for line in lines})
        rows = []
        for operation, subject in dict.fromkeys(
                (line["operation"], line["subject"]) for line in lines):
            row = [operation, subject]
            for level in levels:
                found = [line for line in lines if line["level"] == level and
                         (line["operation"], line["subject"]) == (operation, subject)]
                line = found[-1] if found else {}
                if "micros" in line:
                    row.append(f"{number(line['micros'])} ({number(line['cpu_us'])}) µs")
                elif "bytes" in line:
                    row.append(f"{number(line['bytes'])} B")
                elif "left_out_seconds" in line:
                    row.append(f"left out ({number(line['left_out_seconds'])} s)")
                else:
                    row.append(MISSING)
            rows.append(row)
        resident = {}
        for line in lines:
            resident.setdefault(line["subject"], {})[line["level"]] = line["rss_kib"]
        for subject, sizes in resident.items():
            rows.append(["resident", subject, *(
                f"{number(sizes[level] / 1024)} MiB" if level in sizes else MISSING
                for level in levels)])
        text += [f"## {what}", "", *table(
            ["operation", "subject", *(f"{level:,}" for level in levels)], rows)]
    if life(raw):
        text += ["## Start and end", "", *life(raw)]
    return text


# ------------------------------------------------------------------------------------------------
# Plots
# ------------------------------------------------------------------------------------------------

COLOURS = ["#1f6fb4", "#d2691e", "#3a923a", "#8a5cc2", "#c03d3e", "#7a7a7a", "#b59a00", "#2aa5a0"]


class Svg:
    def __init__(self, width, height, title):
        self.parts = [
            f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
            f'viewBox="0 0 {width} {height}" font-family="sans-serif" font-size="12">',
            f'<rect width="{width}" height="{height}" fill="white"/>']
        self.text(width / 2, 20, title, "middle", 15)

    def text(self, x, y, text, anchor="start", size=12):
        self.parts.append(f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" '
                          f'font-size="{size}">{html.escape(str(text))}</text>')

    def line(self, x1, y1, x2, y2, colour="#ddd", width=1):
        self.parts.append(f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" '
                          f'stroke="{colour}" stroke-width="{width}"/>')

    def bar(self, x, y, width, height, colour):
        self.parts.append(f'<rect x="{x:.1f}" y="{y:.1f}" width="{max(width, 0):.1f}" '
                          f'height="{height:.1f}" fill="{colour}"/>')

    def path(self, points, colour):
        places = " ".join(f"{x:.1f},{y:.1f}" for x, y in points)
        self.parts.append(f'<polyline points="{places}" fill="none" stroke="{colour}" '
                          'stroke-width="2"/>')
        for x, y in points:
            self.parts.append(f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3" fill="{colour}"/>')

    def save(self, path):
        with open(path, "w") as file:
            file.write("\n".join([*self.parts, "</svg>", ""]))


def bars(path, title, groups, unit, mark=None):
    """groups: [(name, [(label, value)])], the labels in the same order in all of them."""
    groups = [(name, [(label, value) for label, value in values if value is not None])
              for name, values in groups]
    groups = [(name, values) for name, values in groups if values]
    if not groups:
        return
    labels = list(dict.fromkeys(label for _, values in groups for label, _ in values))
    most = max(value for _, values in groups for _, value in values)
    left, right, bar, gap = 170, 70, 11, 10
    height = 60 + sum(len(values) * bar + gap for _, values in groups) + 24
    svg = Svg(760, height, title)
    scale = (760 - left - right) / most if most else 1
    for i, label in enumerate(labels):
        svg.bar(left + i * 110, 32, 10, 10, COLOURS[i % len(COLOURS)])
        svg.text(left + 14 + i * 110, 41, label)
    if mark is not None and mark <= most:
        svg.line(left + mark * scale, 50, left + mark * scale, height - 20, "#888")
        svg.text(left + mark * scale, height - 6, f"{mark:g}", "middle", 10)
    y = 56
    for name, values in groups:
        svg.text(left - 8, y + len(values) * bar / 2 + 4, name, "end")
        for label, value in values:
            svg.bar(left, y, value * scale, bar - 1, COLOURS[labels.index(label) % len(COLOURS)])
            svg.text(left + value * scale + 4, y + bar - 2, number(value) + unit, size=9)
            y += bar
        y += gap
    svg.save(path)


def ticks(low, high):
    return range(math.floor(low), math.ceil(high) + 1)


def curves(path, title, series, x_name, y_name):
    """series: {name: [(x, y)]}, on logarithmic axes."""
    series = {name: [(x, y) for x, y in points if x > 0 and y > 0]
              for name, points in series.items()}
    series = {name: points for name, points in series.items() if points}
    if not series:
        return
    xs = [math.log10(x) for points in series.values() for x, _ in points]
    ys = [math.log10(y) for points in series.values() for _, y in points]
    left, top, width, height = 70, 40, 470, 300
    x_ticks, y_ticks = ticks(min(xs), max(xs)), ticks(min(ys), max(ys))
    svg = Svg(780, 400, title)

    def place(x, y):
        return (left + (math.log10(x) - x_ticks[0]) / max(len(x_ticks) - 1, 1) * width,
                top + height - (math.log10(y) - y_ticks[0]) / max(len(y_ticks) - 1, 1) * height)

    for tick in x_ticks:
        x, _ = place(10 ** tick, 10 ** y_ticks[0])
        svg.line(x, top, x, top + height)
        svg.text(x, top + height + 16, f"{10 ** tick:,.10g}", "middle", 10)
    for tick in y_ticks:
        _, y = place(10 ** x_ticks[0], 10 ** tick)
        svg.line(left, y, left + width, y)
        svg.text(left - 6, y + 4, f"{10 ** tick:,.10g}", "end", 10)
    svg.text(left + width / 2, top + height + 36, x_name, "middle")
    svg.text(left, top - 8, y_name)
    for i, (name, points) in enumerate(series.items()):
        colour = COLOURS[i % len(COLOURS)]
        svg.path([place(x, y) for x, y in sorted(points)], colour)
        svg.bar(left + width + 16, top + i * 18, 10, 10, colour)
        svg.text(left + width + 32, top + i * 18 + 9, name, size=11)
    svg.save(path)


def wire_plots(raw, prefix):
    for net, name in [("loopback", "loopback"), ("mtu1500", "mtu1500")]:
        bars(f"{prefix}.{name}.svg", f"Rate against the bare pair, {name}", [
            (workload, [(f"{subject} {form}", to_bare(raw, subject, workload=workload, form=form,
                                                      net=net))
                        for form in FORMS[:2] for subject in ["tree", "main"]])
            for workload in raw.workloads(net=net)], "", 1)
    bars(f"{prefix}.latency.svg", "Latency at 4x4, µs (tree)", [
        (workload, [(field, raw.median(field, workload=workload, form="4x4", subject="tree"))
                    for field in ["p50", "p99"]])
        for workload in raw.workloads(form="4x4") if not workload.startswith("readdir")], " µs")
    bars(f"{prefix}.pieces.svg", "Server CPU of a 16 KiB WRITE, µs", [
        (f"{form}, {size or 'whole'}",
         [(subject, raw.median("server_cpu_us", section="pieces", form=form, pieces=size,
                               subject=subject)) for subject in ["tree", "main", "bare-io"]])
        for form in FORMS for size in [0, 4096, 1460]], " µs")


def growth_plots(raw, prefix):
    for what in dict.fromkeys(line["what"] for line in raw.of_type("growth")):
        if what == "log":
            continue
        series = {f"{operation} ({subject})": points
                  for (operation, subject), points in series_of(raw, what).items()}
        curves(f"{prefix}.{what}.svg", f"Time of an operation against {what}", series, what, "µs")


# ------------------------------------------------------------------------------------------------


def main():
    if len(sys.argv) != 3:
        sys.exit("usage: report.py RAW PREFIX")
    raw, prefix = Raw(sys.argv[1]), sys.argv[2]
    if raw.one("machine").get("mode") == "growth":
        text = growth_report(raw)
        growth_plots(raw, prefix)
    else:
        text = wire_report(raw)
        wire_plots(raw, prefix)
    errors = raw.of_type("error")
    if errors:
        text += ["## Failed", "", *(f"- {line['what']}: {line['reason']}" for line in errors), ""]
    with open(f"{prefix}.table.md", "w") as file:
        file.write("\n".join(text))


main()
