"""Spectrograms as small indexed PNG files."""

import math
import struct
import zlib

from sound import power_spectrum

FFT_SIZE = 2048
COLUMNS, ROWS, CELL = 380, 130, 2  # cells across and up, pixels of a cell's side
LOW_HZ, HIGH_HZ = 100.0, 16000.0
LOUD_DB = (-100.0, -20.0)  # from black to the brightest colour
LEFT, RIGHT, TOP, BOTTOM = 76, 100, 10, 34

LEVELS = 64  # colours; then white, ink, grid
WHITE, INK, MARK = LEVELS, LEVELS + 1, LEVELS + 2

# Even steps in level look like even steps in brightness, in grey and to the colour-blind too.
ANCHORS = ((0, 0, 4), (28, 16, 68), (79, 18, 123), (129, 37, 129), (181, 54, 122),
           (229, 80, 100), (251, 135, 97), (254, 194, 135), (252, 253, 191))

# Three by five dots a letter, one digit (of eight) a row from the top.
FONT = {"0": "75557", "1": "26227", "2": "71747", "3": "71717", "4": "55711", "5": "74717",
        "6": "74757", "7": "71222", "8": "75757", "9": "75717", ".": "00002", "-": "00700",
        "k": "45655", "H": "55755", "z": "07127", "s": "34216", "d": "11757", "B": "65656",
        " ": "00000"}
FONT_CELL = 2


class Image:
    def __init__(self, width, height):
        self.rows = [bytearray([WHITE]) * width for _ in range(height)]

    def fill(self, x, y, width, height, colour):
        for row in self.rows[y : y + height]:
            row[x : x + width] = bytes([colour]) * width

    def write(self, words, x, y, anchor=0.0):
        """Text whose vertical middle is y; anchor 0 begins at x, 1 ends there."""
        x -= round(anchor * (4 * len(words) - 1) * FONT_CELL)
        for letter in words:
            for line, dots in enumerate(FONT[letter]):
                for column in range(3):
                    if int(dots) >> (2 - column) & 1:
                        self.fill(x + column * FONT_CELL, y + (line * 2 - 5) * FONT_CELL // 2,
                                  FONT_CELL, FONT_CELL, INK)
            x += 4 * FONT_CELL

    def png(self):
        def chunk(name, body):
            return (struct.pack(">I", len(body)) + name + body +
                    struct.pack(">I", zlib.crc32(name + body)))

        palette = bytes(value for step in range(LEVELS) for value in colour(step / (LEVELS - 1)))
        palette += bytes((255, 255, 255, 40, 40, 40, 120, 220, 255))
        header = struct.pack(">IIBBBBB", len(self.rows[0]), len(self.rows), 8, 3, 0, 0, 0)
        body = zlib.compress(b"".join(b"\0" + row for row in self.rows), 9)
        return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"PLTE", palette) +
                chunk(b"IDAT", body) + chunk(b"IEND", b""))


def colour(share):
    position = share * (len(ANCHORS) - 1)
    below = min(int(position), len(ANCHORS) - 2)
    weight = position - below
    return [round(a + weight * (b - a)) for a, b in zip(ANCHORS[below], ANCHORS[below + 1])]


def level_of(power, scale):
    floor, ceiling = scale
    decibels = 10 * math.log10(max(power, 1e-30))
    share = (decibels - floor) / (ceiling - floor)
    return round(min(max(share, 0.0), 1.0) * (LEVELS - 1))


def frequency_at(row):
    """The frequency of a cell's lower edge, counted from the bottom."""
    return LOW_HZ * (HIGH_HZ / LOW_HZ) ** (row / ROWS)


def column_levels(samples, rate, centre, scale):
    """One level a row from the bottom: the strongest bin inside it, or between bins their mean."""
    power = power_spectrum(samples, centre, FFT_SIZE)
    levels = []
    for row in range(ROWS):
        low, high = (frequency_at(edge) * FFT_SIZE / rate for edge in (row, row + 1))
        inside = power[math.ceil(low) : math.floor(high) + 1]
        below = int(low)
        weight = (low + high) / 2 - below
        between = power[below] + weight * (power[below + 1] - power[below])
        levels.append(level_of(max(inside) if inside else between, scale))
    return levels


def draw_frequency_axis(image):
    for hertz, words in ((100, "100 Hz"), (200, "200"), (500, "500"), (1000, "1 kHz"),
                         (2000, "2"), (5000, "5"), (10000, "10"), (16000, "16 kHz")):
        share = math.log(hertz / LOW_HZ) / math.log(HIGH_HZ / LOW_HZ)
        y = TOP + round((1 - share) * (ROWS * CELL - 1))
        image.fill(LEFT - 6, y, 6, 1, INK)
        image.write(words, LEFT - 10, y, 1.0)


def draw_time_axis(image, start, stop):
    bottom = TOP + ROWS * CELL
    tenths = range(math.ceil(start * 10 - 1e-6), math.floor(stop * 10 + 1e-6) + 1)
    for tenth in tenths:
        x = LEFT + round((tenth / 10 - start) / (stop - start) * (COLUMNS * CELL - 1))
        image.fill(x, bottom, 1, 6, INK)
        last = tenth == tenths[-1]
        image.write(f"{tenth / 10:.1f}" + (" s" if last else ""), x, bottom + 17, 0.5)


def draw_colour_scale(image, scale):
    floor, ceiling = scale
    x, height = LEFT + COLUMNS * CELL + 16, ROWS * CELL
    for y in range(height):
        image.fill(x, TOP + y, 14, 1, round((1 - y / (height - 1)) * (LEVELS - 1)))
    for decibels in range(int(floor), int(ceiling) + 1, 20 if ceiling - floor > 60 else 10):
        share = (decibels - floor) / (ceiling - floor)
        y = TOP + round((1 - share) * (height - 1))
        image.write(f"{decibels}" + (" dB" if decibels == ceiling else ""), x + 20, y)


def spectrogram(samples, rate, start, stop, marks=(), scale=LOUD_DB):
    """A PNG of the samples from start to stop in seconds, with thin lines at the marks; `scale` is
    the levels in dB that are black and brightest."""
    image = Image(LEFT + COLUMNS * CELL + RIGHT, TOP + ROWS * CELL + BOTTOM)
    for column in range(COLUMNS):
        seconds = start + (stop - start) * (column + 0.5) / COLUMNS
        levels = column_levels(samples, rate, round(seconds * rate), scale)
        for row, level in enumerate(levels):
            image.fill(LEFT + column * CELL, TOP + (ROWS - 1 - row) * CELL, CELL, CELL, level)
    for mark in marks:
        x = LEFT + round((mark - start) / (stop - start) * (COLUMNS * CELL - 1))
        for y in range(TOP, TOP + ROWS * CELL, 8):
            image.fill(x, y, 1, 4, MARK)
    draw_frequency_axis(image)
    draw_time_axis(image, start, stop)
    draw_colour_scale(image, scale)
    return image.png()
