#!/usr/bin/env python3
"""Measures what docs/performance.md shows, and writes it: the words of bench/performance.md.in, with figures and plots.

report.py run TOOLS BENCHES [--quick]   measures (./dev bench --report); --quick writes to build/report only
report.py render                        writes the page, the plots and README's lines from docs/plots/figures.json
report.py check                         whether page and README are what the figures and the words make
"""
import argparse
import datetime
import json
import os
import re
import shutil
import statistics
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
BUILD = ROOT / "build" / "report"
DOCS = ROOT / "docs"
README = ROOT / "README.md"
SUMMARY = re.compile(r"<!-- figures: \./dev bench --report -->\n.*?<!-- end of figures -->\n", re.DOTALL)

# Name: (in a full run, in a quick one, what it is)
SIZES = {
    "files": (1000000, 10000, "files of the largest tree that is scanned"),
    "min-time": (0.5, 0.1, "seconds for one benchmark of the library"),
    "rounds": (5, 3, "how often each side is timed, outside of the library's benchmarks"),
    "big": (4096, 64, "MiB of the largest stub for first bytes"),
    "archive-files": (10000, 500, "files that are archived and recalled beside cp"),
    "sparse": (2, 0, "GiB of a sparse file among them"),
    "small-files": (20000, 1000, "small files that are created and searched under the recall service"),
    "stubs": (1000, 100, "stubs of 64 KiB for 8 readers"),
}

OPERATIONS = [  # back-end, operation, its benchmark
    ("driverless", "`isStub`, a stub", "isStub/stub/meta:100"),
    ("driverless", "`isStub`, a plain file", "isStub/plain"),
    ("driverless", "`stubFile`, 64 KiB", "stubFile/meta:100"),
    ("driverless", "`backupStub`", "backupStub/meta:100"),
    ("driverless", "`restoreStub`, `restoreDone`", "restoreStub/meta:100"),
    ("driverless", "a recall's piece of 1 MiB", "recallPiece/bytes:1048576"),
    ("driverless", "`statFile`, cached, local", "statFile"),
    ("driverless", "`statFile`, any other", "statFileByHelper"),
    ("filter driver", "`isStub`", "driverIsStub"),
    ("filter driver", "`isStub`, a name in UTF-8", "driverIsStubUtf8"),
    ("filter driver", "`getFileInfo`", "driverGetFileInfo"),
    ("filter driver", "`stubFile`", "driverStubFile"),
    ("filter driver", "`restoreDone`", "driverRestoreDone"),
    ("filter driver", "`isDMRFS`", "driverIsDMRFS"),
    ("filter driver", "`writeFileTrans`", "driverWriteFileTrans"),
    ("GlusterFS", "`isStub`, a stub", "glusterIsStub/stub"),
    ("GlusterFS", "`isStub`, a plain file", "glusterIsStub/plain"),
]


def nanoseconds(key, unit):
    return lambda entry, _: [value / unit for value in entry[key]]


def calls_a_second(key, unit):
    return lambda entry, _: sorted(entry["calls"] * 1e9 / value / unit for value in entry[key])


def bytes_a_second(key):
    return lambda entry, size: sorted(size * 1e9 / value / 2**20 for value in entry[key])


