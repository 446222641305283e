"""Runs verdel-bench and reads what it tells."""

import json
import pathlib
import re
import subprocess
import tempfile

TOO_LARGE = 3  # verdel-bench's exit status for a render that the machine cannot carry

# A row of the table that benches without --json print: stage, wall, cpu, memory.
ROW = re.compile(r"(\S.*?)\s+([\d.]+)\s+([\d.]+)\s+(\d+)")


class Refused(Exception):
    """The machine is too small for the render; the engine's own words."""


def run_program(command):
    done = subprocess.run(command, capture_output=True, text=True)
    if done.returncode == TOO_LARGE:
        raise Refused(done.stderr.strip().removeprefix("verdel-bench: "))
    if done.returncode != 0:
        raise SystemExit(f"{command[0]} failed:\n{done.stderr}")
    return done.stdout


def knows_json(bench):
    return "--json" in subprocess.run([bench], capture_output=True, text=True).stderr


def read_table(text):
    """The stages of the printed table, in the form of the JSON."""
    stages = []
    for line in text[text.index("\nstage "):].splitlines()[2:]:
        row = ROW.fullmatch(line.strip())
        if row is None:
            break
        stages.append({"name": row[1], "wall": float(row[2]), "cpu": float(row[3]),
                       "peak_bytes": int(row[4]) << 20})
    if not stages:
        raise SystemExit(f"no stages can be read from:\n{text}")
    return {"stages": stages}


def measure(bench, project, *options):
    """One render's results, as verdel-bench --json has them."""
    command = [str(bench), str(project), *options]
    if not knows_json(bench):
        if set(options) - {"--no-report"}:
            raise SystemExit(f"{bench} is too old for {' '.join(options)}")
        return read_table(run_program(command))
    with tempfile.TemporaryDirectory() as folder:
        result = pathlib.Path(folder) / "result.json"
        run_program([*command, "--json", str(result)])
        return json.loads(result.read_text())


def stage(results, name):
    return next((entry for entry in results["stages"] if entry["name"] == name), None)


def revision(tree):
    return subprocess.run(["git", "describe", "--always", "--dirty"], capture_output=True,
                          text=True, cwd=tree).stdout.strip() or "unknown"
