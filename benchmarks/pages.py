"""Tables of measured figures, and their place in the documents."""

import os
import pathlib
import platform

MEBIBYTE = 1 << 20


def table(head, rows, align=None):
    """`align` has one letter a column, l or r; without it only the first is on the left."""
    align = align or "l" + "r" * (len(head) - 1)
    lines = [f"| {' | '.join(head)} |",
             "|" + "".join("---|" if side == "l" else "---:|" for side in align)]
    lines += [f"| {' | '.join(str(cell) for cell in row)} |" for row in rows]
    return "\n".join(lines)


def processor():
    cpuinfo = pathlib.Path("/proc/cpuinfo")
    if cpuinfo.exists():
        for line in cpuinfo.read_text().splitlines():
            if line.startswith("model name"):
                return line.split(":", 1)[1].strip()
    return platform.processor() or "unknown"


def machine():
    memory = os.sysconf("SC_PHYS_PAGES") * os.sysconf("SC_PAGE_SIZE") / 2**30
    return (f"{processor()} ({platform.machine()}), {os.cpu_count()} processors, "
            f"{memory:.0f} GiB, {platform.system()}")


def renew(page, words, name="measured"):
    """Replaces what stands on the page between the two marks of that name."""
    begin, end = f"<!-- {name}: begin -->", f"<!-- {name}: end -->"
    text = page.read_text()
    if begin not in text or end not in text:
        raise SystemExit(f"{page} has no place “{begin}” ... “{end}”")
    before, after = text[:text.index(begin) + len(begin)], text[text.index(end):]
    page.write_text(f"{before}\n{words}\n{after}")
