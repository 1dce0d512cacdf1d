#!/usr/bin/env python3
"""zrk scan of a folder of generated photos against zrk-emulator on loopback.

Writes a set of 12-megapixel photos once (zrk-make-samples --photos N: most
show a seed poster, every fifth one a poster the seed does not hold), starts
zrk-emulator with the sample seed, and runs `zrk --json scan DIR --jobs J`
for each J, several times. Reported per J: scans per second (median of the
runs) and where a scan's time goes:

- recognition: the emulator's own time per scan (`durationMs` of its
  request log, from its Server-Timing);
- the client's side: the rest of a scan's time from start to answer (what
  zrk reports per scan): preparing the photo on the library's worker pool,
  the upload on loopback, the hand-offs between the library's threads, and
  waiting for a core or a worker when scans outnumber them;
- for scale, preparation alone: `zrk prepare` of every photo, one process
  after another, next to a process that does nothing (`zrk --version`).

Uses only the standard library.

  python3 bench/folder_scan.py --build build-bench [--photos 200] [--jobs 1,2,4,8] [--runs 3]
"""
import argparse
import json
import os
import statistics
import subprocess
import sys
import tempfile
import time
import urllib.request

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def run(command, **kwargs):
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, **kwargs)


def photo_set(build, count):
    folder = os.path.join(build, "folder-scan", f"photos-{count}")
    stamp = os.path.join(folder, ".complete")
    if not os.path.exists(stamp):
        started = time.monotonic()
        run([os.path.join(build, "bin", "zrk-make-samples"), "--photos", str(count), folder])
        open(stamp, "w").close()
        print(f"wrote {count} photos to {folder} in {time.monotonic() - started:.0f} s", flush=True)
    return folder


class Emulator:
    def __init__(self, build):
        self.out = tempfile.NamedTemporaryFile("w+", prefix="zrk-emulator-", suffix=".out")
        self.process = subprocess.Popen(
            [os.path.join(build, "bin", "zrk-emulator"), "--port", "0", "--seed",
             os.path.join(ROOT, "emulator", "samples", "seed")],
            stdout=self.out, stderr=subprocess.DEVNULL)
        for _ in range(300):
            self.out.seek(0)
            line = self.out.readline()
            if line.startswith("zrk-emulator listening on "):
                self.url = line.split(" on ", 1)[1].strip()
                return
            if self.process.poll() is not None:
                break
            time.sleep(0.1)
        raise RuntimeError("zrk-emulator did not start")

    def requests(self):
        with urllib.request.urlopen(self.url + "/__emulator/requests") as answer:
            return json.load(answer)["requests"]

    def stop(self):
        self.process.terminate()
        self.process.wait(timeout=20)


def preparation_ms(zrk, photos):
    """Median time of a `zrk prepare` process per photo, of a `zrk --version`
    process, and the upload JPEG's mean size."""
    def timed(command):
        started = time.perf_counter()
        run(command)
        return (time.perf_counter() - started) * 1000
    startup = statistics.median(timed([zrk, "--version"]) for _ in range(20))
    with tempfile.TemporaryDirectory() as scratch:
        output = os.path.join(scratch, "upload.jpg")
        each, sizes = [], []
        for photo in photos:
            each.append(timed([zrk, "prepare", photo, "-o", output]))
            sizes.append(os.path.getsize(output))
    return statistics.median(each), startup, statistics.mean(sizes)


def scan_run(zrk, emulator, folder, jobs, count):
    seen = {entry["sequence"] for entry in emulator.requests()}
    started = time.perf_counter()
    done = subprocess.run([zrk, "--base-url", emulator.url, "--key", "demo-key", "--secret", "demo-secret",
                           "--json", "scan", folder, "--jobs", str(jobs)],
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    wall = time.perf_counter() - started
    lines = [json.loads(line) for line in done.stdout.splitlines()]
    summary = lines[-1]["summary"]
    if done.returncode != 0 or summary["scans"] != count:
        raise RuntimeError(f"zrk scan --jobs {jobs} exited {done.returncode}: {done.stderr.strip()}")
    scans = [entry for entry in emulator.requests()
             if entry["sequence"] not in seen and entry["path"].startswith("/app/v1/scan")]
    return {
        "rate": summary["scansPerSecond"],
        "wall": wall,
        "scan_ms": statistics.mean(line["seconds"] for line in lines[:-1]) * 1000,
        "recognition_ms": statistics.mean(entry["durationMs"] for entry in scans),
        "upload_bytes": statistics.mean(entry["bodySize"] for entry in scans),
        "matched": summary["matched"],
        "no_match": summary["noMatch"],
        "slowest_ms": summary["slowest"]["seconds"] * 1000,
    }


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--build", default=os.path.join(ROOT, "build-bench"))
    parser.add_argument("--photos", type=int, default=200)
    parser.add_argument("--jobs", default="1,2,4,8")
    parser.add_argument("--runs", type=int, default=3)
    parser.add_argument("--json", help="write the raw figures here")
    args = parser.parse_args()

    zrk = os.path.join(args.build, "bin", "zrk")
    folder = photo_set(args.build, args.photos)
    photos = sorted(os.path.join(folder, name) for name in os.listdir(folder) if name.endswith(".jpg"))
    megabytes = sum(os.path.getsize(photo) for photo in photos) / len(photos) / 1e6
    print(f"{len(photos)} photos, {megabytes:.1f} MB each on average; load before: {os.getloadavg()[0]:.2f}")

    prepare, startup, upload = preparation_ms(zrk, photos)
    print(f"zrk prepare, one process a photo: {prepare:.1f} ms (zrk --version: {startup:.1f} ms); "
          f"upload JPEG {upload / 1000:.0f} kB", flush=True)

    emulator = Emulator(args.build)
    results = {}
    try:
        for jobs in (int(j) for j in args.jobs.split(",")):
            runs = [scan_run(zrk, emulator, folder, jobs, len(photos)) for _ in range(args.runs)]
            results[jobs] = runs
            print(f"--jobs {jobs}: " + ", ".join(f"{r['rate']:.1f}" for r in runs) + " scans/s", flush=True)
    finally:
        emulator.stop()

    print()
    print("| --jobs | scans/s | per scan, start to answer | recognition (emulator) "
          "| client side: preparation, upload, hand-offs, waiting |")
    print("|---:|---:|---:|---:|---:|")
    for jobs, runs in results.items():
        median = sorted(runs, key=lambda r: r["rate"])[len(runs) // 2]  # the median run by rate
        print(f"| {jobs} | {median['rate']:.1f} | {median['scan_ms']:.0f} ms | {median['recognition_ms']:.0f} ms "
              f"| {median['scan_ms'] - median['recognition_ms']:.0f} ms |")
    first = next(iter(results.values()))[0]
    print(f"\nanswers: {first['matched']} matched, {first['no_match']} not matched; "
          f"load after: {os.getloadavg()[0]:.2f}")
    if args.json:
        with open(args.json, "w") as out:
            json.dump({"preparation_ms": prepare, "startup_ms": startup, "upload_bytes": upload,
                       "runs": results}, out, indent=2)


if __name__ == "__main__":
    sys.exit(main())
