#!/usr/bin/env python3
"""Measures what hearing the master chain is worth, on songs whose true stems are known, and what it
costs; renews the tables of docs/chain.md and README.md.

Results are kept under build/chain by the programs' own bytes, so that an interrupted measurement
goes on where it stopped.
"""

import argparse
import hashlib
import json
import os
import pathlib
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import time

import bench_runs
from pages import MEBIBYTE, machine, renew, table

ROOT = pathlib.Path(__file__).resolve().parent.parent
PROGRAMS = ("make_chain_song", "verdel", "verdel-chain", "verdel-sdr", "verdel-bench",
            "demo_project")
ENGINE = "engine alone"
WAYS = {ENGINE: ("verdel",),
        "curve": ("verdel-chain", "--no-gains", "--no-tap-filters"),
        "curve and gains": ("verdel-chain", "--no-tap-filters"),
        "all": ("verdel-chain",)}
WORSE_DB = 0.1  # from here on a song is reported as worse than the engine alone


def quick_or(whole, part, quick):
    return part if quick else whole


def measure_run(command):
    """Seconds and peak memory of one run of a program, which has to end well."""
    with tempfile.TemporaryFile("w+") as said:
        begin = time.monotonic()
        child = subprocess.Popen(command, stdout=said, stderr=subprocess.STDOUT)
        try:
            _, status, usage = os.wait4(child.pid, 0)
        except BaseException:  # ended from outside: the run must not go on in a folder that goes
            child.kill()
            child.wait()
            raise
        wall = time.monotonic() - begin
        child.returncode = os.waitstatus_to_exitcode(status)
        said.seek(0)
        words = said.read()
    if child.returncode != 0:
        raise SystemExit(f"{' '.join(map(str, command))} ended with {child.returncode}:\n{words}")
    unit = 1 if sys.platform == "darwin" else 1024
    return {"wall": wall, "cpu": usage.ru_utime + usage.ru_stime,
            "peak_bytes": usage.ru_maxrss * unit, "words": words}


def chain_words(words):
    """What the program said about the chain, without its heading."""
    _, mark, rest = words.partition("--- master chain ---\n")
    return rest.partition("\n\n")[0].splitlines() if mark else []


def mean_sdr(row, way):
    return statistics.mean(row[way]["sdr"].values())


class Measured:
    def __init__(self, programs, folder, quick):
        self.programs, self.quick = programs, quick
        build = hashlib.sha256()
        for program in programs.values():
            build.update(program.read_bytes())
        self.folder = folder / (build.hexdigest()[:12] + quick_or("", "-quick", quick))
        self.folder.mkdir(parents=True, exist_ok=True)

    def songs(self):
        """Every song's name with its chain in words."""
        listed = bench_runs.run_program([self.programs["make_chain_song"], "--list"])
        return dict(line.split("\t") for line in listed.splitlines())

    def kept(self, name, measure):
        file = self.folder / f"{name}.json"
        if not file.exists():
            with tempfile.TemporaryDirectory(prefix="verdel-bench-") as folder:
                result = measure(pathlib.Path(folder))
            file.write_text(json.dumps(result, indent=1))
        return json.loads(file.read_text())

    def song(self, name):
        return self.kept(name, lambda folder: self.measure_song(name, folder))

    def measure_song(self, name, folder):
        project = folder / "project"
        length = quick_or([], ["--seconds", "12"], self.quick)
        bench_runs.run_program([self.programs["make_chain_song"], name, project,
                                *length])
        return {way: self.measure_way(command, project, folder / "out")
                for way, command in WAYS.items()}

    def measure_way(self, command, project, out):
        program, *options = command
        row = measure_run([self.programs[program], "--project", project, "--out", out,
                           "--no-report", *options])
        row["chain"] = chain_words(row.pop("words"))
        rows = bench_runs.run_program([self.programs["verdel-sdr"], out, project / "true"])
        row["sdr"] = {stem: float(sdr)
                      for stem, sdr in (line.split("\t") for line in rows.splitlines())}
        shutil.rmtree(out)
        return row

    def costs(self):
        return self.kept("_costs", self.measure_costs)

    def measure_costs(self, folder):
        job = {"seconds": quick_or(240, 8, self.quick), "stems": 8}
        bench_runs.run_program([self.programs["demo_project"], folder / "project",
                                *(word for key in job for word in (f"--{key}", str(job[key])))])
        results = bench_runs.measure(self.programs["verdel-bench"], folder / "project",
                                     "--hear-chain", "--no-report")
        return {**job, "stages": results["stages"]}


def song_rows(songs, results, ways):
    for name, row in results.items():
        yield [songs[name], *(f"{mean_sdr(row, way):.1f}" for way in ways)]


