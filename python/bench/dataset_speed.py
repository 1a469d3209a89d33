#!/usr/bin/env python3
"""Pictures per second of `qvn-dataset prepare` for 1, 2, ... all cores,
against a loop of one `qvn-kit preprocess` process per picture.

    python3 python/bench/dataset_speed.py [--count 200] [--dir /tmp/qvn-1080p]
    taskset -c 1 python3 python/bench/dataset_speed.py --jpeg [--count 60]

With --jpeg: 1920x1080 4:2:0 JPEGs made from the real photos of opencv-doc
(upscaled, quality 90), each converted in this process by the data set's
per-picture path (qvn_dataset.route.convert_picture: planes at full size,
planes with --reduce 4, the RGB route), and by the cv2 recipe (imread,
cvtColor, resize, rotate, CHW), the four one after another on every
picture; per-picture medians over --rounds passes, as pictures per second
of one core (pin it with taskset).

Generates COUNT 1920x1080 PNGs (gradients and noise) once, then times each
configuration on the same folder: nv21, rotate90r, 3x256x256. Every run
writes to a fresh output folder; the rate excludes starting the Dask cluster
(printed separately) and counts every picture.
"""
import argparse
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time
import zlib
import struct
from pathlib import Path

import numpy as np

ROOT = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ.get("QVN_BUILD_DIR", ROOT / "build" / "release"))
OPTS = ["--format", "nv21", "--orient", "rotate90r", "--tensor", "3x256x256"]


def write_png(path, pixels):
    h, w = pixels.shape[:2]
    rows = b"".join(b"\0" + pixels[r].tobytes() for r in range(h))

    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(
            ">I", zlib.crc32(kind + data) & 0xFFFFFFFF)

    Path(path).write_bytes(b"\x89PNG\r\n\x1a\n" +
                           chunk(b"IHDR", struct.pack(">IIBBBBB", w, h, 8, 2, 0, 0, 0)) +
                           chunk(b"IDAT", zlib.compress(rows, 1)) + chunk(b"IEND", b""))


