"""The tables and plots of docs/performance.md, from measured results."""

import bench_runs
import plots
from pages import MEBIBYTE, machine, renew, table


def of_stage(results, name, quantity="wall"):
    return bench_runs.stage(results, name)[quantity]


def job_text(job):
    return f"{job.seconds / 60:.3g} min, {job.stems} stems, {job.channels} ch"


def stage_rows(results):
    for entry in results["stages"]:
        yield [entry["name"], f"{entry['wall']:.2f}", f"{entry['cpu']:.2f}",
               f"{entry['system']:.2f}", entry["peak_bytes"] // MEBIBYTE]


def song_text(plan, results):
    report = results["report_seconds"]
    return [f"### A whole song: {job_text(plan.song)}", "",
            table(["stage", "wall, s", "cpu, s", "of it system, s", "memory, MiB"],
                  stage_rows(results)), "",
            f"Allocator: {results['allocator_multiple']:.2f} times its nine bare transforms of "
            f"{1e6 * results['nine_transforms']:.1f} µs. Report: {report:.3f} s of processor time "
            "per stem, channel and minute.", ""]


def growth_rows(jobs, best):
    for job in jobs:
        results = best(job)
        if "refused" in results:
            yield [job_text(job), f"refused: {results['refused']}", *[""] * 6]
            continue
        total = bench_runs.stage(results, "total")
        rest = total["wall"] - of_stage(results, "allocate") - of_stage(results, "report")
        yield [job_text(job), f"{total['wall']:.2f}", f"{total['cpu']:.2f}",
               f"{of_stage(results, 'allocate'):.2f}", f"{of_stage(results, 'report'):.2f}",
               f"{rest:.2f}", total["peak_bytes"] // MEBIBYTE,
               round(results["allocator_bytes"] / MEBIBYTE)]


def growth_text(plan, best):
    jobs = list(dict.fromkeys([*plan.lengths, *plan.stems, *plan.channels]))
    head = ["job", "wall, s", "cpu, s", "allocator, s", "report, s", "all else, s", "memory, MiB",
            "allocator's own, MiB"]
    return ["### Growth", "",
            "![Time against length and stems](performance/time.svg)", "",
            "![Memory against length and stems](performance/memory.svg)", "",
            table(head, growth_rows(jobs, best)), ""]


def worker_text(plan, one, two):
    rows = [[name, f"{of_stage(one, name):.2f}", f"{of_stage(two, name):.2f}",
             f"{of_stage(one, name) / of_stage(two, name):.2f}"]
            for name in ("allocate", "report", "total")]
    return [f"### One worker and two: {job_text(plan.one_worker)}", "",
            table(["stage", "one, s", "two, s", "times faster"], rows), ""]


def excerpt_text(plan, excerpt, alone):
    rows = [[entry["name"], f"{entry['cpu']:.2f}", f"{of_stage(alone, entry['name'], 'cpu'):.2f}",
             entry["peak_bytes"] // MEBIBYTE] for entry in excerpt["stages"]]
    seconds = f"{plan.short_song.seconds:g} s"
    return [f"### {seconds} out of a song: {job_text(plan.excerpt)}", "",
            table(["stage", "cpu, s", f"cpu of a song of {seconds}, s", "memory, MiB"], rows), ""]


def figures_text(plan, best, revision):
    song, excerpt, alone = best(plan.song), best(plan.excerpt), best(plan.short_song)
    one, two = best(plan.one_worker), best(plan.two_workers)
    for results in (song, excerpt, alone, one, two):
        if "refused" in results:
            raise SystemExit(f"this machine is too small to be measured: {results['refused']}")
    return "\n".join([f"Revision {revision}; {machine()}. Of the runs of a job, the quickest.", "",
                      *song_text(plan, song), *growth_text(plan, best),
                      *worker_text(plan, one, two), *excerpt_text(plan, excerpt, alone)])


def renew_figures(page, plan, best, revision):
    renew(page, figures_text(plan, best, revision))


def panel(title, x_label, y_label, jobs, x_of, series, best):
    measured = [(job, best(job)) for job in jobs]
    done = [(job, results) for job, results in measured if "refused" not in results]
    return plots.Panel(title, x_label, y_label, [x_of(job) for job, _ in done],
                       {name: [value(results) for _, results in done]
                        for name, value in series.items()})


def write_plots(folder, plan, best):
    def stage_wall(name):
        return lambda results: max(0.001, of_stage(results, name))

    def both(y_label, series):
        return plots.plot([
            panel(f"{plan.lengths[0].stems} stems", "length, minutes", y_label, plan.lengths,
                  lambda job: job.seconds / 60, series, best),
            panel(f"{plan.stems[0].seconds / 60:.3g} min", "stems", y_label, plan.stems,
                  lambda job: job.stems, series, best)])

    time = {"whole render": stage_wall("total"), "allocator": stage_wall("allocate"),
            "report": stage_wall("report")}
    memory = {"whole render": lambda results: of_stage(results, "total", "peak_bytes") / MEBIBYTE,
              "allocator's own": lambda results: max(1, results["allocator_bytes"] / MEBIBYTE)}
    (folder / "time.svg").write_text(both("wall clock, s", time))
    (folder / "memory.svg").write_text(both("anonymous memory, MiB", memory))