def cost_rows(costs):
    """The chain's stages and, in one row, all others."""
    heard = [stage for stage in costs["stages"] if stage["name"].startswith("chain: ")]
    for stage in heard:
        yield [stage["name"].removeprefix("chain: "), f"{stage['wall']:.1f}",
               f"{stage['cpu']:.1f}", stage["peak_bytes"] // MEBIBYTE]
    total = next(stage for stage in costs["stages"] if stage["name"] == "total")
    others = [stage for stage in costs["stages"] if stage not in heard and stage is not total]
    yield ["reading, render, delivery",
           *(f"{sum(stage[key] for stage in others):.1f}" for key in ("wall", "cpu")),
           max(stage["peak_bytes"] for stage in others) // MEBIBYTE]


def worse(results):
    """The songs on which the chain does harm, and by how many dB, the worst first."""
    found = [(mean_sdr(row, "all") - mean_sdr(row, ENGINE), name)
             for name, row in results.items()]
    return sorted(entry for entry in found if entry[0] < -WORSE_DB)


def page_text(songs, results, costs, tree):
    job = f"{costs['seconds'] / 60:g} min, {costs['stems']} stereo stems"
    return "\n".join([
        f"Revision {tree}. SDR in dB: the energy of a true stem over that of the difference, mean of "
        "the stems.", "",
        table(["chain of the song", *WAYS], song_rows(songs, results, WAYS)), "",
        f"What it costs, on {job}, {machine()}:", "",
        table(["stage", "wall, s", "cpu, s", "memory, MiB"], cost_rows(costs))])


def report(songs, results, costs):
    print()
    print(f"{'song':<18}" + "".join(f"{way:>17}" for way in WAYS) + f"{'cpu, s':>9}"
          f"{'MiB':>7}{'worst stem':>13}")
    for name, row in results.items():
        sdr = row["all"]["sdr"]
        least = min((sdr[stem] - row[ENGINE]["sdr"][stem], stem) for stem in sdr)
        print(f"{name:<18}" + "".join(f"{mean_sdr(row, way):>17.2f}" for way in WAYS) +
              f"{row['all']['cpu'] - row[ENGINE]['cpu']:>9.1f}"
              f"{row['all']['peak_bytes'] // MEBIBYTE:>7}{least[0]:>+7.1f} {least[1]}")
    print("cpu, s: beyond the engine alone; worst stem: the least that a stem gains, dB")
    if costs:
        print()
        for stage, wall, cpu, memory in [("stage", "wall, s", "cpu, s", "MiB"), *cost_rows(costs)]:
            print(f"{stage:<28}{wall:>9}{cpu:>9}{memory:>8}")
    for gain, name in worse(results):
        print(f"WORSE: {name} ({songs[name]}) {gain:+.2f} dB against the engine alone")


def write_pages(songs, results, costs, tree):
    renew(ROOT / "docs" / "chain.md", page_text(songs, results, costs, tree))
    renew(ROOT / "README.md",
          table(["chain of the song", "`verdel`", "`verdel-chain`"],
                song_rows(songs, results, (ENGINE, "all"))), "chain")
    print("written: docs/chain.md, README.md")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", type=pathlib.Path, required=True)
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--json", type=pathlib.Path)
    parser.add_argument("song", nargs="*")
    arguments = parser.parse_args()

    # Songs are large: they go on every road out.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    folders = ("", "examples", "benchmarks")
    programs = {name: next(file for folder in folders
                           if (file := arguments.build / folder / name).is_file())
                for name in PROGRAMS}
    tree = bench_runs.revision(ROOT)  # before the pages that are written change it
    measured = Measured(programs, ROOT / "build" / "chain", arguments.quick)
    songs = measured.songs()
    unknown = [name for name in arguments.song if name not in songs]
    if unknown:
        raise SystemExit(f"there is no song “{unknown[0]}”; there are {', '.join(songs)}")

    results = {}
    for name in arguments.song or songs:
        print(f"{name}: ", end="", flush=True)
        results[name] = measured.song(name)
        print(", ".join(f"{way} {mean_sdr(results[name], way):.1f} dB" for way in WAYS))
        for line in results[name]["all"]["chain"]:
            print(f"    {line}")
    costs = None if arguments.song else measured.costs()
    report(songs, results, costs)
    kept = arguments.json or measured.folder / "results.json"
    kept.write_text(json.dumps({"revision": tree, "songs": results, "costs": costs}, indent=1))
    print(f"written: {os.path.relpath(kept)}")
    if not arguments.song and not arguments.quick:
        write_pages(songs, results, costs, tree)


if __name__ == "__main__":
    sys.exit(main())