def generate(folder, count):
    folder.mkdir(parents=True, exist_ok=True)
    have = len(list(folder.glob("*.png")))
    rng = np.random.default_rng(0)
    y, x = np.mgrid[0:1080, 0:1920]
    base = np.stack([x * 255 // 1919, y * 255 // 1079, (x + y) % 256], -1)
    for i in range(have, count):
        noise = rng.integers(-12, 13, base.shape)
        write_png(folder / f"p{i:04d}.png", np.clip(base + noise, 0, 255).astype(np.uint8))


def run_dataset(folder, workers):
    out = Path(tempfile.mkdtemp(prefix="qvn-ds-"))
    env = dict(os.environ, PYTHONPATH=os.pathsep.join([str(BUILD / "python"), str(ROOT / "python")]))
    done = subprocess.run([sys.executable, "-m", "qvn_dataset", "prepare", folder, out, *OPTS,
                           "--shard", "16", "--workers", str(workers)],
                          capture_output=True, text=True, env=env, check=True)
    shutil.rmtree(out)
    m = re.search(r"(\d+) pictures in ([\d.]+) s.*?([\d.]+) s of it starting", done.stdout)
    count, seconds, startup = int(m.group(1)), float(m.group(2)), float(m.group(3))
    return count / (seconds - startup), startup


def run_tool_loop(folder):
    pictures = sorted(folder.glob("*.png"))
    out = Path(tempfile.mkdtemp(prefix="qvn-tool-"))
    start = time.perf_counter()
    for i, p in enumerate(pictures):
        subprocess.run([BUILD / "tools" / "qvn-kit", "preprocess", p, out / f"{i}.npy", *OPTS],
                       check=True)
    seconds = time.perf_counter() - start
    shutil.rmtree(out)
    return len(pictures) / seconds


PHOTOS = ["aloeL.jpg", "building.jpg", "fruits.jpg", "baboon.jpg", "home.jpg", "lena.jpg",
          "pca_test1.jpg", "messi5.jpg", "leuvenA.jpg", "orange.jpg", "board.jpg", "apple.jpg"]


def generate_jpegs(folder, count):
    import cv2

    folder.mkdir(parents=True, exist_ok=True)
    data = Path("/usr/share/doc/opencv-doc/examples/data")
    photos = [data / p for p in PHOTOS if (data / p).exists()]
    for i in range(count):
        path = folder / f"j{i:04d}.jpg"
        if not path.exists():
            pic = cv2.resize(cv2.imread(str(photos[i % len(photos)])), (1920, 1080),
                             interpolation=cv2.INTER_CUBIC)
            cv2.imwrite(str(path), pic, [cv2.IMWRITE_JPEG_QUALITY, 90])
    return sorted(folder.glob("j*.jpg"))[:count]


def jpeg_per_picture(folder, count, rounds):
    import statistics

    import cv2
    import qvn_kit

    sys.path.insert(0, str(ROOT / "python"))
    from qvn_dataset.prepare import keep_freed_memory
    from qvn_dataset.route import convert_picture

    cv2.setNumThreads(1)
    keep_freed_memory()  # as a data-set worker does
    pictures = [str(p) for p in generate_jpegs(folder, count)]
    base = {"format": "nv21", "orient": "rotate90r", "tensor": [3, 256, 256], "crop": None,
            "bgr": False, "gray": False, "pad": 0}
    out = np.empty((3, 256, 256), np.uint8)

    def recipe(path):
        bgr = cv2.imread(path)
        rgb = cv2.cvtColor(bgr, cv2.COLOR_BGR2RGB)
        small = cv2.resize(rgb, (256, 256), interpolation=cv2.INTER_LINEAR)
        out[...] = cv2.rotate(small, cv2.ROTATE_90_CLOCKWISE).transpose(2, 0, 1)

    ways = {
        "planes, full size": lambda p: convert_picture(qvn_kit, p, dict(base, jpeg="planes",
                                                                        reduce=1), out),
        "planes, --reduce 4": lambda p: convert_picture(qvn_kit, p, dict(base, jpeg="planes",
                                                                         reduce=4), out),
        "RGB route (before)": lambda p: convert_picture(qvn_kit, p, dict(base, jpeg="rgb",
                                                                         reduce=1), out),
        "cv2 recipe": recipe,
    }
    # Wall time, and the thread's CPU time, which leaves out the time other
    # processes on the same core took (a shared machine).
    wall = {k: [] for k in ways}
    cpu = {k: [] for k in ways}
    for _ in range(rounds):
        for p in pictures:
            for name, way in ways.items():
                t0, c0 = time.perf_counter(), time.thread_time()
                way(p)
                c1, t1 = time.thread_time(), time.perf_counter()
                wall[name].append(t1 - t0)
                cpu[name].append(c1 - c0)
    print(f"{len(pictures)} JPEGs 1920x1080 4:2:0 -> nv21 rotate90r 3x256x256, one process, "
          f"{rounds} rounds, load average {os.getloadavg()[0]:.2f}; per picture, medians")
    for label, times in (("wall", wall), ("CPU", cpu)):
        med = {k: statistics.median(v) for k, v in times.items()}
        for name, m in med.items():
            print(f"  {label:4s} {name:20s} {m * 1e3:7.3f} ms  {1 / m:7.1f} pictures/s")
        for name in ("planes, full size", "planes, --reduce 4"):
            print(f"  {label:4s} {name} / cv2 recipe: {med['cv2 recipe'] / med[name]:.2f}x")


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--count", type=int, default=200)
    ap.add_argument("--dir", default="/tmp/qvn-1080p")
    ap.add_argument("--jpeg", action="store_true", help="the per-picture JPEG comparison only")
    ap.add_argument("--rounds", type=int, default=3)
    args = ap.parse_args()
    if args.jpeg:
        jpeg_per_picture(Path(args.dir + "-jpeg"), min(args.count, 60), args.rounds)
        return
    folder = Path(args.dir)
    generate(folder, args.count)
    cores = os.cpu_count() or 1
    print(f"{args.count} pictures 1920x1080 PNG -> nv21 rotate90r 3x256x256, {cores} cores, "
          f"load average {os.getloadavg()[0]:.2f}")
    print(f"  qvn-kit loop, one process a picture: {run_tool_loop(folder):7.2f} pictures/s")
    rate0, _ = run_dataset(folder, 0)
    print(f"  qvn-dataset --workers 0 (in process):  {rate0:7.2f} pictures/s")
    for workers in sorted({1, 2, cores}):
        rate, startup = run_dataset(folder, workers)
        print(f"  qvn-dataset --workers {workers}:             {rate:7.2f} pictures/s "
              f"(cluster start {startup:.1f} s)")
    print(f"  load average after: {os.getloadavg()[0]:.2f}")


if __name__ == "__main__":
    main()
