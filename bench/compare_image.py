#!/usr/bin/python3
"""Side-by-side timing of the scan upload path against the usual peers.

Two inputs, both generated here (no image comes from elsewhere):
  * a 12-megapixel (4032x3024) JPEG of a procedural outdoor scene: sky
    gradient with clouds, hills, a grassy textured ground, buildings with
    window grids and slanted roofs (hard edges and fine periodic detail,
    where a careless reduction aliases), thin wires and sensor noise;
    written by Pillow at quality 92 with 4:2:0 chroma;
  * the same picture decoded, as a raw 4032x3024 RGBA buffer.
The scene is softened by a Gaussian of BLUR_SIGMA pixels before the noise
is added, as a lens and demosaicing soften a camera's picture.

Every pipeline turns the input into a JPEG of at most 1000 pixels on the
long side at quality 100 with 4:2:0 chroma, on one core with every library
told to use one thread. In-process pipelines are timed inside their process
(start-up excluded), after one untimed run; command-line ones are timed as
whole processes (start-up included). Each output is scored by luma PSNR
against a Lanczos-3 resize, in floating point, of the full-resolution decode.

    /usr/bin/python3 bench/compare_image.py --helper build-bench/bin/zrkapi_image_compare

writes results.json and the two tables in --out, and the plot to --plot.
"""

import argparse
import io
import json
import os
import resource
import shutil
import statistics
import subprocess
import sys
import time

WIDTH, HEIGHT = 4032, 3024
LONGEST = 1000
BLUR_SIGMA = 0.7  # pixels
SCENE_VERSION = 4  # bump when the scene changes, so that a cached file is remade

APT_PACKAGES = ["libvips-dev", "libvips-tools", "python3-pil", "python3-opencv", "python3-numpy", "imagemagick",
                "python3-matplotlib"]

# One thread everywhere: these reach the libraries loaded here and the
# programs started from here.
SINGLE_THREAD_ENV = {"VIPS_CONCURRENCY": "1", "OMP_NUM_THREADS": "1", "MAGICK_THREAD_LIMIT": "1",
                     "OPENCV_FOR_THREADS_NUM": "1"}
os.environ.update(SINGLE_THREAD_ENV)


def ensure_peers():
    """Installs the peers from Debian's packages when something is missing."""
    missing = []
    for module in ("PIL", "cv2", "numpy", "matplotlib"):
        try:
            __import__(module)
        except ImportError:
            missing.append(module)
    for program in ("vipsthumbnail", "convert"):
        if not os.path.exists("/usr/bin/" + program):
            missing.append(program)
    if not missing:
        return
    if os.geteuid() != 0:
        sys.exit("missing %s; install: apt-get install %s" % (", ".join(missing), " ".join(APT_PACKAGES)))
    subprocess.run(["apt-get", "update", "-qq"], check=True)
    subprocess.run(["apt-get", "install", "-y", "-qq", "--no-install-recommends"] + APT_PACKAGES, check=True,
                   env=dict(os.environ, DEBIAN_FRONTEND="noninteractive"))


ensure_peers()

import cv2  # noqa: E402
import numpy as np  # noqa: E402
from PIL import Image  # noqa: E402

cv2.setNumThreads(0)  # OpenCV's own pool off: the calling thread does the work


# ------------------------------------------------------------------ the scene

