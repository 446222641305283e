"""Draws the pictures of docs/how-it-works.md from what render_stages wrote for the demo project.

usage: draw.py STAGES OUT
"""

import pathlib
import sys

from curves import gain_curve, waveforms
from sound import read_channel
from spectrogram import LOUD_DB, spectrogram

# Seconds in the demo project: one snare hit in the middle of the music, and two bars.
HIT = 9.107
AROUND_HIT = (9.0, 9.8)
TWO_BARS = (8.6, 12.9)
GAIN_DB = (-6, 4)
SOFT_DB = (-110.0, -70.0)  # what the gate moves is too soft for the scale of the others


def main(stages, out):
    def read(name):
        return read_channel(stages / f"{name}.wav")

    (mix, rate), (residual, _), (gain, _) = read("mix"), read("residual"), read("gain")
    (tap, _), (model, _), (stem, _) = read("Snare.tap"), read("Snare.model"), read("Snare.stem")
    got = [s - m for s, m in zip(stem, model)]
    without_gate, _ = read("Snare.endpoint10")
    tail = [s - w for s, w in zip(stem, without_gate)]
    rows = [("Mix", mix, 1), ("Snare, tap", tap, 1), ("model", model, 1), ("stem", stem, 1),
            ("stem − model", got, 8)]
    out.mkdir(parents=True, exist_ok=True)
    (out / "waveforms.svg").write_text(waveforms(rows, rate, *AROUND_HIT), encoding="utf-8")
    (out / "gain.svg").write_text(gain_curve(mix, gain, rate, *TWO_BARS, *GAIN_DB),
                                  encoding="utf-8")
    for name, samples, scale in (("snare-model", model, LOUD_DB), ("residual", residual, LOUD_DB),
                                 ("snare-share", got, LOUD_DB), ("snare-tail", tail, SOFT_DB)):
        picture = spectrogram(samples, rate, *AROUND_HIT, marks=[HIT], scale=scale)
        (out / f"{name}.png").write_bytes(picture)


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__.strip())
    main(pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2]))
