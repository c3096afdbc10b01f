#!/usr/bin/python3
"""Turns the results of the benchmarks into tables and a plot.

bench_report.py table FILE...        medians in ns and their ratio to FFTW, or to memcpy and to the limit
bench_report.py plot FILE STEM       writes STEM.png and STEM.svg: 2.5 N log2 N / time over orders
bench_report.py compare OLD NEW      medians of two runs side by side
"""
import json
import math
import statistics
import sys
from collections import defaultdict


def medians(path):
    """name -> median over the repetitions, in ns of processor time, which does not grow when the program has to wait"""
    times = defaultdict(list)
    for row in json.load(open(path))["benchmarks"]:
        if row.get("run_type") == "iteration":
            times[row["name"].split("/repeats:")[0]].append(row["cpu_time"])
    return {name: statistics.median(t) for name, t in times.items()}


def groups(times, depth):
    """Parts 1 to `depth` of the name -> contender -> ns"""
    table = defaultdict(dict)
    for name, ns in times.items():
        parts = name.split("/")
        table[tuple(parts[1:depth])][parts[-1]] = ns
    return dict(sorted(table.items(), key=lambda row: [int(p) if p.isdigit() else p for p in row[0]]))


def geometric_mean(values):
    return math.exp(sum(map(math.log, values)) / len(values))


def print_table(table, reference, title):
    """Prints a column for each contender. NAME-limit gets no column: it is a second divisor for NAME."""
    names = {c for row in table.values() for c in row if not c.endswith("-limit")}
    contenders = [reference] + sorted(names - {reference})
    limits = any(f"{c}-limit" in row for row in table.values() for c in row)
    width = 25 if limits else 19
    print(f"\n{title}, median ns (ratio to {reference}{', to loads and stores alone' if limits else ''})")
    print(" " * 24 + "".join(f"{c:>{width}}" for c in contenders))
    for key, row in table.items():
        cells = ""
        for c in contenders:
            cell = f"{row[c]:.1f}" if c in row else ""
            for peer in (reference, f"{c}-limit") if limits else (reference,):
                cell += f" {row[c] / row[peer]:>5.2f}" if c in row and peer in row else " " * 6
            cells += f"{cell:>{width}}"
        print(f"{' '.join(key):<24}{cells}")
    return contenders


def print_transforms(times, title, ranges):
    """`ranges`: name -> function that says whether an order or length belongs to it"""
    table = groups(times, 3)
    for way in ("forward", "inverse"):
        rows = {k: v for k, v in table.items() if k[0] == way}
        contenders = print_table(rows, "FFTW", f"{title}, {way}")
    print("\nRatio to FFTW over both ways: geometric mean, and the worst")
    for name, takes in ranges.items():
        for c in contenders:
            ratios = [(v[c] / v["FFTW"], k) for k, v in table.items()
                      if takes(int(k[1])) and c in v and "FFTW" in v]
            if ratios and c != "FFTW":
                worst, where = max(ratios)
                print(f"  {name:<16} {c:<8} {geometric_mean([r for r, _ in ratios]):.3f}"
                      f"   {worst:.2f} ({where[0]} {where[1]})")


FFT_RANGES = {"orders 6 to 14": range(6, 15).__contains__, "orders 15 to 20": range(15, 21).__contains__}
# as bench/dft_lengths.h groups them
DFT_RANGES = {"audio windows": {240, 320, 400, 480, 640, 800, 960, 1440, 1920, 2880}.__contains__,
              "odd factors": {441, 882, 1764, 600, 1000, 1200}.__contains__,
              "primes": {997, 1009, 2003}.__contains__,
              "a long prime": {10007}.__contains__}


def plot(times, stem):
    import matplotlib
    matplotlib.use("Agg")
    from matplotlib import pyplot
    table = groups(times, 3)
    figure, axes = pyplot.subplots(1, 2, figsize=(11, 4.2), sharey=True)
    style = {"avx512": dict(color="#2980b9", lw=2.4), "avx2": dict(color="#8e44ad", lw=2.4),
             "avx": dict(color="#c0392b", lw=2), "sse3": dict(color="#e67e22", lw=2),
             "FFTW": dict(color="#2c3e50", lw=1.6, ls="--"), "KissFFT": dict(color="#7f8c8d", lw=1.6, ls=":")}
    for ax, way in zip(axes, ("forward", "inverse")):
        for contender, look in style.items():
            points = sorted((int(k[1]), v[contender]) for k, v in table.items()
                            if k[0] == way and contender in v)
            if not points:
                continue
            ax.plot([o for o, _ in points], [2.5 * 2**o * o / ns for o, ns in points],
                    label=contender, marker="o", ms=3, **look)
        ax.set_title(f"Real FFT, {way}")
        ax.set_xlabel("log2 N")
        ax.set_xticks(range(4, 23, 2))
        ax.grid(alpha=0.3)
    axes[0].set_ylabel("2.5 N log2 N / time (GFLOP/s)")
    axes[0].set_ylim(bottom=0)
    axes[1].legend(frameon=False)
    figure.tight_layout()
    for kind in ("png", "svg"):
        figure.savefig(f"{stem}.{kind}", dpi=120)


def compare(old, new):
    for name in new:
        if name in old:
            print(f"{name:<44}{old[name]:>14.1f}{new[name]:>14.1f} ns {new[name] / old[name]:>7.3f}")


def main(argv):
    match argv:
        case ["table", *paths]:
            for path in paths:
                times = medians(path)
                for prefix, title, ranges in (("fft/", "Real FFT by order", FFT_RANGES),
                                              ("dft/", "Real DFT by length", DFT_RANGES)):
                    transforms = {n: t for n, t in times.items() if n.startswith(prefix)}
                    if transforms:
                        print_transforms(transforms, title, ranges)
                vectors = {n: t for n, t in times.items() if n.startswith("vector/")}
                if vectors:
                    print_table(groups(vectors, 4), "memcpy", "Vector kernels, by length and byte offset")
        case ["plot", path, stem]:
            plot(medians(path), stem)
        case ["compare", old, new]:
            compare(medians(old), medians(new))
        case _:
            sys.exit(__doc__)


main(sys.argv[1:])
