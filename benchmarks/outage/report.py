"""Figures as Markdown tables and SVG plots."""

import statistics

COLOURS = ("#1f5fa8", "#c0504d", "#4f8a3c", "#8064a2", "#d98a1f")

FIGURES = (
    ("take_in_events_per_s", "taken in, thousand events/s", lambda x: x / 1e3, "{:.0f}"),
    ("take_in_cpu_s", "processor time for that, s", lambda x: x, "{:.2f}"),
    ("drain_events_per_s", "drained, thousand events/s", lambda x: x / 1e3, "{:.0f}"),
    ("drain_cpu_s", "processor time for that, s", lambda x: x, "{:.2f}"),
    ("drain_wait_s", "from the destination's return to the first event, s", lambda x: x, "{:.1f}"),
    ("disk_bytes_per_byte", "bytes on disk per byte of events", lambda x: x, "{:.2f}"),
    ("take_in_memory", "peak memory while the destination is away, MB", lambda x: x / 1e6, "{:.0f}"),
    ("peak_memory", "peak memory of all, MB", lambda x: x / 1e6, "{:.0f}"),
)


def table(rounds):
    """`rounds`: a list of figures for each program. Median, minimum and maximum."""
    names = list(rounds)
    lines = ["| | " + " | ".join(f"{name} ({len(rounds[name])} rounds)" for name in names) + " |",
             "|---|" + "---|" * len(names)]
    for key, title, scale, form in FIGURES:
        cells = []
        for name in names:
            values = [scale(figures[key]) for figures in rounds[name]]
            cells.append(f"**{form.format(statistics.median(values))}** "
                         f"({form.format(min(values))} to {form.format(max(values))})"
                         if values else "no figures")
        lines.append(f"| {title} | " + " | ".join(cells) + " |")
    cells = [f"{sum(figures['in_order'] for figures in rounds[name])} of {len(rounds[name])} rounds"
             for name in names]
    lines.append("| order kept | " + " | ".join(cells) + " |")
    cells = [str(sum(figures["twice"] for figures in rounds[name])) for name in names]
    lines.append("| events that came twice, all rounds | " + " | ".join(cells) + " |")
    return "\n".join(lines)


def ratios(rounds, ours):
    """Ours against the fastest, or most frugal, of the others, and what is asked of it; medians."""
    def median(name, key):
        return statistics.median(figures[key] for figures in rounds[name])

    others = [name for name in rounds if name != ours and rounds[name]]
    if not others or not rounds[ours]:
        return "No other program could be measured."
    lines = ["| | ratio | of | goal |", "|---|---|---|---|"]
    for key, title, best, goal in (
            ("take_in_events_per_s", "take-in, speed", max, "at least 2"),
            ("drain_events_per_s", "drain, speed", max, "at least 2"),
            ("take_in_cpu_s", "take-in, processor time", min, "at most 0.5"),
            ("drain_cpu_s", "drain, processor time", min, "at most 0.5")):
        name = best(others, key=lambda other, key=key: median(other, key))
        lines.append(f"| {title} | {median(ours, key) / median(name, key):.2f} | {name} | {goal} |")
    lines.append(f"| bytes on disk | {median(ours, 'disk_bytes_per_byte'):.2f} | "
                 "bytes of events | at most 1.1 |")
    held = median(ours, "events_bytes")
    for key, title in (("take_in_memory", "peak memory less 50 MB, destination away"),
                       ("peak_memory", "peak memory less 50 MB, of all")):
        lines.append(f"| {title} | {(median(ours, key) - 50e6) / held:.2f} | "
                     "bytes of events | at most 2.5 |")
    return "\n".join(lines)


def svg(title, x_title, y_title, series, path):
    """A plot with both axes logarithmic: `series` maps names to lists of (x, y)."""
    import math
    width, height, left, bottom, top, right = 640, 360, 80, 50, 40, 20
    xs = sorted({x for points in series.values() for x, _ in points})
    ys = [y for points in series.values() for _, y in points]
    decades = range(math.floor(math.log10(min(ys))), math.ceil(math.log10(max(ys))) + 1)
    low, high = math.log(xs[0]), math.log(xs[-1] if xs[-1] > xs[0] else xs[0] * 2)

    def place(x, y):
        return (left + (math.log(x) - low) / (high - low) * (width - left - right),
                height - bottom - (math.log10(y) - decades[0]) / max(len(decades) - 1, 1) *
                (height - bottom - top))

    out = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" '
           'font-family="sans-serif" font-size="12">',
           f'<rect width="{width}" height="{height}" fill="white"/>',
           f'<text x="{width / 2}" y="20" text-anchor="middle" font-size="14">{title}</text>',
           f'<text x="{(width + left) / 2}" y="{height - 10}" text-anchor="middle">{x_title}</text>',
           f'<text x="15" y="{height / 2}" text-anchor="middle" '
           f'transform="rotate(-90 15 {height / 2})">{y_title}</text>']
    for decade in decades:
        value = 10 ** decade
        _, y = place(xs[0], value)
        out.append(f'<line x1="{left}" y1="{y:.1f}" x2="{width - right}" y2="{y:.1f}" '
                   'stroke="#ddd"/>'
                   f'<text x="{left - 6}" y="{y + 4:.1f}" text-anchor="end">{value:,.0f}</text>')
    for x in xs:
        at, _ = place(x, 1)
        out.append(f'<text x="{at:.1f}" y="{height - bottom + 18}" text-anchor="middle">{x}</text>')
    for index, (name, points) in enumerate(series.items()):
        colour = COLOURS[index % len(COLOURS)]
        places = [place(x, y) for x, y in sorted(points)]
        out.append('<polyline fill="none" stroke-width="2" stroke="' + colour + '" points="' +
                   " ".join(f"{x:.1f},{y:.1f}" for x, y in places) + '"/>')
        out += [f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3" fill="{colour}"/>' for x, y in places]
        out.append(f'<text x="{left + 10 + 170 * index}" y="{top - 4}" fill="{colour}">{name}</text>')
    path.write_text("\n".join(out + ["</svg>", ""]))
