#!/usr/bin/python3
"""The image path as a person meets it: whole programs and first runs.

Two measurements, on one core, every contender run in turn within one loop
so that a change in the machine's load hits all of them alike:

  * whole programs: `zrk prepare` against `vipsthumbnail` (same file, same
    output: at most 1000 pixels a side, quality 100, 4:2:0), each run a fresh
    process, start-up included; also `zrk --version` and `vipsthumbnail
    --help` for what starting costs;
  * first against warm: `zrkapi_imagepath_cold` prepares the file once in a
    fresh process, then RUNS more times; its first run is what an
    application's first scan costs, the median of the rest the warm figure
    the in-process benchmarks report.

Two inputs: the textured scene of compare_image.py (3.0 MB) and a noisy
low-light photo of the same scene (about 2.6 MB), each 4032x3024. Every
output is scored by luma PSNR against a float Lanczos-3 of the full decode.

    /usr/bin/python3 bench/imagepath_programs.py --zrk build-bench/bin/zrk \
        --cold build-bench/bin/zrkapi_imagepath_cold

--before-zrk and --before-cold add an earlier build to the same rounds, for
a before-and-after comparison measured side by side.
"""

import argparse
import json
import os
import resource
import statistics
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import compare_image as scene  # noqa: E402  (installs the peers when missing)

import numpy as np  # noqa: E402
from PIL import Image  # noqa: E402

NOISY_VERSION = 1


def noisy_photo(workdir):
    """The scene as a phone takes it in dim light: a third of the exposure,
    amplified back, so the sensor's noise is amplified with it (about 2.6 MB
    at quality 87)."""
    path = os.path.join(workdir, "noisy-%d.jpg" % NOISY_VERSION)
    if not os.path.exists(path):
        clean, _ = scene.inputs(workdir)
        rgb = np.asarray(Image.open(clean).convert("RGB"), np.float32)
        rng = np.random.default_rng(7)
        noise = rng.standard_normal(rgb.shape).astype(np.float32)
        noisy = rgb + noise * (1.8 + 0.015 * rgb)
        Image.fromarray(np.clip(noisy + 0.5, 0, 255).astype(np.uint8)).save(path, "JPEG", quality=87,
                                                                              subsampling=2)
    return path


def run(argv):
    """Wall and CPU milliseconds of one whole process."""
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    start = time.perf_counter()
    subprocess.run(argv, check=True, capture_output=True)
    wall = (time.perf_counter() - start) * 1000
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    return wall, (after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime) * 1000


def median(pairs, i):
    return statistics.median(p[i] for p in pairs)


