#!/usr/bin/python3
"""Turns the benchmark programs' JSON output into one table of figures, each
beside its baseline measured in the same run, and writes the table as JSON.

Inputs: Google Benchmark JSON files (--benchmark_out) and the end-to-end
programs' own JSON files ({"figures": [...]}), all in one directory."""
import json
import pathlib
import sys

# In-process figures: (figure, benchmark, baseline benchmark, target ratio or None).
PAIRS = [
    ("frame building, no payload", "BM_ProduceCmds_NoPayload", "BM_Baseline_MinimalHeaderEncoder", 3.0),
    ("frame building, 4 KiB payload", "BM_ProduceCmds_4KiBPayload", "BM_Baseline_Memcpy4KiB", 3.0),
    ("datagram parse+dispatch: queue (without thread start)", "BM_ParseDispatch_Queue", "BM_Baseline_Copy19", 20.0),
    ("datagram parse+dispatch: deliver at once", "BM_ParseDispatch_DeliverAtOnce", "BM_Baseline_Copy19", None),
    ("datagram parse+dispatch: hold", "BM_ParseDispatch_Hold", "BM_Baseline_Copy19", 20.0),
    ("datagram parse+dispatch: block data", "BM_ParseDispatch_BlockData", "BM_Baseline_Copy19", 20.0),
    ("datagram parse+dispatch: rejected", "BM_ParseDispatch_Rejected", "BM_Baseline_Copy19", 20.0),
    ("datagram parse+dispatch: queue, with thread start", "BM_ParseDispatch_QueueWithThread", "BM_Baseline_Copy19", None),
]


def load(directory):
    timings = {}
    figures = []
    for path in sorted(pathlib.Path(directory).glob("*.json")):
        if path.name == "results.json":
            continue
        data = json.loads(path.read_text())
        for bench in data.get("benchmarks", []):
            # With repetitions the median stands for the benchmark; without, its single run.
            if bench.get("run_type") == "aggregate":
                if bench.get("aggregate_name") == "median":
                    timings[bench["run_name"]] = (bench["real_time"], bench.get("time_unit", "ns"))
            elif bench["name"] not in timings:
                timings[bench["name"]] = (bench["real_time"], bench.get("time_unit", "ns"))
        figures.extend(data.get("figures", []))
    return timings, figures


def rows(timings, figures):
    out = []
    for figure, name, baseline, target in PAIRS:
        if name not in timings or baseline not in timings:
            continue
        value, unit = timings[name]
        base, base_unit = timings[baseline]
        ratio = value / base if base else float("inf")
        out.append({
            "figure": figure,
            "value": f"{value:.1f} {unit}",
            "baseline": f"{base:.1f} {base_unit} ({baseline})",
            "ratio": ratio,
            "target": f"<= {target:g}x" if target else "report",
            "met": (ratio <= target) if target else None,
        })
    for fig in figures:
        out.append(fig)
    return out


def ratio_text(row):
    """The ratio, or what was measured where a figure has none (a leak count,
    a section that failed); "-" for a figure the run does not have."""
    if not row:
        return "-"
    ratio = row.get("ratio")
    return f"{ratio:.2f}" if isinstance(ratio, (int, float)) else (row.get("value") or "-")


def compare(qt5_directory, qt6_directory):
    """The ratios of a Qt 5 run and a Qt 6 run side by side, by figure."""
    qt5 = rows(*load(qt5_directory))
    qt6 = {row.get("figure"): row for row in rows(*load(qt6_directory))}
    print("| Figure | Ratio, Qt 5 | Ratio, Qt 6 | Target |")
    print("|---|---|---|---|")
    for row in qt5:
        other = qt6.pop(row.get("figure"), None)
        print(f"| {row.get('figure', '')} | {ratio_text(row)} | {ratio_text(other)} | {row.get('target', '')} |")
    for figure, row in qt6.items():
        print(f"| {figure} | - | {ratio_text(row)} | {row.get('target', '')} |")


def main():
    if len(sys.argv) == 4 and sys.argv[1] == "--compare":
        compare(sys.argv[2], sys.argv[3])
        return
    directory = sys.argv[1] if len(sys.argv) > 1 else "build/bench-results"
    timings, figures = load(directory)
    table = rows(timings, figures)
    header = ("Figure", "Measured", "Baseline (same run)", "Ratio", "Target", "Met")
    lines = [header]
    for row in table:
        met = row.get("met")
        ratio = row.get("ratio")
        lines.append((row.get("figure", ""), row.get("value", ""), row.get("baseline", ""),
                      f"{ratio:.2f}" if isinstance(ratio, (int, float)) else "-",
                      row.get("target", ""), "yes" if met else ("no" if met is False else "-")))
    print("| " + " | ".join(lines[0]) + " |")
    print("|" + "|".join("---" for _ in lines[0]) + "|")
    for line in lines[1:]:
        print("| " + " | ".join(line) + " |")
    (pathlib.Path(directory) / "results.json").write_text(json.dumps(table, indent=2) + "\n")
    print(f"\nwritten: {pathlib.Path(directory) / 'results.json'}")


if __name__ == "__main__":
    main()
