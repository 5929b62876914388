#!/usr/bin/env python3
"""Runs this library's benchmarks and its peers in turn and prints one table.

Programs run alternately (A B C A B C ...), several rounds, and each row keeps its best round: absolute
times drift on shared machines, ratios within one call of this command do not. Memory-bound rows are rated by
the share of the bandwidth that a plain copy reaches in the same run, products by the share of the measured
multiply-add peak.

Build first: cmake --preset release -DORNIK_BUILD_BENCH=ON && cmake --build --preset release
"""

import argparse
import json
import os
import pathlib
import re
import subprocess
import sys

PROGRAMS = ("bench_ornik", "bench_peer", "bench_onednn", "bench_machine")


def run_once(program, options):
    """Rows of one run, with the best time of all repetitions: name -> (microseconds, bytes, flops, peak memory)."""
    command = [
        str(program),
        "--benchmark_format=json",
        f"--benchmark_min_time={options.min_time}",
        f"--benchmark_repetitions={options.repetitions}",
        # A machine slows down for seconds at a time: rows that are compared must meet the same seconds.
        "--benchmark_enable_random_interleaving=true",
    ]
    if options.filter:
        # The rows that rate the others always run.
        own = program.name == "bench_machine"
        extra = "|^copy/existing/real_time$|^peak/" if own else ""
        command.append(f"--benchmark_filter={options.filter}{extra}")
    environment = dict(os.environ, OMP_NUM_THREADS=str(len(os.sched_getaffinity(0))))
    result = subprocess.run(command, capture_output=True, text=True, env=environment, check=False)
    if result.returncode != 0:
        sys.exit(f"{program} failed:\n{result.stderr}")
    rows = {}
    if result.stdout.strip():
        for row in json.loads(result.stdout)["benchmarks"]:
            name = re.sub("/(real_time|iterations:[0-9]+)$", "", row["run_name"])
            if row["run_type"] == "iteration" and (name not in rows or row["real_time"] < rows[name][0]):
                counters = (row.get(counter, 0) for counter in ("bytes", "flops", "peak"))
                rows[name] = (row["real_time"], *counters)
    return rows


def best_rows(programs, options):
    """For each program, its rows with the best time of all rounds."""
    best = {name: {} for name in programs}
    for round_number in range(options.rounds):
        for name, path in programs.items():
            print(f"round {round_number + 1}/{options.rounds}: {name}", file=sys.stderr)
            for row, measured in run_once(path, options).items():
                if row not in best[name] or measured[0] < best[name][row][0]:
                    best[name][row] = measured
    return best


def in_units(microseconds):
    return f"{microseconds / 1000:.2f} ms" if microseconds >= 1000 else f"{microseconds:.2f} us"


def rate(own, machine):
    """How close a row of ours comes to what the machine can do."""
    microseconds, moved, flops, peak_memory = own
    if peak_memory:
        return f"{peak_memory / 1e6:.2f} MB at most"
    if moved and "copy/existing" in machine:
        copy_time, copy_bytes, *_ = machine["copy/existing"]
        return f"{100 * moved / microseconds / (copy_bytes / copy_time):.0f} % of copy bandwidth"
    if flops and "peak/multiply_add" in machine:
        peak_time, _, peak_flops, *_ = machine["peak/multiply_add"]
        speed = flops / microseconds
        return f"{speed / 1000:.0f} GFLOP/s, {100 * speed / (peak_flops / peak_time):.0f} % of peak"
    return ""


def table(best):
    own, peer, onednn, machine = (best.get(name, {}) for name in PROGRAMS)
    peers = {"peer": peer, "oneDNN": onednn} if onednn else {"peer": peer}
    heads = [column for name in peers for column in (name, f"{name}/ornik")]
    lines = [("row", "ornik", *heads, "direct", "rating")]
    for name in list(own) + [row for row in peer if row not in own]:
        columns = [name, in_units(own[name][0]) if name in own else "-"]
        for rows in peers.values():
            columns.append(in_units(rows[name][0]) if name in rows else "-")
            columns.append(f"{rows[name][0] / own[name][0]:.2f}" if name in own and name in rows else "-")
        columns.append(in_units(machine[name][0]) if name in machine else "-")
        columns.append(rate(own[name], machine) if name in own else "")
        lines.append(tuple(columns))
    widths = [max(len(line[i]) for line in lines) for i in range(len(lines[0]))]
    return "\n".join("  ".join(cell.ljust(width) for cell, width in zip(line, widths)).rstrip() for line in lines)


def main():
    root = pathlib.Path(__file__).resolve().parent.parent
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", type=pathlib.Path, default=root / "build/release/bench", help="folder of the programs")
    parser.add_argument("--rounds", type=int, default=3, help="runs of each program (default 3)")
    parser.add_argument("--filter", default="", help="regular expression: only the rows it matches")
    parser.add_argument("--min-time", type=float, default=0.2, help="seconds per row and measurement (default 0.2)")
    parser.add_argument(
        "--repetitions", type=int, default=1, help="measurements of a row in each run; the best counts (default 1)"
    )
    parser.add_argument("--json", type=pathlib.Path, help="write the measurements to this file, too")
    options = parser.parse_args()

    programs = {name: options.build / name for name in PROGRAMS if (options.build / name).exists()}
    if "bench_ornik" not in programs:
        sys.exit(f"{options.build} has no benchmarks; build them with -DORNIK_BUILD_BENCH=ON")
    if "bench_peer" not in programs:
        print("No peer: libtorch was not there when the benchmarks were built.", file=sys.stderr)
    best = best_rows(programs, options)
    print(table(best))
    if options.json:
        options.json.write_text(json.dumps(best, indent=1), encoding="utf-8")


if __name__ == "__main__":
    main()
