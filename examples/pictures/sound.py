"""The 32-bit float WAVs of render_stages, and what their pictures are made from."""

import array
import cmath
import math
import struct
import sys


def read_channel(path, channel=0):
    """One channel of a 32-bit float WAV, and its sample rate."""
    with open(path, "rb") as file:
        data = file.read()
    if data[:4] != b"RIFF" or data[8:12] != b"WAVE":
        raise ValueError(f"{path} is not a WAV file")
    at, channels, rate = 12, 0, 0
    while at + 8 <= len(data):
        name, size = struct.unpack_from("<4sI", data, at)
        body = at + 8
        if name == b"fmt ":
            code, channels, rate = struct.unpack_from("<HHI", data, body)
            bits = struct.unpack_from("<H", data, body + 14)[0]
            if code not in (3, 0xFFFE) or bits != 32:
                raise ValueError(f"{path} does not hold 32-bit floats")
        if name == b"data":
            samples = array.array("f", data[body : body + size])
            if sys.byteorder == "big":
                samples.byteswap()
            return samples[channel::channels], rate
        at = body + size + size % 2
    raise ValueError(f"{path} holds no samples")


def extremes(samples, first, last, columns):
    """Smallest and largest sample of each of so many equal parts of first .. last."""
    edges = [first + (last - first) * column // columns for column in range(columns + 1)]
    parts = [samples[a : max(a + 1, b)] for a, b in zip(edges, edges[1:])]
    return [(min(part), max(part)) for part in parts]


def fft(values):
    """The discrete Fourier transform of a list whose length is a power of two."""
    size = len(values)
    if size == 1:
        return values
    even, odd = fft(values[0::2]), fft(values[1::2])
    turned = [o * twiddle for o, twiddle in zip(odd, twiddles(size))]
    return ([e + o for e, o in zip(even, turned)] + [e - o for e, o in zip(even, turned)])


def twiddles(size, table={}):
    if size not in table:
        table[size] = [cmath.exp(-2j * math.pi * k / size) for k in range(size // 2)]
    return table[size]


def power_spectrum(samples, centre, size):
    """Squared magnitudes of a Hann-windowed frame; a full-scale sine has 1 at its bin."""
    begin = centre - size // 2
    frame = [0.0] * size
    for i in range(size):
        if 0 <= begin + i < len(samples):
            frame[i] = samples[begin + i] * (0.5 - 0.5 * math.cos(2 * math.pi * i / size))
    return [(abs(value) * 4 / size) ** 2 for value in fft(frame)[: size // 2 + 1]]
