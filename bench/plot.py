"""Draws what bench.py has measured, as plain SVG that reads on light and on dark pages."""

import math
import os

STYLE = """<style>
text { font: 13px system-ui, sans-serif; fill: #24292f; }
.title { font-weight: 600; font-size: 15px; }
.small { font-size: 12px; fill: #57606a; }
.grid { stroke: #8c959f; stroke-opacity: .35; }
.c0 { fill: #1a7f64; stroke: #1a7f64; } .c1 { fill: #b35900; stroke: #b35900; }
.c2 { fill: #6e56cf; stroke: #6e56cf; } .c3 { fill: #57606a; stroke: #57606a; }
.line { fill: none; stroke-width: 2; }
text.c0, text.c1, text.c2, text.c3 { stroke: none; }
@media (prefers-color-scheme: dark) {
text { fill: #e6edf3; } .small { fill: #9da7b3; }
.c0 { fill: #3fb994; stroke: #3fb994; } .c1 { fill: #f0883e; stroke: #f0883e; }
.c2 { fill: #a995ff; stroke: #a995ff; } .c3 { fill: #9da7b3; stroke: #9da7b3; }
}
</style>
"""

WIDTH = 860
CLASSES = {"golt": "c0", "as-is": "c0", "ffmpeg": "c1", "gstreamer": "c2", "cat": "c3"}
FORM_CLASSES = {"mp4": "c0", "mkv": "c1", "mp3": "c2", "m2ts": "c3"}
LABELS = {"mp4": "MP4", "mkv": "Matroska", "mkvmerge": "Matroska, mkvmerge", "mp3": "MP3", "m2ts": "M2TS"}


def text(x, y, words, style="", anchor="start"):
    return f'<text x="{x:.1f}" y="{y:.1f}" class="{style}" text-anchor="{anchor}">{words}</text>\n'


def line(x1, y1, x2, y2, style="grid"):
    return f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" class="{style}"/>\n'


def save(path, height, label, parts):
    with open(path, "w", encoding="utf-8") as out:
        out.write(f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height}" role="img" '
                  f'aria-label="{label}">\n{STYLE}{"".join(parts)}</svg>\n')


class Scale:
    """A logarithmic axis from low to high, drawn from start to end."""

    def __init__(self, low, high, start, end):
        self.low, self.high, self.start, self.end = math.log10(low), math.log10(high), start, end

    def at(self, value):
        part = (math.log10(max(value, 1e-9)) - self.low) / (self.high - self.low)
        return self.start + min(max(part, 0), 1) * (self.end - self.start)

    def decades(self):
        return [10.0**power for power in range(math.ceil(self.low - 1e-9), math.floor(self.high + 1e-9) + 1)]


def number(value):
    for limit, unit in ((1e9, "G"), (1e6, "M"), (1e3, "k")):
        if value >= limit:
            return f"{value / limit:g}{unit}"
    return f"{value:g}"


def draw_peers(rows, path):
    """Bars of processor seconds per GB, one group for each input."""
    groups = [row for row in rows if row["form"] != "start"]
    bar, gap, left, right = 13, 14, 250, WIDTH - 120
    scale = Scale(0.05, 200, left, right)
    parts = [text(12, 24, "Processor time for a GB of input, seconds (logarithmic)", "title")]
    y = 62
    body = []
    for row in groups:
        results = row["results"]
        body.append(text(left - 10, y + bar * len(results) / 2 + 4, f"{LABELS[row['form']]}, {row['rate']} bit rate",
                         anchor="end"))
        for name, result in results.items():
            value = result["cpu"] / row["size"] * 1e9
            body.append(f'<rect x="{left}" y="{y}" width="{scale.at(value) - left:.1f}" height="{bar - 2}" '
                        f'class="{CLASSES[name]}"/>\n')
            body.append(text(scale.at(value) + 5, y + bar - 3, f"{value:.2f} {name}", "small"))
            y += bar
        y += gap
    for value in scale.decades():
        parts.append(line(scale.at(value), 40, scale.at(value), y))
        parts.append(text(scale.at(value), 54, f"{value:g}", "small", "middle"))
    save(path, y + 8, "Processor time of golt, ffmpeg, GStreamer and cat", parts + body)


def curves(frame, title, x_title, series, x_range, y_range):
    """Lines of one panel. series: (label, class, points)."""
    left, top, right, bottom = frame
    across, up = Scale(*x_range, left, right), Scale(*y_range, bottom, top)
    parts = [text(left, top - 14, title, "title"), text((left + right) / 2, bottom + 36, x_title, "small", "middle")]
    for value in across.decades():
        parts.append(line(across.at(value), top, across.at(value), bottom))
        parts.append(text(across.at(value), bottom + 18, number(value), "small", "middle"))
    for value in up.decades():
        parts.append(line(left, up.at(value), right, up.at(value)))
        parts.append(text(left - 8, up.at(value) + 4, number(value), "small", "end"))
    taken = []
    for label, style, points in series:
        places = " ".join(f"{across.at(x):.1f},{up.at(y):.1f}" for x, y in points)
        parts.append(f'<polyline points="{places}" class="{style} line"/>\n')
        y = up.at(points[-1][1]) + 4
        while any(abs(y - other) < 14 for other in taken):
            y += 14
        taken.append(y)
        parts.append(text(right + 6, y, label, style))
    return parts


def draw_growth(results, path):
    forms = list(dict.fromkeys(row["form"] for row in results["sizes"]))

    def by_size(key, unit):
        return [(LABELS[form], FORM_CLASSES[form],
                 [(row["size"], row[key] / unit) for row in results["sizes"] if row["form"] == form]) for form in forms]

    def by_samples(key, unit):
        return [("MP4", "c0", [(row["samples"], row[key] / unit) for row in results["starts"]])]

    sizes, samples = (1e6, 1e10), (100, 1e7)
    parts = curves((60, 50, 350, 250), "Processor time, seconds", "bytes of the file", by_size("cpu", 1), sizes,
                   (0.001, 10))
    parts += curves((500, 50, 790, 250), "Peak RSS, MB", "bytes of the file", by_size("rss", 1024), sizes, (1, 100))
    parts += curves((60, 350, 350, 550), "Start-up of MP4, seconds", "samples", by_samples("cpu", 1), samples,
                    (0.001, 10))
    parts += curves((500, 350, 790, 550), "Peak RSS, MB", "samples", by_samples("rss", 1024), samples, (1, 1000))
    save(path, 600, "Growth of time and memory with the size of the file and the number of samples", parts)


def draw(peers, growth, folder):
    draw_peers(peers, os.path.join(folder, "performance_peers.svg"))
    draw_growth(growth, os.path.join(folder, "performance_growth.svg"))