def cold_runs(program, jpeg):
    proc = subprocess.run([program, jpeg, "9"], check=True, capture_output=True, text=True)
    cold = json.loads(proc.stdout)
    return (cold["first_ms"], statistics.median(cold["warm_ms"]), cold["first_cpu_ms"],
            statistics.median(cold["warm_cpu_ms"]))


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--zrk", required=True, help="the zrk program")
    parser.add_argument("--cold", required=True, help="the zrkapi_imagepath_cold program")
    parser.add_argument("--before-zrk", help="zrk of an earlier build, measured in the same rounds")
    parser.add_argument("--before-cold", help="zrkapi_imagepath_cold built against an earlier library")
    parser.add_argument("--runs", type=int, default=15, help="rounds (each runs every contender once)")
    parser.add_argument("--out", default="build-bench/imagepath", help="directory for outputs and results")
    parser.add_argument("--inputs", help="directory holding (or to hold) the inputs; default --out")
    parser.add_argument("--cpu", type=int, default=1, help="the one CPU everything runs on")
    args = parser.parse_args()
    args.out = os.path.abspath(args.out)
    os.makedirs(args.out, exist_ok=True)
    if hasattr(os, "sched_setaffinity") and args.cpu in os.sched_getaffinity(0):
        os.sched_setaffinity(0, {args.cpu})  # children inherit it

    inputs_dir = os.path.abspath(args.inputs or args.out)
    os.makedirs(inputs_dir, exist_ok=True)
    scene_jpeg, _ = scene.inputs(inputs_dir)
    inputs = [("textured scene", scene_jpeg), ("noisy photo", noisy_photo(inputs_dir))]
    builds = [("zrkapi", args.zrk, args.cold)]
    if args.before_zrk and args.before_cold:
        builds.append(("before", args.before_zrk, args.before_cold))
    results = {"runs": args.runs, "cpu": args.cpu, "load_before": os.getloadavg(), "inputs": []}

    starts = {"vipsthumbnail --help": ["vipsthumbnail", "--help"]}
    for build, zrk, _ in builds:
        starts["zrk --version" + ("" if build == "zrkapi" else " (before)")] = [zrk, "--version"]
    start_times = {name: [] for name in starts}
    for name, argv in starts.items():
        run(argv)  # page cache
    for _ in range(args.runs):
        for name, argv in starts.items():
            start_times[name].append(run(argv))
    results["start"] = {name: {"median_ms": median(t, 0), "median_cpu_ms": median(t, 1)}
                        for name, t in start_times.items()}

    for label, jpeg in inputs:
        reference = scene.Reference(jpeg)
        programs, outputs = {}, {}
        for build, zrk, _ in builds:
            name = "zrk prepare" + ("" if build == "zrkapi" else " (before)")
            outputs[name] = os.path.join(args.out, "zrk-prepare-%s.jpg" % build)
            programs[name] = [zrk, "prepare", jpeg, "-o", outputs[name]]
        outputs["vipsthumbnail"] = os.path.join(args.out, "vipsthumbnail.jpg")
        programs["vipsthumbnail"] = ["vipsthumbnail", jpeg, "-s", str(scene.LONGEST), "-o",
                                     outputs["vipsthumbnail"] + "[Q=100,subsample_mode=on]"]
        times = {name: [] for name in programs}
        cold = {build: [] for build, _, _ in builds}
        for argv in programs.values():
            run(argv)  # page cache
        for _ in range(args.runs):
            for name, argv in programs.items():
                times[name].append(run(argv))
            for build, _, program in builds:
                cold[build].append(cold_runs(program, jpeg))
        entry = {"input": label, "path": jpeg, "bytes": os.path.getsize(jpeg), "programs": {}, "cold": {}}
        for name, out in outputs.items():
            with open(out, "rb") as f:
                quality, size = scene.psnr(reference, f.read())
            entry["programs"][name] = {"median_ms": median(times[name], 0), "median_cpu_ms": median(times[name], 1),
                                       "runs": times[name], "psnr_db": quality, "size": list(size)}
        for build, runs in cold.items():
            entry["cold"][build] = {"first_ms": median(runs, 0), "warm_ms": median(runs, 1),
                                    "first_cpu_ms": median(runs, 2), "warm_cpu_ms": median(runs, 3), "runs": runs}
        results["inputs"].append(entry)
        ours, vips, mine = entry["programs"]["zrk prepare"], entry["programs"]["vipsthumbnail"], entry["cold"]["zrkapi"]
        print("%-15s %.1f MB: zrk prepare %.1f ms (CPU %.1f, %.1f dB), vipsthumbnail %.1f ms (CPU %.1f, %.1f dB), "
              "%.2fx; first %.1f ms, warm %.1f ms, %.2fx" % (
                  label, entry["bytes"] / 1e6, ours["median_ms"], ours["median_cpu_ms"], ours["psnr_db"],
                  vips["median_ms"], vips["median_cpu_ms"], vips["psnr_db"], vips["median_ms"] / ours["median_ms"],
                  mine["first_ms"], mine["warm_ms"], mine["first_ms"] / mine["warm_ms"]), flush=True)
    results["load_after"] = os.getloadavg()
    scene.write_results(args.out, results, tables)


def tables(results):
    lines = ["", "Load average %.2f before, %.2f after; medians of %d rounds on CPU %d." % (
        results["load_before"][0], results["load_after"][0], results["runs"], results["cpu"]), "",
        "| Input | Program | ms | CPU ms | vipsthumbnail / it (CPU) | Luma PSNR dB |", "|---|---|---:|---:|---:|---:|"]
    for e in results["inputs"]:
        vips = e["programs"]["vipsthumbnail"]
        for name, p in e["programs"].items():
            lines.append("| %s, %.1f MB | `%s` | %.1f | %.1f | %.2fx (%.2fx) | %.1f |" % (
                e["input"], e["bytes"] / 1e6, name, p["median_ms"], p["median_cpu_ms"],
                vips["median_ms"] / p["median_ms"], vips["median_cpu_ms"] / p["median_cpu_ms"], p["psnr_db"]))
    lines += ["", "| Start-up alone | ms | CPU ms |", "|---|---:|---:|"]
    for name, t in results["start"].items():
        lines.append("| `%s` | %.1f | %.1f |" % (name, t["median_ms"], t["median_cpu_ms"]))
    lines += ["", "| Input | Build | first preparation ms (CPU) | warm ms (CPU) | first / warm (CPU) |",
              "|---|---|---:|---:|---:|"]
    for e in results["inputs"]:
        for build, c in e["cold"].items():
            lines.append("| %s | %s | %.1f (%.1f) | %.1f (%.1f) | %.2fx (%.2fx) |" % (
                e["input"], build, c["first_ms"], c["first_cpu_ms"], c["warm_ms"], c["warm_cpu_ms"],
                c["first_ms"] / c["warm_ms"], c["first_cpu_ms"] / c["warm_cpu_ms"]))
    return "\n".join(lines) + "\n"

if __name__ == "__main__":
    main()