def binary(size, step=1):
    size *= step
    unit = min(max(size.bit_length() - 1, 0) // 10, 3)
    return f"{size >> 10 * unit} {('bytes', 'KiB', 'MiB', 'GiB')[unit]}"


# Name: (title, what grows, its text, what is shown, whether on a logarithmic scale, curves, ratios). A curve is a
# label, its benchmark, with {} for what grows, and its value in there; a ratio the same with the ratio's key.
PLOTS = {
    "scan": ("A tree is scanned", "files", "{:,}".format, "milliseconds", True, [
        ("bare walk", "scan/files:{}/jobs:1", nanoseconds("bare_ns", 1e6)),
        ("qzhsm scan", "scan/files:{}/jobs:1", nanoseconds("ours_ns", 1e6)),
        ("qzhsm scan -j 2", "scan/files:{}/jobs:2", nanoseconds("ours_ns", 1e6)),
    ], [("CPU time", "scan/files:{}/jobs:1", "cpu_ratio"), ("time, -j 1", "scan/files:{}/jobs:1", "ratio"),
        ("time, -j 2", "scan/files:{}/jobs:2", "ratio")]),
    "lookup": ("Threads ask a registry for a back-end", "threads", str, "million calls a second", False, [
        ("a registry each", "lookupByThreads/threads:{}", calls_a_second("bare_ns", 1e6)),
        ("one registry", "lookupByThreads/threads:{}", calls_a_second("ours_ns", 1e6)),
    ], [("time", "lookupByThreads/threads:{}", "ratio")]),
    "threads": ("Threads call isStub, a back-end object each", "threads", str, "thousand calls a second", False, [
        ("bare calls", "isStubByThreads/threads:{}", calls_a_second("bare_ns", 1e3)),
        ("isStub", "isStubByThreads/threads:{}", calls_a_second("ours_ns", 1e3)),
    ], [("time", "isStubByThreads/threads:{}", "ratio")]),
    "metadata": ("Metadata grows", "bytes", "{:,}".format, "microseconds", True, [
        (side and f"{side} {name}" or name, f"{test}/meta:{{}}", nanoseconds(key, 1e3))
        for name, test in (("stubFile", "stubFile"), ("backupStub", "backupStub"), ("isStub", "isStub/stub"))
        for side, key in (("bare", "bare_ns"), ("", "ours_ns"))
    ], [(name, f"{test}/meta:{{}}", "ratio")
        for name, test in (("stubFile", "stubFile"), ("backupStub", "backupStub"), ("isStub", "isStub/stub"))]),
    "pieces": ("Pieces of a recall are written", "bytes a piece", binary, "MiB a second", False, [
        ("bare write", "recallPiece/bytes:{}", bytes_a_second("bare_ns")),
        ("writeFileTrans", "recallPiece/bytes:{}", bytes_a_second("ours_ns")),
    ], [("time", "recallPiece/bytes:{}", "ratio")]),
    "first": ("First bytes of a stub", "size of the stub", lambda mib: binary(mib, 2**20), "milliseconds", False, [
        ("bare read of 4 MiB", "first/from:0/MiB:{}", nanoseconds("bare_ns", 1e6)),
        ("its first 4 KiB", "first/from:0/MiB:{}", nanoseconds("ours_ns", 1e6)),
        ("its last 4 KiB", "first/from:-4096/MiB:{}", nanoseconds("ours_ns", 1e6)),
    ], [("head", "first/from:0/MiB:{}", "ratio"), ("tail", "first/from:-4096/MiB:{}", "ratio")]),
}


def figure(value):
    """A count, or a ratio."""
    return str(value) if isinstance(value, int) else f"{value:.{2 if value < 10 else 1 if value < 100 else 0}f}"


def digits(value):
    """Three of them, or more before the point."""
    return f"{value:,.0f}" if value >= 100 else f"{value:#.3g}"


def spread(values):
    return f"{figure(values[1])} ({figure(values[0])} to {figure(values[2])})"


def time_text(ns):
    for unit, size in (("s", 1e9), ("ms", 1e6), ("µs", 1e3)):
        if ns >= size:
            return f"{digits(ns / size)} {unit}"
    return f"{ns:.0f} ns"


class Page:
    """What the words may ask for, by Python expressions in {{ }}."""

    def __init__(self, report):
        self.report = report
        self.figures = report["figures"]
        self.missing = set()

    def of(self, name, what="ratio", show=figure):
        """A count, or the median of a figure."""
        value = self.figures.get(name, {}).get(what)
        if value is None:
            self.missing.add(name)
            return "(not measured)"
        return show(value[1] if isinstance(value, list) and show != spread else value)

    def time(self, name, what="ours_ns"):
        return self.of(name, what, time_text)

    def beyond(self, prefix):
        """The least and the most that operations take beyond their bare calls."""
        extra = [entry["ours_ns"][1] - entry["bare_ns"][1]
                 for name, entry in self.figures.items() if name.startswith(prefix)] or [0]
        return f"{min(extra):.0f} to {max(extra):.0f} ns"

    def per_second(self, name, count):
        return self.of(name, "ours_ns", lambda ns: f"{count * 1e9 / ns:,.0f}")

    def service(self, name):
        return f"{self.time(name)} | {self.time(name, 'bare_ns')} | {self.of(name, 'ratio', spread)}"

    def largest(self, pattern):
        return max(points_of(self.figures, pattern, lambda entry, _: entry), default=0)

    def last(self, pattern):
        return pattern.format(self.largest(pattern))

    def operations(self):
        lines = ["| back-end | operation | system calls | allocations | time, times the bare calls' | itself | bare |",
                 "|---|---|---|---|---|---|---|"]
        for back_end, operation, name in OPERATIONS:
            entry = self.figures.get(name)
            if not entry:
                self.missing.add(name)
                continue
            lines.append(f"| {back_end} | {operation} | {entry.get('syscalls', 'not counted')} | {entry['allocs']} "
                         f"| {spread(entry['ratio'])} | {time_text(entry['ours_ns'][1])} "
                         f"| {time_text(entry['bare_ns'][1])} |")
        return "\n".join(lines)

    def plot(self, name):
        title, grows, text, unit, _, curves, ratios = PLOTS[name]
        points = [(curve[0], points_of(self.figures, *curve[1:])) for curve in curves]
        xs = sorted({x for _, curve in points for x in curve})
        if not xs:
            self.missing.add(name)
            return "(not measured)"
        shown = [(label, {x: digits(values[1]) for x, values in curve.items()}) for label, curve in points]
        shown += [(f"{label}, times", points_of(self.figures, pattern, lambda entry, _, key=key: spread(entry[key])))
                  for label, pattern, key in ratios]
        lines = [f"![{title}: {unit} by {grows}](plots/{name}.svg)", "",
                 f"{unit[0].upper()}{unit[1:]}, and the time as a multiple of the bare side's:", "",
                 f"| {grows} | " + " | ".join(label for label, _ in shown) + " |", "|---" * (len(shown) + 1) + "|"]
        lines += [f"| {text(x)} | " + " | ".join(column.get(x, "") for _, column in shown) + " |" for x in xs]
        return "\n".join(lines)

    def notes(self):
        """What this run did not do, or did not keep."""
        lines = [f"- A promise was not kept: {text}" for text in self.report["run"]["broken"]]
        lines += [f"- Not measured: {text}" for text in self.report["run"]["skipped"]]
        lines += [f"- Not measured: {name}" for name in sorted(self.missing)]
        return "\n".join(lines) or "- All that benchmarks promise was kept, and all was measured."

    def text(self):
        template = (ROOT / "bench" / "performance.md.in").read_text()
        names = {name: getattr(self, name) for name in dir(self) if not name.startswith("_")}
        names |= {"run": self.report["run"], "sizes": self.report["run"]["sizes"], "spread": spread, "binary": binary,
                  "number": "{:,}".format, "giga": lambda size: f"{size / 1e9:.1f}"}
        return re.sub(r"\{\{(.*?)\}\}", lambda found: str(eval(found[1], names)), template, flags=re.DOTALL)


def points_of(figures, pattern, value):
    """{x: value} of all benchmarks that are called like the pattern, with x in place of its {}."""
    wanted = re.compile(re.escape(pattern).replace(r"\{\}", r"(\d+)"))
    found = ((wanted.fullmatch(name), entry) for name, entry in figures.items())
    return {int(match[1]): value(entry, int(match[1])) for match, entry in found if match}


def gnuplot(picture, commands):
    head = (f'set terminal svg size 760,400 font "Helvetica,13" background "#ffffff"\nset output "{picture}"\n'
            'set grid linetype 1 linecolor rgb "#dddddd"\nset border 3 linecolor "#444444"\n'
            'set tics nomirror\nset key above\n')
    subprocess.run(["gnuplot"], input=head + commands, text=True, check=True)


def draw(figures, directory):
    directory.mkdir(parents=True, exist_ok=True)
    colors = ("#0072b2", "#d55e00", "#009e73")
    for name, (_, grows, text, unit, logarithmic, curves, _) in PLOTS.items():
        points = [(label, points_of(figures, pattern, value)) for label, pattern, value in curves]
        xs = sorted({x for _, curve in points for x in curve})
        if not xs:
            continue
        data = "".join(f"$curve{at} << end\n" + "".join(f"{x} {curve[x][1]:.6g} {curve[x][0]:.6g} {curve[x][2]:.6g}\n"
                       for x in sorted(curve)) + "end\n" for at, (_, curve) in enumerate(points))
        color = iter(colors)
        drawn = ", ".join(f'$curve{at} using 1:2:3:4 with yerrorlines linewidth 2 pointtype 7 pointsize 0.4 '
                          + ('linecolor "#777777" dashtype 2' if "bare" in label else f'linecolor "{next(color)}"')
                          + f' title "{label}"' for at, (label, _) in enumerate(points))
        tics = ", ".join(f'"{text(x)}" {x}' for x in xs)
        gnuplot(directory / f"{name}.svg",
                f'set xlabel "{grows}"\nset ylabel "{unit}"\nset logscale x\nset xtics ({tics})\n'
                f'set xrange [{xs[0] / 1.2}:{xs[-1] * 1.2}]\n'
                + ("set logscale y\n" if logarithmic else "set yrange [0:*]\n")
                + f"{data}plot {drawn}\n")
    rows = [(f"{back_end}: {operation}".replace("`", ""), figures[name]["ratio"])
            for back_end, operation, name in reversed(OPERATIONS) if name in figures]
    data = "$rows << end\n" + "".join(f'"{label}" {mid} {low} {high}\n' for label, (low, mid, high) in rows) + "end\n"
    gnuplot(directory / "operations.svg",
            f'set title "Time, times that of the bare calls: median and quartiles"\nset logscale x 2\nset nokey\n'
            f'set yrange [-1:{len(rows)}]\n{data}plot $rows using 2:0:3:4:yticlabels(1) with xerrorbars '
            f'linewidth 2 pointtype 7 pointsize 0.5 linecolor "{colors[0]}"\n')


def rendered(report):
    """The page, and README with the lines that it shares with the page."""
    page = Page(report).text()
    readme, count = SUMMARY.subn(lambda _: SUMMARY.search(page)[0], README.read_text())
    if count != 1:
        sys.exit("report: README.md has lost the marks around its figures")
    return page, readme


def least_to_most(values):
    return [min(values), statistics.median(values), max(values)]


def rounded(value):
    return [rounded(each) for each in value] if isinstance(value, list) else float(f"{value:.4g}")


def figures_of(library, lines):
    """{name: {what: median with its spread, or a count}}"""
    figures = {}
    for test in library:
        if "error_occurred" not in test:
            name = re.sub(r"/(manual_time|iterations:\d+)", "", test["name"])
            figures[name] = {key: rounded([test[f"{key}_q1"], value, test[f"{key}_q3"]])
                             for key, value in test.items() if f"{key}_q1" in test}
            figures[name] |= {key: int(test[key]) for key in ("syscalls", "allocs", "calls") if key in test}
    for test in lines:
        ratios = [ours / bare for ours, bare in zip(test["ours_ns"], test["bare_ns"], strict=True)]
        figures[test["name"]] = {"ratio": rounded(least_to_most(ratios))} | {
            key: rounded(least_to_most(value)) if isinstance(value, list) else value
            for key, value in test.items() if key != "name"}
    return figures


def told(*command):
    return subprocess.run(command, cwd=ROOT, capture_output=True, text=True, check=False).stdout.strip()


def measure(tools, benches, sizes, directory):
    """Runs all benchmarks: what they found, and where."""
    shutil.rmtree(BUILD, ignore_errors=True)
    BUILD.mkdir(parents=True)
    lines = BUILD / "lines.json"
    lines.touch()
    model = re.search(r"^model name\s*: (.*)$", Path("/proc/cpuinfo").read_text(), re.MULTILINE)
    run = {
        "date": datetime.date.today().isoformat(),
        "commit": told("git", "rev-parse", "--short", "HEAD")
                  + (" with changes" if told("git", "status", "--porcelain", "-uno") else ""),
        "cpu": model[1] if model else os.uname().machine, "cores": os.cpu_count(), "kernel": os.uname().release,
        "file_system": told("findmnt", "-no", "FSTYPE", "-T", directory),
        "load": f"{os.getloadavg()[0]:.2f}", "sizes": sizes, "broken": [], "skipped": [],
    }
    environment = os.environ | {"QZHSM_BENCH_DIR": directory, "QZHSM_BENCH_FILES": str(sizes["files"]),
                                "QZHSM_BENCH_JSON": str(lines), "QZHSM_TOOL": f"{tools}/qzhsm/qzhsm"}
    # The library comes last: where its large tree was removed, ext4 is slow to make files.
    for command in (
        [f"{benches}/qzhsm_archive_bench", f"{tools}/qzhsm/qzhsm",
         sizes["archive-files"], sizes["rounds"], sizes["sparse"]],
        [ROOT / "bench/serve.sh", f"{tools}/qzhsm/qzhsm", f"{tools}/qzhsmd/qzhsmd", f"{benches}/serve_bench",
         "--rounds", sizes["rounds"], "--big", sizes["big"], "--files", sizes["small-files"],
         "--stubs", sizes["stubs"], "first", "open", "second", "files", "many"],
        [f"{benches}/qzhsm_bench", f"--benchmark_out={BUILD}/library.json", "--benchmark_out_format=json",
         f"--benchmark_min_time={sizes['min-time']}"],
    ):
        command = [str(word) for word in command]
        broken = []
        with subprocess.Popen(command, env=environment, stderr=subprocess.PIPE, text=True) as child:
            for line in child.stderr:
                print(line, end="", file=sys.stderr)
                broken += [line[len("BROKEN: "):].strip()] if line.startswith("BROKEN: ") else []
        if child.returncode != 0 and not broken:
            sys.exit(f"report: {command[0]} failed")
        run["broken"] += broken
    library = json.loads((BUILD / "library.json").read_text())["benchmarks"]
    run["skipped"] = [f"{test['name']}: {test['error_message']}" for test in library if "error_occurred" in test]
    return {"run": run, "figures": figures_of(library, map(json.loads, lines.read_text().splitlines()))}


def write_figures(report, path):
    path.parent.mkdir(parents=True, exist_ok=True)
    lines = ",\n".join(f"  {json.dumps(name)}: {json.dumps(entry)}" for name, entry in report["figures"].items())
    path.write_text(f'{{"run": {json.dumps(report["run"])},\n "figures": {{\n{lines}\n}}}}\n')


def main():
    parser = argparse.ArgumentParser(prog="./dev bench --report", description=__doc__.splitlines()[0])
    parser.add_argument("verb", choices=("run", "render", "check"), help=argparse.SUPPRESS)
    parser.add_argument("directories", nargs="*", help=argparse.SUPPRESS)
    parser.add_argument("--quick", action="store_true", help="small sizes, two minutes; writes to build/report only")
    for name, (full, quick, what) in SIZES.items():
        parser.add_argument(f"--{name}", type=type(full), help=f"{what} ({full}; quick {quick})")
    options = vars(parser.parse_args())
    docs = BUILD if options["quick"] else DOCS
    stored = docs / "plots" / "figures.json"
    if options["verb"] == "run":
        sizes = {name: options[name.replace("-", "_")] for name in SIZES}
        sizes = {name: SIZES[name][options["quick"]] if given is None else given for name, given in sizes.items()}
        directory = os.environ.get("QZHSM_BENCH_DIR") or os.environ.get("TMPDIR") or "/tmp"
        # Files to be archived have 0.3 MB and lie there twice, a bit more at times; those to be scanned have 5 KB.
        archived = sizes["archive-files"] * 0.3 * 2.2
        megabytes = max(archived, sizes["big"] * 4, sizes["files"] * 0.005)
        if shutil.disk_usage(directory).free < megabytes * 1e6:
            sys.exit(f"report: {directory} takes {megabytes / 1000:.0f} GB: set QZHSM_BENCH_DIR, or sizes (--help)")
        write_figures(measure(*options["directories"], sizes, directory), stored)
    if not stored.exists():
        sys.exit(f"report: there are no figures: ./dev bench --report makes {stored}")
    report = json.loads(stored.read_text())
    page, readme = rendered(report)
    if options["verb"] == "check":
        sys.exit((page, readme) != ((DOCS / "performance.md").read_text(), README.read_text()))
    draw(report["figures"], docs / "plots")
    (docs / "performance.md").write_text(page)
    if options["quick"]:
        print(f"\nA quick try, with figures not to rely on: {docs}/performance.md. README would say:")
        print(SUMMARY.search(page)[0])
    else:
        README.write_text(readme)
        print(f"\nWritten: {docs}/performance.md, its plots, and README.md's lines. To be committed together.")
    sys.exit(options["verb"] == "run" and bool(report["run"]["broken"]))


if __name__ == "__main__":
    main()