def fractal_noise(rng, width, height, finest, coarsest, roughness=0.8):
    """Sum of bicubically enlarged random grids from `coarsest` down to
    `finest` pixels per cell; amplitude falls with the cell size as
    size ** roughness. Result roughly in [-1, 1]."""
    total = np.zeros((height, width), np.float32)
    norm = 0.0
    size = coarsest
    while size >= finest:
        grid = rng.standard_normal((height // size + 3, width // size + 3)).astype(np.float32)
        big = Image.fromarray(grid, "F").resize((grid.shape[1] * size, grid.shape[0] * size), Image.BICUBIC)
        amplitude = size ** roughness
        total += amplitude * np.asarray(big)[size:size + height, size:size + width]
        norm += amplitude
        size //= 2
    return total / (norm * 0.5)


def make_scene(seed=20240611):
    rng = np.random.default_rng(seed)
    h, w = HEIGHT, WIDTH
    y = np.arange(h, dtype=np.float32)[:, None] / h
    x = np.arange(w, dtype=np.float32)[None, :] / w
    img = np.zeros((h, w, 3), np.float32)

    # Sky: a gradient with soft clouds.
    sky = np.stack([80 + 120 * y, 130 + 90 * y, 200 + 40 * y], axis=-1) * np.ones((1, w, 1), np.float32)
    clouds = np.clip(fractal_noise(rng, w, h, 8, 512, 1.0) * 1.4 - 0.2, 0, 1)[..., None]
    img[:] = sky * (1 - clouds) + 235 * clouds

    # Hills: a rough horizon, and below it a textured ground whose grain gets
    # finer with distance (up the picture).
    horizon = (0.45 + 0.08 * fractal_noise(rng, w, 1, 4, 1024, 1.2)[0])[None, :] * h
    rows = np.arange(h, dtype=np.float32)[:, None]
    ground = rows > horizon
    grass_fine = fractal_noise(rng, w, h, 1, 32, 0.3)
    grass_coarse = fractal_noise(rng, w, h, 16, 256, 0.9)
    depth = np.clip((rows - horizon) / (h - horizon), 0, 1)
    shade = 0.75 + 0.25 * depth
    green = np.stack([70 + 30 * grass_coarse + 40 * grass_fine, 110 + 35 * grass_coarse + 50 * grass_fine,
                      45 + 20 * grass_coarse + 25 * grass_fine], axis=-1) * shade[..., None]
    img = np.where(ground[..., None], green, img)

    # Buildings: flat walls, window grids a few pixels apart, slanted roofs.
    for i in range(9):
        left = int(rng.integers(0, w - 500))
        bw = int(rng.integers(260, 620))
        top = int(h * rng.uniform(0.22, 0.42))
        bottom = int(h * rng.uniform(0.58, 0.78))
        wall = np.array(rng.uniform(90, 220, 3), np.float32)
        img[top:bottom, left:left + bw] = wall * (0.9 + 0.1 * grass_coarse[top:bottom, left:left + bw, None])
        pitch_x, pitch_y = int(rng.integers(9, 40)), int(rng.integers(11, 48))
        win = np.zeros((bottom - top, bw), bool)
        yy, xx = np.mgrid[0:bottom - top, 0:bw]
        win = ((xx % pitch_x) < pitch_x * 0.55) & ((yy % pitch_y) < pitch_y * 0.6) & (yy > 12) & (xx > 6) & (
            xx < bw - 6)
        glass = np.array([40, 55, 70], np.float32) + 120 * (rng.random() > 0.5) * (
            (xx + 2 * yy) % 97 < 40)[..., None]
        block = img[top:bottom, left:left + bw]
        block[win] = glass[win]
        # A roof: a triangle with anti-aliased slanted edges.
        peak = int(rng.integers(60, 220))
        ry, rx = np.mgrid[top - peak:top, left:left + bw].astype(np.float32)
        cx = left + bw / 2
        edge = (ry - (top - peak)) - peak * np.abs(rx - cx) / (bw / 2)
        cover = np.clip(edge + 0.5, 0, 1)[..., None]
        roof = np.array(rng.uniform(60, 160, 3), np.float32)
        img[top - peak:top, left:left + bw] = img[top - peak:top, left:left + bw] * (1 - cover) + roof * cover

    # Wires: thin dark anti-aliased lines across the sky.
    for i in range(5):
        y0, y1 = h * rng.uniform(0.05, 0.35), h * rng.uniform(0.05, 0.35)
        sag = h * rng.uniform(0.01, 0.05)
        cols = np.arange(w, dtype=np.float32)
        t = cols / w
        centre = y0 + (y1 - y0) * t + sag * 4 * t * (1 - t)
        for dy in range(-3, 4):
            r = np.clip(np.round(centre).astype(int) + dy, 0, h - 1)
            dist = np.abs(r - centre)
            cover = np.clip(1.2 - dist, 0, 1)[:, None]
            img[r, np.arange(w)] = img[r, np.arange(w)] * (1 - cover) + 25 * cover

    # The lens and the demosaicing soften detail at the pixel scale, as in
    # every camera photo; then vignetting and sensor noise, whose shot part
    # grows with brightness.
    img = cv2.GaussianBlur(img, (0, 0), BLUR_SIGMA)
    vignette = 1 - 0.25 * ((x - 0.5) ** 2 + (y - 0.5) ** 2) / 0.5
    img *= vignette[..., None]
    noise = rng.standard_normal(img.shape).astype(np.float32)
    img += noise * (1.5 + 0.012 * img)
    return np.clip(img + 0.5, 0, 255).astype(np.uint8)


def inputs(workdir):
    jpeg = os.path.join(workdir, "scene-%d.jpg" % SCENE_VERSION)
    rgba = os.path.join(workdir, "scene-%d.rgba" % SCENE_VERSION)
    if not (os.path.exists(jpeg) and os.path.exists(rgba)):
        rgb = make_scene()
        Image.fromarray(rgb).save(jpeg, "JPEG", quality=92, subsampling=2)  # 2 = 4:2:0
        decoded = Image.open(jpeg).convert("RGBA")
        with open(rgba, "wb") as f:
            f.write(decoded.tobytes())
    return jpeg, rgba


# ------------------------------------------------------------------ quality

def luma(rgb):
    return rgb[..., 0] * 0.299 + rgb[..., 1] * 0.587 + rgb[..., 2] * 0.114


class Reference:
    """Lanczos-3 (Pillow's LANCZOS, support widened by the reduction) in
    32-bit float per channel, from the full decode; one per output size."""

    def __init__(self, jpeg):
        self.channels = [c.convert("F") for c in Image.open(jpeg).convert("RGB").split()]
        self.cache = {}

    def luma(self, size):
        if size not in self.cache:
            planes = [np.asarray(c.resize(size, Image.LANCZOS)) for c in self.channels]
            self.cache[size] = luma(np.stack(planes, axis=-1))
        return self.cache[size]


def psnr(reference, output_bytes):
    out = Image.open(io.BytesIO(output_bytes)).convert("RGB")
    y = luma(np.asarray(out, np.float32))
    mse = float(np.mean((y - reference.luma(out.size)) ** 2))
    return (10 * np.log10(255.0 ** 2 / mse) if mse > 0 else float("inf")), out.size


# ------------------------------------------------------------------ pipelines

def fit(width, height):
    f = LONGEST / max(width, height)
    return max(1, round(width * f)), max(1, round(height * f))


def pillow_save(im):
    buf = io.BytesIO()
    im.save(buf, "JPEG", quality=100, subsampling=2)
    return buf.getvalue()


def cv_encode(bgr):
    params = [cv2.IMWRITE_JPEG_QUALITY, 100]
    if hasattr(cv2, "IMWRITE_JPEG_SAMPLING_FACTOR"):
        params += [cv2.IMWRITE_JPEG_SAMPLING_FACTOR, cv2.IMWRITE_JPEG_SAMPLING_FACTOR_420]
    ok, out = cv2.imencode(".jpg", bgr, params)
    assert ok
    return out.tobytes()


def pillow_thumbnail_exact(path):
    im = Image.open(path)
    im.thumbnail((LONGEST, LONGEST), Image.LANCZOS, reducing_gap=None)  # full decode, plain Lanczos
    return pillow_save(im)


def pillow_thumbnail_default(path):
    im = Image.open(path)
    im.thumbnail((LONGEST, LONGEST), Image.LANCZOS)  # draft() DCT reduction + reducing_gap=2 box pre-shrink
    return pillow_save(im)


def opencv_jpeg(flag, interpolation):
    def run(path):
        data = np.fromfile(path, np.uint8)
        img = cv2.imdecode(data, flag)
        return cv_encode(cv2.resize(img, fit(WIDTH, HEIGHT), interpolation=interpolation))
    return run


def pillow_rgba(raw):
    im = Image.frombuffer("RGBA", (WIDTH, HEIGHT), raw, "raw", "RGBA", 0, 1).convert("RGB")
    return pillow_save(im.resize(fit(WIDTH, HEIGHT), Image.LANCZOS))


def opencv_rgba(raw):
    rgba = np.frombuffer(raw, np.uint8).reshape(HEIGHT, WIDTH, 4)
    small = cv2.resize(rgba, fit(WIDTH, HEIGHT), interpolation=cv2.INTER_AREA)
    return cv_encode(cv2.cvtColor(small, cv2.COLOR_RGBA2BGR))


# Each timer gives (wall ms, CPU ms, output). CPU time is the process's (or
# the program's) own, which time-sharing with other work on the core does not
# inflate; the wall clock is what a user waits.

def time_in_process(fn, arg, runs):
    fn(arg)  # untimed: page cache, lazy set-up
    times, cpu, out = [], [], None
    for _ in range(runs):
        start, start_cpu = time.perf_counter(), time.process_time()
        out = fn(arg)
        times.append((time.perf_counter() - start) * 1000)
        cpu.append((time.process_time() - start_cpu) * 1000)
    return times, cpu, out


def time_helper(helper, pipeline, source, runs, workdir):
    out_path = os.path.join(workdir, pipeline + ".jpg")
    proc = subprocess.run([helper, pipeline, source, out_path, str(runs)], check=True, capture_output=True,
                          text=True)
    result = json.loads(proc.stdout)
    with open(out_path, "rb") as f:
        return result["ms"], result["cpu_ms"], f.read()


def time_command(argv, out_path, runs):
    subprocess.run(argv, check=True, capture_output=True)  # untimed: page cache
    times, cpu = [], []
    for _ in range(runs):
        before = resource.getrusage(resource.RUSAGE_CHILDREN)
        start = time.perf_counter()
        subprocess.run(argv, check=True, capture_output=True)
        times.append((time.perf_counter() - start) * 1000)
        after = resource.getrusage(resource.RUSAGE_CHILDREN)
        cpu.append((after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime) * 1000)
    with open(out_path, "rb") as f:
        return times, cpu, f.read()


def versions():
    def first_line(argv):
        try:
            return subprocess.run(argv, capture_output=True, text=True).stdout.splitlines()[0].strip()
        except (OSError, IndexError):
            return "?"
    import PIL
    return {"pillow": PIL.__version__, "opencv": cv2.__version__, "numpy": np.__version__,
            "vips": first_line(["vips", "--version"]), "imagemagick": first_line(["/usr/bin/convert", "-version"])}


def write_results(out, results, tables):
    """results.json and tables.md (made by `tables` from the results) in
    OUT; the tables are printed too."""
    with open(os.path.join(out, "results.json"), "w") as f:
        json.dump(results, f, indent=1)
    markdown = tables(results)
    with open(os.path.join(out, "tables.md"), "w") as f:
        f.write(markdown)
    print(markdown)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--helper", required=True, help="the zrkapi_image_compare program")
    parser.add_argument("--runs", type=int, default=9, help="timed runs per pipeline (at least 7)")
    parser.add_argument("--out", default="build-bench/compare", help="directory for inputs, outputs and results")
    parser.add_argument("--plot", default="docs/benchmarks-image.png", help="PNG to write the plot to")
    parser.add_argument("--cpu", type=int, default=1, help="the one CPU everything runs on")
    args = parser.parse_args()
    runs = max(7, args.runs)
    args.out = os.path.abspath(args.out)  # vipsthumbnail reads a relative -o from the input's directory
    os.makedirs(args.out, exist_ok=True)
    if hasattr(os, "sched_setaffinity") and args.cpu in os.sched_getaffinity(0):
        os.sched_setaffinity(0, {args.cpu})  # children inherit it

    jpeg, rgba = inputs(args.out)
    with open(rgba, "rb") as f:
        raw = f.read()
    reference = Reference(jpeg)
    out = lambda name: os.path.join(args.out, name)  # noqa: E731

    vips_cli_out = out("vipsthumbnail.jpg")
    magick_out = out("convert.jpg")
    magick_hint_out = out("convert-jpeg-size.jpg")
    jpeg_rows = [
        ("zrkapi (scan upload path)", "in process", lambda: time_helper(args.helper, "ours-jpeg", jpeg, runs, args.out)),
        ("libvips vips_thumbnail_buffer", "in process",
         lambda: time_helper(args.helper, "vips-jpeg", jpeg, runs, args.out)),
        ("vipsthumbnail", "program", lambda: time_command(
            ["vipsthumbnail", jpeg, "-s", str(LONGEST), "-o", vips_cli_out + "[Q=100,subsample_mode=on]"],
            vips_cli_out, runs)),
        ("Pillow thumbnail, LANCZOS, full decode", "in process",
         lambda: time_in_process(pillow_thumbnail_exact, jpeg, runs)),
        ("Pillow thumbnail, LANCZOS, draft + reducing_gap=2 (defaults)", "in process",
         lambda: time_in_process(pillow_thumbnail_default, jpeg, runs)),
        ("OpenCV imdecode + INTER_AREA", "in process",
         lambda: time_in_process(opencv_jpeg(cv2.IMREAD_COLOR, cv2.INTER_AREA), jpeg, runs)),
        ("OpenCV IMREAD_REDUCED_COLOR_2 + INTER_AREA", "in process",
         lambda: time_in_process(opencv_jpeg(cv2.IMREAD_REDUCED_COLOR_2, cv2.INTER_AREA), jpeg, runs)),
        ("OpenCV IMREAD_REDUCED_COLOR_4 + INTER_AREA", "in process",
         lambda: time_in_process(opencv_jpeg(cv2.IMREAD_REDUCED_COLOR_4, cv2.INTER_AREA), jpeg, runs)),
        ("OpenCV IMREAD_REDUCED_COLOR_8 + INTER_CUBIC (enlarges 504 px)", "in process",
         lambda: time_in_process(opencv_jpeg(cv2.IMREAD_REDUCED_COLOR_8, cv2.INTER_CUBIC), jpeg, runs)),
        ("ImageMagick convert -resize", "program", lambda: time_command(
            ["/usr/bin/convert", jpeg, "-resize", "%dx%d" % (LONGEST, LONGEST), "-quality", "100",
             "-sampling-factor", "4:2:0", magick_out], magick_out, runs)),
        ("ImageMagick convert -define jpeg:size -resize", "program", lambda: time_command(
            ["/usr/bin/convert", "-define", "jpeg:size=%dx%d" % tuple(2 * s for s in fit(WIDTH, HEIGHT)), jpeg, "-resize",
             "%dx%d" % (LONGEST, LONGEST), "-quality", "100", "-sampling-factor", "4:2:0", magick_hint_out],
            magick_hint_out, runs)),
    ]
    rgba_rows = [
        ("zrkapi (scan upload path)", "in process", lambda: time_helper(args.helper, "ours-rgba", rgba, runs, args.out)),
        ("libvips thumbnail_image from memory", "in process",
         lambda: time_helper(args.helper, "vips-rgba", rgba, runs, args.out)),
        ("Pillow frombuffer + resize LANCZOS", "in process", lambda: time_in_process(pillow_rgba, raw, runs)),
        ("OpenCV resize INTER_AREA + cvtColor", "in process", lambda: time_in_process(opencv_rgba, raw, runs)),
    ]

    results = {"runs": runs, "cpu": args.cpu, "versions": versions(),
               "input": {"jpeg_bytes": os.path.getsize(jpeg), "width": WIDTH, "height": HEIGHT}}
    for key, rows in (("jpeg", jpeg_rows), ("rgba", rgba_rows)):
        table = []
        for name, kind, run in rows:
            times, cpu, output = run()
            quality, size = psnr(reference, output)
            table.append({"pipeline": name, "kind": kind, "median_ms": statistics.median(times), "ms": times,
                          "median_cpu_ms": statistics.median(cpu), "cpu_ms": cpu,
                          "psnr_db": quality, "size": list(size), "bytes": len(output)})
            print("%-64s %9.1f ms %9.1f ms CPU %6.1f dB  %dx%d" % (
                name, table[-1]["median_ms"], table[-1]["median_cpu_ms"], quality, size[0], size[1]), flush=True)
        results[key] = table

    write_results(args.out, results, tables)
    if args.plot:
        plot(results, args.plot)


def tables(results):
    lines = []
    for key, title in (("jpeg", "12-megapixel JPEG file (%.1f MB) to upload JPEG" % (
            results["input"]["jpeg_bytes"] / 1e6)), ("rgba", "Decoded 4032x3024 RGBA buffer to upload JPEG")):
        ours = results[key][0]["median_ms"]
        lines += ["", "**%s**" % title, "",
                  "| Pipeline | Timed | Median ms | vs zrkapi | Median CPU ms | Luma PSNR dB | Output |",
                  "|---|---|---:|---:|---:|---:|---|"]
        for row in sorted(results[key], key=lambda r: r["median_ms"]):
            lines.append("| %s | %s | %.1f | %.2fx | %.1f | %.1f | %dx%d, %d KB |" % (
                row["pipeline"], row["kind"], row["median_ms"], row["median_ms"] / ours, row["median_cpu_ms"],
                row["psnr_db"], row["size"][0], row["size"][1], row["bytes"] // 1000))
    return "\n".join(lines) + "\n"


def plot(results, path):
    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    fig, axes = plt.subplots(2, 1, figsize=(10, 9), gridspec_kw={"height_ratios": [len(results["jpeg"]),
                                                                                    len(results["rgba"])]})
    for ax, key, title in ((axes[0], "jpeg", "12-megapixel JPEG to upload JPEG (one core)"),
                           (axes[1], "rgba", "Decoded 4032x3024 RGBA to upload JPEG (one core)")):
        rows = sorted(results[key], key=lambda r: -r["median_ms"])
        names = [r["pipeline"] + (" *" if r["kind"] == "program" else "") for r in rows]
        colours = ["#d95f02" if r["pipeline"].startswith("zrkapi") else
                   ("#bbbbbb" if r["psnr_db"] < 48 else "#1b9e77") for r in rows]
        bars = ax.barh(names, [r["median_ms"] for r in rows], color=colours)
        for bar, r in zip(bars, rows):
            ax.text(bar.get_width(), bar.get_y() + bar.get_height() / 2, " %.1f ms, %.1f dB" % (
                r["median_ms"], r["psnr_db"]), va="center", fontsize=8)
        ax.set_title(title, fontsize=10)
        ax.set_xlabel("median milliseconds, log scale (lower is better)")
        ax.set_xscale("log")
        ax.set_xlim(min(r["median_ms"] for r in rows) * 0.5, max(r["median_ms"] for r in rows) * 6)
        ax.tick_params(axis="y", labelsize=8)
    fig.text(0.01, 0.005, "* whole program, start-up included. Grey: luma PSNR below 48 dB against a float "
             "Lanczos-3 of the full decode.", fontsize=7)
    fig.tight_layout(rect=(0, 0.02, 1, 1))
    os.makedirs(os.path.dirname(path) or ".", exist_ok=True)
    fig.savefig(path, dpi=110)


if __name__ == "__main__":
    main()
