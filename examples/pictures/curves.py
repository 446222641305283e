"""Waveforms and gain curves as small SVG files."""

import math

from plots import line, text
from sound import extremes

WIDTH, LEFT, RIGHT, TOP, BOTTOM = 860, 100, 16, 14, 36
PLOT = WIDTH - LEFT - RIGHT
COLUMNS = 500
GRID, EDGE = 'stroke="#dddddd"', 'stroke="#888888"'
COLOURS = ("#444444", "#1b6ca8", "#2e8b57", "#d1495b", "#8a5a99")


def svg(height, parts):
    head = (f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{height}" '
            f'viewBox="0 0 {WIDTH} {height}" font-family="sans-serif" font-size="12">')
    return "\n".join([head, '<rect width="100%" height="100%" fill="white"/>', *parts,
                      "</svg>"]) + "\n"


def time_axis(start, stop, step, top, bottom):
    """Grid lines at whole steps, `step` in tenths of a second."""
    first, last = math.ceil(start * 10 - 1e-6), math.floor(stop * 10 + 1e-6)
    for tenth in range(first + -first % step, last + 1, step):
        x = LEFT + (tenth / 10 - start) / (stop - start) * PLOT
        yield line(x, top, x, bottom, GRID)
        yield text(x, bottom + 18, f"{tenth / 10:.1f} s")


def outline(samples, rate, start, stop, middle, half, colour):
    """The waveform as one closed shape; `half` is the height of full scale in pixels."""
    pairs = extremes(samples, round(start * rate), round(stop * rate), COLUMNS)
    xs = [LEFT + (column + 0.5) / COLUMNS * PLOT for column in range(COLUMNS)]

    def y(value):
        return middle - max(-1.0, min(1.0, value)) * half

    # At least a hair high, so that silence is seen as a line.
    points = [f"{x:.1f},{y(high) - 0.3:.1f}" for x, (_, high) in zip(xs, pairs)]
    points += [f"{x:.1f},{y(low) + 0.3:.1f}" for x, (low, _) in zip(reversed(xs), reversed(pairs))]
    return f'<polygon points="{" ".join(points)}" fill="{colour}"/>'


def waveforms(rows, rate, start, stop):
    """One row for each (name, samples, magnification), all on the same time."""
    pitch, half = 96, 66
    bottom = TOP + pitch * len(rows)
    parts = [*time_axis(start, stop, 1, TOP, bottom)]
    for index, ((name, samples, times), colour) in enumerate(zip(rows, COLOURS)):
        middle = TOP + pitch * (index + 0.5)
        parts.append(line(LEFT, middle, LEFT + PLOT, middle, GRID))
        parts.append(text(LEFT - 10, middle + 4, name, "end"))
        if times != 1:
            parts.append(text(LEFT - 10, middle + 20, f"drawn {times} times", "end"))
        parts.append(outline(samples, rate, start, stop, middle, half * times, colour))
    return svg(bottom + BOTTOM, parts)


def gain_curve(mix, gain, rate, start, stop, low, high):
    """The gain in dB between low and high, over the mix's waveform."""
    wave_height, curve_height = 90, 190
    curve_top = TOP + wave_height + 10
    bottom = curve_top + curve_height
    parts = [*time_axis(start, stop, 5, TOP, bottom)]
    middle = TOP + wave_height / 2
    parts.append(text(LEFT - 10, middle + 4, "Mix", "end"))
    parts.append(outline(mix, rate, start, stop, middle, wave_height / 2, COLOURS[0]))

    def y(decibels):
        return bottom - (decibels - low) / (high - low) * curve_height

    for decibels in range(low, high + 1, 2):
        style = EDGE if decibels == 0 else GRID
        parts.append(line(LEFT, y(decibels), LEFT + PLOT, y(decibels), style))
        parts.append(text(LEFT - 10, y(decibels) + 4, f"{decibels:+d} dB" if decibels else "0 dB",
                          "end"))
    points = []
    for column in range(COLUMNS + 1):
        seconds = start + (stop - start) * column / COLUMNS
        decibels = 20 * math.log10(gain[min(round(seconds * rate), len(gain) - 1)])
        points.append(f"{LEFT + column / COLUMNS * PLOT:.1f},{y(decibels):.1f}")
    parts.append(f'<polyline points="{" ".join(points)}" fill="none" stroke="{COLOURS[1]}" '
                 'stroke-width="2"/>')
    return svg(bottom + BOTTOM, parts)
