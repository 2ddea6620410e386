#!/usr/bin/env python3
"""Corvix/raw ratios of the medians of one http_bench run.

    build-bench/bench/http_bench --benchmark_repetitions=5 --benchmark_enable_random_interleaving=true \
        --benchmark_out=http.json --benchmark_out_format=json
    bench/http_ratios.py http.json

For each case: the median wall time and CPU time per request of both sides, the requests per second of
Corvix relative to raw libcurl (raw wall time / Corvix wall time: 1.00 is as fast, below is slower), the
CPU per request of Corvix relative to raw (above 1.00 costs more), and each side's coefficient of
variation over the repetitions, which says how far to trust the ratio on a busy machine.
"""
import json
import sys


def main(path):
    with open(path) as f:
        runs = json.load(f)["benchmarks"]
    medians = {}
    spread = {}
    for run in runs:
        if run.get("run_type") != "aggregate":
            continue
        if run["aggregate_name"] == "median":
            medians[run["run_name"]] = run
        elif run["aggregate_name"] == "cv":
            spread[run["run_name"]] = run["real_time"]

    def pair(corvix_name, raw_name, label):
        corvix, raw = medians.get(corvix_name), medians.get(raw_name)
        if corvix is None or raw is None:
            return
        unit = corvix["time_unit"]
        print(f"{label:34} {corvix['real_time']:10.1f} {raw['real_time']:10.1f} {unit:3} "
              f"{corvix['cpu_time']:10.1f} {raw['cpu_time']:10.1f} {unit:3} "
              f"{raw['real_time'] / corvix['real_time']:7.2f} {corvix['cpu_time'] / raw['cpu_time']:7.2f}   "
              f"{spread.get(corvix_name, 0) * 100:4.0f}% {spread.get(raw_name, 0) * 100:4.0f}%")

    print(f"{'case':34} {'wall corvix':>10} {'raw':>10}     {'cpu corvix':>10} {'raw':>10}     "
          f"{'req/s':>7} {'cpu':>7}   {'cv corvix/raw':>13}")
    for bytes_ in (1024, 262144):
        for text in (1, 0):
            for threads in (1, 4):
                suffix = f"/bytes:{bytes_}/text:{text}/real_time/threads:{threads}"
                label = f"GET {bytes_ // 1024} KiB {'text' if text else 'discard'} {threads} thr"
                pair("BM_Get_Corvix" + suffix, "BM_Get_Raw" + suffix, label)
    for text in (1, 0):
        pair(f"BM_Download_Corvix/text:{text}/real_time", f"BM_Download_Raw/text:{text}/real_time",
             f"50 MiB {'text' if text else 'discard'}")
    pair("BM_Download_Corvix/text:1/real_time", "BM_Download_RawNoReserve/real_time",
         "50 MiB text vs raw without reserve")


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    main(sys.argv[1])
