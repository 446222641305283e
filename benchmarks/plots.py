"""Line plots on doubly logarithmic axes, as small SVG files."""

import dataclasses
import math

PANEL_WIDTH, PANEL_HEIGHT = 300, 240
LEFT, RIGHT, TOP, BOTTOM = 62, 24, 34, 48
LEGEND_HEIGHT = 26
COLOURS = ("#1b6ca8", "#d1495b", "#2e8b57", "#8a5a99")
GUIDE = "proportional"


@dataclasses.dataclass
class Panel:
    title: str
    x_label: str
    y_label: str
    xs: list
    series: dict  # name to one value for each x


class Axis:
    """A logarithmic scale from `low` to `high` on pixels `begin` to `end`."""

    def __init__(self, values, begin, end, margin):
        self.low, self.high = min(values) / margin, max(values) * margin
        self.begin, self.end = begin, end

    def place(self, value):
        share = math.log(value / self.low) / math.log(self.high / self.low)
        return self.begin + share * (self.end - self.begin)

    def ticks(self):
        first = math.floor(math.log10(self.low))
        last = math.ceil(math.log10(self.high))
        steps = (1, 2, 5) if last - first < 4 else (1,)
        values = [step * 10.0**power for power in range(first, last + 1) for step in steps]
        return [value for value in values if self.low <= value <= self.high]


def text(x, y, words, anchor="middle", extra=""):
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}"{extra}>{words}</text>'


def line(x1, y1, x2, y2, style):
    return f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" {style}/>'


def draw_axes(panel, x_axis, y_axis):
    bottom, middle = y_axis.begin, (y_axis.begin + y_axis.end) / 2
    grid = 'stroke="#dddddd"'
    yield text((x_axis.begin + x_axis.end) / 2, y_axis.end - 12, panel.title,
               extra=' font-weight="bold"')
    for x in panel.xs:
        yield line(x_axis.place(x), bottom, x_axis.place(x), y_axis.end, grid)
        yield text(x_axis.place(x), bottom + 15, f"{x:.3g}")
    for y in y_axis.ticks():
        yield line(x_axis.begin, y_axis.place(y), x_axis.end, y_axis.place(y), grid)
        yield text(x_axis.begin - 6, y_axis.place(y) + 4, f"{y:.4g}", "end")
    yield text((x_axis.begin + x_axis.end) / 2, bottom + 34, panel.x_label)
    turn = f' transform="rotate(-90 {x_axis.begin - 46:.1f} {middle:.1f})"'
    yield text(x_axis.begin - 46, middle, panel.y_label, extra=turn)


def draw_panel(panel, left):
    first = next(iter(panel.series.values()))
    guide = [first[0] * x / panel.xs[0] for x in panel.xs]
    values = [y for ys in panel.series.values() for y in ys] + guide
    x_axis = Axis(panel.xs, left + LEFT, left + LEFT + PANEL_WIDTH, 1.15)
    y_axis = Axis(values, TOP + PANEL_HEIGHT, TOP, 1.3)
    yield from draw_axes(panel, x_axis, y_axis)

    def points(ys):
        return " ".join(f"{x_axis.place(x):.1f},{y_axis.place(y):.1f}"
                        for x, y in zip(panel.xs, ys))

    yield f'<polyline points="{points(guide)}" fill="none" stroke="#888888" ' \
          'stroke-dasharray="5 4"/>'
    for colour, ys in zip(COLOURS, panel.series.values()):
        yield f'<polyline points="{points(ys)}" fill="none" stroke="{colour}" stroke-width="2"/>'
        for x, y in zip(panel.xs, ys):
            yield f'<circle cx="{x_axis.place(x):.1f}" cy="{y_axis.place(y):.1f}" r="3" ' \
                  f'fill="{colour}"/>'


def draw_legend(names, y):
    x = LEFT
    styles = [f'stroke="{colour}" stroke-width="2"' for colour in COLOURS[:len(names)]]
    for name, style in zip([*names, GUIDE], [*styles, 'stroke="#888888" stroke-dasharray="5 4"']):
        yield line(x, y - 4, x + 24, y - 4, style)
        yield text(x + 30, y, name, "start")
        x += 52 + 7 * len(name)


def plot(panels):
    """The panels side by side; the dashed guide grows with x from the first series' beginning."""
    width = len(panels) * (LEFT + PANEL_WIDTH + RIGHT)
    height = TOP + PANEL_HEIGHT + BOTTOM + LEGEND_HEIGHT
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
             f'viewBox="0 0 {width} {height}" font-family="sans-serif" font-size="12">',
             '<rect width="100%" height="100%" fill="white"/>']
    for index, panel in enumerate(panels):
        parts.extend(draw_panel(panel, index * (LEFT + PANEL_WIDTH + RIGHT)))
    parts.extend(draw_legend(list(panels[0].series), height - 10))
    return "\n".join([*parts, "</svg>"]) + "\n"
