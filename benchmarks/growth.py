#!/usr/bin/env python3
"""Measures how a render's time and memory grow, and writes the figures of docs/performance.md.

Every result is kept under build/growth by the benchmark's own bytes, so that an interrupted
measurement goes on where it stopped, and a new build is measured anew.
"""

import argparse
import collections
import csv
import dataclasses
import hashlib
import json
import pathlib
import signal
import sys
import tempfile

import bench_runs
import growth_pages

ROOT = pathlib.Path(__file__).resolve().parent.parent


@dataclasses.dataclass(frozen=True)
class Job:
    seconds: float
    stems: int
    channels: int = 2
    options: tuple = ()

    @property
    def project(self):
        return (self.seconds, self.stems, self.channels)

    @property
    def name(self):
        words = [f"{self.seconds:g}s", f"{self.stems}stems", f"{self.channels}ch", *self.options]
        return "-".join(word.lstrip("-") for word in words)


@dataclasses.dataclass(frozen=True)
class Plan:
    """The jobs behind the figures."""
    lengths: tuple
    stems: tuple
    channels: tuple
    one_worker: Job
    two_workers: Job
    song: Job
    excerpt: Job
    short_song: Job

    def jobs(self):
        return list(dict.fromkeys([*self.lengths, *self.stems, *self.channels, self.one_worker,
                                   self.two_workers, self.song, self.excerpt, self.short_song]))


def make_plan(quick):
    """With `quick`, the same figures from jobs that take seconds and tell nothing."""
    minute = 2.0 if quick else 60.0
    part = 1.0 if quick else 10.0
    few, many = (2, 3) if quick else (8, 32)

    def workers(count):
        return Job(4 * minute, few, options=("--processors", str(count)))

    return Plan(lengths=tuple(Job(length * minute, 4) for length in (0.5, 2, 8)),
                stems=tuple(Job(minute, stems) for stems in (1 if quick else 2, few, many)),
                channels=tuple(Job(2 * minute, 4, channels) for channels in (1, 2)),
                one_worker=workers(1), two_workers=workers(2),
                song=Job(4 * minute, few),
                excerpt=Job(4 * minute, few, options=("--excerpt", f"{part:g}")),
                short_song=Job(part, few))


class Measured:
    """Results by job, kept on the disk."""

    def __init__(self, demo, bench, folder, runs):
        self.demo, self.bench, self.runs = demo, bench, runs
        build = hashlib.sha256(pathlib.Path(bench).read_bytes()).hexdigest()[:12]
        self.folder = folder / build
        self.folder.mkdir(parents=True, exist_ok=True)

    def file(self, job, run):
        return self.folder / f"{job.name}-{run}.json"

    def measure(self, jobs):
        """Runs what is missing; jobs on one project take turns."""
        projects = collections.defaultdict(list)
        for job in jobs:
            projects[job.project].append(job)
        for (seconds, stems, channels), on_project in projects.items():
            missing = [(job, run) for run in range(self.runs) for job in on_project
                       if not self.file(job, run).exists()]
            if not missing:
                continue
            with tempfile.TemporaryDirectory(prefix="verdel-bench-") as folder:
                project = f"{folder}/project"
                bench_runs.run_program([self.demo, project, "--seconds", str(seconds), "--stems",
                                        str(stems), "--channels", str(channels)])
                for job, run in missing:
                    self.measure_once(job, run, project)

    def measure_once(self, job, run, project):
        print(f"{job.name}, run {run + 1} of {self.runs}: ", end="", flush=True)
        try:
            results = bench_runs.measure(self.bench, project, *job.options)
            print(f"{bench_runs.stage(results, 'total')['wall']:.1f} s")
        except bench_runs.Refused as refusal:
            results = {"refused": str(refusal)}
            print(f"refused: {refusal}")
        self.file(job, run).write_text(json.dumps(results))

    def best(self, job):
        """The quickest of a job's runs, or the refusal."""
        results = [json.loads(self.file(job, run).read_text()) for run in range(self.runs)]
        if any("refused" in result for result in results):
            return next(result for result in results if "refused" in result)
        return min(results, key=lambda result: bench_runs.stage(result, "total")["wall"])


def write_csv(path, plan, measured):
    with path.open("w", newline="") as file:
        rows = csv.writer(file, lineterminator="\n")
        rows.writerow(["seconds", "stems", "channels", "options", "stage", "wall_s", "cpu_s",
                       "system_s", "peak_mib"])
        for job in plan.jobs():
            for entry in measured.best(job).get("stages", []):
                rows.writerow([f"{job.seconds:g}", job.stems, job.channels, " ".join(job.options),
                               entry["name"], f"{entry['wall']:.2f}", f"{entry['cpu']:.2f}",
                               f"{entry['system']:.2f}", entry["peak_bytes"] >> 20])


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--demo", required=True)
    parser.add_argument("--bench", required=True)
    parser.add_argument("--runs", type=int, default=2)
    parser.add_argument("--quick", action="store_true")
    arguments = parser.parse_args()
    if arguments.runs < 1:
        parser.error("--runs takes a number from 1 on")

    # Projects are large: they go on every road out.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    kept = ROOT / "build" / "growth"
    measured_tree = bench_runs.revision(ROOT)  # before the figures that are written change it
    plan = make_plan(arguments.quick)
    measured = Measured(arguments.demo, arguments.bench, kept, arguments.runs)
    jobs = plan.jobs()
    print(f"{len(jobs)} jobs, {arguments.runs} runs each: {', '.join(job.name for job in jobs)}")
    measured.measure(jobs)

    page = ROOT / "docs" / "performance.md"
    if arguments.quick:
        draft = kept / "docs" / "performance.md"
        draft.parent.mkdir(exist_ok=True)
        draft.write_text(page.read_text())
        page = draft
    figures = page.parent / "performance"
    figures.mkdir(exist_ok=True)
    write_csv(figures / "growth.csv", plan, measured)
    growth_pages.write_plots(figures, plan, measured.best)
    growth_pages.renew_figures(page, plan, measured.best, measured_tree)
    print(f"written: {page.relative_to(ROOT)}, {figures.relative_to(ROOT)}/")


if __name__ == "__main__":
    sys.exit(main())
